#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <sal/tcpsocket.h>

#include "testsupport.h"

namespace {

using sal::HostAddress;
using sal::TcpSocket;
using testsupport::Bytes;
using testsupport::nowMs;
using testsupport::RawTcp;
using testsupport::RawTcpListener;
using testsupport::waitUntil;

const HostAddress kLoopback("127.0.0.1");

// A listening sal socket on 127.0.0.1 with an ephemeral port.
std::unique_ptr<TcpSocket> makeListener() {
    std::unique_ptr<TcpSocket> listener(new TcpSocket);
    EXPECT_TRUE(listener->bind(kLoopback, 0));
    EXPECT_TRUE(listener->listen(5));
    EXPECT_NE(0, listener->getLocalPort());
    return listener;
}

// A sal socket connected to a raw peer.
struct Connected {
    RawTcpListener listener;
    std::unique_ptr<TcpSocket> socket{new TcpSocket};
    std::unique_ptr<RawTcp> peer;
    Connected() {
        EXPECT_TRUE(socket->connect(kLoopback, listener.port()));
        peer.reset(new RawTcp(listener.accept(5000)));
        EXPECT_TRUE(peer->valid());
    }
};

int intOption(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    if (::getsockopt(fd, level, name, &value, &length) != 0) {
        return -1;
    }
    return value;
}

TEST(TcpSocket, AcceptConnectAndExchange) {
    auto listener = makeListener();
    TcpSocket client;
    ASSERT_TRUE(client.connect(kLoopback, listener->getLocalPort()));
    std::unique_ptr<TcpSocket> server(listener->accept());
    ASSERT_NE(nullptr, server);

    const char request[] = "hello";
    EXPECT_EQ(5, client.send(request, 5));
    char buffer[5] = {0};
    EXPECT_EQ(5, server->receive(buffer, 5));
    EXPECT_EQ(0, std::memcmp(buffer, "hello", 5));

    EXPECT_EQ(3, server->send("abc", 3));
    EXPECT_EQ(3, client.receive(buffer, 3));
    EXPECT_EQ(0, std::memcmp(buffer, "abc", 3));
}

TEST(TcpSocket, PeerNameAndLocalPort) {
    auto listener = makeListener();
    TcpSocket client;
    EXPECT_EQ(0, client.getLocalPort());  // unbound
    HostAddress address;
    uint16 port = 1;
    EXPECT_FALSE(client.getPeerName(address, port));  // not connected
    ASSERT_TRUE(client.connect(kLoopback, listener->getLocalPort()));
    std::unique_ptr<TcpSocket> server(listener->accept());
    ASSERT_NE(nullptr, server);

    ASSERT_TRUE(client.getPeerName(address, port));
    EXPECT_EQ("127.0.0.1", address.getAddressString());
    EXPECT_EQ(listener->getLocalPort(), port);

    ASSERT_TRUE(server->getPeerName(address, port));
    EXPECT_EQ("127.0.0.1", address.getAddressString());
    EXPECT_EQ(client.getLocalPort(), port);
    EXPECT_NE(0, client.getLocalPort());
    EXPECT_EQ(listener->getLocalPort(), server->getLocalPort());
}

TEST(TcpSocket, ReceiveWaitsForTheFullCountAcrossSegments) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    socket->setNoDelay(true);

    Bytes message(300);
    for (std::size_t i = 0; i < message.size(); ++i) {
        message[i] = static_cast<std::uint8_t>(i * 7 + 1);
    }
    Bytes received(300, 0);
    std::atomic<int> result{-1};
    std::thread receiver([&] { result = socket->receive(received.data(), 300); });
    // Four pieces, each after the receiver has had time to take the one before in its own
    // segment; until the last piece is sent the receive must still be waiting.
    const std::size_t cuts[] = {0, 1, 50, 299, 300};
    for (int i = 0; i < 4; ++i) {
        EXPECT_FALSE(waitUntil([&] { return result.load() != -1; }, 40))
            << "returned after " << i << " pieces";
        EXPECT_TRUE(peer.sendAll(Bytes(message.begin() + static_cast<long>(cuts[i]),
                                       message.begin() + static_cast<long>(cuts[i + 1]))));
    }
    receiver.join();
    EXPECT_EQ(300, result.load());
    EXPECT_EQ(message, received);
}

TEST(TcpSocket, ReceiveReturnsZeroOnOrderlyClose) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    ASSERT_TRUE(peer.sendAll({1, 2, 3}));
    peer.close();
    char buffer[3];
    EXPECT_EQ(3, socket->receive(buffer, 3));  // data sent before the close still arrives
    EXPECT_EQ(0, socket->receive(buffer, 1));
    EXPECT_EQ(0, socket->receive(buffer, 1));
}

