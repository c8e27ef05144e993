// The impairment relay on its own (raw datagrams: port following, loss, duplication, reordering,
// delay, repeatability) and TARN over EUDP through it: with duplication, reordering, and delay
// with jitter, reliable streams arrive complete and in order, realtime streams strictly increasing.
// Every datagram takes its chance, the handshake and negotiation included: the streams retry
// connect and mode requests as an application must.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "kernelloss.h"
#include "relay.h"
#include "testsupport.h"

using testsupport::Bytes;
using testsupport::eudpDatagram;
using testsupport::le32;
using testsupport::nowMs;
using testsupport::RawUdp;

namespace {

struct RawSetup {
    RawUdp listening;   // plays the server's listening port
    RawUdp connection;  // plays the server's per-connection port
    RawUdp client;
    std::unique_ptr<tarnrelay::Relay> relay;

    void open(const tarnrelay::ImpairOptions& options) {
        relay.reset(new tarnrelay::Relay(options));
        std::string error;
        ASSERT_TRUE(relay->open("127.0.0.1", 0, "127.0.0.1", listening.port(), error)) << error;
        relay->start();
    }
    // The CON through the relay and the ACK back from the connection port; returns the relay's
    // port towards the server.
    std::uint16_t handshake() {
        EXPECT_TRUE(client.sendTo(eudpDatagram("CON", 0), relay->port()));
        Bytes datagram;
        std::uint16_t back = 0;
        EXPECT_TRUE(listening.receive(datagram, back, 5000));
        EXPECT_TRUE(connection.sendTo(eudpDatagram("ACK", 0), back));
        std::uint16_t from = 0;
        EXPECT_TRUE(client.receive(datagram, from, 5000));
        EXPECT_EQ(relay->port(), from);
        return back;
    }
};

TEST(ImpairRelay, FollowsTheServersConnectionPort) {
    RawSetup setup;
    setup.open(tarnrelay::ImpairOptions());
    const std::uint16_t back = setup.handshake();
    ASSERT_TRUE(setup.client.sendTo(eudpDatagram("CMD", 1, {'x'}), setup.relay->port()));
    Bytes datagram;
    std::uint16_t from = 0;
    ASSERT_TRUE(setup.connection.receive(datagram, from, 5000));
    EXPECT_EQ(back, from);
    EXPECT_EQ(eudpDatagram("CMD", 1, {'x'}), datagram);
    EXPECT_TRUE(setup.listening.quietFor(100));  // nothing more goes to the listening port
    const tarnrelay::RelayCounts counts = setup.relay->counts();
    EXPECT_EQ(1u, counts.clients);
    EXPECT_EQ(3u, counts.received);
    EXPECT_EQ(3u, counts.forwarded);
}

TEST(ImpairRelay, TwoClientsGetTwoMappings) {
    RawSetup setup;
    setup.open(tarnrelay::ImpairOptions());
    RawUdp second;
    ASSERT_TRUE(setup.client.sendTo(eudpDatagram("CON", 0), setup.relay->port()));
    ASSERT_TRUE(second.sendTo(eudpDatagram("CON", 7), setup.relay->port()));
    Bytes a;
    Bytes b;
    std::uint16_t backA = 0;
    std::uint16_t backB = 0;
    ASSERT_TRUE(setup.listening.receive(a, backA, 5000));
    ASSERT_TRUE(setup.listening.receive(b, backB, 5000));
    EXPECT_NE(backA, backB);
    EXPECT_EQ(2u, setup.relay->counts().clients);
}

TEST(ImpairRelay, FullLossDropsEverythingAndCountsIt) {
    RawSetup setup;
    tarnrelay::ImpairOptions options;
    options.loss = 1.0;
    setup.open(options);
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(
            setup.client.sendTo(eudpDatagram("CMD", static_cast<std::uint32_t>(i)), setup.relay->port()));
    }
    EXPECT_TRUE(testsupport::waitUntil([&] { return setup.relay->counts().dropped == 10; }, 5000));
    EXPECT_TRUE(setup.listening.quietFor(200));
    EXPECT_EQ(0u, setup.relay->counts().forwarded);
}

