// The receiver thread on the wire: ordering and delivery in both modes, duplicates, gaps, ACK and
// NAK bookkeeping, answers to MOD and WIN, DIS, and receiveData.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eudpsuite.h"

namespace {

std::string receiveText(EUDPTransport& t) {
    std::uint8_t buffer[1500];
    int n = t.receiveData(buffer, sizeof buffer);
    if (n < 0) {
        return "<" + std::to_string(n) + ">";
    }
    return std::string(buffer, buffer + n);
}

// One receiveData on a thread of its own, started at once; -2 until it returned. A read still
// waiting when the test leaves (it failed) is given a receive count so that it ends.
class WaitingRead {
public:
    explicit WaitingRead(EUDPTransport& t)
        : m_transport(t), m_thread([this] {
              std::uint8_t buffer[64];
              m_result = m_transport.receiveData(buffer, sizeof buffer);
          }) {}
    ~WaitingRead() {
        if (!returnsWithin(0)) {
            EUDPTransportTest::receiveSem(m_transport).give();
        }
        m_thread.join();
    }
    WaitingRead(const WaitingRead&) = delete;
    WaitingRead& operator=(const WaitingRead&) = delete;
    bool returnsWithin(int ms) const {
        return waitUntil([&] { return m_result.load() != -2; }, ms);
    }
    int result() const { return m_result.load(); }

private:
    EUDPTransport& m_transport;
    std::atomic<int> m_result{-2};
    std::thread m_thread;
};

// On a link that has ended, a read goes on waiting for at least `waitMs` until the receive count is
// given once more, and then returns 0.
void expectNextReadWaitsForACount(EUDPTransport& t, int waitMs) {
    WaitingRead second(t);
    EXPECT_FALSE(second.returnsWithin(waitMs));
    EUDPTransportTest::receiveSem(t).give();
    EXPECT_TRUE(second.returnsWithin(2000));
    EXPECT_EQ(0, second.result());
}

// A WIN/WAK round trip: everything the raw peer sent before it has been handled when it returns.
void sync(ServerWithRawPeer& peer, std::uint32_t marker = 10) {
    setWindow(peer, marker);
}

// A server end connected to a raw peer for each test (receiving in realtime, expecting data number
// 1 next, keep-alives off).
class EUDPReceiverConnected : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(peer.open()); }
    ServerWithRawPeer peer;
};

TEST(EUDPReceiver, SequenceWrapsAndLateCopyIsDuplicate) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(65533));
    ASSERT_EQ(65534, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 65534, bytesOf("a"))));
    EXPECT_EQ("a", receiveText(*peer.server));
    EXPECT_EQ(0, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 0, bytesOf("b"))));
    EXPECT_EQ("b", receiveText(*peer.server));
    EXPECT_TRUE(peer.raw.quietFor(200));  // realtime: no answer to data
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 65534, bytesOf("a"))));
    expectNext(peer, eudpDatagram("ACK", 65534));
    EXPECT_EQ(1, log.count(eDebug, line(peer.raw.port(), "received a duplicate packet - ACK and ignore")))
        << log.dump();
    EXPECT_EQ(0u, EUDPTransportTest::receiveQueued(*peer.server));
}

TEST(EUDPReceiver, DuplicateAtWindowEdgeAndReliableGapOfOne) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(99));
    makeReceiveReliable(peer);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 99, bytesOf("old"))));
    expectNext(peer, eudpDatagram("ACK", 99));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 101, bytesOf("ahead"))));
    expectNext(peer, eudpDatagram("NAK", 100));
    EXPECT_EQ(1, log.count(eWarning, line(peer.raw.port(), "101 packets lost"))) << log.dump();
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 100, bytesOf("now"))));
    expectNext(peer, eudpDatagram("ACK", 100));
    EXPECT_EQ("now", receiveText(*peer.server));
    EXPECT_EQ(0u, EUDPTransportTest::receiveQueued(*peer.server));
}

