#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <sal/udpsocket.h>

#include "testsupport.h"

namespace {

using sal::HostAddress;
using sal::UdpSocket;
using testsupport::Bytes;
using testsupport::nowMs;
using testsupport::RawUdp;
using testsupport::waitUntil;

const HostAddress kLoopback("127.0.0.1");

std::unique_ptr<UdpSocket> makeBound() {
    std::unique_ptr<UdpSocket> socket(new UdpSocket);
    EXPECT_TRUE(socket->bind(kLoopback, 0));
    EXPECT_NE(0, socket->getLocalPort());
    return socket;
}

TEST(UdpSocket, SendToAndReceiveFrom) {
    auto socket = makeBound();
    RawUdp peer;
    const Bytes request = testsupport::bytesOf("ping");
    ASSERT_TRUE(peer.sendTo(request, socket->getLocalPort()));

    char buffer[64];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(4, socket->receiveFrom(buffer, sizeof(buffer), from, fromPort));
    EXPECT_EQ(0, std::memcmp(buffer, "ping", 4));
    EXPECT_EQ("127.0.0.1", from.getAddressString());
    EXPECT_EQ(peer.port(), fromPort);

    EXPECT_EQ(4, socket->sendTo("pong", 4, from, fromPort));
    Bytes reply;
    uint16 replyPort = 0;
    ASSERT_TRUE(peer.receive(reply, replyPort, 5000));
    EXPECT_EQ(testsupport::bytesOf("pong"), reply);
    EXPECT_EQ(socket->getLocalPort(), replyPort);
}

TEST(UdpSocket, EmptyDatagramReturnsZero) {
    auto socket = makeBound();
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(Bytes(), socket->getLocalPort()));
    char buffer[16];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(0, socket->receiveFrom(buffer, sizeof(buffer), from, fromPort));
    EXPECT_EQ(peer.port(), fromPort);
    EXPECT_FALSE(socket->isClosed());

    // And an empty datagram can be sent.
    EXPECT_EQ(0, socket->sendTo(buffer, 0, kLoopback, peer.port()));
    Bytes received{1};
    ASSERT_TRUE(peer.receive(received, fromPort, 5000));
    EXPECT_TRUE(received.empty());
}

TEST(UdpSocket, LongDatagramIsTruncatedAndTheRestDiscarded) {
    auto socket = makeBound();
    RawUdp peer;
    Bytes longOne(100);
    for (std::size_t i = 0; i < longOne.size(); ++i) {
        longOne[i] = static_cast<std::uint8_t>(i);
    }
    ASSERT_TRUE(peer.sendTo(longOne, socket->getLocalPort()));
    ASSERT_TRUE(peer.sendTo({0xEE, 0xFF}, socket->getLocalPort()));

    std::uint8_t buffer[10];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(10, socket->receiveFrom(buffer, sizeof(buffer), from, fromPort));
    EXPECT_EQ(Bytes(longOne.begin(), longOne.begin() + 10), Bytes(buffer, buffer + 10));
    // The next call returns the next datagram, not the rest of the long one.
    EXPECT_EQ(2, socket->receiveFrom(buffer, sizeof(buffer), from, fromPort));
    EXPECT_EQ(0xEE, buffer[0]);
    EXPECT_EQ(0xFF, buffer[1]);
}

void expectCloseWakesReceiver(UdpSocket& socket) {
    std::atomic<int> result{12345};
    std::atomic<bool> returned{false};
    std::thread receiver([&] {
        char buffer[32];
        HostAddress from;
        uint16 fromPort = 0;
        result = socket.receiveFrom(buffer, sizeof(buffer), from, fromPort);
        returned = true;
    });
    EXPECT_FALSE(waitUntil([&] { return returned.load(); }, 200));  // blocked: nothing arrived
    const std::int64_t start = nowMs();
    socket.close();
    EXPECT_TRUE(waitUntil([&] { return returned.load(); }, 5000));
    EXPECT_LT(nowMs() - start, 2000);
    receiver.join();
    EXPECT_EQ(-1, result.load());
}

TEST(UdpSocket, CloseWakesBlockedReceiveOnBoundSocket) {
    auto socket = makeBound();
    expectCloseWakesReceiver(*socket);
}

TEST(UdpSocket, CloseWakesBlockedReceiveOnUnboundSocket) {
    UdpSocket socket;
    expectCloseWakesReceiver(socket);
}

TEST(UdpSocket, CloseWakesReceiveOnSocketThatHasSent) {
    UdpSocket socket;
    RawUdp peer;
    ASSERT_EQ(1, socket.sendTo("x", 1, kLoopback, peer.port()));  // bound implicitly
    EXPECT_NE(0, socket.getLocalPort());
    expectCloseWakesReceiver(socket);
}

