// EUDP statistics against a raw-socket peer: each counter equals what the peer sent and received.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include <eudpcounters.h>
#include <eudptransport.h>

#include "eudptestaccess.h"
#include "testsupport.h"

using eudptest::ClientWithRawPeer;
using eudptest::ServerWithRawPeer;
using testsupport::Bytes;
using testsupport::bytesOf;
using testsupport::eudpDatagram;

namespace {

std::uint64_t total(const std::uint64_t (&counts)[EUDP_COMMAND_KINDS]) {
    std::uint64_t sum = 0;
    for (std::uint64_t n : counts) {
        sum += n;
    }
    return sum;
}

// Waits until the transport has received `count` valid datagrams of `command`.
bool receivedAtLeast(const EUDPTransport& transport, EEUDPCommand command, std::uint64_t count) {
    return testsupport::waitUntil(
        [&] { return transport.getStatistics().receivedDatagrams[command] >= count; }, 5000);
}

}  // namespace

TEST(EudpStatistics, FreshTransportIsAllZero) {
    EUDPTransport transport;
    const EUDPStatistics stats = transport.getStatistics();
    EXPECT_FALSE(stats.hardened);
    EXPECT_EQ(0u, total(stats.sentDatagrams));
    EXPECT_EQ(0u, total(stats.receivedDatagrams));
    EXPECT_EQ(0u, stats.sendRingOccupancy);
    EXPECT_EQ(eRealtime, stats.sendMode);
    EXPECT_EQ(eRealtime, stats.receiveMode);
    EXPECT_EQ(10u, stats.windowSize);
    EXPECT_EQ(-1, stats.smoothedRttMicros);
    EXPECT_EQ(-1, stats.millisSincePeerHeard);
}

TEST(EudpStatistics, RealtimeReceiveCountsDataGapsAndLateDatagrams) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(41));
    EUDPTransport& server = *peer.server;
    // The handshake: the server's ACK left through the new transport.
    EXPECT_EQ(1u, server.getStatistics().sentDatagrams[ACK]);

    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 42, bytesOf("abc"))));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 43, bytesOf("de"))));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 47, bytesOf("fghi"))));  // skips 44 to 46
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 45, bytesOf("late"))));
    ASSERT_TRUE(receivedAtLeast(server, CMD, 4));
    Bytes ack;
    ASSERT_TRUE(peer.next(ack));  // the late one is acknowledged as it stands
    EXPECT_EQ(testsupport::hex(eudpDatagram("ACK", 45)), testsupport::hex(ack));
    EXPECT_TRUE(peer.raw.quietFor(200));

    const EUDPStatistics stats = server.getStatistics();
    EXPECT_EQ(4u, stats.receivedDatagrams[CMD]);
    EXPECT_EQ(3u + 2u + 4u + 4u, stats.receivedPayloadBytes[CMD]);
    EXPECT_EQ(4u, total(stats.receivedDatagrams));
    EXPECT_EQ(1u, stats.realtimeGapsSkipped);
    EXPECT_EQ(3u, stats.realtimeDatagramsSkipped);
    EXPECT_EQ(1u, stats.lateDropped);
    EXPECT_EQ(0u, stats.duplicatesDropped);
    EXPECT_EQ(2u, stats.sentDatagrams[ACK]);
    EXPECT_EQ(2u, total(stats.sentDatagrams));
    EXPECT_GE(stats.millisSincePeerHeard, 0);
    EXPECT_LT(stats.millisSincePeerHeard, 5000);
}

TEST(EudpStatistics, ReliableReceiveCountsAcksNaksAndDuplicates) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(9));
    EUDPTransport& server = *peer.server;
    EUDPTransportTest::receiveMode(server) = eReliable;

    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 10, bytesOf("a"))));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 12, bytesOf("c"))));  // 11 missing: NAK 11
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 10, bytesOf("a"))));  // duplicate
    Bytes datagram;
    std::vector<std::string> answers;
    while (answers.size() < 3 && peer.next(datagram)) {
        answers.push_back(eudptest::commandOf(datagram) + std::to_string(testsupport::le32(datagram, 4)));
    }
    EXPECT_EQ((std::vector<std::string>{"ACK10", "NAK11", "ACK10"}), answers);
    // A datagram is counted once the socket took it, which may be just after the peer has it.
    ASSERT_TRUE(testsupport::waitUntil([&] { return server.getStatistics().sentDatagrams[ACK] == 3; }, 5000));

    const EUDPStatistics stats = server.getStatistics();
    EXPECT_EQ(3u, stats.receivedDatagrams[CMD]);
    EXPECT_EQ(1u, stats.naksSent);
    EXPECT_EQ(1u, stats.sentDatagrams[NAK]);
    EXPECT_EQ(3u, stats.sentDatagrams[ACK]);  // handshake, 10, the duplicate 10
    EXPECT_EQ(1u, stats.duplicatesDropped);
    EXPECT_EQ(0u, stats.lateDropped);
    EXPECT_EQ(0u, stats.realtimeGapsSkipped);
    EXPECT_EQ(eReliable, stats.receiveMode);
}

