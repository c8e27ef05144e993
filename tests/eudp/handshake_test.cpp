// Connection set-up and tear-down on the wire: CON/ACK from a per-connection port, the client's
// time-outs, DIS, reconnecting, destruction.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "eudpsuite.h"

namespace {

TEST(EUDPHandshake, ListeningObjectReportsBoundPortAndNoPeer) {
    EUDPTransport listener;
    EXPECT_EQ(0, listener.getLocalPort());  // unbound
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    EXPECT_NE(0, listener.getLocalPort());
    EXPECT_EQ(0, listener.getPeerPort());
    EXPECT_EQ(sal::HostAddress(sal::HostAddress::eAnyAddress), listener.getPeerAddress());
    EXPECT_EQ(eRealtime, listener.getSendMode());
    EXPECT_EQ(eRealtime, listener.getReceiveMode());
    EXPECT_EQ(10u, listener.getWindowSize());
    EXPECT_FALSE(listener.isClosed());
}

TEST(EUDPHandshake, ConGetsAckFromNewPortAndDataFollowsThere) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(1234));
    EXPECT_NE(peer.listenPort, peer.serverPort);
    EXPECT_EQ(peer.serverPort, peer.server->getLocalPort());
    EXPECT_EQ(peer.raw.port(), peer.server->getPeerPort());
    EXPECT_EQ("127.0.0.1", peer.server->getPeerAddress().getAddressString());
    EXPECT_EQ(peer.raw.port(), EUDPTransportTest::logId(*peer.server));
    EXPECT_EQ(1235, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    EXPECT_EQ(0, EUDPTransportTest::sendSeq(*peer.server).getValue());
    EXPECT_EQ(0u, EUDPTransportTest::reserved(*peer.server));

    // The client's data go to the new port and arrive.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1235, bytesOf("hello"))));
    std::uint8_t buffer[64];
    ASSERT_EQ(5, peer.server->receiveData(buffer, sizeof buffer));
    EXPECT_EQ("hello", std::string(buffer, buffer + 5));

    // The server's data leave from it, numbered from 0.
    ASSERT_TRUE(peer.server->sendData(reinterpret_cast<const uint8*>("hi"), 2));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("hi"))), hex(datagram));
}

TEST(EUDPHandshake, AcceptAnswersEveryConAndPeerTimersRun) {
    EUDPTransport listener;
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    RawUdp raw;
    ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", 7), listener.getLocalPort()));
    ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", 7), listener.getLocalPort()));
    std::unique_ptr<EUDPTransport> first(static_cast<EUDPTransport*>(listener.accept()));
    std::unique_ptr<EUDPTransport> second(static_cast<EUDPTransport*>(listener.accept()));
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->getLocalPort(), second->getLocalPort());
    EXPECT_TRUE(EUDPTransportTest::timersInitialised(*first));
    EXPECT_EQ(500000u, EUDPTransportTest::aliveTimeout(*first));
    EXPECT_TRUE(EUDPTransportTest::receiverRunning(*first));
    EXPECT_TRUE(EUDPTransportTest::senderRunning(*first));
    EXPECT_FALSE(EUDPTransportTest::timersInitialised(listener));
}

TEST(EUDPHandshake, ListeningSocketDiscardsInvalidAndNonCon) {
    LogCapture log;
    EUDPTransport listener;
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    RawUdp raw;
    ASSERT_TRUE(raw.sendTo(Bytes{1, 'C', 'O'}, listener.getLocalPort()));
    ASSERT_TRUE(raw.sendTo(eudpDatagram("CMD", 0, bytesOf("x")), listener.getLocalPort()));
    ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", 5), listener.getLocalPort()));
    std::unique_ptr<EUDPTransport> peer(static_cast<EUDPTransport*>(listener.accept()));
    ASSERT_TRUE(peer);
    EXPECT_EQ(1, log.count(eWarning, "TARN/EUDP: packet validation failed: header too short")) << log.dump();
    EXPECT_EQ(1, log.count(eWarning, line(0, "discarding invalid packet"))) << log.dump();
    EXPECT_EQ(1, log.count(eWarning, line(0, "received a non-CON packet without a connection (ignoring)")))
        << log.dump();
    Bytes ack;
    std::uint16_t from = 0;
    ASSERT_TRUE(raw.receive(ack, from, 2000));
    EXPECT_EQ(hex(eudpDatagram("ACK", 5)), hex(ack));
}

TEST(EUDPHandshake, AcceptReturnsNullOnceDisconnected) {
    EUDPTransport listener;
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    std::atomic<bool> done(false);
    ITARNTransport* result = reinterpret_cast<ITARNTransport*>(1);
    std::thread acceptor([&] {
        result = listener.accept();
        done = true;
    });
    EXPECT_FALSE(waitUntil([&] { return done.load(); }, 200));
    listener.disconnect();
    EXPECT_TRUE(waitUntil([&] { return done.load(); }, 5000));
    acceptor.join();
    EXPECT_EQ(nullptr, result);
    EXPECT_TRUE(listener.isClosed());
    EXPECT_EQ(nullptr, listener.accept());
}

