// The subcommands that main() dispatches to, and the steps the client subcommands share.
#ifndef TARN_TOOLS_COMMANDS_H
#define TARN_TOOLS_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "client.h"

namespace tarncli {

// Each takes the words after the subcommand's name and returns the process's exit status.
int runDemo(const std::vector<std::string>& args);
int runServe(const std::vector<std::string>& args);
int runConnect(const std::vector<std::string>& args);
int runCall(const std::vector<std::string>& args);
int runSub(const std::vector<std::string>& args);

// Connects the session to host:port and explains a failure in one line; returns kExitOk or the
// exit status for the failure (unknown host, refused, timed out).
int connectClient(ClientSession& session, const std::string& host, std::uint16_t port);

// "realtime" or "reliable".
bool parseMode(const std::string& text, EConnMode& mode);

}  // namespace tarncli

#endif  // TARN_TOOLS_COMMANDS_H
