// Mode and window negotiation: the words on the wire, the pairing of the two operations, refusals,
// time-outs, stale answers and 'D'.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "eudpsuite.h"

namespace {

// Runs `request` on a thread while the raw peer reads the request datagram and, if `answer` is
// not empty, answers it. Returns the request's result; `seen` gets the request datagram.
template <class Request>
bool exchange(ServerWithRawPeer& peer, Request request, Bytes& seen, const Bytes& answer) {
    std::atomic<int> result(-1);
    std::thread requester([&] { result = request() ? 1 : 0; });
    EXPECT_TRUE(peer.next(seen));
    if (!answer.empty()) {
        peer.sendToServer(answer);
    }
    requester.join();
    return result.load() == 1;
}

TEST(EUDPNegotiation, SetSendModeAsksPeerToSend) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    Bytes seen;
    EXPECT_TRUE(exchange(
        peer, [&] { return peer.server->setSendMode(eReliable); }, seen,
        eudpDatagram("MAK", modeWord('R', 'R', 'D', 'T'))));
    EXPECT_EQ(hex(eudpDatagram("MOD", modeWord('R', 'D', 'D', 'D'))), hex(seen));
    EXPECT_EQ(eReliable, peer.server->getReceiveMode());
    EXPECT_EQ(eRealtime, peer.server->getSendMode());
}

TEST(EUDPNegotiation, SetReceiveModeAsksPeerToReceive) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    EUDPTransportTest::receiveMode(*peer.server) = eReliable;
    Bytes seen;
    EXPECT_TRUE(exchange(
        peer, [&] { return peer.server->setReceiveMode(eRealtime); }, seen,
        eudpDatagram("MAK", modeWord('D', 'R', 'T', 'T'))));
    EXPECT_EQ(hex(eudpDatagram("MOD", modeWord('D', 'D', 'T', 'D'))), hex(seen));
    EXPECT_EQ(eRealtime, peer.server->getSendMode());
    EXPECT_EQ(eReliable, peer.server->getReceiveMode());  // the peer's unchanged send mode
}

TEST(EUDPNegotiation, AnswerThatDiffersIsRefusal) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    Bytes seen;
    EXPECT_FALSE(exchange(
        peer, [&] { return peer.server->setSendMode(eReliable); }, seen,
        eudpDatagram("MAK", modeWord('R', 'T', 'D', 'R'))));
    EXPECT_EQ(1, log.count(eError, line(peer.raw.port(), "failed to set send mode (peer refused)")))
        << log.dump();
    EXPECT_EQ(eRealtime, peer.server->getReceiveMode());
    EXPECT_EQ(eRealtime, peer.server->getSendMode());

    EXPECT_FALSE(exchange(
        peer, [&] { return peer.server->setReceiveMode(eReliable); }, seen,
        eudpDatagram("MAK", modeWord('D', 'R', 'R', 'T'))));
    EXPECT_EQ(1, log.count(eError, line(peer.raw.port(), "failed to set receive mode (peer refused)")))
        << log.dump();
    EXPECT_EQ(eRealtime, peer.server->getSendMode());
    EXPECT_EQ(eRealtime, peer.server->getReceiveMode());
}

TEST(EUDPNegotiation, LeaveAsItIsAdoptsPeerModes) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    Bytes seen;
    EXPECT_TRUE(exchange(
        peer, [&] { return peer.server->setSendMode(static_cast<EConnMode>('D')); }, seen,
        eudpDatagram("MAK", modeWord('D', 'R', 'D', 'R'))));
    EXPECT_EQ(hex(eudpDatagram("MOD", modeWord('D', 'D', 'D', 'D'))), hex(seen));
    EXPECT_EQ(eReliable, peer.server->getReceiveMode());
    EXPECT_EQ(eReliable, peer.server->getSendMode());
}

TEST(EUDPNegotiation, StaleAnswerIsTakenByNextRequest) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    // An answer that nobody waits for any more leaves the semaphore given.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MAK", modeWord('T', 'T', 'D', 'T'))));
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return EUDPTransportTest::modeAck(*peer.server).load() == modeWord('T', 'T', 'D', 'T'); },
        2000));
    std::int64_t start = nowMs();
    EXPECT_FALSE(peer.server->setSendMode(eReliable));
    EXPECT_LE(nowMs() - start, 1000);
    EXPECT_EQ(1, log.count(eError, line(peer.raw.port(), "failed to set send mode (peer refused)")))
        << log.dump();
}