TEST(EUDPReceiver, ReliableGapNaksAndDeliversAfterResend) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(9));  // expects 10
    makeReceiveReliable(peer);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 12, bytesOf("12"))));
    expectNext(peer, eudpDatagram("NAK", 10));
    EXPECT_EQ(1, log.count(eWarning, line(peer.raw.port(), "12 packets lost"))) << log.dump();
    EXPECT_EQ(10, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    for (std::uint32_t n = 10; n <= 12; ++n) {
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", n, bytesOf(std::to_string(n)))));
        expectNext(peer, eudpDatagram("ACK", n));
    }
    EXPECT_EQ("10", receiveText(*peer.server));
    EXPECT_EQ("11", receiveText(*peer.server));
    EXPECT_EQ("12", receiveText(*peer.server));
}

TEST(EUDPReceiver, LostCountUsesExpectedParity) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(10));  // expects 11
    makeReceiveReliable(peer);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 12, bytesOf("12"))));
    expectNext(peer, eudpDatagram("NAK", 11));
    EXPECT_EQ(1, log.count(eWarning, line(peer.raw.port(), "11 packets lost"))) << log.dump();
}

TEST(EUDPReceiver, RealtimeGapIsSkippedSilently) {
    LogCapture log(Corvane::Utilities::Logging::eInfo);
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(9));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 12, bytesOf("12"))));
    EXPECT_EQ("12", receiveText(*peer.server));
    EXPECT_EQ(13, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    EXPECT_TRUE(peer.raw.quietFor(300));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 10, bytesOf("10"))));
    expectNext(peer, eudpDatagram("ACK", 10));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 11, bytesOf("11"))));
    expectNext(peer, eudpDatagram("ACK", 11));
    EXPECT_EQ(0u, EUDPTransportTest::receiveQueued(*peer.server));
}

TEST(EUDPReceiver, DistanceOfHalfTheRangeDecidesOldOrNew) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(65534));  // expects 0
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 32768, bytesOf("behind"))));
    expectNext(peer, eudpDatagram("ACK", 32768));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 32767, bytesOf("ahead"))));
    EXPECT_EQ("ahead", receiveText(*peer.server));
    EXPECT_EQ(32768, EUDPTransportTest::receiveSeq(*peer.server).getValue());
}

TEST(EUDPReceiver, HighWordsGiveNegativeNumbers) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(65534));  // expects 0
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 0xFFFFFFFFu, bytesOf("minus one"))));
    expectNext(peer, eudpDatagram("ACK", 0xFFFFFFFFu));  // the word as it came
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 0x80000000u, bytesOf("far"))));
    EXPECT_EQ("far", receiveText(*peer.server));
    EXPECT_EQ(-32767, EUDPTransportTest::receiveSeq(*peer.server).getValue());
}

TEST_F(EUDPReceiverConnected, NakRefusedWhenNotAboveLastAck) {
    LogCapture log;
    const std::string warning =
        line(peer.raw.port(), "Received a NAK for a packet that had already been ACKed (ignoring)");
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("NAK", 3)));  // before any ACK: -1 is the largest
    sync(peer);
    EXPECT_EQ(1, log.count(eWarning, warning)) << log.dump();

    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 7)));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("NAK", 5)));
    sync(peer);
    EXPECT_EQ(2, log.count(eWarning, warning)) << log.dump();
    EXPECT_EQ(-1, EUDPTransportTest::lastSent(*peer.server).getValue());

    EUDPTransportTest::lastAcked(*peer.server) = ModuloValue(65530);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("NAK", 2)));  // wrapped below it
    sync(peer);
    EXPECT_EQ(3, log.count(eWarning, warning)) << log.dump();
}

