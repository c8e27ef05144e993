// Datagrams that are already queued when the socket is read are taken together and handled one by
// one in arrival order, by the receiver thread or by a reader waiting in receiveData: the same
// answers on the wire and the same deliveries as when each is read alone, the last one of a read
// as promptly as the first, and nothing after a DIS. A read asks for two datagrams while they come
// one at a time and for the whole batch while they come in runs. The reliable sender's window
// leaves whole, in order and byte for byte, whether its datagrams are handed to the system together
// or one by one.
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eudpsuite.h"

namespace {

std::string message(int i) {
    return "message " + std::to_string(i);
}

// Reads one message within a deadline, so that a message held back fails instead of hanging.
std::string receiveWithin(EUDPTransport& t, int timeoutMs) {
    std::atomic<bool> done{false};
    std::string text = "<none>";
    std::thread reader([&] {
        std::uint8_t buffer[1500];
        const int n = t.receiveData(buffer, sizeof buffer);
        text = n < 0 ? "<" + std::to_string(n) + ">" : std::string(buffer, buffer + n);
        done = true;
    });
    if (!waitUntil([&] { return done.load(); }, timeoutMs)) {
        t.disconnect();  // lets the reader go (its read fails), so that the thread can be joined
        reader.join();
        return "<held back>";
    }
    reader.join();
    return text;
}

// Queues `datagrams` in the server's socket while the reading turn is held, so that whoever reads
// next finds them all waiting.
void queueAll(ServerWithRawPeer& peer, const std::vector<Bytes>& datagrams) {
    EUDPTransportTest::HeldTurn turn(*peer.server);
    for (const Bytes& datagram : datagrams) {
        ASSERT_TRUE(peer.sendToServer(datagram));
    }
}

TEST(EUDPBatch, QueuedReliableDataIsAcknowledgedAndDeliveredInOrder) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    makeReceiveReliable(peer);
    const int count = 40;  // more than one read takes
    std::vector<Bytes> datagrams;
    for (int i = 0; i < count; ++i) {
        datagrams.push_back(eudpDatagram("CMD", static_cast<std::uint32_t>(i + 1), bytesOf(message(i))));
    }
    queueAll(peer, datagrams);
    for (int i = 0; i < count; ++i) {
        expectNext(peer, eudpDatagram("ACK", static_cast<std::uint32_t>(i + 1)));
    }
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(message(i), receiveWithin(*peer.server, 2000));
    }
    EXPECT_EQ(count + 1, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    EXPECT_TRUE(peer.raw.quietFor(200));
}

TEST(EUDPBatch, QueuedRealtimeDataWithAGapIsDeliveredInOrderWithoutAnswers) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    // 1, 2, 4 (3 skipped), a late 3 (a duplicate: ACK and dropped), an empty one (NOP), 6.
    queueAll(peer, {eudpDatagram("CMD", 1, bytesOf("a")), eudpDatagram("CMD", 2, bytesOf("b")),
                    eudpDatagram("CMD", 4, bytesOf("d")), eudpDatagram("CMD", 3, bytesOf("c")),
                    eudpDatagram("CMD", 5), eudpDatagram("CMD", 6, bytesOf("f"))});
    expectNext(peer, eudpDatagram("ACK", 3));
    expectNext(peer, eudpDatagram("NOP", 0));
    EXPECT_EQ("a", receiveWithin(*peer.server, 2000));
    EXPECT_EQ("b", receiveWithin(*peer.server, 2000));
    EXPECT_EQ("d", receiveWithin(*peer.server, 2000));
    EXPECT_EQ("f", receiveWithin(*peer.server, 2000));
    EXPECT_EQ(7, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    EXPECT_TRUE(peer.raw.quietFor(200));
}

// A reader already waiting in receiveData when the turn comes free: whichever of it and the
// receiver thread reads the queued datagrams, the last of them is delivered with the first, not
// when something else arrives.
TEST(EUDPBatch, LastQueuedDatagramIsNotHeldBackFromAWaitingReader) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    std::atomic<bool> done{false};
    std::string first;
    std::thread reader;
    {
        EUDPTransportTest::HeldTurn turn(*peer.server);
        reader = std::thread([&] {
            std::uint8_t buffer[64];
            const int n = peer.server->receiveData(buffer, sizeof buffer);
            first = n < 0 ? "<error>" : std::string(buffer, buffer + n);
            done = true;
        });
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(peer.sendToServer(
                eudpDatagram("CMD", static_cast<std::uint32_t>(i + 1), bytesOf(message(i)))));
        }
        EXPECT_FALSE(waitUntil([&] { return done.load(); }, 100));  // the turn is held
    }
    const bool bDelivered = waitUntil([&] { return done.load(); }, 3000);
    if (!bDelivered) {
        peer.server->disconnect();
    }
    reader.join();
    ASSERT_TRUE(bDelivered);
    EXPECT_EQ(message(0), first);
    EXPECT_EQ(message(1), receiveWithin(*peer.server, 1000));
    EXPECT_EQ(message(2), receiveWithin(*peer.server, 1000));
    EXPECT_EQ(4, EUDPTransportTest::receiveSeq(*peer.server).getValue());
}

