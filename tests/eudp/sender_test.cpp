// The sending path on the wire: numbering, realtime passes, the reliable window with go-back
// resend after 500 ms, cumulative ACK, NAK, wrap-around, the full ring.
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eudpsuite.h"

namespace {

// When the kernel took in the datagram the raw peer read last, in ms. Gaps between these are free
// of the reading thread's own scheduling delays, which a loaded machine makes long.
std::int64_t arrivalMs(ServerWithRawPeer& peer) {
    timeval stamp{};
    EXPECT_EQ(0, ::ioctl(peer.raw.fd(), SIOCGSTAMP, &stamp));
    return static_cast<std::int64_t>(stamp.tv_sec) * 1000 + stamp.tv_usec / 1000;
}

void makeReliable(ServerWithRawPeer& peer) {
    ASSERT_NO_FATAL_FAILURE(makeSendReliable(peer));
    ASSERT_EQ(eReliable, peer.server->getSendMode());
}

// A server end connected to a raw peer for each test, sending in realtime as the handshake leaves
// it, with keep-alives off.
class EUDPSenderRealtime : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(peer.open()); }
    ServerWithRawPeer peer;
};

// The same server end, asked by the peer to send reliably.
class EUDPSenderReliable : public EUDPSenderRealtime {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(EUDPSenderRealtime::SetUp());
        ASSERT_NO_FATAL_FAILURE(makeReliable(peer));
    }
};

// Queues `count` messages while the window is 0, then opens the window to `window`: the reliable
// sender waits for an acknowledgement (up to 500 ms) before it looks at newly queued data, so
// queueing everything first is what makes the first burst exact.
void queueHeld(ServerWithRawPeer& peer, int count, std::uint32_t window) {
    setWindow(peer, 0);
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(send(*peer.server, "q" + std::to_string(i)));
    }
    setWindow(peer, window);
}

// The sequence numbers of the next `count` datagrams; each must be a CMD.
std::vector<std::uint32_t> nextNumbers(ServerWithRawPeer& peer, int count, int timeoutMs = 3000) {
    std::vector<std::uint32_t> numbers;
    for (int i = 0; i < count; ++i) {
        Bytes datagram;
        if (!peer.next(datagram, timeoutMs)) {
            ADD_FAILURE() << "datagram " << i << " of " << count << " missing";
            break;
        }
        EXPECT_EQ("CMD", commandOf(datagram));
        numbers.push_back(le32(datagram, 4));
    }
    return numbers;
}

std::vector<std::uint32_t> range(std::uint32_t from, std::uint32_t to) {
    std::vector<std::uint32_t> out;
    for (std::uint32_t i = from; i <= to; ++i) {
        out.push_back(i);
    }
    return out;
}

TEST_F(EUDPSenderRealtime, RealtimeSendsEachQueuedMessageOnce) {
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(send(*peer.server, "m" + std::to_string(i)));
    }
    for (int i = 0; i < 20; ++i) {
        Bytes datagram;
        ASSERT_TRUE(peer.next(datagram));
        EXPECT_EQ(hex(eudpDatagram("CMD", static_cast<std::uint32_t>(i), bytesOf("m" + std::to_string(i)))),
                  hex(datagram));
    }
    EXPECT_TRUE(peer.raw.quietFor(800));
    EXPECT_EQ(0u, EUDPTransportTest::unacked(*peer.server).load());
    EXPECT_EQ(0u, EUDPTransportTest::sendQueued(*peer.server));
}

// A realtime message normally leaves from the calling thread; one queued behind a message that is
// still waiting in the ring (here for the zero window's 500 ms) must not overtake it.
TEST_F(EUDPSenderRealtime, RealtimeMessagesNeverOvertakeQueuedOnes) {
    setWindow(peer, 0);
    ASSERT_TRUE(send(*peer.server, "a"));  // the sender waits up to 500 ms before its pass
    setWindow(peer, 10);
    ASSERT_TRUE(send(*peer.server, "b"));
    ASSERT_TRUE(send(*peer.server, "c"));
    for (std::uint32_t i = 0; i < 3; ++i) {
        Bytes datagram;
        ASSERT_TRUE(peer.next(datagram));
        EXPECT_EQ(hex(eudpDatagram("CMD", i, bytesOf(std::string(1, static_cast<char>('a' + i))))),
                  hex(datagram));
    }
    EXPECT_TRUE(peer.raw.quietFor(300));
    ASSERT_TRUE(send(*peer.server, "d"));  // the ring is empty again: straight out
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 3, bytesOf("d"))), hex(datagram));
    EXPECT_EQ(0u, EUDPTransportTest::sendQueued(*peer.server));
}