TEST_F(EUDPReceiverConnected, AcceptedNakRewindsSender) {
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 7)));
    sync(peer);
    EUDPTransportTest::ackSem(*peer.server).take(0);
    EUDPTransportTest::unacked(*peer.server) = 4;
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("NAK", 9)));
    sync(peer);
    EXPECT_EQ(8, EUDPTransportTest::lastSent(*peer.server).getValue());
    EXPECT_EQ(0u, EUDPTransportTest::unacked(*peer.server).load());
    EXPECT_EQ(0, EUDPTransportTest::ackSem(*peer.server).take(0));
}

TEST_F(EUDPReceiverConnected, OldOrRepeatedAckChangesNothing) {
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 7)));
    sync(peer);
    EXPECT_EQ(7, EUDPTransportTest::lastAcked(*peer.server).getValue());
    EXPECT_EQ(0, EUDPTransportTest::ackSem(*peer.server).take(0));  // a new ACK gives it
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 7)));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 5)));
    sync(peer);
    EXPECT_EQ(7, EUDPTransportTest::lastAcked(*peer.server).getValue());
    EXPECT_EQ(1, EUDPTransportTest::ackSem(*peer.server).take(0));
}

TEST_F(EUDPReceiverConnected, WindowZeroIsTakenAndAcknowledged) {
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("WIN", 0)));
    expectNext(peer, eudpDatagram("WAK", 0));
    EXPECT_EQ(0u, peer.server->getWindowSize());
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("WIN", 5000)));  // beyond the ring: no bound
    expectNext(peer, eudpDatagram("WAK", 5000));
    EXPECT_EQ(5000u, peer.server->getWindowSize());
}

TEST_F(EUDPReceiverConnected, ModeRequestRefusedOnSecondByteKeepsFirstChange) {
    LogCapture log;
    EUDPTransportTest::sendMode(*peer.server) = eReliable;
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MOD", modeWord('T', 'D', 'X', 'D'))));
    ASSERT_TRUE(log.waitFor(eWarning, line(peer.raw.port(), "unknown mode request (ignoring)"), 2000))
        << log.dump();
    EXPECT_EQ(eRealtime, peer.server->getSendMode());
    EXPECT_EQ(eRealtime, peer.server->getReceiveMode());
    EXPECT_TRUE(peer.raw.quietFor(300));
}

TEST_F(EUDPReceiverConnected, ModeRequestLeavingSendAnswersCurrentLetters) {
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MOD", modeWord('D', '?', 'R', '?'))));
    expectNext(peer, eudpDatagram("MAK", modeWord('D', 'T', 'R', 'R')));
    EXPECT_EQ(eReliable, peer.server->getReceiveMode());
    EXPECT_EQ(eRealtime, peer.server->getSendMode());
}

TEST_F(EUDPReceiverConnected, ForbiddenModeGetsNoAnswer) {
    LogCapture log;
    peer.server->allowSendMode(true, false);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MOD", modeWord('R', 'D', 'D', 'D'))));
    ASSERT_TRUE(log.waitFor(eWarning, line(peer.raw.port(), "unknown mode request (ignoring)"), 2000));
    EXPECT_EQ(eRealtime, peer.server->getSendMode());
    EXPECT_TRUE(peer.raw.quietFor(300));
    // Realtime is still allowed.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MOD", modeWord('T', 'D', 'T', 'D'))));
    expectNext(peer, eudpDatagram("MAK", modeWord('T', 'T', 'T', 'T')));
}

TEST_F(EUDPReceiverConnected, AnswersAreHandedToRequesters) {
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MAK", 0x11223344u)));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("WAK", 77)));
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::windowAck(*peer.server).load() == 77u; }, 2000));
    EXPECT_EQ(0x11223344u, EUDPTransportTest::modeAck(*peer.server).load());
    EXPECT_EQ(0, EUDPTransportTest::modeSem(*peer.server).take(0));
}

