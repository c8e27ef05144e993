// tarn serve: a TARN server with a table of named states, driven from standard input.
#include <cstdio>

#include "cliargs.h"
#include "client.h"
#include "commands.h"
#include "report.h"
#include "shells.h"

namespace tarncli {

namespace {

const char kUsage[] =
    "usage: tarn serve [--tcp|--eudp] [--bind ADDR] --port P [--json] [--log-level LEVEL]\n"
    "\n"
    "Runs a TARN server on ADDR:P (every interface by default; port 0 picks a free port). The\n"
    "first line printed names the transport, address and port bound. Every connection, status\n"
    "change and received command is printed as it happens; a new subscriber gets the current\n"
    "state of the name at once. End of input leaves the server running; quit, SIGINT or SIGTERM\n"
    "stop it.\n"
    "\n"
    "Options:\n"
    "  --tcp | --eudp      transport (default --tcp)\n"
    "  --bind ADDR         local address to listen on (default: every interface)\n"
    "  --port P            port to listen on, 0 to 65535 (required)\n"
    "  --json              one JSON object per line\n"
    "  --log-level LEVEL   show the library's log lines: none (default), error, warning, info, debug\n"
    "\n";

}  // namespace

int runServe(const std::vector<std::string>& args) {
    ParsedArgs parsed;
    std::string error;
    if (!parseArgs(
            args,
            {{"--tcp", false}, {"--eudp", false}, {"--bind", true}, {"--port", true}, {"--json", false}},
            parsed, error)) {
        return usageError("serve", error);
    }
    if (parsed.has("--help")) {
        std::fputs(kUsage, stdout);
        std::fputs(ServeShell::commandHelp(), stdout);
        return kExitOk;
    }
    ETransport kind = eTransportTCP;
    std::uint16_t port = 0;
    if (!applyLogLevel(parsed, error) || !transportOf(parsed, kind, error)) {
        return usageError("serve", error);
    }
    if (!parsed.positionals.empty()) {
        return usageError("serve", "unexpected argument '" + parsed.positionals[0] + "'");
    }
    if (!parsed.has("--port")) {
        return usageError("serve", "serve needs --port P (0 picks a free port)");
    }
    if (!parsePort(parsed.value("--port"), true, port, error)) {
        return usageError("serve", error);
    }
    const std::string bind = parsed.value("--bind");

    Printer printer(formatOf(parsed));
    EventQueue queue;
    StateServer server(kind, queue);
    switch (server.listen(bind, port)) {
        case StateServer::ListenResult::BadAddress:
            printError("unknown bind address '" + bind + "'");
            return kExitUnknownHost;
        case StateServer::ListenResult::Unavailable:
            printError("cannot listen on " + server.address() + ":" + std::to_string(port) + " over " +
                       transportName(kind) + ": address in use or not available");
            return kExitListen;
        default:
            break;
    }
    printer.line(listeningLine(kind, server.address(), server.port(), printer.format()));

    ServeShell shell(server, printer);
    MainLoop loop(queue, true);
    bool running = true;
    while (running) {
        Event event;
        std::string line;
        switch (loop.next(event, line, -1)) {
            case MainLoop::Wake::Event:
                shell.report(event);
                break;
            case MainLoop::Wake::Line:
                running = shell.execute(line);
                break;
            case MainLoop::Wake::EndOfInput:
                break;  // a server started in the background keeps serving
            default:
                running = false;
                break;
        }
    }
    server.stop();
    Event event;
    while (queue.pop(event)) {
        shell.report(event);
    }
    return kExitOk;
}

}  // namespace tarncli
