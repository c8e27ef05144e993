// tarn serve: a TARN server with a table of named states, driven from standard input.
#include "client.h"
#include "commands.h"
#include "hardening.h"
#include "report.h"
#include "shells.h"
#include "tls_options.h"

namespace tarncli {

namespace {

// Says how many connections it closes, closes them all at once, prints what they reported and
// says when it is done.
void stopServing(StateServer& server, ServeShell& shell, Printer& printer, EventQueue& queue) {
    printer.line(stoppingLine(server.connectionCount(), printer.format()));
    server.stop();
    Event event;
    while (queue.pop(event)) {
        shell.report(event);
    }
    printer.line(stoppedLine(printer.format()));
}

}  // namespace

int runServe(const std::vector<std::string>& args) {
    const CommandEntry& entry = *findCommand("serve");
    ParsedArgs parsed;
    int status = kExitOk;
    if (!beginCommand(entry, args, parsed, status)) {
        return status;
    }
    ETransport kind = eTransportTCP;
    std::uint16_t port = 0;
    std::string error;
    if (!transportOf(parsed, kind, error)) {
        return usageError("serve", error);
    }
    status = parseTlsOptions("serve", parsed, true, kind);
    if (status != kExitOk) {
        return status;
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
    bool allow[4] = {true, true, true, true};
    status = parseAllowedModes("serve", parsed, kind, allow);
    if (status != kExitOk) {
        return status;
    }
    std::string bind = parsed.value("--bind");
    if (bind.size() > 2 && bind.front() == '[' && bind.back() == ']') {
        bind = bind.substr(1, bind.size() - 2);  // [::1] as well as ::1
    }

    EUDPHardening hardening;
    status = parseHardening("serve", parsed, kind, hardening);
    if (status != kExitOk) {
        return status;
    }

    Printer printer(formatOf(parsed));
    EventQueue queue;
    StateServer server(kind, queue);
    server.allowModes(allow[0], allow[1], allow[2], allow[3]);
    server.setHardening(hardening);
    switch (server.listen(bind, port)) {
        case StateServer::ListenResult::BadAddress:
            printError("unknown bind address '" + bind + "'");
            return kExitUnknownHost;
        case StateServer::ListenResult::Unavailable:
            printError("cannot listen on " + hostPort(server.address(), port) + " over " +
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
    stopServing(server, shell, printer, queue);
    return kExitOk;
}

}  // namespace tarncli
