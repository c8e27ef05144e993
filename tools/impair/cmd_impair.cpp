// tarn impair: the impairment relay as a subcommand of the tool.
#include "cmd_impair.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cliargs.h"
#include "events.h"
#include "relay.h"
#include "values.h"

namespace tarncli {

namespace {

bool parsePercent(const std::string& text, double& out) {
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || errno != 0 || end == nullptr || *end != '\0' || !(value >= 0.0 && value <= 100.0)) {
        return false;
    }
    out = value / 100.0;
    return true;
}

bool parseUnsigned(const std::string& text, unsigned long max, unsigned long& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10) {
        return false;
    }
    out = std::strtoul(text.c_str(), nullptr, 10);
    return out <= max;
}

// Waits for SIGINT/SIGTERM or the end of the duration (negative: none).
void waitForEnd(double durationS) {
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        int timeoutMs = -1;
        if (durationS >= 0.0) {
            const double elapsed =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (elapsed >= durationS) {
                return;
            }
            timeoutMs = static_cast<int>((durationS - elapsed) * 1000.0) + 1;
        }
        pollfd fd{signalFd(), POLLIN, 0};
        const int ready = poll(&fd, 1, timeoutMs);
        if (signalReceived() || (ready > 0 && (fd.revents & POLLIN) != 0)) {
            return;
        }
    }
}

}  // namespace

int runImpair(const std::vector<std::string>& args) {
    ParsedArgs parsed;
    int status = kExitOk;
    if (!beginCommand(*findCommand("impair"), args, parsed, status)) {
        return status;
    }
    if (!parsed.positionals.empty()) {
        return usageError("impair", "unexpected argument '" + parsed.positionals[0] + "'");
    }
    unsigned long listenPort = 0;
    if (!parsed.has("--listen") || !parseUnsigned(parsed.value("--listen"), 65535, listenPort)) {
        return usageError("impair", "--listen needs a port from 0 to 65535");
    }
    std::string host;
    std::uint16_t port = 0;
    std::size_t used = 0;
    std::string error;
    if (!parsed.has("--to") || !parseTarget({parsed.value("--to")}, 0, host, port, used, error)) {
        return usageError("impair", "--to needs HOST:PORT" + (error.empty() ? std::string() : ": " + error));
    }
    const std::string bindAddress = parsed.value("--bind", "127.0.0.1");
    for (const std::string* name : std::vector<const std::string*>{&bindAddress, &host}) {
        if (name->find(':') != std::string::npos) {
            return usageError("impair", "the relay speaks IPv4 only, and '" + *name + "' is an IPv6 address");
        }
    }
    if (!tarnrelay::Relay::resolves(bindAddress)) {
        printError("unknown bind address '" + bindAddress + "'");
        return kExitUnknownHost;
    }
    if (!tarnrelay::Relay::resolves(host)) {
        printError("unknown host '" + host + "'");
        return kExitUnknownHost;
    }
    tarnrelay::ImpairOptions options;
    const struct {
        const char* name;
        double* target;
    } percents[] = {
        {"--loss", &options.loss}, {"--dup", &options.duplicate}, {"--reorder", &options.reorder}};
    for (const auto& percent : percents) {
        if (parsed.has(percent.name) && !parsePercent(parsed.value(percent.name), *percent.target)) {
            return usageError("impair", std::string(percent.name) + " needs a percentage from 0 to 100");
        }
    }
    unsigned long number = 0;
    const struct {
        const char* name;
        unsigned int* target;
    } delays[] = {{"--delay", &options.delayMs}, {"--jitter", &options.jitterMs}};
    for (const auto& delay : delays) {
        if (parsed.has(delay.name)) {
            if (!parseUnsigned(parsed.value(delay.name), 600000, number)) {
                return usageError("impair", std::string(delay.name) + " needs milliseconds from 0 to 600000");
            }
            *delay.target = static_cast<unsigned int>(number);
        }
    }
    if (parsed.has("--seed")) {
        if (!parseUnsigned(parsed.value("--seed"), 0xFFFFFFFFul, number)) {
            return usageError("impair", "--seed needs a number from 0 to 4294967295");
        }
        options.seed = static_cast<std::uint32_t>(number);
    }
    options.dataOnly = parsed.has("--data-only");
    double durationS = -1.0;
    if (parsed.has("--duration")) {
        char* end = nullptr;
        const std::string text = parsed.value("--duration");
        durationS = std::strtod(text.c_str(), &end);
        if (text.empty() || end == nullptr || *end != '\0' || !(durationS >= 0.0)) {
            return usageError("impair", "--duration needs seconds");
        }
    }

    tarnrelay::Relay relay(options);
    if (!relay.open(bindAddress, static_cast<std::uint16_t>(listenPort), host, port, error)) {
        printError(error);
        return kExitListen;
    }
    std::printf("impair: relaying %s:%u to %s:%u\n", bindAddress.c_str(),
                static_cast<unsigned int>(relay.port()), host.c_str(), static_cast<unsigned int>(port));
    std::fflush(stdout);
    relay.start();
    waitForEnd(durationS);
    relay.stop();
    std::printf("impair: %s\n", tarnrelay::describe(relay.counts()).c_str());
    std::fflush(stdout);
    return kExitOk;
}

}  // namespace tarncli
