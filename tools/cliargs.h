// Command-line handling shared by the subcommands: option parsing against a command's table (see
// commandtable.h), the steps every subcommand starts with (--help, --version, --log-level, --json),
// and the exit statuses.
#ifndef TARN_TOOLS_CLIARGS_H
#define TARN_TOOLS_CLIARGS_H

#include <string>
#include <vector>

#include <itarntransport.h>

#include "commandtable.h"
#include "output.h"

namespace tarncli {

// Exit statuses, documented in docs/cli.md and listed in commandtable.cpp.
enum ExitStatus {
    kExitOk = 0,
    kExitFailure = 1,       // a send, a negotiation, a line of connect's input or a demo step failed
    kExitUsage = 2,         // bad option, argument, value or port; a message too large
    kExitUnknownHost = 3,   // a host or bind address that does not resolve
    kExitNoConnection = 4,  // connection refused (TCP) or no answer within 5 s (EUDP)
    kExitTimeout = 5,       // sub: --timeout passed before --count messages arrived
    kExitClosed = 6,        // the peer closed the connection, or stopped answering
    kExitListen = 7,        // serve, impair: the address and port cannot be bound
    kExitNoBridge = 127     // bridge: tarn-bridge is not there, or cannot be run
};

struct ParsedArgs {
    std::vector<std::pair<std::string, std::string>> options;  // long names, in the order given
    std::vector<std::string> positionals;
    bool has(const std::string& name) const;
    // The last value given for `name`, or `fallback`.
    std::string value(const std::string& name, const std::string& fallback = std::string()) const;
};

// Options may stand before, between or after the positional words; "--" ends them, so that a word
// beginning with "-" can still be passed. "--name=value" works as "--name value"; a short option
// takes its value attached or as the next word ("-c3", "-c 3"), and short flags may be bundled
// ("-jr"). A lone "-" and a word such as "-5" (a dash and a digit) are positional words.
// On a refusal the words after the bad one are still read, so that `out` tells whether --json was
// asked for; `error` names the first bad word.
bool parseArgs(const std::vector<std::string>& args, const std::vector<OptionEntry>& options, ParsedArgs& out,
               std::string& error);

// What every subcommand does first: parses `args` against the command's options; answers --help
// (on standard output, or standard error with --json, so that standard output stays JSON) and
// --version; puts errors in JSON form when --json is given; applies --log-level. True when the
// command goes on; false when it is done, with its exit status in `status`.
bool beginCommand(const CommandEntry& command, const std::vector<std::string>& args, ParsedArgs& parsed,
                  int& status);

// "tarn 1.2.3" on standard output.
void printVersion();

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
