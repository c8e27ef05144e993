// tarn: the command-line tool of libtarn. Dispatches to one subcommand; see docs/cli.md.
#include <cstdio>
#include <string>
#include <vector>

#include <tarnconnection.h>

#include "cliargs.h"
#include "commands.h"
#include "events.h"
#include "impair/cmd_impair.h"

namespace {

int dispatch(const std::vector<std::string>& words) {
    if (words.empty()) {
        std::fputs(tarncli::toolHelp().c_str(), stderr);
        return tarncli::kExitUsage;
    }
    const std::string command = words[0];
    const std::vector<std::string> args(words.begin() + 1, words.end());
    if (command == "--help" || command == "-h" || command == "help") {
        if (!args.empty()) {
            if (!tarncli::findCommand(args[0])) {
                tarncli::printError("unknown command '" + args[0] + "' (" + tarncli::commandNames(", ") +
                                    "; see tarn --help)");
                return tarncli::kExitUsage;
            }
            return dispatch({args[0], "--help"});  // "tarn help serve" is "tarn serve --help"
        }
        std::fputs(tarncli::toolHelp().c_str(), stdout);
        return tarncli::kExitOk;
    }
    if (command == "--version" || command == "-V") {
        tarncli::printVersion();
        return tarncli::kExitOk;
    }
    if (command == "bridge") {
        // Before anything of the tool's own is set up: the bridge inherits the process as it
        // was started, signal dispositions included.
        return tarncli::runBridge(args);
    }
    int (*run)(const std::vector<std::string>&) = nullptr;
    if (command == "demo") {
        run = tarncli::runDemo;
    } else if (command == "serve") {
        run = tarncli::runServe;
    } else if (command == "connect") {
        run = tarncli::runConnect;
    } else if (command == "call") {
        run = tarncli::runCall;
    } else if (command == "sub") {
        run = tarncli::runSub;
    } else if (command == "impair") {
        run = tarncli::runImpair;
    } else if (command == "version") {
        run = tarncli::runVersion;
    } else {
        tarncli::printError("unknown command '" + command + "' (" + tarncli::commandNames(", ") +
                            "; see tarn --help)");
        return tarncli::kExitUsage;
    }
    tarncli::installSignalPipe();
    tarnInit();
    const int status = run(args);
    tarnDeinit();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    return dispatch(std::vector<std::string>(argv + 1, argv + argc));
}
