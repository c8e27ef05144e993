// The shared watch: one thread of the process reports readable sockets to their readers, one-shot
// and level-triggered like the readiness watch; unwatching waits for a reader that runs; blocking
// receives can be given a time limit.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
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

// Counts its calls and the thread they came on; reads one datagram per call when asked to.
class CountingReader : public UdpSocket::IReader {
public:
    explicit CountingReader(UdpSocket* pSocket = nullptr) : m_pSocket(pSocket) {}
    void onReadable() override {
        m_thread = std::this_thread::get_id();
        if (m_pSocket != nullptr) {
            char buffer[64];
            HostAddress from;
            uint16 fromPort = 0;
            m_lastRead.store(m_pSocket->tryReceiveFrom(buffer, sizeof buffer, from, fromPort));
        }
        m_calls.fetch_add(1);
    }
    int calls() const { return m_calls.load(); }
    int lastRead() const { return m_lastRead.load(); }
    std::thread::id thread() const { return m_thread; }

private:
    UdpSocket* m_pSocket;
    std::atomic<int> m_calls{0};
    std::atomic<int> m_lastRead{0};
    std::thread::id m_thread;
};

TEST(UdpSocketSharedWatch, NothingToArmBeforeRegistration) {
    auto socket = makeBound();
    EXPECT_FALSE(socket->armShared());
    EXPECT_FALSE(socket->disarmShared());
    socket->unwatchShared();  // harmless
    EXPECT_FALSE(socket->watchShared(nullptr));
}

TEST(UdpSocketSharedWatch, RegisteredDisarmedItReportsNothingUntilArmed) {
    auto socket = makeBound();
    CountingReader reader;
    ASSERT_TRUE(socket->watchShared(&reader));
    EXPECT_FALSE(socket->watchShared(&reader));  // once per socket
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("1"), socket->getLocalPort()));
    EXPECT_FALSE(waitUntil([&] { return reader.calls() != 0; }, 200));

    // Arming reports the datagram that is already waiting, on a thread other than this one.
    ASSERT_TRUE(socket->armShared());
    ASSERT_TRUE(waitUntil([&] { return reader.calls() == 1; }, 5000));
    EXPECT_NE(std::this_thread::get_id(), reader.thread());
}

TEST(UdpSocketSharedWatch, EachReportDisarmsItAndArmingAgainReportsWhatWaits) {
    auto socket = makeBound();
    CountingReader reader;  // reads nothing: the datagrams stay queued
    ASSERT_TRUE(socket->watchShared(&reader));
    ASSERT_TRUE(socket->armShared());
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("1"), socket->getLocalPort()));
    ASSERT_TRUE(waitUntil([&] { return reader.calls() == 1; }, 5000));
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("2"), socket->getLocalPort()));
    EXPECT_FALSE(waitUntil([&] { return reader.calls() != 1; }, 200));
    ASSERT_TRUE(socket->armShared());
    ASSERT_TRUE(waitUntil([&] { return reader.calls() == 2; }, 5000));

    // Disarmed, it stays quiet with both datagrams waiting.
    ASSERT_TRUE(socket->armShared());
    ASSERT_TRUE(waitUntil([&] { return reader.calls() == 3; }, 5000));
    ASSERT_TRUE(socket->disarmShared());
    EXPECT_FALSE(waitUntil([&] { return reader.calls() != 3; }, 200));
}

TEST(UdpSocketSharedWatch, ClosingReportsOnceToAnArmedWatch) {
    auto socket = makeBound();
    CountingReader reader(socket.get());
    ASSERT_TRUE(socket->watchShared(&reader));
    ASSERT_TRUE(socket->armShared());
    socket->close();
    ASSERT_TRUE(waitUntil([&] { return reader.calls() == 1; }, 5000));
    EXPECT_EQ(-1, reader.lastRead());
    EXPECT_FALSE(waitUntil([&] { return reader.calls() != 1; }, 200));
}

TEST(UdpSocketSharedWatch, ADisarmedClosedSocketIsNotReportedOverAndOver) {
    auto socket = makeBound();
    CountingReader reader;
    ASSERT_TRUE(socket->watchShared(&reader));
    ASSERT_TRUE(socket->disarmShared());
    socket->close();
    // The system reports a hang-up even to a watch that asks for nothing; at most once.
    EXPECT_FALSE(waitUntil([&] { return reader.calls() > 1; }, 300));
}

TEST(UdpSocketSharedWatch, ManySocketsShareOneThread) {
    const int count = 50;
    std::vector<std::unique_ptr<UdpSocket>> sockets;
    std::vector<std::unique_ptr<CountingReader>> readers;
    for (int i = 0; i < count; ++i) {
        sockets.push_back(makeBound());
        readers.emplace_back(new CountingReader(sockets.back().get()));
        ASSERT_TRUE(sockets.back()->watchShared(readers.back().get()));
        ASSERT_TRUE(sockets.back()->armShared());
    }
    RawUdp peer;
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("x"), sockets[i]->getLocalPort()));
    }
    ASSERT_TRUE(waitUntil(
        [&] {
            for (const auto& reader : readers) {
                if (reader->calls() != 1) {
                    return false;
                }
            }
            return true;
        },
        5000));
    for (const auto& reader : readers) {
        EXPECT_EQ(1, reader->lastRead());
        EXPECT_EQ(readers[0]->thread(), reader->thread());
    }
}

// A reader that blocks until let go.
class BlockingReader : public UdpSocket::IReader {
public:
    void onReadable() override {
        m_bInside.store(true);
        while (!m_bGo.load()) {
            std::this_thread::yield();
        }
        m_bLeft.store(true);
    }
    std::atomic<bool> m_bInside{false};
    std::atomic<bool> m_bGo{false};
    std::atomic<bool> m_bLeft{false};
};