// What the raw peer received from the client, by sequence number.
struct Received {
    std::vector<std::uint32_t> words;
    std::uint64_t payloadBytes = 0;
    std::uint64_t resends = 0;
    void add(const Bytes& datagram) {
        const std::uint32_t word = testsupport::le32(datagram, 4);
        if (std::find(words.begin(), words.end(), word) != words.end()) {
            ++resends;
        }
        words.push_back(word);
        payloadBytes += datagram.size() - EUDPPacket::HEADER_LENGTH;
    }
};

TEST(EudpStatistics, ReliableSendingCountsResendsNaksAndRoundTrip) {
    ClientWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    EUDPTransport& client = peer.client;
    EUDPTransportTest::sendMode(client) = eReliable;
    // The CON went out; the connection's data starts at 1.
    EXPECT_EQ(1u, client.getStatistics().sentDatagrams[CON]);

    for (const char* text : {"one", "two", "three"}) {
        ASSERT_TRUE(
            client.sendData(reinterpret_cast<const uint8*>(text), static_cast<uint>(std::strlen(text))));
    }
    // Whatever the peer gets, counted as it arrives: a slow run may see resends after 500 ms.
    Received received;
    Bytes datagram;
    auto collectUntil = [&](const std::function<bool()>& done) {
        while (!done() && peer.next(datagram, 3000)) {
            ASSERT_EQ("CMD", eudptest::commandOf(datagram));
            received.add(datagram);
        }
    };
    auto seen = [&](std::uint32_t word) {
        return std::count(received.words.begin(), received.words.end(), word);
    };
    collectUntil([&] { return seen(3) >= 1; });
    // The sender counts a datagram once its send has returned, which may be after the peer read it.
    EXPECT_TRUE(testsupport::waitUntil([&] { return client.getStatistics().unacknowledged == 3; }, 5000))
        << client.getStatistics().unacknowledged;

    // ACK 1, then NAK 2: the two after the acknowledged one go out again.
    ASSERT_TRUE(peer.sendToClient(eudpDatagram("ACK", 1)));
    ASSERT_TRUE(testsupport::waitUntil([&] { return client.getStatistics().sendRingOccupancy == 2; }, 5000));
    const std::size_t beforeNak = received.words.size();
    ASSERT_TRUE(peer.sendToClient(eudpDatagram("NAK", 2)));
    collectUntil([&] { return received.words.size() >= beforeNak + 2 && received.words.back() == 3; });
    ASSERT_TRUE(peer.sendToClient(eudpDatagram("ACK", 3)));
    ASSERT_TRUE(testsupport::waitUntil([&] { return client.getStatistics().sendRingOccupancy == 0; }, 5000));
    // A round trip: a new datagram acknowledged as soon as it arrives (a resend, after 500 ms
    // without an ACK, would give no sample).
    ASSERT_TRUE(client.sendData(reinterpret_cast<const uint8*>("four"), 4));
    collectUntil([&] { return seen(4) >= 1; });
    ASSERT_TRUE(peer.sendToClient(eudpDatagram("ACK", 4)));
    ASSERT_TRUE(testsupport::waitUntil([&] { return client.getStatistics().sendRingOccupancy == 0; }, 5000));
    while (peer.next(datagram, 700)) {  // anything still on its way
        received.add(datagram);
    }

    const EUDPStatistics stats = client.getStatistics();
    EXPECT_EQ(received.words.size(), stats.sentDatagrams[CMD]);
    EXPECT_EQ(received.payloadBytes, stats.sentPayloadBytes[CMD]);
    EXPECT_EQ(received.resends, stats.dataResent);
    EXPECT_GE(stats.dataResent, 2u);
    EXPECT_EQ(1u, stats.naksReceived);
    EXPECT_EQ(4u, stats.receivedDatagrams[ACK]);  // the handshake's, 1, 3 and 4
    EXPECT_GE(stats.smoothedRttMicros, 0);
    EXPECT_LT(stats.smoothedRttMicros, 5000000);
    EXPECT_EQ(eReliable, stats.sendMode);
}