TEST(EUDPNegotiation, LateAnswerAfterTimeoutMakesNextRequestFail) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    std::int64_t start = nowMs();
    EXPECT_FALSE(peer.server->setSendMode(eReliable));
    std::int64_t elapsed = nowMs() - start;
    EXPECT_GE(elapsed, 9900);
    EXPECT_LE(elapsed, 13000);
    EXPECT_EQ(1, log.count(eError, line(peer.raw.port(), "failed to set send mode (timeout)"))) << log.dump();
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MAK", modeWord('R', 'T', 'D', 'T'))));  // too late
    ASSERT_TRUE(
        testsupport::waitUntil([&] { return EUDPTransportTest::modeAck(*peer.server).load() != 0; }, 2000));
    EXPECT_FALSE(peer.server->setSendMode(eReliable));
    EXPECT_EQ(1, log.count(eError, line(peer.raw.port(), "failed to set send mode (peer refused)")))
        << log.dump();
}

TEST(EUDPNegotiation, WindowConfirmedOrNot) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    Bytes seen;
    EXPECT_TRUE(exchange(
        peer, [&] { return peer.server->setWindowSize(0); }, seen, eudpDatagram("WAK", 0)));
    EXPECT_EQ(hex(eudpDatagram("WIN", 0)), hex(seen));
    EXPECT_EQ(10u, peer.server->getWindowSize());  // this side's own window is not changed

    EXPECT_FALSE(exchange(
        peer, [&] { return peer.server->setWindowSize(7); }, seen, eudpDatagram("WAK", 5)));
    EXPECT_EQ(1, log.count(eError, line(peer.raw.port(), "failed to set window size (tried 7, got 5)")))
        << log.dump();
}

TEST(EUDPNegotiation, WindowRequestTimesOut) {
    LogCapture log;
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    std::int64_t start = nowMs();
    EXPECT_FALSE(peer.server->setWindowSize(20));
    EXPECT_GE(nowMs() - start, 9900);
    EXPECT_EQ(1, log.count(eError, line(peer.raw.port(), "failed to set window size (timeout)")))
        << log.dump();
    Bytes seen;
    ASSERT_TRUE(peer.next(seen));
    EXPECT_EQ(hex(eudpDatagram("WIN", 20)), hex(seen));
}

TEST(EUDPNegotiation, RequestWithoutPeerTimesOut) {
    LogCapture log;
    EUDPTransport transport;
    std::int64_t start = nowMs();
    EXPECT_FALSE(transport.setReceiveMode(eReliable));
    EXPECT_GE(nowMs() - start, 9900);
    EXPECT_EQ(1, log.count(eError, line(0, "no remote port (internal error)"))) << log.dump();
    EXPECT_EQ(1, log.count(eError, line(0, "failed to set receive mode (timeout)"))) << log.dump();
    EXPECT_EQ(eRealtime, transport.getSendMode());
}

TEST(EUDPNegotiation, AllowingNeitherModeIsRefused) {
    LogCapture log;
    EUDPTransport transport;
    transport.allowSendMode(true, false);
    transport.allowSendMode(false, false);
    EXPECT_TRUE(EUDPTransportTest::allowSendRealtime(transport));
    EXPECT_FALSE(EUDPTransportTest::allowSendReliable(transport));
    transport.allowReceiveMode(false, true);
    transport.allowReceiveMode(false, false);
    EXPECT_FALSE(EUDPTransportTest::allowReceiveRealtime(transport));
    EXPECT_TRUE(EUDPTransportTest::allowReceiveReliable(transport));
    EXPECT_EQ(2, log.count(eError, line(0, "allowing neither realtime nor reliable mode"))) << log.dump();
    EXPECT_EQ(eRealtime, transport.getSendMode());  // allowing never changes the mode
    EXPECT_EQ(eRealtime, transport.getReceiveMode());
}

TEST(EUDPNegotiation, TwoTransportsPairTheDirections) {
    TransportPair pair;
    ASSERT_TRUE(pair.open());
    ASSERT_TRUE(pair.client.setReceiveMode(eReliable));
    EXPECT_EQ(eReliable, pair.client.getSendMode());
    EXPECT_EQ(eReliable, pair.server->getReceiveMode());
    EXPECT_EQ(eRealtime, pair.client.getReceiveMode());
    EXPECT_EQ(eRealtime, pair.server->getSendMode());

    ASSERT_TRUE(pair.client.setSendMode(eReliable));
    EXPECT_EQ(eReliable, pair.client.getReceiveMode());
    EXPECT_EQ(eReliable, pair.server->getSendMode());

    ASSERT_TRUE(pair.server->setWindowSize(3));
    EXPECT_EQ(3u, pair.client.getWindowSize());
    EXPECT_EQ(10u, pair.server->getWindowSize());
    ASSERT_TRUE(pair.client.setWindowSize(0));  // taken without a bound, and confirmed
    EXPECT_EQ(0u, pair.server->getWindowSize());
}

