#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <sal/udpsocket.h>

#include "testsupport.h"
#include "udpsockettest.h"

namespace {

using sal::HostAddress;
using sal::UdpSocket;
using testsupport::Bytes;
using testsupport::nowMs;
using testsupport::RawUdp;
using testsupport::waitUntil;

const HostAddress& kLoopback = udpsockettest::loopback();
using udpsockettest::makeBound;

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

// ---- IPv6 ---------------------------------------------------------------------------------------

const HostAddress kLoopback6("::1");

// A raw UDP socket of one family bound to that family's loopback.
class RawUdpOf {
public:
    explicit RawUdpOf(int family) : m_family(family), m_fd(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_storage local = address(0);
        if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&local), length()) == 0) {
            socklen_t size = sizeof(local);
            ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &size);
            m_port = ntohs(m_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(local).sin6_port
                                                : reinterpret_cast<sockaddr_in&>(local).sin_port);
        }
    }
    ~RawUdpOf() { ::close(m_fd); }
    RawUdpOf(const RawUdpOf&) = delete;
    RawUdpOf& operator=(const RawUdpOf&) = delete;

    uint16 port() const { return m_port; }
    bool sendTo(const std::string& text, uint16 port) {
        sockaddr_storage remote = address(port);
        return ::sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&remote), length()) ==
               static_cast<ssize_t>(text.size());
    }
    // One datagram within 5 s as text, with its source port; "" on time-out.
    std::string receive(uint16& fromPort) {
        pollfd entry{m_fd, POLLIN, 0};
        if (::poll(&entry, 1, 5000) != 1) {
            return std::string();
        }
        char buffer[256];
        sockaddr_storage from;
        socklen_t size = sizeof(from);
        const ssize_t n =
            ::recvfrom(m_fd, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &size);
        fromPort = ntohs(m_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(from).sin6_port
                                              : reinterpret_cast<sockaddr_in&>(from).sin_port);
        return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
    }

private:
    sockaddr_storage address(uint16 port) const {
        sockaddr_storage storage;
        std::memset(&storage, 0, sizeof(storage));
        if (m_family == AF_INET6) {
            auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
            v6.sin6_family = AF_INET6;
            v6.sin6_port = htons(port);
            v6.sin6_addr = in6addr_loopback;
        } else {
            auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
            v4.sin_family = AF_INET;
            v4.sin_port = htons(port);
            v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        }
        return storage;
    }
    socklen_t length() const { return m_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in); }

    int m_family;
    int m_fd;
    uint16 m_port = 0;
};

TEST(UdpSocket, IPv6LoopbackSendToAndReceiveFrom) {
    UdpSocket socket;
    ASSERT_TRUE(socket.bind(kLoopback6, 0));
    ASSERT_NE(0, socket.getLocalPort());
    RawUdpOf peer(AF_INET6);
    ASSERT_NE(0, peer.port());
    ASSERT_TRUE(peer.sendTo("ping", socket.getLocalPort()));

    char buffer[64];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(4, socket.receiveFrom(buffer, sizeof(buffer), from, fromPort));
    EXPECT_EQ(0, std::memcmp(buffer, "ping", 4));
    EXPECT_EQ("::1", from.getAddressString());
    EXPECT_TRUE(from.isIPv6());
    EXPECT_EQ(peer.port(), fromPort);

    EXPECT_EQ(4, socket.sendTo("pong", 4, from, fromPort));
    uint16 replyPort = 0;
    EXPECT_EQ("pong", peer.receive(replyPort));
    EXPECT_EQ(socket.getLocalPort(), replyPort);
}

// An unbound socket reaches either family, takes its port from the first send, and hears the
// answers on it.
TEST(UdpSocket, UnboundSocketTalksToBothFamilies) {
    UdpSocket socket;
    RawUdpOf six(AF_INET6);
    RawUdpOf four(AF_INET);
    EXPECT_EQ(3, socket.sendTo("six", 3, kLoopback6, six.port()));
    const uint16 port = socket.getLocalPort();
    ASSERT_NE(0, port);
    EXPECT_EQ(4, socket.sendTo("four", 4, kLoopback, four.port()));
    EXPECT_EQ(port, socket.getLocalPort());
    uint16 fromPort = 0;
    EXPECT_EQ("six", six.receive(fromPort));
    EXPECT_EQ(port, fromPort);
    EXPECT_EQ("four", four.receive(fromPort));
    EXPECT_EQ(port, fromPort);

    ASSERT_TRUE(six.sendTo("a", port));
    ASSERT_TRUE(four.sendTo("b", port));
    std::set<std::string> heard;
    for (int i = 0; i < 2; ++i) {
        char buffer[8];
        HostAddress from;
        uint16 senderPort = 0;
        ASSERT_EQ(1, socket.receiveFrom(buffer, sizeof(buffer), from, senderPort));
        heard.insert(std::string(1, buffer[0]) + " " + from.getAddressString() + " " +
                     std::to_string(senderPort));
    }
    EXPECT_EQ((std::set<std::string>{"a ::1 " + std::to_string(six.port()),
                                     "b 127.0.0.1 " + std::to_string(four.port())}),
              heard);
}

