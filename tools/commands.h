// The subcommands that main() dispatches to, and the steps the client subcommands share.
#ifndef TARN_TOOLS_COMMANDS_H
#define TARN_TOOLS_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "cliargs.h"
#include "client.h"

namespace tarncli {

// Each takes the words after the subcommand's name and returns the process's exit status.
int runDemo(const std::vector<std::string>& args);
int runServe(const std::vector<std::string>& args);
int runConnect(const std::vector<std::string>& args);
int runCall(const std::vector<std::string>& args);
int runSub(const std::vector<std::string>& args);
int runVersion(const std::vector<std::string>& args);
// Runs tarn-bridge with `args` in the place of this process; returns only when it cannot.
int runBridge(const std::vector<std::string>& args);

// What connectClient returns when a signal ended the wait for a server: the command then ends
// with status 0, as on any other SIGINT or SIGTERM.
const int kInterrupted = -1;

// Where a client command connects to, and how long it waits for a server that is not up yet.
struct Target {
    ETransport kind = eTransportTCP;
    std::string host;
    std::uint16_t port = 0;
    std::int64_t waitMs = -1;  // -1: one try only
    std::string waitText;      // --wait as given, for the messages
};

// Reads --tcp/--eudp, --wait and HOST PORT (or HOST:PORT) from the positional words; `after` is
// set to the index of the first word after them. Returns kExitOk or the usage error's status;
// `needs` is what the command needs ("HOST PORT FID") when words are missing.
int parseTarget(const char* command, const char* needs, const ParsedArgs& parsed, Target& target,
                std::size_t& after);

// Connects the session to the target and explains a failure in one line. With a wait, a refused
// or unanswered try is repeated until the wait has run out, after one line saying so. Returns
// kExitOk, kInterrupted, or the exit status for the failure (unknown host, refused, timed out).
int connectClient(ClientSession& session, const Target& target);

// "realtime" or "reliable".
bool parseMode(const std::string& text, EConnMode& mode);

// --allow-send and --allow-receive: the four flags (send realtime, send reliable, receive
// realtime, receive reliable). Returns kExitOk or a usage error's status.
int parseAllowedModes(const char* command, const ParsedArgs& parsed, ETransport kind, bool allow[4]);

}  // namespace tarncli

#endif  // TARN_TOOLS_COMMANDS_H
