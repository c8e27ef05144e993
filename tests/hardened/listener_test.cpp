// Hardened EUDP listeners over real sockets: they survive datagrams that stop a default listener,
// keep to their limits on connection requests, and stay small under a flood of 10 000 CONs from one
// address while a client from another address connects.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <eudptransport.h>
#include <tarnconnection.h>
#include <tarnlistener.h>

#include "faultsupport.h"
#include "flood.h"
#include "testsupport.h"

using faults::TestServer;
using testsupport::Bytes;
using testsupport::eudpDatagram;
using testsupport::waitUntil;

namespace {

bool isAck(const Bytes& datagram) {
    return datagram.size() == 8 && datagram[1] == 'A';
}

// The ACKs that reach `raw`: waits up to 10 s for `expected` of them, then 200 ms more for any
// beyond, so that a listener slowed down by a busy machine is not taken for one that refused.
int acksFor(testsupport::RawUdp& raw, int expected) {
    int acks = 0;
    Bytes datagram;
    std::uint16_t from = 0;
    const std::int64_t deadline = testsupport::nowMs() + 10000;
    while (acks < expected && testsupport::nowMs() < deadline &&
           raw.receive(datagram, from, static_cast<int>(deadline - testsupport::nowMs()))) {
        acks += isAck(datagram) ? 1 : 0;
    }
    const std::int64_t quietUntil = testsupport::nowMs() + 200;
    while (testsupport::nowMs() < quietUntil &&
           raw.receive(datagram, from, static_cast<int>(quietUntil - testsupport::nowMs()))) {
        acks += isAck(datagram) ? 1 : 0;
    }
    return acks;
}

EUDPHardening limits(std::uint32_t all, std::uint32_t perSource, std::uint32_t perSecond) {
    EUDPHardening hardening = EUDPHardening::on();
    hardening.maxConnections = all;
    hardening.maxPerSource = perSource;
    hardening.maxNewPerSecondPerSource = perSecond;
    return hardening;
}

}  // namespace

TEST(HardenedListener, SurvivesWhatStopsADefaultListenerAndStillAccepts) {
    TestServer server(eTransportEUDP);
    server.hardening = EUDPHardening::on();
    ASSERT_NE(0, server.start());
    testsupport::RawUdp attacker;
    Bytes wrongVersion = eudpDatagram("CON", 0);
    wrongVersion[0] = 9;
    std::vector<Bytes> hostile = {Bytes(), Bytes{1, 'C', 'O'}, wrongVersion, Bytes(3, 0)};
    std::uint32_t state = 12345;
    for (int i = 0; i < 50; ++i) {  // random bytes, none a valid datagram (version byte 0)
        Bytes random(1 + i % 40);
        for (std::uint8_t& byte : random) {
            state = state * 1103515245u + 12345u;
            byte = static_cast<std::uint8_t>(state >> 16);
        }
        random[0] = 0;
        hostile.push_back(random);
    }
    hostile.push_back(Bytes());
    for (const Bytes& datagram : hostile) {
        ASSERT_TRUE(attacker.sendTo(datagram, server.port()));
    }
    ASSERT_TRUE(waitUntil(
        [&] {
            const TARNListenerStatistics figures = server.listener()->getStatistics();
            return figures.emptyReceived + figures.invalidReceived == hostile.size();
        },
        5000));
    const TARNListenerStatistics figures = server.listener()->getStatistics();
    EXPECT_EQ(2u, figures.emptyReceived);
    EXPECT_TRUE(figures.hardened);

    hardened::NullClient client;
    TARNConnection connection(eTransportEUDP);
    ASSERT_TRUE(connection.connect("127.0.0.1", server.port(), &client));
    EXPECT_TRUE(waitUntil([&] { return server.accepted().count() == 1; }, 5000));
    EXPECT_EQ(1u, server.listener()->getStatistics().accepted);
    connection.disconnect();
}

TEST(HardenedListener, PerSourceLimitRefusesWithoutAnAckAndOtherAddressesStillConnect) {
    TestServer server(eTransportEUDP);
    server.hardening = limits(0, 2, 0);
    ASSERT_NE(0, server.start());
    testsupport::RawUdp raw;
    for (std::uint32_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", i), server.port()));
    }
    EXPECT_EQ(2, acksFor(raw, 2));
    EXPECT_TRUE(waitUntil(
        [&] { return server.listener()->getStatistics().refused[eRefusedPerSourceLimit] == 1; }, 5000));
    EXPECT_EQ(2u, server.accepted().count());
    EXPECT_EQ(2u, server.listener()->getStatistics().live);
    EXPECT_TRUE(hardened::connectFrom("127.0.0.2", server.port()));
    EXPECT_EQ(3u, server.listener()->getStatistics().accepted);
}