TEST(EUDPReceiver, DisWakesBlockedReaderOnce) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    {
        WaitingRead first(*peer.server);
        EXPECT_FALSE(first.returnsWithin(200));
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("DIS", 1)));
        EXPECT_TRUE(first.returnsWithin(3000));
        EXPECT_EQ(0, first.result());
    }
    EXPECT_TRUE(peer.server->isClosed());
    EXPECT_FALSE(EUDPTransportTest::sendAliveTimer(*peer.server).isRunning());
    EXPECT_FALSE(EUDPTransportTest::aliveTimer(*peer.server).isRunning());
    Bytes earlier;  // a keep-alive sent before the DIS arrived may be waiting; loopback is instant
    std::uint16_t from = 0;
    while (peer.raw.receive(earlier, from, 100)) {
        EXPECT_EQ("CMD", commandOf(earlier));
    }
    EXPECT_TRUE(peer.raw.quietFor(700));  // nothing back, no keep-alive either

    // The thread's end gave one count only: a second read waits.
    expectNextReadWaitsForACount(*peer.server, 500);
}

TEST_F(EUDPReceiverConnected, QueuedMessagesSurviveTheEnd) {
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1, bytesOf("one"))));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 2, bytesOf("two"))));
    ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::receiveQueued(*peer.server) == 2; }, 2000));
    peer.server->disconnect();
    EXPECT_EQ("one", receiveText(*peer.server));
    EXPECT_EQ("two", receiveText(*peer.server));
    EXPECT_EQ("", receiveText(*peer.server));
}

TEST_F(EUDPReceiverConnected, SmallBufferKeepsMessageUntilNextDelivery) {
    LogCapture log;
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1, bytesOf("hello"))));
    std::uint8_t small[3];
    EXPECT_EQ(-1, peer.server->receiveData(small, sizeof small));
    EXPECT_EQ(1, log.count(eError, line(peer.raw.port(), "receive failed, provided buffer too small")))
        << log.dump();
    EXPECT_EQ(1u, EUDPTransportTest::receiveQueued(*peer.server));

    std::atomic<bool> done(false);
    std::string text;
    std::thread reader([&] {
        text = receiveText(*peer.server);
        done = true;
    });
    EXPECT_FALSE(waitUntil([&] { return done.load(); }, 300));  // the count was used up
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 2, bytesOf("world"))));
    EXPECT_TRUE(waitUntil([&] { return done.load(); }, 2000));
    reader.join();
    EXPECT_EQ("hello", text);
    // Every count is now one delivery behind: "world" comes out with the next delivery's count.
    EXPECT_EQ(0u, EUDPTransportTest::receiveSem(*peer.server).getCount());
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 3, bytesOf("again"))));
    EXPECT_EQ("world", receiveText(*peer.server));
    EXPECT_EQ(1u, EUDPTransportTest::receiveQueued(*peer.server));
}

// A count without a packet (only a failed push would leave one) reads the slot at the read index as
// it stands and does not consume it: an empty message when that slot was never written, otherwise
// the message that was written there a lap of the ring before.
TEST_F(EUDPReceiverConnected, CountWithoutPacketReadsTheSlotAsItStands) {
    EUDPTransportTest::receiveSem(*peer.server).give();
    EXPECT_EQ("", receiveText(*peer.server));
    EXPECT_EQ(0u, EUDPTransportTest::receiveBuffer(*peer.server).readIndex());

    for (std::uint32_t i = 1; i <= EUDPTransport::RING_CAPACITY; ++i) {
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", i, bytesOf("m" + std::to_string(i)))));
        ASSERT_EQ("m" + std::to_string(i), receiveText(*peer.server));
    }
    EXPECT_EQ(0u, EUDPTransportTest::receiveBuffer(*peer.server).readIndex());
    EUDPTransportTest::receiveSem(*peer.server).give();
    EXPECT_EQ("m1", receiveText(*peer.server));
    EUDPTransportTest::receiveSem(*peer.server).give();
    EXPECT_EQ("m1", receiveText(*peer.server));  // not consumed
    EXPECT_EQ(0u, EUDPTransportTest::receiveQueued(*peer.server));
}