TEST(UdpSocketSharedWatch, UnwatchWaitsForTheReaderThatRuns) {
    auto socket = makeBound();
    BlockingReader reader;
    ASSERT_TRUE(socket->watchShared(&reader));
    ASSERT_TRUE(socket->armShared());
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("1"), socket->getLocalPort()));
    ASSERT_TRUE(waitUntil([&] { return reader.m_bInside.load(); }, 5000));

    std::atomic<bool> bUnwatched{false};
    std::thread unwatcher([&] {
        socket->unwatchShared();
        bUnwatched.store(true);
    });
    EXPECT_FALSE(waitUntil([&] { return bUnwatched.load(); }, 200));
    reader.m_bGo.store(true);
    ASSERT_TRUE(waitUntil([&] { return bUnwatched.load(); }, 5000));
    unwatcher.join();
    EXPECT_TRUE(reader.m_bLeft.load());

    // Unwatched, it is never called again, armed or not.
    EXPECT_FALSE(socket->armShared());
    reader.m_bInside.store(false);
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("2"), socket->getLocalPort()));
    EXPECT_FALSE(waitUntil([&] { return reader.m_bInside.load(); }, 200));
}

// A reader that unwatches its own socket (and another) from inside its call.
class UnwatchingReader : public UdpSocket::IReader {
public:
    UnwatchingReader(UdpSocket& own, UdpSocket& other) : m_own(own), m_other(other) {}
    void onReadable() override {
        m_own.unwatchShared();
        m_other.unwatchShared();
        m_calls.fetch_add(1);
    }
    std::atomic<int> m_calls{0};

private:
    UdpSocket& m_own;
    UdpSocket& m_other;
};

TEST(UdpSocketSharedWatch, AReaderMayUnwatchFromInsideItsCall) {
    auto own = makeBound();
    auto other = makeBound();
    UnwatchingReader reader(*own, *other);
    CountingReader otherReader;
    ASSERT_TRUE(own->watchShared(&reader));
    ASSERT_TRUE(other->watchShared(&otherReader));
    ASSERT_TRUE(own->armShared());
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("1"), own->getLocalPort()));
    ASSERT_TRUE(waitUntil([&] { return reader.m_calls.load() == 1; }, 5000));
    EXPECT_FALSE(own->armShared());
    EXPECT_FALSE(other->armShared());
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("2"), other->getLocalPort()));
    EXPECT_FALSE(waitUntil([&] { return otherReader.calls() != 0 || reader.m_calls.load() != 1; }, 200));
}

TEST(UdpSocketSharedWatch, SocketsComeAndGoWhileOthersAreReported) {
    RawUdp peer;
    auto steady = makeBound();
    CountingReader steadyReader(steady.get());
    ASSERT_TRUE(steady->watchShared(&steadyReader));
    for (int round = 0; round < 200; ++round) {
        auto passing = makeBound();
        CountingReader passingReader(passing.get());
        ASSERT_TRUE(passing->watchShared(&passingReader));
        ASSERT_TRUE(passing->armShared());
        ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("p"), passing->getLocalPort()));
        ASSERT_TRUE(steady->armShared());
        ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("s"), steady->getLocalPort()));
        if (round % 2 == 0) {
            ASSERT_TRUE(waitUntil([&] { return passingReader.calls() == 1; }, 5000));
        }
        ASSERT_TRUE(waitUntil([&] { return steadyReader.calls() == round + 1; }, 5000));
        // `passing` goes here, reported or not; its entry must not outlive it in a report.
    }
}

TEST(UdpSocket, WaitReadableForTimesOutReportsAndFailsWithoutAWatch) {
    auto socket = makeBound();
    EXPECT_EQ(-1, socket->waitReadableFor(10));
    ASSERT_TRUE(socket->armWatch());
    const std::int64_t began = nowMs();
    EXPECT_EQ(0, socket->waitReadableFor(100));
    EXPECT_GE(nowMs() - began, 90);
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("1"), socket->getLocalPort()));
    EXPECT_EQ(1, socket->waitReadableFor(5000));
}

TEST(UdpSocket, ReceiveTimeoutEndsABlockingReceiveWithWouldBlock) {
    auto socket = makeBound();
    ASSERT_TRUE(socket->setReceiveTimeout(100));
    EXPECT_FALSE(socket->setReceiveTimeout(-1));
    char buffer[16];
    HostAddress from;
    uint16 fromPort = 0;
    std::int64_t began = nowMs();
    EXPECT_EQ(UdpSocket::WOULD_BLOCK, socket->receiveFrom(buffer, sizeof buffer, from, fromPort));
    EXPECT_GE(nowMs() - began, 90);

    UdpSocket::ReceivedDatagram batch[2];
    batch[0] = {buffer, 8, 0, HostAddress(), 0};
    batch[1] = {buffer + 8, 8, 0, HostAddress(), 0};
    began = nowMs();
    EXPECT_EQ(UdpSocket::WOULD_BLOCK, socket->receiveBatch(batch, 2));
    EXPECT_GE(nowMs() - began, 90);

    // A datagram within the limit is taken as usual.
    RawUdp peer;
    ASSERT_TRUE(peer.sendTo(testsupport::bytesOf("abc"), socket->getLocalPort()));
    EXPECT_EQ(1, socket->receiveBatch(batch, 2));
    EXPECT_EQ(3, batch[0].length);

    // Back to no limit: a receive waits until the datagram that comes after 300 ms.
    ASSERT_TRUE(socket->setReceiveTimeout(0));
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        peer.sendTo(testsupport::bytesOf("late"), socket->getLocalPort());
    });
    EXPECT_EQ(4, socket->receiveFrom(buffer, sizeof buffer, from, fromPort));
    sender.join();
}

}  // namespace