TEST(HardenedListener, RateLimitAdmitsAgainAfterASecond) {
    TestServer server(eTransportEUDP);
    server.hardening = limits(0, 0, 2);
    ASSERT_NE(0, server.start());
    testsupport::RawUdp raw;
    for (std::uint32_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", i), server.port()));
    }
    EXPECT_EQ(2, acksFor(raw, 2));
    // The third CON is refused on the listener's thread, which may come to it after the two ACKs.
    EXPECT_TRUE(
        waitUntil([&] { return server.listener()->getStatistics().refused[eRefusedRateLimit] == 1; }, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // the limit is per second
    ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", 3), server.port()));
    EXPECT_EQ(1, acksFor(raw, 1));
    EXPECT_EQ(3u, server.accepted().count());
}

TEST(HardenedListener, TotalLimitCountsLiveConnectionsOnly) {
    TestServer server(eTransportEUDP);
    server.hardening = limits(1, 0, 0);
    ASSERT_NE(0, server.start());
    hardened::NullClient client;
    auto first = std::make_unique<TARNConnection>(eTransportEUDP);
    ASSERT_TRUE(first->connect("127.0.0.1", server.port(), &client));
    testsupport::RawUdp raw;
    ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", 0), server.port()));
    // Refused on the listener's thread: counted once it came to the CON, and never answered.
    EXPECT_TRUE(
        waitUntil([&] { return server.listener()->getStatistics().refused[eRefusedTotalLimit] == 1; }, 5000));
    EXPECT_EQ(0, acksFor(raw, 0));
    first->disconnect();  // its DIS ends the server's side: the place is free again
    ASSERT_TRUE(waitUntil([&] { return server.listener()->getStatistics().live == 0; }, 5000));
    ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", 1), server.port()));
    EXPECT_EQ(1, acksFor(raw, 1));
}

TEST(HardenedListener, HardenedAndDefaultEndsTalk) {
    for (bool serverHardened : {false, true}) {
        TestServer server(eTransportEUDP);
        if (serverHardened) {
            server.hardening = EUDPHardening::on();
        }
        ASSERT_NE(0, server.start());
        EXPECT_TRUE(hardened::connectFrom("127.0.0.1", server.port(), !serverHardened));
    }
}

TEST(HardenedListener, FloodOfTenThousandConsStaysWithinTheBound) {
    faults::figure(hardened::flood(true, 10000));
}

TEST(HardenedListener, ATransportGivenToListenOnKeepsItsOwnHardening) {
    struct Keep : ITARNConnector {
        void onNewConnection(TARNConnection* connection) override { kept = connection; }
        std::atomic<TARNConnection*> kept{nullptr};  // set on the accept thread
    };
    // The transport stays ours and must outlive the listener, so it is made first.
    EUDPTransport transport;
    transport.setHardening(EUDPHardening::on());
    ASSERT_TRUE(transport.listen(sal::HostAddress("127.0.0.1"), 0));
    TARNListener listener(eTransportEUDP);
    Keep* const keep = new Keep;
    ASSERT_TRUE(listener.listenOn(&transport, keep));

    testsupport::RawUdp raw;
    ASSERT_TRUE(raw.sendTo(Bytes(), transport.getLocalPort()));  // stops a default listener
    ASSERT_TRUE(waitUntil([&] { return listener.getStatistics().emptyReceived == 1; }, 5000));
    EXPECT_TRUE(listener.getStatistics().hardened);

    hardened::NullClient client;
    TARNConnection connection(eTransportEUDP);
    ASSERT_TRUE(connection.connect("127.0.0.1", transport.getLocalPort(), &client));
    ASSERT_TRUE(waitUntil([&] { return keep->kept != nullptr; }, 5000));
    TARNConnection* const accepted = keep->kept;
    const TARNConnectionStatistics figures = accepted->getStatistics();
    EXPECT_EQ(eTransportEUDP, figures.transport);
    EXPECT_TRUE(figures.eudp.hardened);
    EXPECT_EQ(1u, listener.getStatistics().accepted);
    EXPECT_TRUE(listener.shutdown(-1));
    connection.disconnect();
    accepted->disconnect();
    delete accepted;
}