TEST(EUDPNegotiation, ForbiddenModeTimesOutOnTheRequester) {
    LogCapture log;
    TransportPair pair;
    ASSERT_TRUE(pair.open());
    pair.server->allowSendMode(true, false);
    std::int64_t start = nowMs();
    EXPECT_FALSE(pair.client.setSendMode(eReliable));
    EXPECT_GE(nowMs() - start, 9900);
    EXPECT_EQ(1, log.count(eError, line(pair.client.getLocalPort(), "failed to set send mode (timeout)")))
        << log.dump();
    EXPECT_EQ(1, log.count(eWarning, line(pair.client.getLocalPort(), "unknown mode request (ignoring)")))
        << log.dump();
    EXPECT_EQ(eRealtime, pair.server->getSendMode());
    EXPECT_FALSE(pair.client.isClosed());  // keep-alives kept the pair up meanwhile
}

TEST(EUDPNegotiation, ModeChangesShowInBehaviour) {
    // Reliable sender towards a peer that stops acknowledging resends; realtime never does.
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    Bytes seen;
    ASSERT_TRUE(exchange(
        peer, [&] { return peer.server->setReceiveMode(eReliable); }, seen,
        eudpDatagram("MAK", modeWord('D', 'T', 'R', 'R'))));
    ASSERT_EQ(eReliable, peer.server->getSendMode());
    ASSERT_TRUE(peer.server->sendData(reinterpret_cast<const uint8*>("x"), 1));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    ASSERT_TRUE(peer.next(datagram, 2000));  // resent, unacknowledged
    EXPECT_EQ(0u, le32(datagram, 4));

    ASSERT_TRUE(exchange(
        peer, [&] { return peer.server->setReceiveMode(eRealtime); }, seen,
        eudpDatagram("MAK", modeWord('D', 'T', 'T', 'T'))));
    // What is still queued goes once more in the realtime pass, then never again.
    std::uint16_t from = 0;
    while (peer.raw.receive(datagram, from, 700)) {
    }
    ASSERT_TRUE(peer.server->sendData(reinterpret_cast<const uint8*>("y"), 1));
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(1u, le32(datagram, 4));
    EXPECT_TRUE(peer.raw.quietFor(1200));
}

TEST(EUDPNegotiation, AnswerBytesAreModesAsTheyCameSignExtended) {
    // A 'D' request adopts the peer's modes from its answer: bytes 0xD2 and 0xD4 are kept as the
    // sign-extended values -46 and -44, modes that are neither realtime nor reliable.
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    Bytes seen;
    EXPECT_TRUE(exchange(
        peer, [&] { return peer.server->setSendMode(static_cast<EConnMode>('D')); }, seen,
        eudpDatagram("MAK", modeWord('D', '\xD2', 'D', '\xD4'))));
    EXPECT_EQ(-46, static_cast<int>(peer.server->getReceiveMode()));
    EXPECT_EQ(-44, static_cast<int>(peer.server->getSendMode()));

    // This side's own answer to a MOD that leaves both directions echoes those bytes.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("MOD", modeWord('D', 'D', 'D', 'D'))));
    Bytes answer;
    ASSERT_TRUE(peer.next(answer));
    EXPECT_EQ(hex(eudpDatagram("MAK", modeWord('D', '\xD4', 'D', '\xD2'))), hex(answer));

    // Receiving in neither mode: data is delivered without an acknowledgement, and an empty
    // datagram is answered with neither ACK nor NOP.
    // (The CON of open() numbered 0, so the peer's data start at 1.)
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1, Bytes{'x'})));
    ASSERT_TRUE(
        testsupport::waitUntil([&] { return EUDPTransportTest::receiveQueued(*peer.server) == 1; }, 2000));
    uint8 buffer[16] = {};
    EXPECT_EQ(1, peer.server->receiveData(buffer, sizeof buffer));
    EXPECT_EQ('x', buffer[0]);
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 2)));
    EXPECT_TRUE(peer.raw.quietFor(500));

    // Sending in neither mode takes the realtime path: sent once, never resent.
    ASSERT_TRUE(peer.server->sendData(reinterpret_cast<const uint8*>("y"), 1));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ("CMD", eudptest::commandOf(datagram));
    EXPECT_TRUE(peer.raw.quietFor(1200));
}

}  // namespace