TEST_F(EUDPReceiverConnected, EmptyDataIsAnsweredNotDelivered) {
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1)));
    expectNext(peer, eudpDatagram("NOP", 0));
    EXPECT_EQ(2, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    makeReceiveReliable(peer);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 2)));
    expectNext(peer, eudpDatagram("ACK", 2));
    EXPECT_TRUE(peer.raw.quietFor(200));
    EXPECT_EQ(0u, EUDPTransportTest::receiveQueued(*peer.server));
    EXPECT_EQ(0u, EUDPTransportTest::receiveSem(*peer.server).getCount());
}

TEST_F(EUDPReceiverConnected, FullReceiveRingDropsWithoutAnswer) {
    LogCapture log;
    // Paced, so that the socket's own buffer never drops anything.
    for (std::uint32_t n = 1; n <= 999; ++n) {
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", n, bytesOf("x" + std::to_string(n)))));
        if (n % 50 == 0 || n == 999) {
            ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::receiveQueued(*peer.server) == n; }, 5000))
                << n;
        }
    }
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1000, bytesOf("dropped"))));
    ASSERT_TRUE(log.waitFor(eDebug, line(peer.raw.port(), "receive buffer is full (dropping packet)"), 2000));
    EXPECT_TRUE(peer.raw.quietFor(200));
    EXPECT_EQ(1000, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    EXPECT_EQ("x1", receiveText(*peer.server));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1000, bytesOf("again"))));
    ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::receiveQueued(*peer.server) == 999; }, 2000));
    for (int n = 2; n <= 999; ++n) {
        ASSERT_EQ("x" + std::to_string(n), receiveText(*peer.server));
    }
    EXPECT_EQ("again", receiveText(*peer.server));
}

TEST_F(EUDPReceiverConnected, ConOnConnectionIsUnexpected) {
    LogCapture log;
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CON", 0)));
    EXPECT_TRUE(log.waitFor(eWarning, line(peer.raw.port(), "unknown/unexpected command (ignoring)"), 2000))
        << log.dump();
    EXPECT_TRUE(peer.raw.quietFor(200));
}

TEST_F(EUDPReceiverConnected, InvalidDatagramIsDropped) {
    LogCapture log;
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("cmd", 1, bytesOf("x"))));
    ASSERT_TRUE(log.waitFor(eWarning, line(peer.raw.port(), "dropping invalid packet"), 2000)) << log.dump();
    EXPECT_EQ(1, log.count(eWarning, "TARN/EUDP: packet validation failed: unknown command"));
    EXPECT_EQ(0u, EUDPTransportTest::receiveQueued(*peer.server));
    EXPECT_EQ(1, EUDPTransportTest::receiveSeq(*peer.server).getValue());
}

TEST(EUDPReceiver, EmptyDatagramIsAFailedReceive) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    ASSERT_TRUE(peer.sendToServer(Bytes()));
    EXPECT_TRUE(waitUntil([&] { return peer.server->isClosed(); }, 2000));
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::receiverRunning(*peer.server); }, 2000));
    EXPECT_FALSE(EUDPTransportTest::sendAliveTimer(*peer.server).isRunning());
    EXPECT_TRUE(log.lines().empty()) << log.dump();  // never validated
    std::uint8_t buffer[8];
    EXPECT_EQ(0, peer.server->receiveData(buffer, sizeof buffer));
}

TEST(EUDPReceiver, ReceiveFailureClosesAndStopsTimers) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    EUDPTransportTest::socket(*peer.server)->close();  // as if the socket failed
    EXPECT_TRUE(waitUntil([&] { return peer.server->isClosed(); }, 2000));
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::receiverRunning(*peer.server); }, 2000));
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::senderRunning(*peer.server); }, 2000));
    EXPECT_FALSE(EUDPTransportTest::sendAliveTimer(*peer.server).isRunning());
    EXPECT_FALSE(EUDPTransportTest::aliveTimer(*peer.server).isRunning());
    std::uint8_t buffer[8];
    EXPECT_EQ(0, peer.server->receiveData(buffer, sizeof buffer));
}

