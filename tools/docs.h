// The manual page and the bash completion of the tool, made from its command table
// (commandtable.h), so that they list exactly the commands and options the parser takes. The
// copies kept in tools/share/ are remade with the `tarn_docs` build target; a test fails when they
// differ from what these functions make.
#ifndef TARN_TOOLS_DOCS_H
#define TARN_TOOLS_DOCS_H

#include <string>

namespace tarncli {

// tarn.1, in the man macros.
std::string manPage();

// A bash script that defines the completion function and registers it for `tarn`.
std::string bashCompletion();

}  // namespace tarncli

#endif  // TARN_TOOLS_DOCS_H
