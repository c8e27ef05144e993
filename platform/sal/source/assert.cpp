#include <sal/assert.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace sal {

// The line has the layout of the C library's own assertion message, so that log scanners and
// death tests that know that layout read ours too. It is written with one write() so that it stays
// whole when several threads fail at once.
void assertionFailed(const char* expression, const char* file, unsigned int line, const char* function) {
    std::string message;
    if (program_invocation_short_name != nullptr && *program_invocation_short_name != '\0') {
        message += program_invocation_short_name;
        message += ": ";
    }
    message += file;
    message += ':';
    message += std::to_string(line);
    message += ": ";
    message += function;
    message += ": Assertion `";
    message += expression;
    message += "' failed.\n";
    const ssize_t ignored = ::write(STDERR_FILENO, message.data(), message.size());
    (void)ignored;
    std::abort();
}

}  // namespace sal