TEST(ImpairRelay, FullDuplicationSendsEachDatagramTwice) {
    RawSetup setup;
    tarnrelay::ImpairOptions options;
    options.duplicate = 1.0;
    setup.open(options);
    ASSERT_TRUE(setup.client.sendTo(eudpDatagram("CMD", 5), setup.relay->port()));
    Bytes first;
    Bytes second;
    std::uint16_t from = 0;
    ASSERT_TRUE(setup.listening.receive(first, from, 5000));
    ASSERT_TRUE(setup.listening.receive(second, from, 5000));
    EXPECT_EQ(first, second);
    EXPECT_TRUE(setup.listening.quietFor(100));
    EXPECT_EQ(1u, setup.relay->counts().duplicated);
}

TEST(ImpairRelay, FullReorderingSwapsNeighbours) {
    RawSetup setup;
    tarnrelay::ImpairOptions options;
    options.reorder = 1.0;
    options.reorderHoldMs = 2000;  // only a successor releases a held datagram here
    setup.open(options);
    for (std::uint32_t i = 1; i <= 4; ++i) {
        ASSERT_TRUE(setup.client.sendTo(eudpDatagram("CMD", i), setup.relay->port()));
    }
    std::vector<std::uint32_t> order;
    for (int i = 0; i < 4; ++i) {
        Bytes datagram;
        std::uint16_t from = 0;
        ASSERT_TRUE(setup.listening.receive(datagram, from, 5000));
        order.push_back(le32(datagram, 4));
    }
    EXPECT_EQ((std::vector<std::uint32_t>{2, 1, 4, 3}), order);
    EXPECT_EQ(2u, setup.relay->counts().reordered);
}

TEST(ImpairRelay, HeldDatagramGoesOutAloneAfterTheHoldTime) {
    RawSetup setup;
    tarnrelay::ImpairOptions options;
    options.reorder = 1.0;
    options.reorderHoldMs = 100;
    setup.open(options);
    const std::int64_t sent = nowMs();
    ASSERT_TRUE(setup.client.sendTo(eudpDatagram("CMD", 1), setup.relay->port()));
    Bytes datagram;
    std::uint16_t from = 0;
    ASSERT_TRUE(setup.listening.receive(datagram, from, 5000));
    EXPECT_GE(nowMs() - sent, 90);
}

TEST(ImpairRelay, DelayHoldsEveryDatagramBack) {
    RawSetup setup;
    tarnrelay::ImpairOptions options;
    options.delayMs = 200;
    setup.open(options);
    const std::int64_t sent = nowMs();
    ASSERT_TRUE(setup.client.sendTo(eudpDatagram("CMD", 1), setup.relay->port()));
    Bytes datagram;
    std::uint16_t from = 0;
    ASSERT_TRUE(setup.listening.receive(datagram, from, 5000));
    EXPECT_GE(nowMs() - sent, 190);
    EXPECT_EQ(1u, setup.relay->counts().delayed);
}

TEST(ImpairRelay, DataOnlyLetsHandshakeAndControlThrough) {
    RawSetup setup;
    tarnrelay::ImpairOptions options;
    options.loss = 1.0;
    options.dataOnly = true;
    setup.open(options);
    setup.handshake();  // CON and its answer pass although everything else is lost
    ASSERT_TRUE(setup.client.sendTo(eudpDatagram("CMD", 1), setup.relay->port()));
    ASSERT_TRUE(setup.client.sendTo(eudpDatagram("MOD", 0x44524444), setup.relay->port()));
    Bytes datagram;
    std::uint16_t from = 0;
    ASSERT_TRUE(setup.connection.receive(datagram, from, 5000));
    EXPECT_EQ(eudpDatagram("MOD", 0x44524444), datagram);
    EXPECT_EQ(1u, setup.relay->counts().dropped);
}