TEST(EudpStatistics, ControlDatagramsAreCountedByCommand) {
    ClientWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    EUDPTransport& client = peer.client;
    // The peer asks for a window and a mode; the client answers each once.
    ASSERT_TRUE(peer.sendToClient(eudpDatagram("WIN", 20)));
    ASSERT_TRUE(peer.sendToClient(eudpDatagram("MOD", 0x44444454u)));  // 'T' for its sending
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ("WAK", eudptest::commandOf(datagram));
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ("MAK", eudptest::commandOf(datagram));
    ASSERT_TRUE(peer.sendToClient(eudpDatagram("NOP", 0)));
    ASSERT_TRUE(receivedAtLeast(client, NOP, 1));
    client.disconnect();
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ("DIS", eudptest::commandOf(datagram));
    ASSERT_TRUE(testsupport::waitUntil([&] { return client.getStatistics().sentDatagrams[DIS] == 1; }, 5000));

    const EUDPStatistics stats = client.getStatistics();
    EXPECT_EQ(1u, stats.sentDatagrams[CON]);
    EXPECT_EQ(1u, stats.sentDatagrams[WAK]);
    EXPECT_EQ(1u, stats.sentDatagrams[MAK]);
    EXPECT_EQ(1u, stats.sentDatagrams[DIS]);
    EXPECT_EQ(4u, total(stats.sentDatagrams));
    EXPECT_EQ(1u, stats.receivedDatagrams[ACK]);
    EXPECT_EQ(1u, stats.receivedDatagrams[WIN]);
    EXPECT_EQ(1u, stats.receivedDatagrams[MOD]);
    EXPECT_EQ(1u, stats.receivedDatagrams[NOP]);
    EXPECT_EQ(4u, total(stats.receivedDatagrams));
    EXPECT_EQ(0u, total(stats.receivedPayloadBytes));
    EXPECT_EQ(20u, stats.windowSize);
}

TEST(EudpStatistics, InvalidDatagramsAndAFullReceiveRingAreCounted) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0));
    EUDPTransport& server = *peer.server;
    Bytes wrongVersion = eudpDatagram("CMD", 1, bytesOf("x"));
    wrongVersion[0] = 2;
    ASSERT_TRUE(peer.sendToServer(wrongVersion));
    ASSERT_TRUE(peer.sendToServer(Bytes{1, 'C', 'M'}));
    // Fill the receive ring (999 waiting messages) and one more.
    for (std::uint32_t i = 1; i <= 1000; ++i) {
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", i, bytesOf("p"))));
        if (i % 100 == 0) {
            ASSERT_TRUE(receivedAtLeast(server, CMD, i));
        }
    }
    ASSERT_TRUE(receivedAtLeast(server, CMD, 1000));
    const EUDPStatistics stats = server.getStatistics();
    EXPECT_EQ(2u, stats.invalidReceived);
    EXPECT_EQ(1u, stats.receiveRingFullDropped);
    EXPECT_EQ(1000u, stats.receivedDatagrams[CMD]);
}

TEST(EudpCounters, RoundTripIsSmoothedOverSamplesAndResendsCancelOne) {
    EUDPCounters counters;
    counters.countSentData(1, 10, true);
    counters.countAcknowledged(0);  // older than the sample: no sample yet
    EUDPStatistics stats;
    counters.fill(stats);
    EXPECT_EQ(-1, stats.smoothedRttMicros);
    counters.countAcknowledged(1);
    counters.fill(stats);
    EXPECT_GE(stats.smoothedRttMicros, 0);
    const std::int64_t first = stats.smoothedRttMicros;

    counters.countSentData(2, 10, true);  // starts a sample
    counters.countSentData(2, 10, true);  // resent: the sample is cancelled
    counters.countAcknowledged(2);
    EUDPStatistics after;
    counters.fill(after);
    EXPECT_EQ(first, after.smoothedRttMicros);
    EXPECT_EQ(1u, after.dataResent);
    EXPECT_EQ(3u, after.sentDatagrams[CMD]);
    EXPECT_EQ(30u, after.sentPayloadBytes[CMD]);

    counters.countSentData(3, 0, false);  // realtime: no sample
    counters.countAcknowledged(3);
    counters.fill(after);
    EXPECT_EQ(first, after.smoothedRttMicros);
}

TEST(EudpCounters, ResendsAreToldAcrossTheWrap) {
    EUDPCounters counters;
    counters.countSentData(65533, 1, true);
    counters.countSentData(65534, 1, true);
    counters.countSentData(0, 1, true);      // after 65534
    counters.countSentData(65534, 1, true);  // again
    EUDPStatistics stats;
    counters.fill(stats);
    EXPECT_EQ(1u, stats.dataResent);
    EXPECT_EQ(4u, stats.sentDatagrams[CMD]);
}