// `threads` threads, each sending "t:0" to "t:<each - 1>" (t its index) as fast as it can.
std::vector<std::thread> startNumberedSenders(EUDPTransport& sender, int threads, int each) {
    std::vector<std::thread> senders;
    for (int t = 0; t < threads; ++t) {
        senders.emplace_back([&sender, t, each] {
            for (int i = 0; i < each; ++i) {
                EXPECT_TRUE(send(sender, std::to_string(t) + ":" + std::to_string(i)));
            }
        });
    }
    return senders;
}

// A CMD of startNumberedSenders carries its thread's next message, in that thread's order.
::testing::AssertionResult nextOfItsThread(const Bytes& datagram, std::vector<int>& nextOfThread) {
    const std::string text(datagram.begin() + 8, datagram.end());
    const int thread = text.empty() ? -1 : text[0] - '0';
    if (thread < 0 || thread >= static_cast<int>(nextOfThread.size())) {
        return ::testing::AssertionFailure() << "no sender thread's message: " << text;
    }
    int& next = nextOfThread[static_cast<std::size_t>(thread)];
    const std::string expected = std::to_string(thread) + ":" + std::to_string(next);
    if (text != expected) {
        return ::testing::AssertionFailure() << "expected " << expected << ", got " << text;
    }
    ++next;
    return ::testing::AssertionSuccess();
}

// Several threads sending at once: the wire carries the numbers in the order they were taken.
TEST_F(EUDPSenderRealtime, ConcurrentRealtimeSendersKeepNumbersInWireOrder) {
    constexpr int kThreads = 4;
    constexpr int kEach = 50;
    std::vector<std::thread> senders = startNumberedSenders(*peer.server, kThreads, kEach);
    for (std::thread& sender : senders) {
        sender.join();
    }
    std::vector<int> nextOfThread(kThreads, 0);
    for (std::uint32_t n = 0; n < kThreads * kEach; ++n) {
        Bytes datagram;
        ASSERT_TRUE(peer.next(datagram)) << n;
        ASSERT_EQ("CMD", commandOf(datagram));
        EXPECT_EQ(n, le32(datagram, 4));
        // Each thread's own messages keep their order too.
        ASSERT_TRUE(nextOfItsThread(datagram, nextOfThread));
    }
}

// Reliable messages from several threads while the peer acknowledges each one as it comes: the
// datagrams that leave from sendData itself and those the sender thread sends keep the order of
// their numbers on the wire. Only a resend may carry a number already seen.
TEST_F(EUDPSenderReliable, ConcurrentReliableSendersKeepNumbersInWireOrder) {
    constexpr int kThreads = 4;
    constexpr int kEach = 40;
    std::vector<std::thread> senders = startNumberedSenders(*peer.server, kThreads, kEach);
    std::vector<int> nextOfThread(kThreads, 0);
    std::uint32_t next = 0;
    while (next < static_cast<std::uint32_t>(kThreads * kEach)) {
        Bytes datagram;
        if (!peer.next(datagram, 5000)) {
            ADD_FAILURE() << "datagram " << next << " missing";
            break;
        }
        ASSERT_EQ("CMD", commandOf(datagram));
        const std::uint32_t number = le32(datagram, 4);
        ASSERT_LE(number, next) << "a datagram overtook " << next;
        if (number < next) {
            continue;  // a resend
        }
        ASSERT_TRUE(nextOfItsThread(datagram, nextOfThread));
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", number)));
        ++next;
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 0; }, 3000));
}

// An acknowledgement is taken in without the lock that a data datagram on its way holds, so a
// send that is slow to come back (its wake-up of the peer may put the sending thread aside) does
// not hold it up.
TEST_F(EUDPSenderReliable, AcknowledgementIsHandledWhileADatagramIsOnItsWay) {
    ASSERT_TRUE(send(*peer.server, "a"));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    ASSERT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("a"))), hex(datagram));
    ASSERT_EQ(1u, EUDPTransportTest::sendQueued(*peer.server));
    // The sender waits for the acknowledgement: its thread takes no lock until 500 ms are over.
    ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::senderWaitsForAck(*peer.server); }, 2000));
    RingBuffer<EUDPPacket>& ring = EUDPTransportTest::sendBuffer(*peer.server);
    {
        std::lock_guard<std::mutex> onItsWay(EUDPTransportTest::wireLock(*peer.server));
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 0)));
        // The ring's indices are read without its lock, so that this wait cannot hold anything.
        EXPECT_TRUE(waitUntil([&] { return ring.isEmpty(); }, 3000));
        EXPECT_EQ(0u, EUDPTransportTest::unacked(*peer.server).load());
    }
    EXPECT_EQ(0u, EUDPTransportTest::sendQueued(*peer.server));
}

