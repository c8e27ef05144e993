// tarn bridge: runs tarn-bridge, the MQTT bridge, in the place of this process. The bridge is a
// program of its own so that the tool needs no MQTT library; executing it (rather than starting a
// child) keeps the process id, so the signals sent to `tarn bridge` and its exit status are the
// bridge's own without anything in between.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"

namespace tarncli {

namespace {

const char kBridgeProgram[] = "tarn-bridge";

// The directory of the running program, as the kernel has it (symbolic links resolved); empty
// when it cannot be read.
std::string ownDirectory() {
    std::vector<char> path(4096);
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    if (length <= 0 || static_cast<std::size_t>(length) >= path.size()) {
        return std::string();
    }
    const std::string program(path.data(), static_cast<std::size_t>(length));
    const std::size_t slash = program.rfind('/');
    return slash == std::string::npos || slash == 0 ? std::string() : program.substr(0, slash);
}

bool isFirstWord(const std::vector<std::string>& args, const char* shortName, const char* longName) {
    return !args.empty() && (args[0] == shortName || args[0] == longName);
}

// Where the bridge is looked for, in order: beside this program, then in the directory it is
// installed into.
std::vector<std::string> bridgeCandidates() {
    std::vector<std::string> candidates;
    const std::string own = ownDirectory();
    if (!own.empty()) {
        candidates.push_back(own + "/" + kBridgeProgram);
    }
    const std::string installed = std::string(TARN_INSTALL_BINDIR) + "/" + kBridgeProgram;
    if (candidates.empty() || candidates[0] != installed) {
        candidates.push_back(installed);
    }
    return candidates;
}

}  // namespace

int runBridge(const std::vector<std::string>& args) {
    // The help is the table's, so that it matches the manual page and is there without the
    // bridge; the version is the build's, which the bridge built with it shares.
    if (isFirstWord(args, "-h", "--help")) {
        std::fputs(commandHelp(*findCommand("bridge")).c_str(), stdout);
        return kExitOk;
    }
    if (isFirstWord(args, "-V", "--version")) {
        printVersion();
        return kExitOk;
    }
    for (const std::string& word : args) {
        if (word == "--json") {
            setErrorFormat(Format::Json);
        }
    }
    std::fflush(stdout);
    std::fflush(stderr);
    const std::vector<std::string> candidates = bridgeCandidates();
    for (const std::string& program : candidates) {
        if (::access(program.c_str(), X_OK) != 0) {
            continue;
        }
        std::vector<std::string> words = {program};
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(&word[0]);
        }
        argv.push_back(nullptr);
        ::execv(program.c_str(), argv.data());
        printError("cannot run " + program + ": " + std::strerror(errno));
        return kExitNoBridge;
    }
    std::string places;
    for (const std::string& program : candidates) {
        places += (places.empty() ? "in " : " nor in ") + program.substr(0, program.rfind('/'));
    }
    printError("no tarn-bridge " + places + " (the MQTT bridge is built only where libmosquitto is found)");
    return kExitNoBridge;
}

}  // namespace tarncli