TEST(EUDPHandshake, EmptyDatagramEndsAccept) {
    LogCapture log;
    EUDPTransport listener;
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    RawUdp raw;
    ASSERT_TRUE(raw.sendTo(Bytes(), listener.getLocalPort()));
    EXPECT_EQ(nullptr, listener.accept());           // a receive of 0 bytes counts as a failed receive
    EXPECT_TRUE(log.lines().empty()) << log.dump();  // never validated
}

TEST(EUDPHandshake, ConWrapsClientNumberIntoReceiveSequence) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(65534));
    EXPECT_EQ(0, EUDPTransportTest::receiveSeq(*peer.server).getValue());
    ServerWithRawPeer high;
    ASSERT_TRUE(high.open(0xFFFFFFFEu));  // the answer carries the word unreduced
    EXPECT_EQ(-1, EUDPTransportTest::receiveSeq(*high.server).getValue());
}

TEST(EUDPHandshake, ClientConnectsAndLearnsServerPort) {
    RawUdp raw;
    EUDPTransport client;
    std::thread server([&] {
        Bytes con;
        std::uint16_t from = 0;
        ASSERT_TRUE(raw.receive(con, from, 4000));
        EXPECT_EQ(hex(eudpDatagram("CON", 0)), hex(con));
        RawUdp other;  // answers from a port of its own, as a server does
        other.sendTo(eudpDatagram("ACK", 0), from);
        Bytes data;
        std::uint16_t dataFrom = 0;
        EXPECT_TRUE(other.receive(data, dataFrom, 3000));
        EXPECT_EQ(hex(eudpDatagram("CMD", 1, bytesOf("abc"))), hex(data));
        EXPECT_EQ(from, dataFrom);
    });
    ASSERT_TRUE(client.connect(sal::HostAddress("127.0.0.1"), raw.port()));
    EXPECT_NE(0, client.getPeerPort());
    EXPECT_NE(raw.port(), client.getPeerPort());
    EXPECT_EQ(client.getLocalPort(), EUDPTransportTest::logId(client));
    EXPECT_EQ(1, EUDPTransportTest::sendSeq(client).getValue());
    EXPECT_EQ(0, EUDPTransportTest::lastAcked(client).getValue());
    EXPECT_EQ(1000000u, EUDPTransportTest::aliveTimeout(client));
    EXPECT_TRUE(EUDPTransportTest::senderRunning(client));
    ASSERT_TRUE(client.sendData(reinterpret_cast<const uint8*>("abc"), 3));
    server.join();
}

TEST(EUDPHandshake, ClientWithoutAnswerTimesOutAfterFiveSeconds) {
    LogCapture log;
    RawUdp raw;
    EUDPTransport client;
    std::int64_t start = nowMs();
    EXPECT_FALSE(client.connect(sal::HostAddress("127.0.0.1"), raw.port()));
    std::int64_t elapsed = nowMs() - start;
    EXPECT_GE(elapsed, 4900);
    EXPECT_LE(elapsed, 8000);
    std::string expected = line(
        client.getLocalPort(), "failed to connect to 127.0.0.1:" + std::to_string(raw.port()) + " (timeout)");
    EXPECT_EQ(1, log.count(eError, expected)) << log.dump();
    // Exactly one CON was sent.
    Bytes con;
    std::uint16_t from = 0;
    ASSERT_TRUE(raw.receive(con, from, 1000));
    EXPECT_EQ(hex(eudpDatagram("CON", 0)), hex(con));
    EXPECT_TRUE(raw.quietFor(300));
    // The receiver goes on until the object is disconnected.
    EXPECT_TRUE(EUDPTransportTest::receiverRunning(client));
    EXPECT_FALSE(EUDPTransportTest::senderRunning(client));
    client.disconnect();
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::receiverRunning(client); }, 5000));
    EXPECT_TRUE(raw.quietFor(200));  // no DIS without a peer port
}

TEST(EUDPHandshake, WrongAckFailsButKeepsPeerPort) {
    LogCapture log;
    RawUdp raw;
    EUDPTransport client;
    std::thread server([&] {
        Bytes con;
        std::uint16_t from = 0;
        if (raw.receive(con, from, 4000)) {
            raw.sendTo(eudpDatagram("ACK", 9), from);
        }
    });
    EXPECT_FALSE(client.connect(sal::HostAddress("127.0.0.1"), raw.port()));
    server.join();
    EXPECT_EQ(raw.port(), client.getPeerPort());
    EXPECT_EQ(0, EUDPTransportTest::sendSeq(client).getValue());
    std::string expected =
        line(client.getLocalPort(),
             "failed to connect to 127.0.0.1:" + std::to_string(raw.port()) + " (wrong ACK)");
    EXPECT_EQ(1, log.count(eError, expected)) << log.dump();
}

