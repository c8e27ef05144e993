// A flood of connection requests from one raw socket at an EUDP listener, with a client from
// another loopback address connecting meanwhile; shared by the hardened suite and the long run that
// measures a default listener for comparison.
#ifndef TARN_TESTS_HARDENED_FLOOD_H
#define TARN_TESTS_HARDENED_FLOOD_H

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>

#include <eudptransport.h>
#include <tarnconnection.h>
#include <tarnlistener.h>

#include "faultsupport.h"
#include "recording.h"
#include "testsupport.h"

namespace hardened {

using faults::TestServer;
using testsupport::eudpDatagram;
using testsupport::waitUntil;

#if defined(__SANITIZE_THREAD__)
constexpr long kSanitizerMemoryFactor = 16;
#elif defined(__SANITIZE_ADDRESS__)
constexpr long kSanitizerMemoryFactor = 4;
#else
constexpr long kSanitizerMemoryFactor = 1;
#endif
// AddressSanitizer keeps freed blocks resident in its quarantine (up to 256 MiB), so the resident
// figure of a run that handles 10 000 requests says nothing about what the requests hold.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kCheckResident = false;
#else
constexpr bool kCheckResident = true;
#endif

using testsupport::NullClient;

// A client whose socket is bound to `address` (another loopback address than the flood's).
inline bool connectFrom(const std::string& address, uint16 port, bool hardened = false) {
    EUDPTransport* transport = new EUDPTransport;
    if (!transport->listen(sal::HostAddress(address), 0)) {
        delete transport;
        return false;
    }
    if (hardened) {
        transport->setHardening(EUDPHardening::on());
    }
    NullClient client;
    TARNConnection connection(transport);
    const bool connected = connection.connect("127.0.0.1", port, &client) && connection.subscribe("x");
    connection.disconnect();
    return connected;
}

// `count` CONs from one raw socket, as fast as it sends, while a client from 127.0.0.2 connects;
// returns the figure line (and the listener's figures in `pFigures`). Checks the hardened bound
// when `hardened`.
inline std::string flood(bool hardened, int count, TARNListenerStatistics* pFigures = nullptr) {
    TestServer server(eTransportEUDP);
    if (hardened) {
        server.hardening = EUDPHardening::on();
    }
    EXPECT_NE(0, server.start());
    const long baseKb = faults::residentKb();
    const int baseThreads = faults::ownThreadCount();

    std::atomic<int> sent{0};
    std::thread sender([&] {
        testsupport::RawUdp raw;
        for (int i = 0; i < count; ++i) {
            if (raw.sendTo(eudpDatagram("CON", static_cast<std::uint32_t>(i)), server.port())) {
                ++sent;
            }
        }
    });
    EXPECT_TRUE(waitUntil([&] { return sent.load() >= count / 5; }, 30000));
    const int sentBeforeClient = sent.load();
    const std::int64_t start = testsupport::nowMs();
    const bool connected = connectFrom("127.0.0.2", server.port());
    const std::int64_t connectMs = testsupport::nowMs() - start;
    const int sentWhenConnected = sent.load();
    // The listener takes requests in arrival order: what it had taken when the client was through
    // tells whether the client's request waited behind the flood's.
    const TARNListenerStatistics whenConnected = server.listener()->getStatistics();
    const std::uint64_t takenWhenConnected = whenConnected.accepted + whenConnected.refused[0] +
                                             whenConnected.refused[1] + whenConnected.refused[2];
    sender.join();
    EXPECT_TRUE(connected) << "after " << connectMs << " ms, " << sentWhenConnected << " CONs sent";
    EXPECT_EQ(count, sent.load());

    // Let the listener work through what the socket still holds.
    std::uint64_t last = 0;
    waitUntil(
        [&] {
            const TARNListenerStatistics f = server.listener()->getStatistics();
            const std::uint64_t seen = f.accepted + f.refused[0] + f.refused[1] + f.refused[2];
            const bool settled = seen == last;
            last = seen;
            if (!settled) {
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
            }
            return settled;
        },
        120000);
    waitUntil([&] { return faults::ownThreadCount() - baseThreads >= 3 * static_cast<int>(last); }, 5000);
    const long peakKb = faults::residentKb();
    const int peakThreads = faults::ownThreadCount();
    const TARNListenerStatistics figures = server.listener()->getStatistics();
    if (pFigures != nullptr) {
        *pFigures = figures;
    }
    if (hardened) {
        const EUDPHardening defaults;
        EXPECT_LE(figures.live, defaults.maxPerSource + 1);
        EXPECT_LE(peakThreads - baseThreads, 3 * static_cast<int>(defaults.maxPerSource + 1));
        if (kCheckResident) {
            EXPECT_LT(peakKb - baseKb, 16 * 1024 * kSanitizerMemoryFactor) << "KiB";
        }
        EXPECT_GT(figures.refused[eRefusedRateLimit] + figures.refused[eRefusedPerSourceLimit], 0u);
    }
    const std::uint64_t refused = figures.refused[eRefusedRateLimit] +
                                  figures.refused[eRefusedPerSourceLimit] +
                                  figures.refused[eRefusedTotalLimit];
    std::ostringstream out;
    out << count << " EUDP CONs from one raw socket at a " << (hardened ? "hardened" : "default")
        << " listener: " << figures.accepted << " accepted (the client from 127.0.0.2 among them), "
        << figures.refused[eRefusedRateLimit] << " refused by rate, "
        << figures.refused[eRefusedPerSourceLimit] << " by the per-address limit, "
        << count - static_cast<long>(figures.accepted - (connected ? 1 : 0) + refused)
        << " lost in the socket; peak " << (peakKb - baseKb) << " KiB resident and "
        << peakThreads - baseThreads << " threads above the start; the client from 127.0.0.2 "
        << (connected ? "connected" : "failed") << " in " << connectMs << " ms (its CON sent after "
        << sentBeforeClient << " of the flood's; " << sentWhenConnected << " sent and " << takenWhenConnected
        << " requests taken by the listener when it was through)";
    return out.str();
}

}  // namespace hardened

#endif  // TARN_TESTS_HARDENED_FLOOD_H