// A keep-alive that falls due while a data datagram of its connection is on its way is sent by a
// timer worker once that datagram has left, and the timers of other connections keep their time
// meanwhile.
TEST(EUDPSender, KeepAliveDueWhileADatagramIsOnItsWayHoldsUpNoOtherTimer) {
    ServerWithRawPeer first;
    ASSERT_TRUE(first.open(0, false));
    Bytes datagram;
    {
        std::unique_lock<std::mutex> onItsWay(EUDPTransportTest::wireLock(*first.server));
        ServerWithRawPeer second;
        ASSERT_TRUE(second.open(0, false));
        // The first keep-alive comes 0.5 s after the connection: the first end's falls due
        // before the second end's, and waits for the datagram on its way.
        ASSERT_TRUE(second.next(datagram, 3000));
        EXPECT_EQ(hex(eudpDatagram("CMD", 0)), hex(datagram));
        EXPECT_TRUE(first.raw.quietFor(100));
        onItsWay.unlock();
        ASSERT_TRUE(first.next(datagram, 3000));
        EXPECT_EQ(hex(eudpDatagram("CMD", 0)), hex(datagram));
    }
}

// Before the sender thread runs there is nobody to hand a message to: it waits in the ring with
// its number and leaves once the connection is up.
TEST(EUDPSender, MessageQueuedBeforeConnectLeavesOnceConnected) {
    ClientWithRawPeer peer;
    ASSERT_TRUE(send(peer.client, "early"));
    EXPECT_EQ(1u, EUDPTransportTest::sendQueued(peer.client));
    ASSERT_TRUE(peer.open());
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("early"))), hex(datagram));
    ASSERT_TRUE(send(peer.client, "later"));
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 2, bytesOf("later"))), hex(datagram));  // the CON took 1
}

// A reliable message on its own leaves at once (from the sending thread), stays queued until it is
// acknowledged, and is sent again 500 ms after it went out when no acknowledgement comes.
TEST_F(EUDPSenderReliable, ReliableMessageOnItsOwnIsResentAfter500ms) {
    ASSERT_TRUE(send(*peer.server, "x"));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    const std::int64_t sent = arrivalMs(peer);
    EXPECT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("x"))), hex(datagram));
    EXPECT_EQ(1u, EUDPTransportTest::sendQueued(*peer.server));
    ASSERT_TRUE(peer.next(datagram, 3000));
    const std::int64_t resent = arrivalMs(peer);
    EXPECT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("x"))), hex(datagram));
    EXPECT_GE(resent - sent, 400);
    EXPECT_LE(resent - sent, 2000);

    // Acknowledged, it leaves the ring and nothing more is sent; the next one goes out at once.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 0)));
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 0; }, 2000));
    EXPECT_TRUE(peer.raw.quietFor(700));
    ASSERT_TRUE(send(*peer.server, "y"));
    ASSERT_TRUE(peer.next(datagram, 300));
    EXPECT_EQ(hex(eudpDatagram("CMD", 1, bytesOf("y"))), hex(datagram));
    EXPECT_EQ(1u, EUDPTransportTest::unacked(*peer.server).load());
}

// A message acknowledged as soon as it arrives is never sent again, and the next one, sent later,
// gets its own full 500 ms before it is resent: the wait that began with the first message does
// not cut the second one's short.
TEST_F(EUDPSenderReliable, AcknowledgedMessageIsNotResentAndTheNextGetsItsOwn500ms) {
    ASSERT_TRUE(send(*peer.server, "a"));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("a"))), hex(datagram));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 0)));
    ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 0; }, 2000));

    std::this_thread::sleep_for(std::chrono::milliseconds(250));  // half-way through the first wait
    ASSERT_TRUE(send(*peer.server, "b"));
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 1, bytesOf("b"))), hex(datagram));
    const std::int64_t sent = arrivalMs(peer);
    ASSERT_TRUE(peer.next(datagram, 3000));
    const std::int64_t resent = arrivalMs(peer);
    EXPECT_EQ(hex(eudpDatagram("CMD", 1, bytesOf("b"))), hex(datagram));  // "a" never again
    EXPECT_GE(resent - sent, 450);
    EXPECT_LE(resent - sent, 2000);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 1)));
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 0; }, 2000));
    EXPECT_TRUE(peer.raw.quietFor(1200));
}

