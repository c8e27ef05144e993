#include "hardening.h"

#include <limits>

#include <eudppacket.h>

#include "values.h"

namespace tarncli {

namespace {

const char* const kLimitOptions[3] = {"--max-connections", "--max-per-address", "--max-new-per-second"};

std::string modeName(EConnMode mode) {
    return mode == eReliable ? "reliable" : "realtime";
}

std::string commandCounts(const std::uint64_t (&datagrams)[EUDP_COMMAND_KINDS],
                          const std::uint64_t (&bytes)[EUDP_COMMAND_KINDS], bool json) {
    std::string out;
    for (unsigned int i = 0; i < EUDP_COMMAND_KINDS; ++i) {
        if (json) {
            out += std::string(out.empty() ? "" : ",") + "\"" + EUDPCommand[i] +
                   "\":{\"datagrams\":" + std::to_string(datagrams[i]) +
                   ",\"bytes\":" + std::to_string(bytes[i]) + "}";
        } else if (datagrams[i] != 0) {
            out += std::string(out.empty() ? "" : " ") + EUDPCommand[i] + "=" + std::to_string(datagrams[i]);
            if (bytes[i] != 0) {
                out += "/" + std::to_string(bytes[i]) + "B";
            }
        }
    }
    return json ? "{" + out + "}" : (out.empty() ? "none" : out);
}

long long asNumber(std::uint64_t value) {
    return static_cast<long long>(value);
}

void printEudp(Printer& printer, int id, const EUDPStatistics& s) {
    const std::string who = id > 0 ? "stats [" + std::to_string(id) + "]" : "stats";
    const std::uint64_t* dropped = s.hardenedDropped;
    std::string human =
        who + " eudp" + (s.hardened ? " hardened" : "") + ": sent " +
        commandCounts(s.sentDatagrams, s.sentPayloadBytes, false) + "; received " +
        commandCounts(s.receivedDatagrams, s.receivedPayloadBytes, false) + "; resent " +
        std::to_string(s.dataResent) + ", naks sent " + std::to_string(s.naksSent) + " received " +
        std::to_string(s.naksReceived) + ", gaps skipped " + std::to_string(s.realtimeGapsSkipped) + " (" +
        std::to_string(s.realtimeDatagramsSkipped) + " datagrams), late " + std::to_string(s.lateDropped) +
        ", duplicates " + std::to_string(s.duplicatesDropped) + ", ring full " +
        std::to_string(s.receiveRingFullDropped) + ", invalid " + std::to_string(s.invalidReceived);
    if (s.hardened) {
        human += "; hardened: strangers " + std::to_string(dropped[eHardenedForeignSource]) + ", empty " +
                 std::to_string(dropped[eHardenedEmptyDatagram]) + ", receive errors " +
                 std::to_string(dropped[eHardenedReceiveError]) + ", windows bounded " +
                 std::to_string(dropped[eHardenedWindowClamped]);
    }
    human += "; now: queued " + std::to_string(s.sendRingOccupancy) + ", unacknowledged " +
             std::to_string(s.unacknowledged) + ", send " + modeName(s.sendMode) + ", receive " +
             modeName(s.receiveMode) + ", window " + std::to_string(s.windowSize) + ", rtt " +
             (s.smoothedRttMicros < 0 ? std::string("none") : std::to_string(s.smoothedRttMicros) + " us") +
             ", peer heard " +
             (s.millisSincePeerHeard < 0 ? std::string("never")
                                         : std::to_string(s.millisSincePeerHeard) + " ms ago");

    Json json("stats");
    if (id > 0) {
        json.number("conn", id);
    }
    json.text("transport", "eudp")
        .flag("hardened", s.hardened)
        .raw("sent", commandCounts(s.sentDatagrams, s.sentPayloadBytes, true))
        .raw("received", commandCounts(s.receivedDatagrams, s.receivedPayloadBytes, true))
        .number("resent", asNumber(s.dataResent))
        .number("naks_sent", asNumber(s.naksSent))
        .number("naks_received", asNumber(s.naksReceived))
        .number("gaps_skipped", asNumber(s.realtimeGapsSkipped))
        .number("datagrams_skipped", asNumber(s.realtimeDatagramsSkipped))
        .number("late", asNumber(s.lateDropped))
        .number("duplicates", asNumber(s.duplicatesDropped))
        .number("ring_full", asNumber(s.receiveRingFullDropped))
        .number("invalid", asNumber(s.invalidReceived))
        .raw("hardened_dropped",
             "{\"strangers\":" + std::to_string(dropped[eHardenedForeignSource]) +
                 ",\"empty\":" + std::to_string(dropped[eHardenedEmptyDatagram]) +
                 ",\"receive_errors\":" + std::to_string(dropped[eHardenedReceiveError]) +
                 ",\"windows_bounded\":" + std::to_string(dropped[eHardenedWindowClamped]) + "}")
        .number("queued", s.sendRingOccupancy)
        .number("unacknowledged", s.unacknowledged)
        .text("send_mode", modeName(s.sendMode))
        .text("receive_mode", modeName(s.receiveMode))
        .number("window", s.windowSize)
        .number("rtt_us", s.smoothedRttMicros)
        .number("peer_heard_ms", s.millisSincePeerHeard);
    printer.pick(human, json);
}

void printTcp(Printer& printer, int id, const TCPStatistics& s) {
    const std::string who = id > 0 ? "stats [" + std::to_string(id) + "]" : "stats";
    Json json("stats");
    if (id > 0) {
        json.number("conn", id);
    }
    json.text("transport", "tcp")
        .number("frames_sent", asNumber(s.framesSent))
        .number("bytes_sent", asNumber(s.bytesSent))
        .number("frames_received", asNumber(s.framesReceived))
        .number("bytes_received", asNumber(s.bytesReceived))
        .number("oversize_refused", asNumber(s.oversizeRefused));
    printer.pick(who + " tcp: sent " + std::to_string(s.framesSent) + " frames (" +
                     std::to_string(s.bytesSent) + " bytes); received " + std::to_string(s.framesReceived) +
                     " frames (" + std::to_string(s.bytesReceived) + " bytes); oversize refused " +
                     std::to_string(s.oversizeRefused),
                 json);
}

}  // namespace

std::vector<OptionEntry> hardenedServeOptions() {
    return {
        {"--hardened", 0, nullptr,
         "EUDP: hardened mode: survive empty and invalid datagrams, take a connection's\n"
         "datagrams only from its client, keep windows within 1 to 999, and limit\n"
         "connection requests (the three options below)",
         nullptr},
        {kLimitOptions[0], 0, "N", "hardened: live connections in all (default 1024; 0: no limit)", nullptr},
        {kLimitOptions[1], 0, "N", "hardened: live connections per client address (default 64)", nullptr},
        {kLimitOptions[2], 0, "N", "hardened: new connections per second per client address\n(default 20)",
         nullptr}};
}

OptionEntry hardenedClientOption() {
    return {"--hardened", 0, nullptr,
            "EUDP: hardened mode: take datagrams only from the server, keep windows\n"
            "within 1 to 999",
            nullptr};
}

int parseHardening(const char* command, const ParsedArgs& parsed, ETransport kind, EUDPHardening& hardening) {
    hardening = EUDPHardening();
    if (!parsed.has("--hardened")) {
        for (const char* option : kLimitOptions) {
            if (parsed.has(option)) {
                return usageError(command, std::string(option) + " applies to --hardened only");
            }
        }
        return kExitOk;
    }
    if (kind != eTransportEUDP) {
        return usageError(command, "--hardened applies to --eudp only");
    }
    hardening.enabled = true;
    std::uint32_t* const limits[3] = {&hardening.maxConnections, &hardening.maxPerSource,
                                      &hardening.maxNewPerSecondPerSource};
    for (int i = 0; i < 3; ++i) {
        if (!parsed.has(kLimitOptions[i])) {
            continue;
        }
        long long value = 0;
        if (!parseInteger(parsed.value(kLimitOptions[i]), 0, std::numeric_limits<std::uint32_t>::max(),
                          value)) {
            return usageError(command,
                              std::string(kLimitOptions[i]) + " takes a number from 0 to 4294967295");
        }
        *limits[i] = static_cast<std::uint32_t>(value);
    }
    return kExitOk;
}

void addHardening(std::vector<CommandEntry>& commands) {
    for (CommandEntry& command : commands) {
        const std::string name = command.name;
        const bool server = name == "serve";
        if (!server && name != "connect" && name != "call" && name != "sub") {
            continue;
        }
        if (server) {
            const std::vector<OptionEntry> options = hardenedServeOptions();
            command.options.insert(command.options.end(), options.begin(), options.end());
        } else {
            command.options.push_back(hardenedClientOption());
        }
        if (command.shell.empty()) {
            continue;
        }
        const ShellCommandEntry stats =
            server ? ShellCommandEntry{"stats [CONN]",
                                       "show the listener's figures and every connection's (or CONN's)"}
                   : ShellCommandEntry{"stats", "show what the connection has sent, received and dropped"};
        auto quit = command.shell.begin();
        while (quit != command.shell.end() && std::string(quit->usage) != "quit") {
            ++quit;
        }
        command.shell.insert(quit, stats);
    }
}

void printConnectionStats(Printer& printer, int id, const TARNConnectionStatistics& stats) {
    if (stats.transport == eTransportEUDP) {
        printEudp(printer, id, stats.eudp);
    } else {
        printTcp(printer, id, stats.tcp);
    }
}

void printListenerStats(Printer& printer, const TARNListenerStatistics& s, ETransport kind) {
    Json json("listener_stats");
    json.text("transport", kind == eTransportEUDP ? "eudp" : "tcp")
        .flag("hardened", s.hardened)
        .number("accepted", asNumber(s.accepted))
        .number("live", s.live)
        .raw("refused", "{\"total_limit\":" + std::to_string(s.refused[eRefusedTotalLimit]) +
                            ",\"per_address_limit\":" + std::to_string(s.refused[eRefusedPerSourceLimit]) +
                            ",\"rate_limit\":" + std::to_string(s.refused[eRefusedRateLimit]) + "}")
        .number("invalid", asNumber(s.invalidReceived))
        .number("non_con", asNumber(s.nonConReceived))
        .number("empty", asNumber(s.emptyReceived))
        .number("receive_errors", asNumber(s.receiveErrors));
    std::string human = std::string("stats listener ") + (kind == eTransportEUDP ? "eudp" : "tcp") +
                        (s.hardened ? " hardened" : "") + ": accepted " + std::to_string(s.accepted) +
                        ", live " + std::to_string(s.live);
    if (kind == eTransportEUDP) {
        human += "; refused: total limit " + std::to_string(s.refused[eRefusedTotalLimit]) +
                 ", per address " + std::to_string(s.refused[eRefusedPerSourceLimit]) + ", rate " +
                 std::to_string(s.refused[eRefusedRateLimit]) + "; dropped: invalid " +
                 std::to_string(s.invalidReceived) + ", not CON " + std::to_string(s.nonConReceived) +
                 ", empty " + std::to_string(s.emptyReceived) + ", receive errors " +
                 std::to_string(s.receiveErrors);
    }
    printer.pick(human, json);
}

}  // namespace tarncli
