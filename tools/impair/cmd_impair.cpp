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

namespace tarncli {

namespace {

const char kImpairHelp[] =
    "usage: tarn impair --listen P --to HOST:PORT [--bind ADDR] [--loss PCT] [--dup PCT]\n"
    "                   [--reorder PCT] [--delay MS] [--jitter MS] [--seed N] [--data-only]\n"
    "                   [--duration S]\n"
    "\n"
    "A UDP relay between EUDP clients and an EUDP server that drops, duplicates, reorders and\n"
    "delays datagrams. Clients connect to the relay's port instead of the server's; the relay\n"
    "follows the port from which the server answers each connection, so the client keeps talking\n"
    "through the relay. The same seed gives the same decisions for the same traffic.\n"
    "\n"
    "Prints \"impair: relaying ADDR:P to HOST:PORT\" once it listens, and the counts of what it\n"
    "did when it ends: on SIGINT or SIGTERM, or after --duration.\n"
    "\n"
    "Options:\n"
    "  --listen P          port for the clients (0: any free port, printed at start)\n"
    "  --bind ADDR         address for the clients (default 127.0.0.1)\n"
    "  --to HOST:PORT      the EUDP server's listening address and port\n"
    "  --loss PCT          drop this percentage of datagrams (0 to 100, fractions allowed)\n"
    "  --dup PCT           send this percentage of forwarded datagrams twice\n"
    "  --reorder PCT       hold back this percentage behind the next datagram (at most 20 ms)\n"
    "  --delay MS          delay every datagram by MS milliseconds\n"
    "  --jitter MS         add a random -MS..+MS milliseconds to each delay (never below 0)\n"
    "  --seed N            seed of the random decisions (default 1)\n"
    "  --data-only         disturb only data, acknowledgements and keep-alives of established\n"
    "                      connections; connection requests, DIS and mode/window requests pass\n"
    "  --duration S        stop after S seconds (fractions allowed)\n"
    "  --log-level LEVEL   accepted for symmetry; the relay does not use the library\n";

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

bool parseHostPort(const std::string& text, std::string& host, std::uint16_t& port) {
    const std::size_t colon = text.rfind(':');
    unsigned long value = 0;
    if (colon == std::string::npos || colon == 0 || !parseUnsigned(text.substr(colon + 1), 65535, value) ||
        value == 0) {
        return false;
    }
    host = text.substr(0, colon);
    port = static_cast<std::uint16_t>(value);
    return true;
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
    static const std::vector<OptionSpec> optionSpecs = {
        {"--listen", true}, {"--bind", true},       {"--to", true},      {"--loss", true},
        {"--dup", true},    {"--reorder", true},    {"--delay", true},   {"--jitter", true},
        {"--seed", true},   {"--data-only", false}, {"--duration", true}};
    ParsedArgs parsed;
    std::string error;
    if (!parseArgs(args, optionSpecs, parsed, error)) {
        return usageError("impair", error);
    }
    if (parsed.has("--help")) {
        std::fputs(kImpairHelp, stdout);
        return kExitOk;
    }
    if (!applyLogLevel(parsed, error)) {
        return usageError("impair", error);
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
    if (!parsed.has("--to") || !parseHostPort(parsed.value("--to"), host, port)) {
        return usageError("impair", "--to needs HOST:PORT");
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

    const std::string bindAddress = parsed.value("--bind", "127.0.0.1");
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
