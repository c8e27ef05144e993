// TCPTransport against raw POSIX peers: framing on the wire, the receive algorithm, the modes and
// window answers, disconnect and reconnect, socket options, and the null-socket assertions.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <thread>

#include <tcptransport.h>

#include "tcptestutil.h"
#include "testaccess.h"
#include "testsupport.h"

using namespace testsupport;
using namespace tcptest;

namespace {

const sal::HostAddress kLoopback("127.0.0.1");

// A TCPTransport connected to a raw peer accepted from a raw listener.
struct ClientPair {
    RawTcpListener listener;
    std::unique_ptr<TCPTransport> transport{new TCPTransport()};
    RawTcp peer{connectAndAccept()};

    int connectAndAccept() {
        EXPECT_TRUE(transport->connect(kLoopback, listener.port()));
        const int fd = listener.accept(5000);
        EXPECT_GE(fd, 0);
        return fd;
    }
};

Bytes pattern(std::size_t size, std::uint8_t seed = 0) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<std::uint8_t>((i * 7 + seed) & 0xFF);
    }
    return out;
}

// Receives one message into a buffer of `size` bytes; returns the result and the bytes.
int receiveInto(TCPTransport& transport, std::size_t size, Bytes& out) {
    Bytes buffer(size + 1, 0xEE);  // one guard byte past the room given
    const int n = transport.receiveData(buffer.data(), static_cast<uint>(size));
    EXPECT_EQ(0xEE, buffer[size]) << "receiveData wrote past its buffer";
    out.assign(buffer.begin(), buffer.begin() + (n > 0 ? n : 0));
    return n;
}

}  // namespace

TEST(TcpTransport, SendFramesMessageWithLittleEndianLength) {
    ClientPair pair;
    const Bytes message = pattern(300);
    ASSERT_TRUE(pair.transport->sendData(message.data(), static_cast<uint>(message.size())));
    Bytes wire;
    ASSERT_TRUE(pair.peer.receiveExactly(wire, 302, 5000));
    EXPECT_EQ(0x2C, wire[0]);
    EXPECT_EQ(0x01, wire[1]);
    EXPECT_EQ(message, Bytes(wire.begin() + 2, wire.end()));
    EXPECT_TRUE(quietFor(pair.peer.fd(), 50));
}

TEST(TcpTransport, SendOf70000BytesSendsLength4464AndThatMuchData) {
    ClientPair pair;
    const Bytes message = pattern(70000, 3);
    ASSERT_TRUE(pair.transport->sendData(message.data(), 70000));
    Bytes header;
    ASSERT_TRUE(pair.peer.receiveExactly(header, 2, 5000));
    EXPECT_EQ((Bytes{0x70, 0x11}), header);  // 4464 = 0x1170
    Bytes body;
    ASSERT_TRUE(pair.peer.receiveExactly(body, 4464, 5000));
    EXPECT_EQ(Bytes(message.begin(), message.begin() + 4464), body);
    // Nothing else followed: the next bytes on the stream are the next message's frame.
    const Bytes next{'n', 'e', 'x', 't'};
    ASSERT_TRUE(pair.transport->sendData(next.data(), 4));
    Bytes frameBytes;
    ASSERT_TRUE(pair.peer.receiveExactly(frameBytes, 6, 5000));
    EXPECT_EQ(frame(next), frameBytes);
}

TEST(TcpTransport, SendOfZeroBytesSendsZeroLengthAndReturnsTrue) {
    ClientPair pair;
    const std::uint8_t unused = 0;
    EXPECT_TRUE(pair.transport->sendData(&unused, 0));
    const Bytes next{'x'};
    ASSERT_TRUE(pair.transport->sendData(next.data(), 1));
    Bytes wire;
    ASSERT_TRUE(pair.peer.receiveExactly(wire, 5, 5000));
    EXPECT_EQ((Bytes{0x00, 0x00, 0x01, 0x00, 'x'}), wire);
}