// An acknowledgement that leaves a datagram out and unacknowledged starts the 500 ms again: the
// resend comes 500 ms after the last acknowledgement, not 500 ms after the datagram was sent.
TEST_F(EUDPSenderReliable, ResendComes500msAfterTheLastAcknowledgement) {
    queueHeld(peer, 2, 10);
    EXPECT_EQ(range(0, 1), nextNumbers(peer, 2));
    // Unacknowledged, the go-back sends both again.
    EXPECT_EQ(range(0, 1), nextNumbers(peer, 2));
    const std::int64_t bothOut = arrivalMs(peer);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 0)));
    EXPECT_EQ(std::vector<std::uint32_t>{1}, nextNumbers(peer, 1));
    const std::int64_t resent = arrivalMs(peer);
    EXPECT_GE(resent - bothOut, 200 + 450);
    EXPECT_LE(resent - bothOut, 3000);
    EXPECT_EQ(1u, EUDPTransportTest::sendQueued(*peer.server));
}

// Round trips whose acknowledgement comes at once leave the sender thread asleep: it wakes to
// begin counting a wait and at the end of one, not twice per message.
TEST_F(EUDPSenderReliable, AcknowledgedRoundTripsDoNotWakeTheSenderPerMessage) {
    const int messages = 40;
    const std::uint64_t before = EUDPTransportTest::senderWakeUps(*peer.server);
    const std::int64_t start = nowMs();
    for (int i = 0; i < messages; ++i) {
        ASSERT_TRUE(send(*peer.server, "r" + std::to_string(i)));
        Bytes datagram;
        ASSERT_TRUE(peer.next(datagram));
        ASSERT_EQ(static_cast<std::uint32_t>(i), le32(datagram, 4));
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", static_cast<std::uint32_t>(i))));
        ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 0; }, 2000));
    }
    const std::int64_t elapsed = nowMs() - start;
    const std::uint64_t wakeUps = EUDPTransportTest::senderWakeUps(*peer.server) - before;
    // Two per 500 ms begun (the wake that starts a wait's clock, and its end), and a few spare.
    const std::uint64_t allowed = 4 + 2 * static_cast<std::uint64_t>(elapsed / 500 + 1);
    EXPECT_LE(wakeUps, allowed) << "in " << elapsed << " ms";
    EXPECT_TRUE(peer.raw.quietFor(700));
}

TEST_F(EUDPSenderReliable, ReliableWindowOfTenThenSameTenEvery500ms) {
    queueHeld(peer, 15, 10);
    // Each burst's last datagram; the next burst starts 500 ms after it.
    EXPECT_EQ(range(0, 9), nextNumbers(peer, 10));
    std::int64_t windowFull = arrivalMs(peer);
    EXPECT_EQ(range(0, 9), nextNumbers(peer, 10));
    std::int64_t firstResend = arrivalMs(peer);
    EXPECT_GE(firstResend - windowFull, 450);
    EXPECT_LE(firstResend - windowFull, 2000);
    EXPECT_EQ(range(0, 9), nextNumbers(peer, 10));
    std::int64_t secondResend = arrivalMs(peer);
    EXPECT_GE(secondResend - firstResend, 450);
    // The sender counts a datagram after handing it to the socket, so the peer may see the tenth
    // before the count includes it.
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::unacked(*peer.server).load() == 10u; }, 2000))
        << EUDPTransportTest::unacked(*peer.server).load();

    // The acknowledgement frees the window: the last five follow.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 9)));
    EXPECT_EQ(range(10, 14), nextNumbers(peer, 5));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 14)));
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 0; }, 2000));
    EXPECT_TRUE(peer.raw.quietFor(1000));
}

