// The steps the client commands share: where to connect, the wait for a server that is not up
// yet, and the mode options.
#include <poll.h>

#include <algorithm>
#include <charconv>

#include "commands.h"
#include "tls_options.h"
#include "values.h"

namespace tarncli {

namespace {

// Between two tries of a connection that was refused at once.
const int kRetryPauseMs = 200;

// Waits `ms` milliseconds unless a signal comes first; false when one did.
bool pauseUnlessSignalled(std::int64_t ms) {
    const std::int64_t until = monotonicMs() + ms;
    for (;;) {
        if (signalReceived()) {
            return false;
        }
        const std::int64_t left = until - monotonicMs();
        if (left <= 0) {
            return true;
        }
        pollfd fd = {signalFd(), POLLIN, 0};
        ::poll(&fd, 1, static_cast<int>(left));
    }
}

// Milliseconds as a JSON number of seconds: 2500 is 2.5.
std::string secondsNumber(std::int64_t ms) {
    char text[32];
    const std::to_chars_result result =
        std::to_chars(text, text + sizeof(text), static_cast<double>(ms) / 1000.0);
    return std::string(text, result.ptr);
}

}  // namespace

int parseTarget(const char* command, const char* needs, const ParsedArgs& parsed, Target& target,
                std::size_t& after) {
    std::string error;
    if (!transportOf(parsed, target.kind, error)) {
        return usageError(command, error);
    }
    const int tls = parseTlsOptions(command, parsed, false, target.kind);
    if (tls != kExitOk) {
        return tls;
    }
    if (parsed.has("--wait")) {
        target.waitText = parsed.value("--wait");
        if (!parseSeconds(target.waitText, target.waitMs)) {
            return usageError(command, "--wait needs a number of seconds above 0 (at most 86400)");
        }
    }
    std::size_t used = 0;
    if (!tarncli::parseTarget(parsed.positionals, 0, target.host, target.port, used, error)) {
        return usageError(command, error.empty() ? std::string(command) + " needs " + needs : error);
    }
    after = used;
    return kExitOk;
}

int connectClient(ClientSession& session, const Target& target) {
    const std::int64_t deadline = target.waitMs < 0 ? -1 : monotonicMs() + target.waitMs;
    bool told = false;
    for (;;) {
        const ClientSession::ConnectResult result = session.connect(target.host, target.port);
        if (result == ClientSession::ConnectResult::Connected) {
            return kExitOk;
        }
        const std::string why = session.describe(result, target.host, target.port);
        if (result == ClientSession::ConnectResult::UnknownHost) {
            printError(why);
            return kExitUnknownHost;
        }
        const std::int64_t left = deadline - monotonicMs();
        if (deadline < 0 || left <= 0) {
            printError(why + (told ? " (waited " + target.waitText + " s)" : std::string()));
            return kExitNoConnection;
        }
        if (!told) {
            const std::string reason = why.substr(why.rfind(": ") + 2);
            const std::string peer = hostPort(target.host, target.port);
            printNotice("waiting up to " + target.waitText + " s for a server at " + peer + " over " +
                            transportName(target.kind) + " (" + reason + ")",
                        Json("waiting")
                            .text("transport", transportName(target.kind))
                            .text("peer", peer)
                            .raw("seconds", secondsNumber(target.waitMs))
                            .text("reason", reason));
            told = true;
        }
        if (!pauseUnlessSignalled(std::min<std::int64_t>(left, kRetryPauseMs))) {
            return kInterrupted;
        }
    }
}

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

int parseAllowedModes(const char* command, const ParsedArgs& parsed, ETransport kind, bool allow[4]) {
    const char* const options[2] = {"--allow-send", "--allow-receive"};
    for (int i = 0; i < 2; ++i) {
        if (!parsed.has(options[i])) {
            continue;
        }
        if (kind != eTransportEUDP) {
            return usageError(command, std::string(options[i]) + " applies to --eudp only");
        }
        if (!parseModeSet(parsed.value(options[i]), allow[2 * i], allow[2 * i + 1])) {
            return usageError(command,
                              std::string(options[i]) + " takes realtime, reliable or realtime,reliable");
        }
    }
    return kExitOk;
}

}  // namespace tarncli