TEST(TcpSocket, ReceiveOfPartialMessageBeforeCloseReturnsZero) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    ASSERT_TRUE(peer.sendAll({1, 2}));
    peer.close();
    char buffer[4];
    EXPECT_EQ(0, socket->receive(buffer, 4));
}

TEST(TcpSocket, ZeroLengthSendAndReceive) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    char buffer[1];
    EXPECT_EQ(0, socket->receive(buffer, 0));
    EXPECT_EQ(0, socket->send(buffer, 0));
    // Nothing went on the wire.
    ASSERT_TRUE(peer.sendAll({9}));
    EXPECT_EQ(1, socket->receive(buffer, 1));
    EXPECT_EQ(9, buffer[0]);
}

TEST(TcpSocket, CloseWakesBlockedReceive) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    std::atomic<int> result{12345};
    std::atomic<bool> returned{false};
    std::thread receiver([&] {
        char buffer[16];
        result = socket->receive(buffer, 16);
        returned = true;
    });
    // Still blocked after a while: nothing arrived.
    EXPECT_FALSE(waitUntil([&] { return returned.load(); }, 200));
    const std::int64_t start = nowMs();
    socket->close();
    EXPECT_TRUE(waitUntil([&] { return returned.load(); }, 5000));
    const std::int64_t woke = nowMs() - start;
    receiver.join();
    EXPECT_EQ(0, result.load());
    EXPECT_LT(woke, 2000);
    EXPECT_TRUE(socket->isClosed());
    // The peer sees the stream end.
    EXPECT_TRUE(peer.waitClosed(5000));
}

TEST(TcpSocket, CloseWakesBlockedAccept) {
    auto listener = makeListener();
    std::atomic<bool> returned{false};
    std::atomic<bool> gotNull{false};
    std::thread acceptor([&] {
        TcpSocket* pAccepted = listener->accept();
        gotNull = pAccepted == nullptr;
        delete pAccepted;
        returned = true;
    });
    EXPECT_FALSE(waitUntil([&] { return returned.load(); }, 200));
    listener->close();
    EXPECT_TRUE(waitUntil([&] { return returned.load(); }, 5000));
    acceptor.join();
    EXPECT_TRUE(gotNull.load());
    EXPECT_EQ(nullptr, listener->accept());  // and every later accept fails at once
}

TEST(TcpSocket, CloseKeepsTheDescriptorUntilDestruction) {
    auto socket = std::unique_ptr<TcpSocket>(new TcpSocket);
    const int fd = socket->getDescriptor();
    ASSERT_GE(fd, 0);
    socket->close();
    socket->close();                      // idempotent
    EXPECT_NE(-1, ::fcntl(fd, F_GETFD));  // still ours: no other file can take this number
    socket.reset();
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
}

TEST(TcpSocket, OperationsAfterCloseFail) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    ASSERT_TRUE(peer.sendAll({1, 2, 3, 4}));
    socket->close();
    char buffer[4];
    EXPECT_EQ(-1, socket->send("x", 1));
    EXPECT_EQ(0, socket->receive(buffer, 4));  // closed: even buffered data is not handed out
    EXPECT_FALSE(socket->connect(kLoopback, connected.listener.port()));
}

TEST(TcpSocket, SendToVanishedPeerFailsWithoutSignal) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    peer.close();
    // The first sends may still be accepted locally; once the peer's reset is back a send fails.
    // Without MSG_NOSIGNAL the process would die of SIGPIPE here.
    int result = 0;
    const Bytes chunk(1000, 0x55);
    EXPECT_TRUE(waitUntil(
        [&] {
            result = socket->send(chunk.data(), static_cast<int>(chunk.size()));
            return result < 0;
        },
        5000));
    EXPECT_EQ(-1, result);
}

TEST(TcpSocket, LargeSendResumesPartialWrites) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    // Several megabytes do not fit the socket buffers: send() must resume until all is out.
    const int size = 8 * 1024 * 1024;
    std::vector<std::uint8_t> data(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(i % 251);
    }
    std::atomic<int> sent{0};
    std::thread sender([&] { sent = socket->send(data.data(), size); });
    Bytes received;
    EXPECT_TRUE(peer.receiveExactly(received, data.size(), 60000));
    sender.join();
    EXPECT_EQ(size, sent.load());
    EXPECT_TRUE(received == data);
}

TEST(TcpSocket, ConnectFailures) {
    TcpSocket unresolved;
    EXPECT_FALSE(unresolved.connect(HostAddress("no-such-host.invalid"), 80));
    EXPECT_FALSE(unresolved.connect(HostAddress(), 80));

    // A port held by a bound socket that does not listen: the connection is refused, and no other
    // program can take the port meanwhile.
    TcpSocket probe;
    ASSERT_TRUE(probe.bind(kLoopback, 0));
    TcpSocket refused;
    EXPECT_FALSE(refused.connect(kLoopback, probe.getLocalPort()));
}

