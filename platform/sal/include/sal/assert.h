// Assertions that stay active in every build type, release included.
//
// A failure prints the standard assertion line to stderr,
//   "<program>: <file>:<line>: <function>: Assertion `<expression>' failed."
// and aborts the process. SAL_ASSERT reports where it stands; SAL_ASSERT_AT reports a location given
// by the caller, for checks whose line names a fixed file, line and function text.
#ifndef SAL_ASSERT_H
#define SAL_ASSERT_H

#include <sal/sal_export.h>

namespace sal {
[[noreturn]] SAL_EXPORT void assertionFailed(const char* expression, const char* file, unsigned int line,
                                             const char* function);
}  // namespace sal

#define SAL_ASSERT(expr) \
    ((expr) ? static_cast<void>(0) : ::sal::assertionFailed(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#define SAL_ASSERT_AT(expr, file, line, function) \
    ((expr) ? static_cast<void>(0) : ::sal::assertionFailed(#expr, file, line, function))

#endif  // SAL_ASSERT_H
