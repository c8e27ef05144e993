// What connection requests cost a server: resident memory and threads per EUDP CON (each one, from
// anyone, makes a connection with two rings of 1000 datagrams and three threads that lives until
// its keep-alive gives up about 10.5 s later) and per TCP connection, shared by the short and the
// burst-of-1000 suites.
#ifndef TARN_TESTS_FAULTS_RESOURCE_CASES_H
#define TARN_TESTS_FAULTS_RESOURCE_CASES_H

#include <sstream>

#include <gtest/gtest.h>

#include "faultsupport.h"
#include "testsupport.h"

namespace faults {

// A sanitizer gives every thread shadow memory and bookkeeping of its own, which a connection's
// three threads multiply: the bounds below are for a plain build and grow by this factor.
// Measured for 20 requests: about 30 KiB plain, 300 KiB with ASan, 3.2 MiB with TSan.
#if defined(__SANITIZE_THREAD__)
constexpr long kSanitizerMemoryFactor = 16;
#elif defined(__SANITIZE_ADDRESS__)
constexpr long kSanitizerMemoryFactor = 4;
#else
constexpr long kSanitizerMemoryFactor = 1;
#endif

// `count` CONs from one stranger that never answers: every one is accepted; then all of them close
// by themselves within the keep-alive bounds and give back their threads.
inline void measureConnectionRequests(int count, long maxKbPerRequest) {
    TestServer server(eTransportEUDP);
    ASSERT_NE(0, server.start());
    const long baseKb = residentKb();
    const int baseThreads = ownThreadCount();
    testsupport::RawUdp stranger;
    const std::int64_t start = testsupport::nowMs();
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(
            stranger.sendTo(testsupport::eudpDatagram("CON", static_cast<std::uint32_t>(i)), server.port()));
        if (i % 50 == 49) {
            testsupport::waitUntil(
                [&] { return server.accepted().count() >= static_cast<std::size_t>(i) - 10; },
                10000);  // no more than the socket's queue holds
        }
    }
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return server.accepted().count() == static_cast<std::size_t>(count); }, 120000))
        << server.accepted().count() << " of " << count << " accepted";
    const std::int64_t accepted = testsupport::nowMs() - start;
    // The accept is counted when the connection is handed over; its last thread may start a
    // moment later.
    testsupport::waitUntil([&] { return ownThreadCount() - baseThreads >= 3 * count; }, 10000);
    const long peakKb = residentKb();
    const int peakThreads = ownThreadCount();
    const double kbPerRequest = static_cast<double>(peakKb - baseKb) / count;
    const double threadsPerRequest = static_cast<double>(peakThreads - baseThreads) / count;
    EXPECT_EQ(3 * count, peakThreads - baseThreads) << "receive, sender and receiver thread per request";
    EXPECT_LT(kbPerRequest, static_cast<double>(maxKbPerRequest * kSanitizerMemoryFactor));

    // The stranger never answers a keep-alive: each connection closes itself.
    ASSERT_TRUE(testsupport::waitUntil(
        [&] {
            for (std::size_t i = 0; i < server.accepted().count(); ++i) {
                if (server.accepted().server(i)->disconnects() == 0) {
                    return false;
                }
            }
            return true;
        },
        60000));
    const std::int64_t allClosed = testsupport::nowMs() - start;
    EXPECT_EQ(0u, server.accepted().reap());
    EXPECT_TRUE(testsupport::waitUntil([&] { return ownThreadCount() <= baseThreads; }, 20000))
        << ownThreadCount() << " threads, " << baseThreads << " before";
    std::ostringstream out;
    out << count << " EUDP CONs from one silent stranger: accepted in " << accepted << " ms; "
        << kbPerRequest / 1024.0 << " MiB resident and " << threadsPerRequest << " threads each (peak "
        << (peakKb - baseKb) / 1024 << " MiB, " << peakThreads - baseThreads << " threads); all closed by "
        << allClosed << " ms; " << residentKb() / 1024 << " MiB resident after deletion (" << baseKb / 1024
        << " before)";
    figure(out.str());
}

inline void measureTcpConnections(int count, long maxKbPerConnection) {
    TestServer server(eTransportTCP);
    ASSERT_NE(0, server.start());
    const long baseKb = residentKb();
    const int baseThreads = ownThreadCount();
    std::vector<testsupport::RawTcp> streams;
    const std::int64_t start = testsupport::nowMs();
    for (int i = 0; i < count; ++i) {
        streams.push_back(testsupport::RawTcp::connectTo(server.port()));
        ASSERT_TRUE(streams.back().valid());
        if (i % 4 == 3) {  // the backlog is 5
            testsupport::waitUntil([&] { return server.accepted().count() >= static_cast<std::size_t>(i); },
                                   10000);
        }
    }
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return server.accepted().count() == static_cast<std::size_t>(count); }, 120000))
        << server.accepted().count() << " of " << count << " accepted";
    const std::int64_t accepted = testsupport::nowMs() - start;
    // The accept is counted when the connection is handed over; its last thread may start a
    // moment later.
    testsupport::waitUntil([&] { return ownThreadCount() - baseThreads >= count; }, 10000);
    const long peakKb = residentKb();
    const int peakThreads = ownThreadCount();
    EXPECT_EQ(count, peakThreads - baseThreads) << "one receive thread per connection";
    const double kbPerConnection = static_cast<double>(peakKb - baseKb) / count;
    EXPECT_LT(kbPerConnection, static_cast<double>(maxKbPerConnection));
    streams.clear();  // the peers go away: every connection ends at once
    ASSERT_TRUE(testsupport::waitUntil(
        [&] {
            for (std::size_t i = 0; i < server.accepted().count(); ++i) {
                if (server.accepted().server(i)->disconnects() == 0) {
                    return false;
                }
            }
            return true;
        },
        30000));
    EXPECT_EQ(0u, server.accepted().reap());
    EXPECT_TRUE(testsupport::waitUntil([&] { return ownThreadCount() <= baseThreads; }, 20000));
    std::ostringstream out;
    out << count << " TCP connections: accepted in " << accepted << " ms; " << kbPerConnection
        << " KiB resident and 1 thread each (peak " << (peakKb - baseKb) / 1024 << " MiB)";
    figure(out.str());
}

}  // namespace faults

#endif  // TARN_TESTS_FAULTS_RESOURCE_CASES_H