TEST(UdpSocket, AnyAddressTakesIPv4AndIPv6Senders) {
    for (const HostAddress& any : {HostAddress(HostAddress::eAnyAddress), HostAddress("::")}) {
        SCOPED_TRACE(any.getAddressString());
        UdpSocket socket;
        ASSERT_TRUE(socket.bind(any, 0));
        RawUdpOf six(AF_INET6);
        RawUdpOf four(AF_INET);
        char buffer[8];
        HostAddress from;
        uint16 fromPort = 0;
        ASSERT_TRUE(four.sendTo("4", socket.getLocalPort()));
        ASSERT_EQ(1, socket.receiveFrom(buffer, sizeof(buffer), from, fromPort));
        EXPECT_EQ(HostAddress("127.0.0.1"), from);
        EXPECT_EQ("127.0.0.1", from.getAddressString());
        EXPECT_EQ(four.port(), fromPort);
        EXPECT_EQ(1, socket.sendTo("r", 1, from, fromPort));  // the plain IPv4 answer reaches it
        uint16 replyPort = 0;
        EXPECT_EQ("r", four.receive(replyPort));
        EXPECT_EQ(socket.getLocalPort(), replyPort);

        ASSERT_TRUE(six.sendTo("6", socket.getLocalPort()));
        ASSERT_EQ(1, socket.receiveFrom(buffer, sizeof(buffer), from, fromPort));
        EXPECT_EQ("::1", from.getAddressString());
        EXPECT_EQ(six.port(), fromPort);
        EXPECT_EQ(1, socket.sendTo("s", 1, from, fromPort));
        EXPECT_EQ("s", six.receive(replyPort));
    }
}

TEST(UdpSocket, FamilySpecificBindReachesOnlyItsFamily) {
    UdpSocket four;
    ASSERT_TRUE(four.bind(kLoopback, 0));
    EXPECT_EQ(-1, four.sendTo("x", 1, kLoopback6, 9));
    UdpSocket six;
    ASSERT_TRUE(six.bind(kLoopback6, 0));
    EXPECT_EQ(-1, six.sendTo("x", 1, kLoopback, 9));
    UdpSocket taken;
    EXPECT_FALSE(taken.bind(kLoopback6, six.getLocalPort()));
}

}  // namespace

namespace {

// A thread that sleeps in waitReadable() and counts its returns.
class Watcher {
public:
    explicit Watcher(UdpSocket& socket)
        : m_thread([this, &socket] {
              while (!m_bStop.load()) {
                  m_bResult.store(socket.waitReadable());
                  m_returns.fetch_add(1);
                  if (!m_bResult.load()) {
                      return;
                  }
                  while (!m_bStop.load() && !m_bGo.exchange(false)) {
                      std::this_thread::yield();
                  }
              }
          }) {}
    ~Watcher() { stop(); }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    int returns() const { return m_returns.load(); }
    void waitAgain() { m_bGo.store(true); }
    void stop() {
        m_bStop.store(true);
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

private:
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bGo{false};
    std::atomic<bool> m_bResult{false};
    std::atomic<int> m_returns{0};
    std::thread m_thread;
};

}  // namespace

TEST(UdpSocket, TryReceiveFromNeverWaits) {
    auto socket = makeBound();
    char buffer[64];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(UdpSocket::WOULD_BLOCK, socket->tryReceiveFrom(buffer, sizeof(buffer), from, fromPort));

    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("abc"), socket->getLocalPort()));
    int received = UdpSocket::WOULD_BLOCK;
    ASSERT_TRUE(waitUntil(
        [&] {
            received = socket->tryReceiveFrom(buffer, sizeof(buffer), from, fromPort);
            return received != UdpSocket::WOULD_BLOCK;
        },
        5000));
    EXPECT_EQ(3, received);
    EXPECT_EQ(0, std::memcmp(buffer, "abc", 3));
    EXPECT_EQ(peer.port(), fromPort);
    EXPECT_EQ(UdpSocket::WOULD_BLOCK, socket->tryReceiveFrom(buffer, sizeof(buffer), from, fromPort));

    socket->close();
    EXPECT_EQ(-1, socket->tryReceiveFrom(buffer, sizeof(buffer), from, fromPort));
}