TEST(EUDPHandshake, DisconnectSendsOneDis) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0));
    ASSERT_TRUE(peer.server->sendData(reinterpret_cast<const uint8*>("a"), 1));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    peer.server->disconnect();
    peer.server->disconnect();
    EXPECT_TRUE(peer.server->isClosed());
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("DIS", 1)), hex(datagram));
    EXPECT_TRUE(peer.raw.quietFor(500));
    EXPECT_FALSE(peer.server->sendData(reinterpret_cast<const uint8*>("a"), 1));
}

TEST(EUDPHandshake, DisconnectBeforeConnectionSendsNothing) {
    RawUdp watcher;
    EUDPTransport transport;
    transport.disconnect();
    EXPECT_TRUE(transport.isClosed());
    EXPECT_TRUE(watcher.quietFor(200));
}

TEST(EUDPHandshake, DestroyingConnectedTransportSendsNoDis) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    std::int64_t start = nowMs();
    peer.server.reset();
    EXPECT_LE(nowMs() - start, 3000);
    Bytes datagram;
    std::uint16_t from = 0;
    // Anything that still arrives is a keep-alive, never DIS.
    while (peer.raw.receive(datagram, from, 700)) {
        EXPECT_NE("DIS", commandOf(datagram));
    }
}

TEST(EUDPHandshake, DestroyingUnstartedTransportDoesNotHang) {
    std::int64_t start = nowMs();
    { EUDPTransport transport; }
    {
        EUDPTransport listening;
        ASSERT_TRUE(listening.listen(sal::HostAddress("127.0.0.1"), 0));
    }
    EXPECT_LE(nowMs() - start, 2000);
}

TEST(EUDPHandshake, ReconnectUsesFreshSocketAndContinuesNumbers) {
    ClientWithRawPeer peer;
    ASSERT_TRUE(peer.open());
    std::uint16_t firstPort = peer.client.getLocalPort();
    ASSERT_TRUE(peer.client.sendData(reinterpret_cast<const uint8*>("x"), 1));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 1, bytesOf("x"))), hex(datagram));
    peer.client.disconnect();
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("DIS", 2)), hex(datagram));
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::receiverRunning(peer.client); }, 5000));

    std::uint16_t secondPort = 0;
    std::thread answer([&] {
        Bytes con;
        std::uint16_t from = 0;
        if (peer.raw.receive(con, from, 4000)) {
            secondPort = from;
            EXPECT_EQ(hex(eudpDatagram("CON", 2)), hex(con));
            peer.raw.sendTo(eudpDatagram("ACK", 2), from);
        }
    });
    ASSERT_TRUE(peer.client.connect(sal::HostAddress("127.0.0.1"), peer.raw.port()));
    answer.join();
    EXPECT_FALSE(peer.client.isClosed());
    EXPECT_NE(firstPort, peer.client.getLocalPort());
    EXPECT_EQ(secondPort, peer.client.getLocalPort());
    ASSERT_TRUE(peer.client.sendData(reinterpret_cast<const uint8*>("y"), 1));
    peer.clientPort = secondPort;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(hex(eudpDatagram("CMD", 3, bytesOf("y"))), hex(datagram));
}

TEST(EUDPHandshake, DatagramsFromAnyAddressAreHandled) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0));
    RawUdp stranger;
    ASSERT_TRUE(stranger.sendTo(eudpDatagram("WIN", 7), peer.serverPort));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));  // the answer goes to the known peer
    EXPECT_EQ(hex(eudpDatagram("WAK", 7)), hex(datagram));
    EXPECT_EQ(7u, peer.server->getWindowSize());
    EXPECT_EQ(peer.raw.port(), peer.server->getPeerPort());
    EXPECT_TRUE(stranger.quietFor(200));
}

TEST(EUDPHandshake, StrangerKeepsTimersResetToo) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    RawUdp stranger;
    std::atomic<bool> stop(false);
    std::thread feeder([&] {
        while (!stop) {
            stranger.sendTo(eudpDatagram("NOP", 0), peer.serverPort);
            sal::Thread::mssleep(100);
        }
    });
    // Without those NOPs the server would send a keep-alive after 0.5 s.
    Bytes datagram;
    EXPECT_FALSE(peer.next(datagram, 1500)) << hex(datagram);
    stop = true;
    feeder.join();
    ASSERT_TRUE(peer.next(datagram, 2000));
    EXPECT_EQ(hex(eudpDatagram("CMD", 0)), hex(datagram));
}

}  // namespace
