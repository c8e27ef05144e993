// The one-shot client forms for scripts: tarn call and tarn sub.
#include <limits>

#include "commands.h"
#include "hardening.h"
#include "report.h"

namespace tarncli {

int runCall(const std::vector<std::string>& args) {
    const CommandEntry& entry = *findCommand("call");
    ParsedArgs parsed;
    int status = kExitOk;
    if (!beginCommand(entry, args, parsed, status)) {
        return status;
    }
    Target target;
    std::size_t first = 0;
    status = parseTarget("call", "HOST PORT FID", parsed, target, first);
    if (status != kExitOk) {
        return status;
    }
    if (first >= parsed.positionals.size()) {
        return usageError("call", "call needs HOST PORT FID");
    }
    const std::string& function = parsed.positionals[first];
    std::vector<Token> words;
    for (std::size_t i = first + 1; i < parsed.positionals.size(); ++i) {
        words.push_back(argToken(parsed.positionals[i]));
    }
    std::string error;
    std::vector<NamedValue> params;
    if (!parseArguments(words, params, error) || !checkCallFits(function, params, error)) {
        return usageError("call", error);
    }
    ParameterList list;
    fillList(params, list);

    EventQueue queue;
    EUDPHardening hardening;
    status = parseHardening("call", parsed, target.kind, hardening);
    if (status != kExitOk) {
        return status;
    }
    ClientSession session(target.kind, queue);
    session.setHardening(hardening);
    status = connectClient(session, target);
    if (status != kExitOk) {
        return status == kInterrupted ? kExitOk : status;
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

namespace {

// "ready: subscriptions sent for a b" on standard error, or the "ready" event in JSON.
void announceReady(const std::vector<std::string>& names) {
    std::string text;
    std::string json;
    for (const std::string& name : names) {
        text += " " + word(name);
        json += (json.empty() ? "" : ",") + jsonString(name);
    }
    printNotice("ready: subscriptions sent for" + text, Json("ready").raw("names", "[" + json + "]"));
}

// Prints what arrives until --count, --timeout, the end of the connection or a signal.
int receiveUpdates(MainLoop& loop, Printer& printer, const Target& target, long long count,
                   std::int64_t deadline, const std::string& timeoutText) {
    long long received = 0;
    for (;;) {
        Event event;
        std::string line;
        switch (loop.next(event, line, deadline)) {
            case MainLoop::Wake::Event:
                if (event.kind == EventKind::Update || event.kind == EventKind::Trigger) {
                    printer.line(clientEventLine(event, target.kind, printer.format()));
                    if (++received == count) {
                        return kExitOk;
                    }
                } else if (event.kind == EventKind::Disconnected) {
                    printError(event.end == EndReason::Lost
                                   ? "connection lost: no answer from the server for 10 s"
                                   : "connection closed by the server");
                    return kExitClosed;
                }
                break;
            case MainLoop::Wake::Deadline:
                if (count > 0) {
                    printError("timed out after " + timeoutText + " s with " + std::to_string(received) +
                               " of " + std::to_string(count) + " messages");
                    return kExitTimeout;
                }
                return kExitOk;
            default:
                return kExitOk;  // a signal
        }
    }
}

}  // namespace

int runSub(const std::vector<std::string>& args) {
    const CommandEntry& entry = *findCommand("sub");
    ParsedArgs parsed;
    int status = kExitOk;
    if (!beginCommand(entry, args, parsed, status)) {
        return status;
    }
    Target target;
    std::size_t first = 0;
    status = parseTarget("sub", "HOST PORT NAME...", parsed, target, first);
    if (status != kExitOk) {
        return status;
    }
    if (first >= parsed.positionals.size()) {
        return usageError("sub", "sub needs HOST PORT NAME...");
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
    const std::vector<std::string> names(parsed.positionals.begin() + static_cast<std::ptrdiff_t>(first),
                                         parsed.positionals.end());
    std::string error;
    for (const std::string& name : names) {
        if (!checkNameFits(name, error)) {
            return usageError("sub", error);
        }
    }

    Printer printer(formatOf(parsed));
    EventQueue queue;
    EUDPHardening hardening;
    status = parseHardening("sub", parsed, target.kind, hardening);
    if (status != kExitOk) {
        return status;
    }
    ClientSession session(target.kind, queue);
    session.setHardening(hardening);
    status = connectClient(session, target);
    if (status != kExitOk) {
        return status == kInterrupted ? kExitOk : status;
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
    announceReady(names);
    MainLoop loop(queue, false);
    status = receiveUpdates(loop, printer, target, count, deadline, parsed.value("--timeout"));
    session.close();
    return status;
}

int runVersion(const std::vector<std::string>& args) {
    ParsedArgs parsed;
    int status = kExitOk;
    if (!beginCommand(*findCommand("version"), args, parsed, status)) {
        return status;
    }
    if (!parsed.positionals.empty()) {
        return usageError("version", "unexpected argument '" + parsed.positionals[0] + "'");
    }
    printVersion();
    return kExitOk;
}

}  // namespace tarncli
