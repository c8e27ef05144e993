// Command-line handling shared by the subcommands: option parsing, the options every subcommand
// takes (--help, --log-level, --json, --tcp/--eudp), and the exit statuses.
#ifndef TARN_TOOLS_CLIARGS_H
#define TARN_TOOLS_CLIARGS_H

#include <string>
#include <vector>

#include <itarntransport.h>

#include "output.h"

namespace tarncli {

// Exit statuses, documented in docs/cli.md; scripts rely on them.
enum ExitStatus {
    kExitOk = 0,
    kExitFailure = 1,       // a send failed, a negotiation failed, a demo step got no answer
    kExitUsage = 2,         // bad option, argument, value or port; a message too large
    kExitUnknownHost = 3,   // a host or bind address that does not resolve
    kExitNoConnection = 4,  // connection refused (TCP) or no answer within 5 s (EUDP)
    kExitTimeout = 5,       // sub: --timeout passed before --count messages arrived
    kExitClosed = 6,        // the peer closed the connection
    kExitListen = 7         // serve: the address and port cannot be bound
};

struct OptionSpec {
    const char* name;  // with its dashes: "--count"
    bool takesValue;
};

struct ParsedArgs {
    std::vector<std::pair<std::string, std::string>> options;  // in the order given
    std::vector<std::string> positionals;
    bool has(const std::string& name) const;
    // The last value given for `name`, or `fallback`.
    std::string value(const std::string& name, const std::string& fallback = std::string()) const;
};

// Options may stand before, between or after the positional words (GNU style); "--" ends them, so
// that a value beginning with "--" can still be passed. "-h" is "--help"; "--name=value" works as
// "--name value". Every subcommand accepts --help and --log-level without listing them.
bool parseArgs(const std::vector<std::string>& args, const std::vector<OptionSpec>& optionSpecs,
               ParsedArgs& out, std::string& error);

// "none" (the default: the library's own log lines are not shown), "error", "warning", "info",
// "debug". When --log-level is absent and TARN_LOG_LEVEL is set, the library's own rule applies.
bool applyLogLevel(const ParsedArgs& args, std::string& error);

// --tcp (the default) or --eudp; false when both are given.
bool transportOf(const ParsedArgs& args, ETransport& kind, std::string& error);

Format formatOf(const ParsedArgs& args);

// Prints "tarn: <message>" and a hint to the subcommand's --help; returns kExitUsage.
int usageError(const std::string& command, const std::string& message);

}  // namespace tarncli

#endif  // TARN_TOOLS_CLIARGS_H
