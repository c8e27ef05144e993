// tarn connect: an interactive client; commands on standard input, arrivals on standard output.
#include "commands.h"
#include "hardening.h"
#include "report.h"
#include "shells.h"

namespace tarncli {

namespace {

// What a Disconnected that this side did not ask for says, and the status it ends with.
int reportEnd(const Event& event) {
    if (event.end == EndReason::Lost) {
        printError("connection lost: no answer from the server for 10 s");
    } else {
        printError("connection closed by the server");
    }
    return kExitClosed;
}

}  // namespace

int runConnect(const std::vector<std::string>& args) {
    const CommandEntry& entry = *findCommand("connect");
    ParsedArgs parsed;
    int status = kExitOk;
    if (!beginCommand(entry, args, parsed, status)) {
        return status;
    }
    Target target;
    std::size_t after = 0;
    status = parseTarget("connect", "HOST PORT", parsed, target, after);
    if (status != kExitOk) {
        return status;
    }
    if (after != parsed.positionals.size()) {
        return usageError("connect", "unexpected argument '" + parsed.positionals[after] + "'");
    }
    bool allow[4] = {true, true, true, true};
    status = parseAllowedModes("connect", parsed, target.kind, allow);
    if (status != kExitOk) {
        return status;
    }

    Printer printer(formatOf(parsed));
    EventQueue queue;
    EUDPHardening hardening;
    status = parseHardening("connect", parsed, target.kind, hardening);
    if (status != kExitOk) {
        return status;
    }
    ClientSession session(target.kind, queue);
    session.setHardening(hardening);
    session.allowModes(allow[0], allow[1], allow[2], allow[3]);
    status = connectClient(session, target);
    if (status != kExitOk) {
        return status == kInterrupted ? kExitOk : status;
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
                printer.line(clientEventLine(event, target.kind, printer.format()));
                if (event.kind == EventKind::Disconnected) {
                    exitStatus = reportEnd(event);
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
        printer.line(clientEventLine(event, target.kind, printer.format()));
    }
    if (exitStatus == kExitOk && shell.anyFailed()) {
        exitStatus = kExitFailure;
    }
    return exitStatus;
}

}  // namespace tarncli