TEST(TcpSocket, BindFailures) {
    TcpSocket socket;
    EXPECT_FALSE(socket.bind(HostAddress(), 0));  // no address
    auto listener = makeListener();
    TcpSocket second;
    EXPECT_FALSE(second.bind(kLoopback, listener->getLocalPort()));  // port taken by a listener
}

TEST(TcpSocket, RestartedServerRebindsItsPortAtOnce) {
    uint16 port;
    {
        auto listener = makeListener();
        port = listener->getLocalPort();
        TcpSocket client;
        ASSERT_TRUE(client.connect(kLoopback, port));
        std::unique_ptr<TcpSocket> server(listener->accept());
        ASSERT_NE(nullptr, server);
        // The server closes first: its side of the connection stays in TIME_WAIT on `port`.
        server->close();
        char byte;
        EXPECT_EQ(0, client.receive(&byte, 1));
    }
    TcpSocket restarted;
    EXPECT_TRUE(restarted.bind(kLoopback, port));
    EXPECT_TRUE(restarted.listen(5));
}

TEST(TcpSocket, SocketOptions) {
    TcpSocket socket;
    EXPECT_TRUE(socket.setNoDelay(true));
    EXPECT_NE(0, intOption(socket.getDescriptor(), IPPROTO_TCP, TCP_NODELAY));
    EXPECT_TRUE(socket.setNoDelay(false));
    EXPECT_EQ(0, intOption(socket.getDescriptor(), IPPROTO_TCP, TCP_NODELAY));
    EXPECT_TRUE(socket.setKeepAlive());
    EXPECT_NE(0, intOption(socket.getDescriptor(), SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_TRUE(socket.setKeepAlive(false));
    EXPECT_EQ(0, intOption(socket.getDescriptor(), SOL_SOCKET, SO_KEEPALIVE));
}

TEST(TcpSocket, SendWhileAnotherThreadReceives) {
    Connected connected;
    auto& socket = connected.socket;
    RawTcp& peer = *connected.peer;
    std::atomic<int> received{-2};
    char buffer[4];
    std::thread receiver([&] { received = socket->receive(buffer, 4); });
    EXPECT_EQ(2, socket->send("ok", 2));
    Bytes echoed;
    ASSERT_TRUE(peer.receiveExactly(echoed, 2, 5000));
    EXPECT_EQ(testsupport::bytesOf("ok"), echoed);
    ASSERT_TRUE(peer.sendAll({'p', 'o', 'n', 'g'}));
    receiver.join();
    EXPECT_EQ(4, received.load());
    EXPECT_EQ(0, std::memcmp(buffer, "pong", 4));
}

// ---- IPv6 ---------------------------------------------------------------------------------------

const HostAddress kLoopback6("::1");

std::unique_ptr<TcpSocket> makeListenerOn(const HostAddress& address) {
    std::unique_ptr<TcpSocket> listener(new TcpSocket);
    EXPECT_TRUE(listener->bind(address, 0)) << address.getAddressString();
    EXPECT_TRUE(listener->listen(5));
    EXPECT_NE(0, listener->getLocalPort());
    return listener;
}

// A raw client of one family on the loopback; -1 when the connection fails.
int rawConnect(int family, uint16 port) {
    const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int result = -1;
    if (family == AF_INET6) {
        sockaddr_in6 address;
        std::memset(&address, 0, sizeof(address));
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_loopback;
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } else {
        sockaddr_in address;
        std::memset(&address, 0, sizeof(address));
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    if (result != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

TEST(TcpSocket, IPv6LoopbackConnectExchangeAndNames) {
    auto listener = makeListenerOn(kLoopback6);
    TcpSocket client;
    ASSERT_TRUE(client.connect(kLoopback6, listener->getLocalPort()));
    std::unique_ptr<TcpSocket> server(listener->accept());
    ASSERT_NE(nullptr, server);

    EXPECT_EQ(5, client.send("hello", 5));
    char buffer[5] = {0};
    EXPECT_EQ(5, server->receive(buffer, 5));
    EXPECT_EQ(0, std::memcmp(buffer, "hello", 5));
    EXPECT_EQ(2, server->send("ok", 2));
    EXPECT_EQ(2, client.receive(buffer, 2));
    EXPECT_EQ(0, std::memcmp(buffer, "ok", 2));

    HostAddress address;
    uint16 port = 0;
    ASSERT_TRUE(client.getPeerName(address, port));
    EXPECT_EQ("::1", address.getAddressString());
    EXPECT_EQ(listener->getLocalPort(), port);
    ASSERT_TRUE(server->getPeerName(address, port));
    EXPECT_EQ("::1", address.getAddressString());
    EXPECT_EQ(client.getLocalPort(), port);
    EXPECT_EQ(listener->getLocalPort(), server->getLocalPort());
}

TEST(TcpSocket, RawIPv6PeerSeesTheBytes) {
    auto listener = makeListenerOn(kLoopback6);
    RawTcp peer(rawConnect(AF_INET6, listener->getLocalPort()));
    ASSERT_TRUE(peer.valid());
    std::unique_ptr<TcpSocket> server(listener->accept());
    ASSERT_NE(nullptr, server);
    EXPECT_EQ(3, server->send("\x01\x02\x03", 3));
    Bytes received;
    ASSERT_TRUE(peer.receiveExactly(received, 3, 5000));
    EXPECT_EQ((Bytes{1, 2, 3}), received);
}

// Bound to the any-address (either way of writing it), one listener takes peers of both families,
// and an IPv4 peer is named in plain IPv4.
TEST(TcpSocket, AnyAddressTakesIPv4AndIPv6Peers) {
    for (const HostAddress& any :
         {HostAddress(HostAddress::eAnyAddress), HostAddress("::"), HostAddress("")}) {
        SCOPED_TRACE(any.getAddressString());
        auto listener = makeListenerOn(any);
        const uint16 port = listener->getLocalPort();

        TcpSocket six;
        ASSERT_TRUE(six.connect(kLoopback6, port));
        std::unique_ptr<TcpSocket> fromSix(listener->accept());
        ASSERT_NE(nullptr, fromSix);
        TcpSocket four;
        ASSERT_TRUE(four.connect(kLoopback, port));
        std::unique_ptr<TcpSocket> fromFour(listener->accept());
        ASSERT_NE(nullptr, fromFour);
        RawTcp rawFour(rawConnect(AF_INET, port));
        ASSERT_TRUE(rawFour.valid());
        std::unique_ptr<TcpSocket> fromRawFour(listener->accept());
        ASSERT_NE(nullptr, fromRawFour);

        HostAddress address;
        uint16 peerPort = 0;
        ASSERT_TRUE(fromSix->getPeerName(address, peerPort));
        EXPECT_EQ("::1", address.getAddressString());
        EXPECT_EQ(six.getLocalPort(), peerPort);
        ASSERT_TRUE(fromFour->getPeerName(address, peerPort));
        EXPECT_EQ("127.0.0.1", address.getAddressString());
        EXPECT_TRUE(address.isIPv4());
        EXPECT_EQ(four.getLocalPort(), peerPort);
        ASSERT_TRUE(fromRawFour->getPeerName(address, peerPort));
        EXPECT_EQ(HostAddress("127.0.0.1"), address);

        ASSERT_TRUE(four.getPeerName(address, peerPort));
        EXPECT_EQ("127.0.0.1", address.getAddressString());
        EXPECT_EQ(port, peerPort);
    }
}

TEST(TcpSocket, FamilySpecificBindTakesOnlyItsFamily) {
    auto four = makeListenerOn(kLoopback);
    TcpSocket sixClient;
    EXPECT_FALSE(sixClient.connect(kLoopback6, four->getLocalPort()));
    EXPECT_EQ(-1, rawConnect(AF_INET6, four->getLocalPort()));

    auto six = makeListenerOn(kLoopback6);
    TcpSocket fourClient;
    EXPECT_FALSE(fourClient.connect(kLoopback, six->getLocalPort()));
    EXPECT_EQ(-1, rawConnect(AF_INET, six->getLocalPort()));
}

TEST(TcpSocket, IPv6PortTakenAndRebind) {
    auto listener = makeListenerOn(kLoopback6);
    TcpSocket second;
    EXPECT_FALSE(second.bind(kLoopback6, listener->getLocalPort()));
    // The dual-stack any-address covers the IPv6 loopback's port as well.
    TcpSocket any;
    EXPECT_FALSE(any.bind(HostAddress(HostAddress::eAnyAddress), listener->getLocalPort()));
    TcpSocket unroutable;
    EXPECT_FALSE(unroutable.bind(HostAddress("2001:db8::1"), 0));  // not an address of this host
}

TEST(TcpSocket, BracketedLiteralConnects) {
    auto listener = makeListenerOn(kLoopback6);
    TcpSocket client;
    ASSERT_TRUE(client.connect(HostAddress("[::1]"), listener->getLocalPort()));
    std::unique_ptr<TcpSocket> server(listener->accept());
    EXPECT_NE(nullptr, server);
}

}  // namespace