TEST(UdpSocket, WaitReadableWithoutWatchFails) {
    auto socket = makeBound();
    EXPECT_FALSE(socket->disarmWatch());
    EXPECT_FALSE(socket->waitReadable());
}

TEST(UdpSocket, ArmedWatchReportsOneArrivalAndDisarms) {
    auto socket = makeBound();
    ASSERT_TRUE(socket->armWatch());
    Watcher watcher(*socket);
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("1"), socket->getLocalPort()));
    ASSERT_TRUE(waitUntil([&] { return watcher.returns() == 1; }, 5000));

    // Disarmed by the report: a second datagram, and the first still unread, wake nobody.
    watcher.waitAgain();
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("2"), socket->getLocalPort()));
    EXPECT_FALSE(waitUntil([&] { return watcher.returns() != 1; }, 200));

    // Arming again reports what is already waiting.
    ASSERT_TRUE(socket->armWatch());
    ASSERT_TRUE(waitUntil([&] { return watcher.returns() == 2; }, 5000));
    char buffer[8];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(1, socket->tryReceiveFrom(buffer, sizeof(buffer), from, fromPort));
    EXPECT_EQ('1', buffer[0]);
    socket->close();  // lets the watcher's last wait (if armed) end; it is disarmed, so arm it
    watcher.waitAgain();
    ASSERT_TRUE(socket->armWatch());
    ASSERT_TRUE(waitUntil([&] { return watcher.returns() == 3; }, 5000));
    watcher.stop();
}

TEST(UdpSocket, DisarmedWatchSleepsThroughArrivalsUntilArmed) {
    auto socket = makeBound();
    ASSERT_TRUE(socket->armWatch());
    ASSERT_TRUE(socket->disarmWatch());
    Watcher watcher(*socket);
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("x"), socket->getLocalPort()));
    EXPECT_FALSE(waitUntil([&] { return watcher.returns() != 0; }, 200));
    ASSERT_TRUE(socket->armWatch());
    ASSERT_TRUE(waitUntil([&] { return watcher.returns() == 1; }, 5000));
    watcher.waitAgain();
    ASSERT_TRUE(socket->wakeWatcher());
    ASSERT_TRUE(waitUntil([&] { return watcher.returns() == 2; }, 5000));
    watcher.stop();
}

TEST(UdpSocket, WakeWatcherReturnsWithoutDatagram) {
    auto socket = makeBound();
    ASSERT_TRUE(socket->armWatch());
    ASSERT_TRUE(socket->disarmWatch());
    Watcher watcher(*socket);
    ASSERT_TRUE(socket->wakeWatcher());
    ASSERT_TRUE(waitUntil([&] { return watcher.returns() == 1; }, 5000));
    char buffer[8];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(UdpSocket::WOULD_BLOCK, socket->tryReceiveFrom(buffer, sizeof(buffer), from, fromPort));
    // The report disarmed it again.
    watcher.waitAgain();
    EXPECT_FALSE(waitUntil([&] { return watcher.returns() != 1; }, 200));
    ASSERT_TRUE(socket->wakeWatcher());
    ASSERT_TRUE(waitUntil([&] { return watcher.returns() == 2; }, 5000));
    watcher.stop();
}

TEST(UdpSocket, CloseWakesArmedWatcher) {
    auto socket = makeBound();
    ASSERT_TRUE(socket->armWatch());
    Watcher watcher(*socket);
    EXPECT_FALSE(waitUntil([&] { return watcher.returns() != 0; }, 100));
    socket->close();
    ASSERT_TRUE(waitUntil([&] { return watcher.returns() == 1; }, 5000));
    char buffer[8];
    HostAddress from;
    uint16 fromPort = 0;
    EXPECT_EQ(-1, socket->tryReceiveFrom(buffer, sizeof(buffer), from, fromPort));
    watcher.stop();
}