TEST(ImpairRelay, SameSeedGivesSameDecisions) {
    auto survivors = [](std::uint32_t seed) {
        RawSetup setup;
        tarnrelay::ImpairOptions options;
        options.loss = 0.5;
        options.seed = seed;
        setup.open(options);
        for (std::uint32_t i = 0; i < 40; ++i) {
            setup.client.sendTo(eudpDatagram("CMD", i), setup.relay->port());
        }
        testsupport::waitUntil([&] { return setup.relay->counts().received == 40; }, 5000);
        std::vector<std::uint32_t> got;
        Bytes datagram;
        std::uint16_t from = 0;
        while (setup.listening.receive(datagram, from, 200)) {
            got.push_back(le32(datagram, 4));
        }
        return got;
    };
    const std::vector<std::uint32_t> first = survivors(42);
    EXPECT_EQ(first, survivors(42));
    EXPECT_NE(first, survivors(43));
    EXPECT_GT(first.size(), 5u);
    EXPECT_LT(first.size(), 35u);
}

// TARN through the relay.
// A realtime receiver drops whatever arrives behind a later datagram, so `minimumShare` (a divisor
// of `messages`) is what at least must arrive: half with a little disorder, far less with jitter.
void throughRelay(const tarnrelay::ImpairOptions& impair, bool reliable, int messages, int minimumShare = 2) {
    faults::TestServer server(eTransportEUDP);
    ASSERT_NE(0, server.start());
    tarnrelay::Relay relay(impair);
    std::string error;
    ASSERT_TRUE(relay.open("127.0.0.1", 0, "127.0.0.1", server.port(), error)) << error;
    relay.start();
    faults::StreamOptions options;
    options.reliable = reliable;
    options.messages = messages;
    const faults::StreamResult result = faults::runStream(server, relay.port(), options);
    relay.stop();
    ASSERT_EQ("", result.setupError);
    if (reliable) {
        EXPECT_EQ("", faults::checkComplete(result.toServer, messages)) << "client to server";
        EXPECT_EQ("", faults::checkComplete(result.toClient, messages)) << "server to client";
    } else {
        EXPECT_EQ("", faults::checkIncreasing(result.toServer)) << "client to server";
        EXPECT_EQ("", faults::checkIncreasing(result.toClient)) << "server to client";
        EXPECT_GT(result.toServer.size(), static_cast<std::size_t>(messages / minimumShare));
        EXPECT_GT(result.toClient.size(), static_cast<std::size_t>(messages / minimumShare));
    }
    faults::figure(std::string(reliable ? "reliable" : "realtime") + " through the relay, " +
                   std::to_string(messages) + " each way: " + std::to_string(result.seconds) +
                   " s, arrived " + std::to_string(result.toServer.size()) + " up and " +
                   std::to_string(result.toClient.size()) + " down; relay " +
                   tarnrelay::describe(relay.counts()));
}

tarnrelay::ImpairOptions duplicating() {
    tarnrelay::ImpairOptions options;
    options.duplicate = 0.05;
    options.seed = 11;
    return options;
}

tarnrelay::ImpairOptions reordering() {
    tarnrelay::ImpairOptions options;
    options.reorder = 0.05;
    options.seed = 12;
    return options;
}

tarnrelay::ImpairOptions delayed() {
    tarnrelay::ImpairOptions options;
    options.delayMs = 15;
    options.jitterMs = 10;
    options.seed = 13;
    return options;
}

TEST(TarnThroughRelay, ReliableWith5PercentDuplication) {
    throughRelay(duplicating(), true, 1000);
}

TEST(TarnThroughRelay, RealtimeWith5PercentDuplication) {
    throughRelay(duplicating(), false, 1000);
}

TEST(TarnThroughRelay, ReliableWith5PercentReordering) {
    throughRelay(reordering(), true, 1000);
}

TEST(TarnThroughRelay, RealtimeWith5PercentReordering) {
    throughRelay(reordering(), false, 1000);
}

TEST(TarnThroughRelay, ReliableWithDelayAndJitter) {
    throughRelay(delayed(), true, 1000);
}

TEST(TarnThroughRelay, RealtimeWithDelayAndJitter) {
    throughRelay(delayed(), false, 1000, 50);
}

}  // namespace