TEST(TcpTransport, SendFailsOnceDisconnectedAndBeforeConnect) {
    TCPTransport unconnected;
    const Bytes message{1, 2, 3};
    EXPECT_FALSE(unconnected.sendData(message.data(), 3));

    ClientPair pair;
    pair.transport->disconnect();
    EXPECT_FALSE(pair.transport->sendData(message.data(), 3));
    EXPECT_TRUE(pair.peer.waitClosed(5000));
}

TEST(TcpTransport, ReceiveReturnsEachWholeMessage) {
    ClientPair pair;
    const Bytes first = pattern(10, 1);
    const Bytes second = pattern(1492, 2);
    ASSERT_TRUE(pair.peer.sendAll(concat({frame(first), frame(second)})));
    Bytes got;
    EXPECT_EQ(10, receiveInto(*pair.transport, 1492, got));
    EXPECT_EQ(first, got);
    EXPECT_EQ(1492, receiveInto(*pair.transport, 1492, got));  // exactly the room given is fine
    EXPECT_EQ(second, got);
}

TEST(TcpTransport, ReceiveWaitsForAMessageSentInPieces) {
    ClientPair pair;
    const Bytes message = pattern(100, 5);
    const Bytes wire = frame(message);
    std::thread writer([&] {
        for (std::size_t i = 0; i < wire.size(); i += 33) {
            pair.peer.sendAll(Bytes(wire.begin() + i, wire.begin() + std::min(wire.size(), i + 33)));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    Bytes got;
    EXPECT_EQ(100, receiveInto(*pair.transport, 1492, got));
    EXPECT_EQ(message, got);
    writer.join();
}

TEST(TcpTransport, FrameLongerThanBufferGivesMinusOneAndStaysInStream) {
    ClientPair pair;
    // The 1500-byte body is itself two frames, so what is left in the stream can be read back.
    const Bytes a = pattern(10, 7);
    const Bytes b = pattern(1486, 9);
    const Bytes body = concat({frame(a), frame(b)});
    ASSERT_EQ(1500u, body.size());
    ASSERT_TRUE(pair.peer.sendAll(frame(body)));
    Bytes got;
    EXPECT_EQ(-1, receiveInto(*pair.transport, 1492, got));
    EXPECT_EQ(10, receiveInto(*pair.transport, 1492, got));
    EXPECT_EQ(a, got);
    EXPECT_EQ(1486, receiveInto(*pair.transport, 1492, got));
    EXPECT_EQ(b, got);
}

TEST(TcpTransport, ZeroLengthFrameIsPassedOverForTheNextOne) {
    ClientPair pair;
    ASSERT_TRUE(pair.peer.sendAll(concat({Bytes{0, 0}, frame(bytesOf("abc"))})));
    Bytes got;
    EXPECT_EQ(3, receiveInto(*pair.transport, 1492, got));
    EXPECT_EQ(bytesOf("abc"), got);
}

TEST(TcpTransport, PeerCloseGivesZero) {
    ClientPair pair;
    pair.peer.close();
    Bytes got;
    EXPECT_EQ(0, receiveInto(*pair.transport, 1492, got));
}

TEST(TcpTransport, PeerCloseInsideABodyGivesZero) {
    ClientPair pair;
    ASSERT_TRUE(pair.peer.sendAll(Bytes{5, 0, 'a', 'b'}));
    pair.peer.close();
    Bytes got;
    EXPECT_EQ(0, receiveInto(*pair.transport, 1492, got));
}

TEST(TcpTransport, AfterDisconnectReceiveReturnsZeroAndAcceptReturnsNull) {
    ClientPair pair;
    ASSERT_TRUE(pair.peer.sendAll(frame(bytesOf("waiting"))));
    pair.transport->disconnect();
    Bytes got;
    const std::int64_t start = nowMs();
    EXPECT_EQ(0, receiveInto(*pair.transport, 1492, got));
    EXPECT_LT(nowMs() - start, 1000);
    EXPECT_EQ(nullptr, pair.transport->accept());

    TCPTransport listening;
    ASSERT_TRUE(listening.listen(kLoopback, 0));
    listening.disconnect();
    EXPECT_EQ(nullptr, listening.accept());
}

TEST(TcpTransport, DisconnectWakesABlockedReceive) {
    ClientPair pair;
    std::atomic<int> result{99};
    std::thread receiver([&] {
        std::uint8_t buffer[1492];
        result = pair.transport->receiveData(buffer, sizeof(buffer));
    });
    EXPECT_TRUE(quietFor(pair.peer.fd(), 50));
    EXPECT_EQ(99, result.load());
    pair.transport->disconnect();
    pair.transport->disconnect();  // a second call is harmless
    receiver.join();
    EXPECT_EQ(0, result.load());
    EXPECT_TRUE(pair.peer.waitClosed(5000));
}

TEST(TcpTransport, DisconnectWakesABlockedAcceptWithATransportWithoutSocket) {
    TCPTransport listening;
    ASSERT_TRUE(listening.listen(kLoopback, 0));
    ITARNTransport* accepted = reinterpret_cast<ITARNTransport*>(1);
    std::atomic<int> acceptorId{0};
    std::thread acceptor([&] {
        acceptorId = currentThreadId();
        accepted = listening.accept();
    });
    EXPECT_TRUE(waitUntil([&] { return acceptorId.load() != 0; }, 5000));
    EXPECT_TRUE(waitUntilBlocked(acceptorId.load(), 5000));  // inside accept()
    listening.disconnect();
    acceptor.join();
    // Only a transport that was already closed answers null; a woken accept hands out a transport
    // whose socket is missing.
    ASSERT_NE(nullptr, accepted);
    EXPECT_EQ(0, accepted->getLocalPort());
    EXPECT_EQ(0, accepted->getPeerPort());
    EXPECT_FALSE(accepted->getPeerAddress().isValid());
    delete accepted;
}

TEST(TcpTransport, ListenAcceptConnectAndExchangeBothWays) {
    TCPTransport listening;
    ASSERT_TRUE(listening.listen(kLoopback, 0));
    const uint16 port = listening.getLocalPort();
    ASSERT_NE(0, port);
    TCPTransport client;
    ASSERT_TRUE(client.connect(kLoopback, port));
    std::unique_ptr<ITARNTransport> server(listening.accept());
    ASSERT_NE(nullptr, server);
    EXPECT_EQ(port, server->getLocalPort());
    EXPECT_EQ(port, client.getPeerPort());
    EXPECT_EQ(client.getLocalPort(), server->getPeerPort());
    EXPECT_EQ("127.0.0.1", client.getPeerAddress().getAddressString());
    EXPECT_EQ("127.0.0.1", server->getPeerAddress().getAddressString());

    const Bytes up = bytesOf("from client");
    const Bytes down = bytesOf("from server");
    ASSERT_TRUE(client.sendData(up.data(), static_cast<uint>(up.size())));
    ASSERT_TRUE(server->sendData(down.data(), static_cast<uint>(down.size())));
    std::uint8_t buffer[64];
    ASSERT_EQ(static_cast<int>(up.size()), server->receiveData(buffer, sizeof(buffer)));
    EXPECT_EQ(up, Bytes(buffer, buffer + up.size()));
    ASSERT_EQ(static_cast<int>(down.size()), client.receiveData(buffer, sizeof(buffer)));
    EXPECT_EQ(down, Bytes(buffer, buffer + down.size()));
    listening.disconnect();
}

TEST(TcpTransport, ListenOnATakenPortFails) {
    RawTcpListener taken;
    TCPTransport listening;
    EXPECT_FALSE(listening.listen(kLoopback, taken.port()));
}

TEST(TcpTransport, ConnectWhereNobodyListensFails) {
    TCPTransport client;
    EXPECT_FALSE(client.connect(kLoopback, testsupport::ClosedTcpPort().port()));
}

TEST(TcpTransport, UnconnectedTransportHasNoPeer) {
    TCPTransport client;
    EXPECT_FALSE(client.getPeerAddress().isValid());
    EXPECT_EQ(0, client.getPeerPort());
    EXPECT_EQ(0, client.getLocalPort());
}

TEST(TcpTransport, ConnectAfterDisconnectWorksOnAFreshSocket) {
    RawTcpListener first;
    RawTcpListener second;
    TCPTransport client;
    ASSERT_TRUE(client.connect(kLoopback, first.port()));
    RawTcp firstPeer(first.accept(5000));
    ASSERT_TRUE(firstPeer.valid());
    const uint16 firstLocal = client.getLocalPort();
    client.disconnect();
    EXPECT_TRUE(firstPeer.waitClosed(5000));

    ASSERT_TRUE(client.connect(kLoopback, second.port()));
    RawTcp secondPeer(second.accept(5000));
    ASSERT_TRUE(secondPeer.valid());
    EXPECT_EQ(second.port(), client.getPeerPort());
    EXPECT_EQ(peerPortOf(secondPeer.fd()), client.getLocalPort());
    // The old socket is gone: no descriptor of this process is bound to its port any more.
    EXPECT_EQ(-1, findSocket(firstLocal, first.port()));

    const Bytes message = bytesOf("again");
    ASSERT_TRUE(client.sendData(message.data(), 5));
    Bytes body;
    ASSERT_TRUE(secondPeer.receiveFrame(body, 5000));
    EXPECT_EQ(message, body);
    ASSERT_TRUE(secondPeer.sendAll(frame(bytesOf("back"))));
    std::uint8_t buffer[16];
    EXPECT_EQ(4, client.receiveData(buffer, sizeof(buffer)));
}

TEST(TcpTransport, SocketOptionsDifferByHowTheSocketCameToBe) {
    // Created: no-delay and keep-alive.
    RawTcpListener raw;
    TCPTransport client;
    ASSERT_TRUE(client.connect(kLoopback, raw.port()));
    RawTcp rawPeer(raw.accept(5000));
    int fd = findSocket(client.getLocalPort(), raw.port());
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(socketOption(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_TRUE(socketOption(fd, SOL_SOCKET, SO_KEEPALIVE));

    // Reconnected: no-delay only.
    client.disconnect();
    ASSERT_TRUE(client.connect(kLoopback, raw.port()));
    RawTcp rawPeer2(raw.accept(5000));
    fd = findSocket(client.getLocalPort(), raw.port());
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(socketOption(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_FALSE(socketOption(fd, SOL_SOCKET, SO_KEEPALIVE));

    // Adopted: the constructor switches on no-delay only. (A socket accepted by a listening
    // TCPTransport inherits keep-alive from its listening socket through the system; here the
    // listening socket is a plain one so that only the constructor's own doing shows.)
    sal::TcpSocket plain;
    ASSERT_TRUE(plain.bind(kLoopback, 0));
    ASSERT_TRUE(plain.listen(5));
    RawTcp peer = RawTcp::connectTo(plain.getLocalPort());
    std::unique_ptr<TCPTransport> adopted = TCPTransportTest::adopt(plain.accept());
    fd = findSocket(plain.getLocalPort(), localPortOf(peer.fd()));
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(socketOption(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_FALSE(socketOption(fd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(localPortOf(peer.fd()), adopted->getPeerPort());
}

TEST(TcpTransport, ModesAreFixedAndThereIsNoWindow) {
    ClientPair pair;
    EXPECT_TRUE(pair.transport->setSendMode(eReliable));
    EXPECT_FALSE(pair.transport->setSendMode(eRealtime));
    EXPECT_TRUE(pair.transport->setReceiveMode(static_cast<EConnMode>('R')));
    EXPECT_FALSE(pair.transport->setReceiveMode(static_cast<EConnMode>('T')));
    EXPECT_FALSE(pair.transport->setSendMode(static_cast<EConnMode>(0)));
    for (uint size : {0u, 1u, 16u, 999u, 0xFFFFFFFFu}) {
        EXPECT_FALSE(pair.transport->setWindowSize(size)) << size;
    }
    pair.transport->allowSendMode(true, false);
    pair.transport->allowReceiveMode(false, false);
    EXPECT_TRUE(pair.transport->setSendMode(eReliable));  // the allow calls change nothing
    // None of these put anything on the wire.
    EXPECT_TRUE(quietFor(pair.peer.fd(), 100));
}

TEST(TcpTransport, TransportWithoutSocketToleratesTheQueries) {
    std::unique_ptr<TCPTransport> empty = TCPTransportTest::adopt(nullptr);
    EXPECT_FALSE(empty->getPeerAddress().isValid());
    EXPECT_EQ(0, empty->getPeerPort());
    EXPECT_EQ(0, empty->getLocalPort());
    EXPECT_TRUE(empty->setSendMode(eReliable));
    EXPECT_FALSE(empty->setWindowSize(4));
    std::unique_ptr<ITARNTransport> next(empty->accept());
    ASSERT_NE(nullptr, next);
    EXPECT_EQ(0, next->getLocalPort());
}

// The assertion line names the unit, the line and the function exactly.
class TcpTransportDeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(TcpTransportDeathTest, ListenWithoutSocket) {
    EXPECT_DEATH(
        {
            std::unique_ptr<TCPTransport> empty = TCPTransportTest::adopt(nullptr);
            empty->listen(kLoopback, 0);
        },
        "source/tcptransport\\.cpp:44: virtual bool TCPTransport::listen\\(const sal::HostAddress&, "
        "uint16\\): "
        "Assertion `m_pSocket' failed\\.");
}

TEST_F(TcpTransportDeathTest, ConnectWithoutSocket) {
    EXPECT_DEATH(
        {
            std::unique_ptr<TCPTransport> empty = TCPTransportTest::adopt(nullptr);
            empty->connect(kLoopback, 1);
        },
        "source/tcptransport\\.cpp:69: virtual bool TCPTransport::connect\\(const sal::HostAddress&, "
        "uint16\\): "
        "Assertion `m_pSocket' failed\\.");
}

TEST_F(TcpTransportDeathTest, DisconnectWithoutSocket) {
    EXPECT_DEATH(
        {
            std::unique_ptr<TCPTransport> empty = TCPTransportTest::adopt(nullptr);
            empty->disconnect();
        },
        "source/tcptransport\\.cpp:85: virtual void TCPTransport::disconnect\\(\\): Assertion `m_pSocket' "
        "failed\\.");
}

TEST_F(TcpTransportDeathTest, SendWithoutSocket) {
    EXPECT_DEATH(
        {
            std::unique_ptr<TCPTransport> empty = TCPTransportTest::adopt(nullptr);
            const std::uint8_t byte = 0;
            empty->sendData(&byte, 1);
        },
        "source/tcptransport\\.cpp:99: virtual bool TCPTransport::sendData\\(const uint8\\*, uint\\): "
        "Assertion `m_pSocket' failed\\.");
}

TEST_F(TcpTransportDeathTest, ReceiveWithoutSocket) {
    EXPECT_DEATH(
        {
            std::unique_ptr<TCPTransport> empty = TCPTransportTest::adopt(nullptr);
            std::uint8_t buffer[4];
            empty->receiveData(buffer, sizeof(buffer));
        },
        "source/tcptransport\\.cpp:118: virtual int TCPTransport::receiveData\\(uint8\\*, uint\\): "
        "Assertion `m_pSocket' failed\\.");
}