TEST_F(EUDPSenderReliable, ResendingStopsWhenClosed) {
    queueHeld(peer, 3, 10);
    EXPECT_EQ(range(0, 2), nextNumbers(peer, 3));
    EXPECT_EQ(range(0, 2), nextNumbers(peer, 3));
    peer.server->disconnect();
    // A go-back that came due just before the close may still reach the wire, before the DIS or,
    // from the sender thread, between the DIS and the socket's close: at most one burst of the
    // three. After that the line stays quiet for more than two resend periods.
    Bytes datagram;
    int cmdsAfterDis = 0;
    bool sawDis = false;
    int datagrams = 0;
    while (peer.next(datagram, 1200) && ++datagrams <= 10) {
        if (commandOf(datagram) == "DIS") {
            EXPECT_FALSE(sawDis);
            EXPECT_EQ(hex(eudpDatagram("DIS", 3)), hex(datagram));
            sawDis = true;
            continue;
        }
        ASSERT_EQ("CMD", commandOf(datagram));
        EXPECT_LE(le32(datagram, 4), 2u);
        cmdsAfterDis += sawDis ? 1 : 0;
    }
    EXPECT_TRUE(sawDis);
    EXPECT_LE(cmdsAfterDis, 3);
    EXPECT_LE(datagrams, 7);
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::senderRunning(*peer.server); }, 2000));
}

TEST_F(EUDPSenderReliable, AckIsCumulativeAndFreesSlots) {
    queueHeld(peer, 5, 10);
    EXPECT_EQ(range(0, 4), nextNumbers(peer, 5));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 2)));
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 2; }, 5000));
    EXPECT_EQ(2, EUDPTransportTest::lastAcked(*peer.server).getValue());
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::unacked(*peer.server).load() == 2u; }, 5000))
        << EUDPTransportTest::unacked(*peer.server).load();
    // A go-back that came due before the acknowledgement arrived (a slow machine takes longer
    // than the time-out between the first burst and the ACK) resent all five; those datagrams
    // are dropped. The next go-back resends only what is left.
    Bytes stale;
    std::uint16_t from = 0;
    while (peer.raw.receive(stale, from, 0)) {
    }
    EXPECT_EQ(range(3, 4), nextNumbers(peer, 2));
}

TEST_F(EUDPSenderReliable, WaitUntilSentWaitsForTheAcknowledgement) {
    queueHeld(peer, 2, 10);
    EXPECT_EQ(range(0, 1), nextNumbers(peer, 2));
    EXPECT_FALSE(peer.server->waitUntilSent(300));  // sent, not acknowledged
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 1)));
    EXPECT_TRUE(peer.server->waitUntilSent(5000));
    EXPECT_EQ(0u, EUDPTransportTest::sendQueued(*peer.server));
}

TEST_F(EUDPSenderRealtime, WaitUntilSentInRealtimeWaitsForTheDatagramsToLeave) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(send(*peer.server, "r" + std::to_string(i)));
    }
    EXPECT_TRUE(peer.server->waitUntilSent(5000));
    EXPECT_EQ(0u, EUDPTransportTest::sendQueued(*peer.server));
    EXPECT_EQ(range(0, 2), nextNumbers(peer, 3));
}

TEST_F(EUDPSenderReliable, WaitUntilSentIsFalseOnceClosed) {
    ASSERT_TRUE(send(*peer.server, "a"));
    EXPECT_EQ(range(0, 0), nextNumbers(peer, 1));
    peer.server->disconnect();
    EXPECT_FALSE(peer.server->waitUntilSent(5000));
}

TEST_F(EUDPSenderReliable, AckCoveringUnsentPacketsRemovesThem) {
    queueHeld(peer, 5, 2);
    EXPECT_EQ(range(0, 1), nextNumbers(peer, 2));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 3)));
    // 2 and 3 never went out and are gone; 4 is next.
    EXPECT_EQ(std::vector<std::uint32_t>{4}, nextNumbers(peer, 1));
    EXPECT_EQ(1u, EUDPTransportTest::sendQueued(*peer.server));
}

TEST_F(EUDPSenderReliable, NakResendsFromTheNumberOn) {
    queueHeld(peer, 6, 10);
    EXPECT_EQ(range(0, 5), nextNumbers(peer, 6));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 0)));
    ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::lastAcked(*peer.server).getValue() == 0; }, 2000));
    std::int64_t nakTime = nowMs();
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("NAK", 2)));
    EXPECT_EQ(range(2, 5), nextNumbers(peer, 4));
    // Well before the next time-out would have resent from 1.
    EXPECT_LE(nowMs() - nakTime, 450);
}