// The DIS ends the connection where it stands in the queue: what came before it is answered and
// delivered, what came after it is neither.
TEST(EUDPBatch, DisInTheMiddleOfQueuedDatagramsEndsTheirHandling) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    makeReceiveReliable(peer);
    queueAll(peer, {eudpDatagram("CMD", 1, bytesOf("a")), eudpDatagram("CMD", 2, bytesOf("b")),
                    eudpDatagram("DIS", 3), eudpDatagram("CMD", 3, bytesOf("c")), eudpDatagram("WIN", 7)});
    expectNext(peer, eudpDatagram("ACK", 1));
    expectNext(peer, eudpDatagram("ACK", 2));
    ASSERT_TRUE(waitUntil([&] { return peer.server->isClosed(); }, 2000));
    EXPECT_TRUE(peer.raw.quietFor(300));  // no ACK of 3, no WAK
    EXPECT_EQ("a", receiveWithin(*peer.server, 2000));
    EXPECT_EQ("b", receiveWithin(*peer.server, 2000));
    EXPECT_EQ("", receiveWithin(*peer.server, 2000));  // the end of the connection
    EXPECT_EQ(3, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    EXPECT_EQ(10u, EUDPTransportTest::windowSize(*peer.server).load());
}

// While datagrams come one at a time a read asks for two; a burst that fills that room makes the
// next reads ask for the whole batch, and a read that then takes a single datagram asks for two
// again. Whatever the room, every datagram is delivered once and in order.
TEST(EUDPBatch, ReadRoomGrowsForABurstAndShrinksForSingleDatagrams) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    EXPECT_EQ(2, EUDPTransportTest::readRoom(*peer.server));

    // Read as 2, 32, 32, 32 and 2: the first read fills its room, and no later one takes a single
    // datagram.
    const int burst = 100;
    std::vector<Bytes> datagrams;
    for (int i = 0; i < burst; ++i) {
        datagrams.push_back(eudpDatagram("CMD", static_cast<std::uint32_t>(i + 1), bytesOf(message(i))));
    }
    queueAll(peer, datagrams);
    EXPECT_TRUE(waitUntil(
        [&] {
            return EUDPTransportTest::receiveQueued(*peer.server) == static_cast<std::uint32_t>(burst) &&
                   EUDPTransportTest::readRoom(*peer.server) == 32;
        },
        5000))
        << EUDPTransportTest::receiveQueued(*peer.server) << " delivered, room "
        << EUDPTransportTest::readRoom(*peer.server);
    for (int i = 0; i < burst; ++i) {
        ASSERT_EQ(message(i), receiveWithin(*peer.server, 2000));
    }

    // Each single datagram is handled before the next is sent: the first read takes one and asks
    // for two after it, and so does every one after.
    for (int i = burst; i < burst + 5; ++i) {
        ASSERT_TRUE(
            peer.sendToServer(eudpDatagram("CMD", static_cast<std::uint32_t>(i + 1), bytesOf(message(i)))));
        ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::receiveQueued(*peer.server) == 1u; }, 2000))
            << "datagram " << i + 1 << " not delivered";
        EXPECT_EQ(2, EUDPTransportTest::readRoom(*peer.server)) << "after datagram " << i + 1;
        EXPECT_EQ(message(i), receiveWithin(*peer.server, 2000));
    }
    EXPECT_EQ(burst + 6, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    EXPECT_TRUE(peer.raw.quietFor(200));
}

// Everything is queued while the window is 0, then the window opens: the first burst is the whole
// window, the acknowledgement of its first half lets the next half out, and the 500 ms go-back
// sends the unacknowledged window again, each datagram exactly as queued and in order.
void expectWindowLeavesWhole(std::uint32_t window) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    makeSendReliable(peer);
    setWindow(peer, 0);
    const std::uint32_t count = window * 2;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::string text = message(static_cast<int>(i));
        ASSERT_TRUE(peer.server->sendData(reinterpret_cast<const uint8*>(text.data()),
                                          static_cast<uint>(text.size())));
    }
    setWindow(peer, window);
    auto expectRange = [&](std::uint32_t from, std::uint32_t to) {
        for (std::uint32_t i = from; i < to; ++i) {
            expectNext(peer, eudpDatagram("CMD", i, bytesOf(message(static_cast<int>(i)))));
            if (::testing::Test::HasFailure()) {
                return;
            }
        }
    };
    expectRange(0, window);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", window / 2 - 1)));
    expectRange(window, window + window / 2);
    expectRange(window / 2, window + window / 2);  // the go-back
}

TEST(EUDPBatch, ReliableWindowHandedOverTogetherLeavesWholeAndInOrder) {
    expectWindowLeavesWhole(40);
}

TEST(EUDPBatch, ReliableWindowSentOneByOneLeavesWholeAndInOrder) {
    expectWindowLeavesWhole(100);
}

}  // namespace