TEST(UdpSocket, OperationsAfterCloseFail) {
    auto socket = makeBound();
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo({1, 2, 3}, socket->getLocalPort()));
    socket->close();
    socket->close();  // idempotent
    EXPECT_TRUE(socket->isClosed());
    char buffer[8];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(-1, socket->receiveFrom(buffer, sizeof(buffer), from, fromPort));  // even with one queued
    EXPECT_EQ(-1, socket->receiveFrom(buffer, sizeof(buffer), from, fromPort));
    EXPECT_EQ(-1, socket->sendTo("x", 1, kLoopback, peer.port()));
    EXPECT_TRUE(peer.quietFor(100));
}

TEST(UdpSocket, CloseKeepsTheDescriptorUntilDestruction) {
    auto socket = makeBound();
    const int fd = socket->getDescriptor();
    socket->close();
    EXPECT_NE(-1, ::fcntl(fd, F_GETFD));
    socket.reset();
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
}

TEST(UdpSocket, LocalPort) {
    UdpSocket unbound;
    EXPECT_EQ(0, unbound.getLocalPort());
    RawUdp peer;
    EXPECT_EQ(2, unbound.sendTo("hi", 2, kLoopback, peer.port()));
    const uint16 port = unbound.getLocalPort();
    EXPECT_NE(0, port);
    Bytes datagram;
    uint16 fromPort = 0;
    ASSERT_TRUE(peer.receive(datagram, fromPort, 5000));
    EXPECT_EQ(port, fromPort);
}

TEST(UdpSocket, BindFailures) {
    auto first = makeBound();
    UdpSocket second;
    EXPECT_FALSE(second.bind(kLoopback, first->getLocalPort()));  // in use
    UdpSocket third;
    EXPECT_FALSE(third.bind(HostAddress(), 0));  // no address
    EXPECT_TRUE(third.bind(HostAddress(HostAddress::eAnyAddress), 0));
}

TEST(UdpSocket, SendToInvalidAddressFails) {
    UdpSocket socket;
    EXPECT_EQ(-1, socket.sendTo("x", 1, HostAddress(), 9));
    EXPECT_EQ(-1, socket.sendTo("x", 1, HostAddress("no-such-host.invalid"), 9));
    EXPECT_EQ(-1, socket.sendTo("x", -1, kLoopback, 9));
}

// Several threads send at once through one socket: every datagram leaves whole and none is lost on
// the loopback (the receiver has room for all of them).
TEST(UdpSocket, ConcurrentSendToKeepsDatagramsWhole) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    constexpr std::size_t kSize = 200;
    RawUdp peer;
    int room = 16 * 1024 * 1024;
    if (::setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) != 0) {
        ::setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
    }
    UdpSocket socket;
    std::atomic<int> failures{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            std::vector<std::uint8_t> datagram(kSize);
            for (int i = 0; i < kPerThread; ++i) {
                // Every byte repeats the sender and the number, so that a mix of two is visible.
                for (std::size_t b = 0; b < kSize; ++b) {
                    datagram[b] = static_cast<std::uint8_t>(b % 2 == 0 ? t : i % 256);
                }
                std::memcpy(datagram.data(), &i, sizeof(i));
                if (socket.sendTo(datagram.data(), static_cast<int>(kSize), kLoopback, peer.port()) !=
                    static_cast<int>(kSize)) {
                    ++failures;
                }
            }
        });
    }
    std::set<std::pair<int, int>> seen;
    int mangled = 0;
    Bytes datagram;
    uint16 fromPort = 0;
    while (seen.size() + static_cast<std::size_t>(mangled) < kThreads * kPerThread &&
           peer.receive(datagram, fromPort, 5000)) {
        int number = 0;
        if (datagram.size() != kSize) {
            ++mangled;
            continue;
        }
        std::memcpy(&number, datagram.data(), sizeof(number));
        const int sender = datagram[sizeof(number)];
        bool whole = number >= 0 && number < kPerThread && sender < kThreads;
        for (std::size_t b = sizeof(number); whole && b < kSize; ++b) {
            whole = datagram[b] == static_cast<std::uint8_t>(b % 2 == 0 ? sender : number % 256);
        }
        if (!whole || !seen.insert({sender, number}).second) {
            ++mangled;
        }
    }
    for (auto& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(0, mangled);
    EXPECT_EQ(static_cast<std::size_t>(kThreads * kPerThread), seen.size());
}

}  // namespace