// A NAK about half the number range away from what is queued: the datagrams at the front count as
// after it and those further on as before it, so the resend starts at the front, as a walk from
// the front finds.
TEST_F(EUDPSenderReliable, NakHalfTheRangeAwayResendsFromTheFront) {
    queueHeld(peer, 20, 20);
    EXPECT_EQ(range(0, 19), nextNumbers(peer, 20));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 0)));
    // 1 - 32761 is after 32776 (distance 32760); 10 - 32776 = -32766 is before it.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("NAK", 32777)));
    EXPECT_EQ(range(1, 8), nextNumbers(peer, 8));
    EXPECT_EQ(range(9, 19), nextNumbers(peer, 11));
}

TEST_F(EUDPSenderRealtime, WrapAroundKeepsOrderAndWindow) {
    EUDPTransportTest::sendSeq(*peer.server) = ModuloValue(65533);
    EUDPTransportTest::lastSent(*peer.server) = ModuloValue(65532);
    EUDPTransportTest::lastAcked(*peer.server) = ModuloValue(65532);
    makeReliable(peer);
    queueHeld(peer, 5, 3);
    EXPECT_EQ((std::vector<std::uint32_t>{65533, 65534, 0}), nextNumbers(peer, 3));
    EXPECT_EQ((std::vector<std::uint32_t>{65533, 65534, 0}), nextNumbers(peer, 3));  // go-back
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 65534)));
    EXPECT_EQ((std::vector<std::uint32_t>{1, 2}), nextNumbers(peer, 2));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 2)));
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 0; }, 2000));
    EXPECT_EQ(2, EUDPTransportTest::lastAcked(*peer.server).getValue());
}

TEST_F(EUDPSenderRealtime, After65535MessagesNumberingStartsAtZero) {
    for (int i = 0; i < 65535; ++i) {
        ASSERT_TRUE(send(*peer.server, "z"));
    }
    EXPECT_EQ(0, EUDPTransportTest::sendSeq(*peer.server).getValue());
    ASSERT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 0; }, 30000));
    Bytes datagram;
    std::uint16_t from = 0;
    while (peer.raw.receive(datagram, from, 300)) {
    }
    ASSERT_TRUE(send(*peer.server, "zero"));
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("zero"))), hex(datagram));
}

TEST_F(EUDPSenderReliable, FullRingBlocksUntilSlotFreedAndClosingDoesNotRelease) {
    LogCapture log;
    setWindow(peer, 0);  // nothing leaves, nothing is freed but by ACK
    for (int i = 0; i < 999; ++i) {
        ASSERT_TRUE(send(*peer.server, "f")) << i;
    }
    std::atomic<int> result(-1);
    std::thread blocked([&] { result = send(*peer.server, "last") ? 1 : 0; });
    EXPECT_FALSE(waitUntil([&] { return result.load() != -1; }, 300));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("ACK", 0)));
    EXPECT_TRUE(waitUntil([&] { return result.load() != -1; }, 2000));
    blocked.join();
    EXPECT_EQ(1, result.load());
    EXPECT_EQ(999u, EUDPTransportTest::sendQueued(*peer.server));

    // Closing wakes nobody waiting for space.
    result = -1;
    std::thread second([&] { result = send(*peer.server, "after") ? 1 : 0; });
    EXPECT_FALSE(waitUntil([&] { return result.load() != -1; }, 300));
    peer.server->disconnect();
    EXPECT_FALSE(waitUntil([&] { return result.load() != -1; }, 500));
    EUDPTransportTest::freeOneSendSlot(*peer.server);
    EXPECT_TRUE(waitUntil([&] { return result.load() != -1; }, 2000));
    second.join();
    EXPECT_EQ(0, result.load());
    EXPECT_EQ(1, log.count(eDebug, line(peer.raw.port(), "trying to send, but connection closed")))
        << log.dump();
}

TEST_F(EUDPSenderReliable, ReliableWithWindowZeroNeverSendsData) {
    setWindow(peer, 0);
    ASSERT_TRUE(send(*peer.server, "never"));
    EXPECT_TRUE(peer.raw.quietFor(1300));
    EXPECT_EQ(1u, EUDPTransportTest::sendQueued(*peer.server));
}

