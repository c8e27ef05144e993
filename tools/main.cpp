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

const char kUsage[] =
    "usage: tarn COMMAND [OPTIONS] [ARGS]\n"
    "\n"
    "Commands:\n"
    "  demo                                   a server and a client in one process, a scripted session\n"
    "  serve [--tcp|--eudp] [--bind ADDR] --port P\n"
    "                                         a server with a table of states, driven from standard input\n"
    "  connect [--tcp|--eudp] HOST PORT       an interactive client\n"
    "  call [--tcp|--eudp] HOST PORT FID [ARG...]\n"
    "                                         call a function once and exit\n"
    "  sub [--tcp|--eudp] HOST PORT NAME... [--count N] [--timeout S]\n"
    "                                         print updates and triggers of NAME...\n"
    "  impair --listen P --to HOST:PORT [--loss PCT] [--dup PCT] [--reorder PCT] [--delay MS]\n"
    "         [--jitter MS] [--seed N]          a UDP relay that disturbs EUDP traffic, for testing\n"
    "\n"
    "Every command takes --help and --log-level LEVEL; serve, connect and sub take --json.\n"
    "Values: TEXT or name=TEXT (string), name:i=42, name:b=on|off, name:f=1.5, name:s=TEXT.\n"
    "Exit status: 0 ok, 1 failed, 2 usage, 3 unknown host, 4 cannot connect, 5 timed out,\n"
    "6 closed by the peer, 7 cannot listen.\n";

int dispatch(const std::vector<std::string>& words) {
    if (words.empty()) {
        std::fputs(kUsage, stderr);
        return tarncli::kExitUsage;
    }
    const std::string command = words[0];
    const std::vector<std::string> args(words.begin() + 1, words.end());
    if (command == "--help" || command == "-h" || command == "help") {
        if (!args.empty()) {
            return dispatch({args[0], "--help"});  // "tarn help serve" is "tarn serve --help"
        }
        std::fputs(kUsage, stdout);
        return tarncli::kExitOk;
    }
    if (command == "--version") {
        std::printf("tarn %s\n", TARN_TOOL_VERSION);
        return tarncli::kExitOk;
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
    } else {
        tarncli::printError("unknown command '" + command +
                            "' (demo, serve, connect, call, sub; see tarn --help)");
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