namespace {

using Datagram = UdpSocket::ReceivedDatagram;

// Entries of `count` buffers of `size` bytes each.
struct Batch {
    Batch(int count, int size)
        : storage(static_cast<std::size_t>(count), Bytes(static_cast<std::size_t>(size))) {
        for (auto& buffer : storage) {
            Datagram entry;
            entry.buffer = buffer.data();
            entry.size = static_cast<int>(buffer.size());
            entry.length = -7;
            entry.fromPort = 0;
            entries.push_back(entry);
        }
    }
    Bytes bytesOf(int index) const {
        const Bytes& buffer = storage[static_cast<std::size_t>(index)];
        return Bytes(buffer.begin(), buffer.begin() + entries[static_cast<std::size_t>(index)].length);
    }
    std::vector<Bytes> storage;
    std::vector<Datagram> entries;
};

Bytes numbered(int number, std::size_t length) {
    Bytes datagram(length, static_cast<std::uint8_t>(number));
    if (!datagram.empty()) {
        datagram[0] = static_cast<std::uint8_t>(0xA0 + number);
    }
    return datagram;
}

TEST(UdpSocketBatch, ReceiveBatchTakesEverythingWaitingInArrivalOrder) {
    auto socket = makeBound();
    RawUdp peer;
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(peer.sendTo(numbered(i, 10 + static_cast<std::size_t>(i)), socket->getLocalPort()));
    }
    Batch batch(8, 64);
    ASSERT_EQ(5, socket->receiveBatch(batch.entries.data(), 8));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(numbered(i, 10 + static_cast<std::size_t>(i)), batch.bytesOf(i)) << i;
        EXPECT_EQ("127.0.0.1", batch.entries[static_cast<std::size_t>(i)].from.getAddressString());
        EXPECT_EQ(peer.port(), batch.entries[static_cast<std::size_t>(i)].fromPort);
    }
    EXPECT_EQ(-7, batch.entries[5].length);  // entries past the count are left alone
    EXPECT_EQ(UdpSocket::WOULD_BLOCK, socket->tryReceiveBatch(batch.entries.data(), 8));
}

TEST(UdpSocketBatch, ReceiveBatchTakesAtMostTheCountAndLeavesTheRestQueued) {
    auto socket = makeBound();
    RawUdp peer;
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(peer.sendTo(numbered(i, 4), socket->getLocalPort()));
    }
    Batch batch(3, 16);
    ASSERT_EQ(3, socket->receiveBatch(batch.entries.data(), 3));
    EXPECT_EQ(numbered(2, 4), batch.bytesOf(2));
    ASSERT_EQ(2, socket->tryReceiveBatch(batch.entries.data(), 3));
    EXPECT_EQ(numbered(3, 4), batch.bytesOf(0));
    EXPECT_EQ(numbered(4, 4), batch.bytesOf(1));
}

TEST(UdpSocketBatch, ReceiveBatchWaitsForTheFirstDatagramOnly) {
    auto socket = makeBound();
    RawUdp peer;
    Batch batch(8, 16);
    std::atomic<int> result{12345};
    std::thread receiver([&] { result = socket->receiveBatch(batch.entries.data(), 8); });
    EXPECT_FALSE(waitUntil([&] { return result.load() != 12345; }, 200));  // nothing has arrived
    ASSERT_TRUE(peer.sendTo(numbered(1, 3), socket->getLocalPort()));
    // One datagram is a whole batch: the call does not wait for a second one.
    EXPECT_TRUE(waitUntil([&] { return result.load() != 12345; }, 5000));
    receiver.join();
    EXPECT_EQ(1, result.load());
    EXPECT_EQ(numbered(1, 3), batch.bytesOf(0));
}

TEST(UdpSocketBatch, ReceiveBatchTruncatesLongDatagramsAndCountsEmptyOnes) {
    auto socket = makeBound();
    RawUdp peer;
    const Bytes longOne = numbered(1, 100);
    ASSERT_TRUE(peer.sendTo(longOne, socket->getLocalPort()));
    ASSERT_TRUE(peer.sendTo(Bytes(), socket->getLocalPort()));
    ASSERT_TRUE(peer.sendTo(numbered(3, 2), socket->getLocalPort()));
    Batch batch(4, 10);
    ASSERT_EQ(3, socket->receiveBatch(batch.entries.data(), 4));
    EXPECT_EQ(10, batch.entries[0].length);
    EXPECT_EQ(Bytes(longOne.begin(), longOne.begin() + 10), batch.bytesOf(0));
    EXPECT_EQ(0, batch.entries[1].length);
    EXPECT_EQ(peer.port(), batch.entries[1].fromPort);
    EXPECT_EQ(numbered(3, 2), batch.bytesOf(2));
    EXPECT_FALSE(socket->isClosed());
}