TEST_F(EUDPSenderRealtime, RealtimeWithWindowZeroWaitsBeforeEachPass) {
    setWindow(peer, 0);
    std::int64_t start = nowMs();
    ASSERT_TRUE(send(*peer.server, "late"));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    std::int64_t elapsed = nowMs() - start;
    EXPECT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("late"))), hex(datagram));
    EXPECT_GE(elapsed, 400);
    EXPECT_LE(elapsed, 2000);
}

TEST_F(EUDPSenderReliable, WindowLoweredBelowUnackedWaitsForRewind) {
    queueHeld(peer, 10, 10);
    EXPECT_EQ(range(0, 9), nextNumbers(peer, 10));
    // Lowered at once (a WIN would do the same).
    EUDPTransportTest::windowSize(*peer.server) = 3;
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(send(*peer.server, "l"));
    }
    // Every rewind starts again at 0, so a 0 opens a burst. On a slow machine the first rewind may
    // already be under way when the window drops and carry up to all ten; every burst after it
    // holds three. Nothing new goes out while ten are unacknowledged.
    std::vector<std::vector<std::uint32_t>> bursts;
    while (bursts.size() < 3 || bursts.back().size() < 3) {
        Bytes datagram;
        ASSERT_TRUE(peer.next(datagram, 3000)) << "burst " << bursts.size() << " incomplete";
        ASSERT_EQ("CMD", commandOf(datagram));
        std::uint32_t number = le32(datagram, 4);
        if (number == 0) {
            bursts.emplace_back();
        }
        ASSERT_FALSE(bursts.empty()) << "rewind did not start at 0 but at " << number;
        bursts.back().push_back(number);
    }
    ASSERT_LE(bursts[0].size(), 10u);
    EXPECT_EQ(range(0, static_cast<std::uint32_t>(bursts[0].size()) - 1), bursts[0]);
    EXPECT_EQ(range(0, 2), bursts[1]);
    EXPECT_EQ(range(0, 2), bursts[2]);
}

TEST_F(EUDPSenderReliable, SwitchToRealtimeSendsWholeRingOnce) {
    queueHeld(peer, 5, 2);
    EXPECT_EQ(range(0, 1), nextNumbers(peer, 2));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MOD", modeWord('T', 'D', 'D', 'D'))));
    Bytes answer;
    ASSERT_TRUE(peer.next(answer));
    // A resend of 0 and 1 may come before the MAK; skip to it.
    while (commandOf(answer) == "CMD") {
        ASSERT_TRUE(peer.next(answer));
    }
    EXPECT_EQ(hex(eudpDatagram("MAK", modeWord('T', 'T', 'D', 'T'))), hex(answer));
    EXPECT_EQ(range(0, 4), nextNumbers(peer, 5));
    EXPECT_TRUE(peer.raw.quietFor(800));
    EXPECT_EQ(0u, EUDPTransportTest::sendQueued(*peer.server));
}

TEST_F(EUDPSenderRealtime, OversizedMessageGoesOutEmptyWithItsOwnNumber) {
    LogCapture log;
    std::vector<uint8> big(1493, 0x42);
    EXPECT_TRUE(peer.server->sendData(big.data(), static_cast<uint>(big.size())));
    ASSERT_TRUE(send(*peer.server, "next"));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 0)), hex(datagram));
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 1, bytesOf("next"))), hex(datagram));
    EXPECT_EQ(1, log.count(eError, "TARN/EUDP: packet length (1493) exceeds max length (1492)"))
        << log.dump();
}

TEST_F(EUDPSenderRealtime, MaximumMessageTravelsWhole) {
    std::vector<uint8> big(1492);
    for (std::size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<uint8>(i);
    }
    EXPECT_TRUE(peer.server->sendData(big.data(), static_cast<uint>(big.size())));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 0, Bytes(big.begin(), big.end()))), hex(datagram));
}

TEST(EUDPSender, ControlDatagramWithoutPeerPortIsRefused) {
    LogCapture log;
    EUDPTransport transport;
    EXPECT_FALSE(EUDPTransportTest::sendPacket(transport, ACK, 1, 0));
    EXPECT_EQ(1, log.count(eError, line(0, "no remote port (internal error)"))) << log.dump();
}

TEST_F(EUDPSenderRealtime, SendOnClosedTransportFailsWithDebugLine) {
    LogCapture log;
    peer.server->disconnect();
    EXPECT_FALSE(send(*peer.server, "closed"));
    EXPECT_EQ(1, log.count(eDebug, line(peer.raw.port(), "trying to send, but connection closed")))
        << log.dump();
}

}  // namespace
