// tarn connect: an interactive client; commands on standard input, arrivals on standard output.
#include <cstdio>

#include "cliargs.h"
#include "commands.h"
#include "report.h"
#include "shells.h"

namespace tarncli {

namespace {

const char kUsage[] =
    "usage: tarn connect [--tcp|--eudp] [--json] [--allow-send MODES] [--allow-receive MODES]\n"
    "                    [--log-level LEVEL] HOST PORT\n"
    "\n"
    "Connects to a TARN server and reads commands from standard input; every update and trigger\n"
    "that arrives is printed as it comes. End of input, quit, SIGINT or SIGTERM disconnect.\n"
    "\n"
    "Options:\n"
    "  --tcp | --eudp         transport (default --tcp)\n"
    "  --json                 one JSON object per line\n"
    "  --allow-send MODES     EUDP: modes this side agrees to send in when the server asks\n"
    "                         (realtime, reliable or realtime,reliable; default both)\n"
    "  --allow-receive MODES  EUDP: the same for receiving\n"
    "  --log-level LEVEL      show the library's log lines: none (default), error, warning, info, debug\n"
    "\n";

}  // namespace

bool parseMode(const std::string& text, EConnMode& mode) {
    if (text == "realtime") {
        mode = eRealtime;
    } else if (text == "reliable") {
        mode = eReliable;
    } else {
        return false;
    }
    return true;
}

int connectClient(ClientSession& session, const std::string& host, std::uint16_t port) {
    const ClientSession::ConnectResult result = session.connect(host, port);
    switch (result) {
        case ClientSession::ConnectResult::Connected:
            return kExitOk;
        case ClientSession::ConnectResult::UnknownHost:
            printError(session.describe(result, host, port));
            return kExitUnknownHost;
        default:
            printError(session.describe(result, host, port));
            return kExitNoConnection;
    }
}

int runConnect(const std::vector<std::string>& args) {
    ParsedArgs parsed;
    std::string error;
    if (!parseArgs(args,
                   {{"--tcp", false},
                    {"--eudp", false},
                    {"--json", false},
                    {"--allow-send", true},
                    {"--allow-receive", true}},
                   parsed, error)) {
        return usageError("connect", error);
    }
    if (parsed.has("--help")) {
        std::fputs(kUsage, stdout);
        std::fputs(ConnectShell::commandHelp(), stdout);
        return kExitOk;
    }
    ETransport kind = eTransportTCP;
    std::uint16_t port = 0;
    if (!applyLogLevel(parsed, error) || !transportOf(parsed, kind, error)) {
        return usageError("connect", error);
    }
    if (parsed.positionals.size() != 2) {
        return usageError("connect", "connect needs HOST PORT");
    }
    if (!parsePort(parsed.positionals[1], false, port, error)) {
        return usageError("connect", error);
    }
    bool allow[4] = {true, true, true, true};  // send realtime, send reliable, receive ...
    const char* const allowOptions[2] = {"--allow-send", "--allow-receive"};
    for (int i = 0; i < 2; ++i) {
        if (!parsed.has(allowOptions[i])) {
            continue;
        }
        if (kind != eTransportEUDP) {
            return usageError("connect", std::string(allowOptions[i]) + " applies to --eudp only");
        }
        if (!parseModeSet(parsed.value(allowOptions[i]), allow[2 * i], allow[2 * i + 1])) {
            return usageError(
                "connect", std::string(allowOptions[i]) + " takes realtime, reliable or realtime,reliable");
        }
    }

    Printer printer(formatOf(parsed));
    EventQueue queue;
    ClientSession session(kind, queue);
    session.allowModes(allow[0], allow[1], allow[2], allow[3]);
    const int status = connectClient(session, parsed.positionals[0], port);
    if (status != kExitOk) {
        return status;
    }
    ConnectShell shell(session, printer);
    MainLoop loop(queue, true);
    int exitStatus = kExitOk;
    bool running = true;
    while (running) {
        Event event;
        std::string line;
        switch (loop.next(event, line, -1)) {
            case MainLoop::Wake::Event:
                printer.line(clientEventLine(event, kind, printer.format()));
                if (event.kind == EventKind::Disconnected) {
                    printError("connection closed by the server");
                    exitStatus = kExitClosed;
                    running = false;
                }
                break;
            case MainLoop::Wake::Line:
                running = shell.execute(line);
                break;
            default:
                running = false;  // end of input or a signal: leave in order
                break;
        }
    }
    session.close();
    Event event;
    while (queue.pop(event)) {
        printer.line(clientEventLine(event, kind, printer.format()));
    }
    return exitStatus;
}

}  // namespace tarncli
