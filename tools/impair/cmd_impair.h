// The impair subcommand of the tarn tool: an impairment relay in front of an EUDP server.
// Runs on the caller's thread until SIGINT, SIGTERM or --duration; the relay runs its own thread.
#ifndef TARN_TOOLS_IMPAIR_CMD_IMPAIR_H
#define TARN_TOOLS_IMPAIR_CMD_IMPAIR_H

#include <string>
#include <vector>

namespace tarncli {

// Takes the words after "impair" and returns the process's exit status.
int runImpair(const std::vector<std::string>& args);

}  // namespace tarncli

#endif  // TARN_TOOLS_IMPAIR_CMD_IMPAIR_H