TEST(UdpSocketBatch, ReceiveBatchRefusesBadArguments) {
    auto socket = makeBound();
    Batch batch(1, 8);
    EXPECT_EQ(-1, socket->receiveBatch(batch.entries.data(), 0));
    EXPECT_EQ(-1, socket->tryReceiveBatch(nullptr, 1));
    batch.entries[0].size = -1;
    EXPECT_EQ(-1, socket->tryReceiveBatch(batch.entries.data(), 1));
}

TEST(UdpSocketBatch, CloseWakesBlockedReceiveBatch) {
    auto socket = makeBound();
    Batch batch(4, 16);
    std::atomic<int> result{12345};
    std::thread receiver([&] { result = socket->receiveBatch(batch.entries.data(), 4); });
    EXPECT_FALSE(waitUntil([&] { return result.load() != 12345; }, 200));
    const std::int64_t start = nowMs();
    socket->close();
    EXPECT_TRUE(waitUntil([&] { return result.load() != 12345; }, 5000));
    EXPECT_LT(nowMs() - start, 2000);
    receiver.join();
    EXPECT_EQ(-1, result.load());
}

TEST(UdpSocketBatch, BatchesAfterCloseFailEvenWithDatagramsQueued) {
    auto socket = makeBound();
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo({1, 2, 3}, socket->getLocalPort()));
    ASSERT_TRUE(peer.sendTo({4, 5}, socket->getLocalPort()));
    socket->close();
    Batch batch(4, 16);
    EXPECT_EQ(-1, socket->receiveBatch(batch.entries.data(), 4));
    EXPECT_EQ(-1, socket->tryReceiveBatch(batch.entries.data(), 4));
    const UdpSocket::OutgoingDatagram one{"x", 1};
    EXPECT_EQ(-1, socket->sendBatchTo(&one, 1, kLoopback, peer.port()));
    EXPECT_TRUE(peer.quietFor(100));
}

std::vector<Bytes> receiveAll(RawUdp& peer, std::size_t count, uint16& fromPort) {
    std::vector<Bytes> received;
    Bytes datagram;
    while (received.size() < count && peer.receive(datagram, fromPort, 5000)) {
        received.push_back(datagram);
    }
    return received;
}

TEST(UdpSocketBatch, SendBatchToSendsEachDatagramWholeAndInOrder) {
    UdpSocket socket;  // unbound: the batch's first call gives it its port, as sendTo would
    RawUdp peer;
    std::vector<Bytes> datagrams;
    std::vector<UdpSocket::OutgoingDatagram> batch;
    for (int i = 0; i < 5; ++i) {
        datagrams.push_back(numbered(i, 20 + 300 * static_cast<std::size_t>(i)));
    }
    datagrams.push_back(Bytes());  // an empty datagram is one datagram too
    for (const Bytes& datagram : datagrams) {
        batch.push_back({datagram.data(), static_cast<int>(datagram.size())});
    }
    EXPECT_EQ(6, socket.sendBatchTo(batch.data(), static_cast<int>(batch.size()), kLoopback, peer.port()));
    uint16 fromPort = 0;
    EXPECT_EQ(datagrams, receiveAll(peer, datagrams.size(), fromPort));
    EXPECT_NE(0, socket.getLocalPort());
    EXPECT_EQ(socket.getLocalPort(), fromPort);
    EXPECT_TRUE(peer.quietFor(100));
    EXPECT_EQ(0, socket.sendBatchTo(batch.data(), 0, kLoopback, peer.port()));
    EXPECT_TRUE(peer.quietFor(50));
}

TEST(UdpSocketBatch, SendBatchToLargerThanOneCallKeepsOrder) {
    auto socket = makeBound();
    RawUdp peer;
    const int count = UdpSocket::MAX_BATCH * 2 + 5;
    std::vector<Bytes> datagrams;
    std::vector<UdpSocket::OutgoingDatagram> batch;
    for (int i = 0; i < count; ++i) {
        Bytes datagram(4);
        std::memcpy(datagram.data(), &i, sizeof(i));
        datagrams.push_back(datagram);
    }
    for (const Bytes& datagram : datagrams) {
        batch.push_back({datagram.data(), static_cast<int>(datagram.size())});
    }
    EXPECT_EQ(count, socket->sendBatchTo(batch.data(), count, kLoopback, peer.port()));
    uint16 fromPort = 0;
    EXPECT_EQ(datagrams, receiveAll(peer, datagrams.size(), fromPort));
}

