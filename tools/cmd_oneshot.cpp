// The one-shot client forms for scripts: tarn call and tarn sub.
#include <cstdio>
#include <limits>

#include "cliargs.h"
#include "commands.h"
#include "report.h"

namespace tarncli {

namespace {

const char kCallHelp[] =
    "usage: tarn call [--tcp|--eudp] [--reliable] [--log-level LEVEL] HOST PORT FID [ARG...]\n"
    "\n"
    "Connects to a TARN server, calls function FID with the arguments, and exits once the call\n"
    "has been sent. Prints nothing on success.\n"
    "\n"
    "ARG is TEXT or name=TEXT (a string), name:i=42 (an integer), name:b=on|off (a boolean),\n"
    "name:f=1.5 (a float) or name:s=TEXT (a string); an ARG without a name is called argN, N its\n"
    "position. Put -- before arguments that begin with --.\n"
    "\n"
    "Options:\n"
    "  --tcp | --eudp      transport (default --tcp)\n"
    "  --reliable          EUDP: ask the server to receive this side's messages reliably first\n"
    "  --log-level LEVEL   show the library's log lines: none (default), error, warning, info, debug\n";

const char kSubHelp[] =
    "usage: tarn sub [--tcp|--eudp] [--reliable] [--json] [--count N] [--timeout S]\n"
    "                [--log-level LEVEL] HOST PORT NAME...\n"
    "\n"
    "Connects to a TARN server, subscribes to every NAME and prints each state update and trigger\n"
    "that arrives, one line each. Exits after N messages (--count), after S seconds (--timeout),\n"
    "when the server closes the connection, or on SIGINT or SIGTERM.\n"
    "\n"
    "Options:\n"
    "  --tcp | --eudp      transport (default --tcp)\n"
    "  --reliable          EUDP: ask the server to send reliably before subscribing\n"
    "  --json              one JSON object per line\n"
    "  --count N           exit after N updates and triggers\n"
    "  --timeout S         exit after S seconds (fractions allowed); with --count, running out of\n"
    "                      time before N messages is a failure (exit status 5)\n"
    "  --log-level LEVEL   show the library's log lines: none (default), error, warning, info, debug\n";

// The common first steps of both forms: options, transport, host and port.
struct Target {
    ETransport kind = eTransportTCP;
    std::string host;
    std::uint16_t port = 0;
};

int parseTarget(const char* command, const char* needs, const ParsedArgs& parsed, Target& target) {
    std::string error;
    if (!applyLogLevel(parsed, error) || !transportOf(parsed, target.kind, error)) {
        return usageError(command, error);
    }
    if (parsed.positionals.size() < 3) {
        return usageError(command, std::string(command) + " needs " + needs);
    }
    target.host = parsed.positionals[0];
    if (!parsePort(parsed.positionals[1], false, target.port, error)) {
        return usageError(command, error);
    }
    return kExitOk;
}

}  // namespace

int runCall(const std::vector<std::string>& args) {
    ParsedArgs parsed;
    std::string error;
    if (!parseArgs(args, {{"--tcp", false}, {"--eudp", false}, {"--reliable", false}}, parsed, error)) {
        return usageError("call", error);
    }
    if (parsed.has("--help")) {
        std::fputs(kCallHelp, stdout);
        return kExitOk;
    }
    Target target;
    const int status = parseTarget("call", "HOST PORT FID", parsed, target);
    if (status != kExitOk) {
        return status;
    }
    const std::string& function = parsed.positionals[2];
    std::vector<Token> words;
    for (std::size_t i = 3; i < parsed.positionals.size(); ++i) {
        words.push_back(argToken(parsed.positionals[i]));
    }
    std::vector<NamedValue> params;
    if (!parseArguments(words, params, error) || !checkCallFits(function, params, error)) {
        return usageError("call", error);
    }
    ParameterList list;
    fillList(params, list);

    EventQueue queue;
    ClientSession session(target.kind, queue);
    const int connected = connectClient(session, target.host, target.port);
    if (connected != kExitOk) {
        return connected;
    }
    if (parsed.has("--reliable") && target.kind == eTransportEUDP &&
        !session.connection()->setReceiveMode(eReliable)) {
        printError("the server did not agree to receive reliably within 10 s");
        return kExitFailure;
    }
    if (!session.connection()->callFunctionId(function, list)) {
        printError("failed to send call " + word(function));
        return kExitFailure;
    }
    session.close();
    return kExitOk;
}

int runSub(const std::vector<std::string>& args) {
    ParsedArgs parsed;
    std::string error;
    if (!parseArgs(args,
                   {{"--tcp", false},
                    {"--eudp", false},
                    {"--reliable", false},
                    {"--json", false},
                    {"--count", true},
                    {"--timeout", true}},
                   parsed, error)) {
        return usageError("sub", error);
    }
    if (parsed.has("--help")) {
        std::fputs(kSubHelp, stdout);
        return kExitOk;
    }
    Target target;
    const int status = parseTarget("sub", "HOST PORT NAME...", parsed, target);
    if (status != kExitOk) {
        return status;
    }
    long long count = -1;
    if (parsed.has("--count") &&
        !parseInteger(parsed.value("--count"), 1, std::numeric_limits<int>::max(), count)) {
        return usageError("sub", "--count needs a whole number of messages, 1 or more");
    }
    std::int64_t timeoutMs = -1;
    if (parsed.has("--timeout") && !parseSeconds(parsed.value("--timeout"), timeoutMs)) {
        return usageError("sub", "--timeout needs a number of seconds above 0 (at most 86400)");
    }
    const std::vector<std::string> names(parsed.positionals.begin() + 2, parsed.positionals.end());
    for (const std::string& name : names) {
        if (!checkNameFits(name, error)) {
            return usageError("sub", error);
        }
    }

    Printer printer(formatOf(parsed));
    EventQueue queue;
    ClientSession session(target.kind, queue);
    const int connected = connectClient(session, target.host, target.port);
    if (connected != kExitOk) {
        return connected;
    }
    // The clock starts once connected: --timeout bounds the wait for messages, not the connect.
    const std::int64_t deadline = timeoutMs < 0 ? -1 : monotonicMs() + timeoutMs;
    if (parsed.has("--reliable") && target.kind == eTransportEUDP &&
        !session.connection()->setSendMode(eReliable)) {
        printError("the server did not agree to send reliably within 10 s");
        return kExitFailure;
    }
    for (const std::string& name : names) {
        if (!session.connection()->subscribe(name)) {
            printError("failed to send subscribe " + word(name));
            return kExitFailure;
        }
    }
    MainLoop loop(queue, false);
    long long received = 0;
    int exitStatus = kExitOk;
    bool running = true;
    while (running) {
        Event event;
        std::string line;
        switch (loop.next(event, line, deadline)) {
            case MainLoop::Wake::Event:
                if (event.kind == EventKind::Update || event.kind == EventKind::Trigger) {
                    printer.line(clientEventLine(event, target.kind, printer.format()));
                    if (++received == count) {
                        running = false;
                    }
                } else if (event.kind == EventKind::Disconnected) {
                    printError("connection closed by the server");
                    exitStatus = kExitClosed;
                    running = false;
                }
                break;
            case MainLoop::Wake::Deadline:
                if (count > 0) {
                    printError("timed out after " + parsed.value("--timeout") + " s with " +
                               std::to_string(received) + " of " + std::to_string(count) + " messages");
                    exitStatus = kExitTimeout;
                }
                running = false;
                break;
            default:
                running = false;  // a signal
                break;
        }
    }
    session.close();
    return exitStatus;
}

}  // namespace tarncli