// A reader waiting in receiveData reads the socket itself, and what arrives while it is away is
// read by the receiver thread; bursts make the receiver thread hand over in the middle of what is
// waiting. Whoever reads, every datagram is handled once and in order: the peer sees one ACK per
// datagram, in order, and the reader gets every message in order.
TEST_F(EUDPReceiverConnected, WaitingReaderAndReceiverThreadTakeTurnsInOrder) {
    makeReceiveReliable(peer);
    const int kCount = 600;
    std::vector<std::string> received;
    std::thread reader([&] {
        for (int i = 0; i < kCount; ++i) {
            received.push_back(receiveText(*peer.server));
            if (received.back().empty() || received.back()[0] == '<') {
                return;  // the link ended: the test has failed already
            }
            if (i % 7 == 3) {
                // Away for a while, so that the receiver thread reads what comes meanwhile.
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
    bool ok = true;
    for (int i = 0; i < kCount && ok;) {
        const int burst = 1 + i % 5;
        for (int j = 0; j < burst && i + j < kCount; ++j) {
            ok = ok && peer.sendToServer(eudpDatagram("CMD", static_cast<std::uint32_t>(1 + i + j),
                                                      bytesOf("m" + std::to_string(i + j))));
        }
        for (int j = 0; j < burst && i < kCount && ok; ++j, ++i) {
            Bytes answer;
            ok = peer.next(answer);
            EXPECT_TRUE(ok);
            EXPECT_EQ(hex(eudpDatagram("ACK", static_cast<std::uint32_t>(1 + i))), hex(answer));
        }
    }
    if (!ok) {
        peer.server->disconnect();  // lets the reader out
    }
    reader.join();
    ASSERT_TRUE(ok);
    ASSERT_EQ(static_cast<std::size_t>(kCount), received.size());
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ("m" + std::to_string(i), received[static_cast<std::size_t>(i)]);
    }
    EXPECT_TRUE(peer.raw.quietFor(200));  // nothing answered twice
}

// The same ends when the waiting reader is the one that reads them.
TEST(EUDPReceiver, EmptyDatagramReadByAWaitingReaderEndsTheLinkWithOneCount) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    {
        WaitingRead first(*peer.server);
        EXPECT_FALSE(first.returnsWithin(200));
        ASSERT_TRUE(peer.sendToServer(Bytes()));
        EXPECT_TRUE(first.returnsWithin(3000));
        EXPECT_EQ(0, first.result());
    }
    EXPECT_TRUE(peer.server->isClosed());
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::receiverRunning(*peer.server); }, 2000));
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::senderRunning(*peer.server); }, 2000));
    EXPECT_FALSE(EUDPTransportTest::sendAliveTimer(*peer.server).isRunning());
    EXPECT_FALSE(EUDPTransportTest::aliveTimer(*peer.server).isRunning());
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    expectNextReadWaitsForACount(*peer.server, 300);
}

TEST(EUDPReceiver, SocketClosedUnderAWaitingReaderEndsTheLink) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    {
        WaitingRead first(*peer.server);
        EXPECT_FALSE(first.returnsWithin(200));
        EUDPTransportTest::socket(*peer.server)->close();  // as if the socket failed
        EXPECT_TRUE(first.returnsWithin(3000));
        EXPECT_EQ(0, first.result());
    }
    EXPECT_TRUE(peer.server->isClosed());
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::receiverRunning(*peer.server); }, 2000));
    EXPECT_FALSE(EUDPTransportTest::sendAliveTimer(*peer.server).isRunning());
    EXPECT_FALSE(EUDPTransportTest::aliveTimer(*peer.server).isRunning());
}

}  // namespace