// The system takes the datagrams before the one it refuses and reports them alone; the batch goes
// on after the refused one, so the wire sees what separate sendTo calls would have sent.
TEST(UdpSocketBatch, SendBatchToResumesAfterAPartialHandOverAndSkipsTheRefusedDatagram) {
    auto socket = makeBound();
    RawUdp peer;
    const Bytes tooLong(70000, 0x55);  // longer than any datagram can be
    EXPECT_EQ(-1, socket->sendTo(tooLong.data(), static_cast<int>(tooLong.size()), kLoopback, peer.port()));
    const std::vector<Bytes> good = {numbered(0, 5), numbered(1, 6), numbered(2, 7), numbered(3, 8)};
    std::vector<UdpSocket::OutgoingDatagram> batch = {{good[0].data(), 5},
                                                      {good[1].data(), 6},
                                                      {tooLong.data(), static_cast<int>(tooLong.size())},
                                                      {good[2].data(), 7},
                                                      {good[3].data(), 8}};
    EXPECT_EQ(4, socket->sendBatchTo(batch.data(), 5, kLoopback, peer.port()));
    uint16 fromPort = 0;
    EXPECT_EQ(good, receiveAll(peer, good.size(), fromPort));
    EXPECT_TRUE(peer.quietFor(100));

    // Refused first and last: the rest still go.
    batch = {{tooLong.data(), static_cast<int>(tooLong.size())},
             {good[0].data(), 5},
             {tooLong.data(), static_cast<int>(tooLong.size())}};
    EXPECT_EQ(1, socket->sendBatchTo(batch.data(), 3, kLoopback, peer.port()));
    EXPECT_EQ(std::vector<Bytes>{good[0]}, receiveAll(peer, 1, fromPort));
    EXPECT_TRUE(peer.quietFor(100));
}

TEST(UdpSocketBatch, SendBatchToRefusesBadArguments) {
    auto socket = makeBound();
    RawUdp peer;
    const UdpSocket::OutgoingDatagram bad[2] = {{"ab", 2}, {nullptr, 3}};
    EXPECT_EQ(-1, socket->sendBatchTo(bad, 2, kLoopback, peer.port()));  // nothing of it leaves
    EXPECT_EQ(-1, socket->sendBatchTo(nullptr, 1, kLoopback, peer.port()));
    EXPECT_EQ(-1, socket->sendBatchTo(bad, 1, HostAddress(), peer.port()));
    EXPECT_TRUE(peer.quietFor(100));
}

// A batch sent from one thread while another thread sends single datagrams: every datagram of both
// arrives whole, and the batch's own datagrams keep their order among themselves.
TEST(UdpSocketBatch, ConcurrentSendersKeepEachBatchInItsOwnOrder) {
    auto socket = makeBound();
    RawUdp peer;
    const int perBatch = 40;
    std::vector<Bytes> datagrams;
    for (int i = 0; i < perBatch; ++i) {
        datagrams.push_back(Bytes{0xB0, static_cast<std::uint8_t>(i)});
    }
    std::vector<UdpSocket::OutgoingDatagram> batch;
    for (const Bytes& datagram : datagrams) {
        batch.push_back({datagram.data(), 2});
    }
    std::atomic<int> batchSent{0};
    std::thread batcher(
        [&] { batchSent = socket->sendBatchTo(batch.data(), perBatch, kLoopback, peer.port()); });
    int singles = 0;
    for (int i = 0; i < perBatch; ++i) {
        const std::uint8_t single[2] = {0xC0, static_cast<std::uint8_t>(i)};
        singles += socket->sendTo(single, 2, kLoopback, peer.port()) == 2 ? 1 : 0;
    }
    batcher.join();
    EXPECT_EQ(perBatch, batchSent.load());
    EXPECT_EQ(perBatch, singles);
    uint16 fromPort = 0;
    const std::vector<Bytes> received = receiveAll(peer, 2 * perBatch, fromPort);
    ASSERT_EQ(static_cast<std::size_t>(2 * perBatch), received.size());
    int nextBatch = 0;
    int nextSingle = 0;
    for (const Bytes& datagram : received) {
        ASSERT_EQ(2u, datagram.size());
        if (datagram[0] == 0xB0) {
            EXPECT_EQ(nextBatch++, datagram[1]);
        } else {
            ASSERT_EQ(0xC0, datagram[0]);
            EXPECT_EQ(nextSingle++, datagram[1]);
        }
    }
}

}  // namespace
