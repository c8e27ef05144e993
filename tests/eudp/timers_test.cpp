// Liveness supervision: keep-alive after a quiet spell, close 10 s after an unanswered one, idle
// pairs that stay up, killed peers noticed in time, and many connections sharing the timers.
#include <dirent.h>

#include <fstream>
#include <string>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eudptestaccess.h"
#include "tarnpeers.h"

using eudptest::ClientWithRawPeer;
using eudptest::commandOf;
using eudptest::ServerWithRawPeer;
using testsupport::Bytes;
using testsupport::eudpDatagram;
using testsupport::hex;
using testsupport::nowMs;
using testsupport::waitUntil;

namespace {

// The voluntary context switches of all threads named `name`, summed: each wake-up of a thread
// that slept counts one.
long wakeUpsOf(const std::string& name) {
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) {
        return -1;
    }
    long total = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string task = std::string("/proc/self/task/") + entry->d_name;
        std::ifstream comm(task + "/comm");
        std::string taskName;
        std::getline(comm, taskName);
        if (taskName != name) {
            continue;
        }
        std::ifstream status(task + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.compare(0, 24, "voluntary_ctxt_switches:") == 0) {
                total += std::stol(line.substr(24));
            }
        }
    }
    closedir(dir);
    return total;
}

// The raw peer asks the server to send reliably and waits for the answer (skipping a keep-alive
// that may come first).
bool makeReliable(ServerWithRawPeer& peer) {
    std::uint32_t request = 'R' | ('D' << 8) | ('D' << 16) | (static_cast<std::uint32_t>('D') << 24);
    if (!peer.sendToServer(eudpDatagram("MOD", request))) {
        return false;
    }
    Bytes datagram;
    while (peer.next(datagram)) {
        if (commandOf(datagram) == "MAK") {
            return true;
        }
    }
    return false;
}

// Offers 999 one-byte messages from a thread of its own, stopping at the first refusal. A quiet
// spell's keep-alive takes a slot like any datagram: on a slow machine it can come before the ring
// is full, and then the filler's last sendData is the one that waits for room. Either way the ring
// ends full. destroy() joins a filler that is done before the transport goes, and lets a waiting
// one out through the transport's destructor before joining it.
class RingFiller {
public:
    explicit RingFiller(EUDPTransport* pTransport)
        : m_thread([this, pTransport] {
              for (int i = 0; i < 999; ++i) {
                  if (!pTransport->sendData(reinterpret_cast<const uint8*>("p"), 1)) {
                      break;
                  }
              }
              m_bDone.store(true);
          }) {}

    void destroy(std::unique_ptr<EUDPTransport>& pTransport) {
        if (m_bDone.load()) {
            m_thread.join();
            pTransport.reset();
            return;
        }
        pTransport.reset();
        m_thread.join();
    }

private:
    std::atomic<bool> m_bDone{false};
    std::thread m_thread;
};

TEST(EUDPTimers, ServerSendsOneKeepAliveAfterHalfASecond) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    std::int64_t opened = nowMs();
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram, 3000));
    std::int64_t first = nowMs();
    EXPECT_EQ(hex(eudpDatagram("CMD", 0)), hex(datagram));
    EXPECT_GE(first - opened, 350);
    EXPECT_LE(first - opened, 2000);
    // Answered, the cycle starts again: the next one half a second after the answer.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("NOP", 0)));
    std::int64_t answered = nowMs();
    ASSERT_TRUE(peer.next(datagram, 3000));
    EXPECT_EQ(hex(eudpDatagram("CMD", 1)), hex(datagram));
    EXPECT_GE(nowMs() - answered, 400);
    EXPECT_FALSE(peer.server->isClosed());
}

// The keep-alive is short work: it leaves from the timer service's own thread, and no timer worker
// is woken for it; neither for the answer that re-arms the timers.
TEST(EUDPTimers, KeepAliveWakesNoTimerWorker) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    // The service's first worker may have just been started: count from its first sleep on.
    ASSERT_TRUE(waitUntil([] { return wakeUpsOf("sal-timer-work") >= 1; }, 2000));
    // An idle worker also wakes every few seconds to see whether it may retire, which can fall
    // into any one keep-alive period: a keep-alive that woke a worker wakes one in every period,
    // so three periods of which none was quiet fail the test.
    Bytes datagram;
    long wakeUps = -1;
    for (std::uint32_t sequence = 0; sequence < 3 && wakeUps != 0; ++sequence) {
        const long before = wakeUpsOf("sal-timer-work");
        ASSERT_TRUE(peer.next(datagram, 3000));
        EXPECT_EQ(hex(eudpDatagram("CMD", sequence)), hex(datagram));
        wakeUps = wakeUpsOf("sal-timer-work") - before;
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("NOP", 0)));
    }
    EXPECT_EQ(0, wakeUps);
}

TEST(EUDPTimers, ClientSendsKeepAliveAfterOneSecond) {
    ClientWithRawPeer peer;
    ASSERT_TRUE(peer.open(false));
    std::int64_t opened = nowMs();
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram, 4000));
    EXPECT_EQ(hex(eudpDatagram("CMD", 1)), hex(datagram));
    EXPECT_GE(nowMs() - opened, 850);
    EXPECT_LE(nowMs() - opened, 3000);
}

TEST(EUDPTimers, SilentPeerClosesTenSecondsAfterTheOnlyKeepAlive) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram, 3000));
    std::int64_t keepAlive = nowMs();
    EXPECT_EQ(hex(eudpDatagram("CMD", 0)), hex(datagram));
    std::atomic<int> received(-2);
    std::thread reader([&] {
        std::uint8_t buffer[16];
        received = peer.server->receiveData(buffer, sizeof buffer);
    });
    ASSERT_TRUE(waitUntil([&] { return peer.server->isClosed(); }, 14000));
    std::int64_t closed = nowMs();
    EXPECT_GE(closed - keepAlive, 9800);
    EXPECT_LE(closed - keepAlive, 11500);
    EXPECT_TRUE(waitUntil([&] { return received.load() != -2; }, 3000));  // the reader is woken
    reader.join();
    EXPECT_EQ(0, received.load());
    // The time-out gave a count and the receiver's end another: a second read returns too.
    std::uint8_t buffer[16];
    EXPECT_EQ(0, peer.server->receiveData(buffer, sizeof buffer));
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::senderRunning(*peer.server); }, 3000));
    EXPECT_TRUE(waitUntil([&] { return !EUDPTransportTest::receiverRunning(*peer.server); }, 3000));
    // No second keep-alive and no DIS.
    EXPECT_FALSE(peer.next(datagram, 100)) << hex(datagram);
}

TEST(EUDPTimers, InvalidDatagramsDoNotKeepConnectionAlive) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    std::int64_t opened = nowMs();
    std::atomic<bool> stop(false);
    std::thread noise([&] {
        while (!stop) {
            peer.sendToServer(Bytes{2, 'N', 'O', 'P', 0, 0, 0, 0});
            sal::Thread::mssleep(100);
        }
    });
    bool closed = waitUntil([&] { return peer.server->isClosed(); }, 15000);
    std::int64_t elapsed = nowMs() - opened;
    stop = true;
    noise.join();
    ASSERT_TRUE(closed);
    EXPECT_GE(elapsed, 10000);
    EXPECT_LE(elapsed, 12500);
    int keepAlives = 0;
    Bytes datagram;
    while (peer.next(datagram, 100)) {
        EXPECT_EQ(hex(eudpDatagram("CMD", 0)), hex(datagram));
        ++keepAlives;
    }
    EXPECT_EQ(1, keepAlives);
}

TEST(EUDPTimers, SecondInitHasNoEffect) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    EUDPTransportTest::initTimers(*peer.server, 123);
    EXPECT_EQ(500000u, EUDPTransportTest::aliveTimeout(*peer.server));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram, 3000));  // still the half-second keep-alive, not 123 us
    EXPECT_TRUE(peer.raw.quietFor(300));
}

TEST(EUDPTimers, DisconnectStopsTimers) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    EXPECT_TRUE(EUDPTransportTest::sendAliveTimer(*peer.server).isRunning());
    peer.server->disconnect();
    EXPECT_FALSE(EUDPTransportTest::sendAliveTimer(*peer.server).isRunning());
    EXPECT_FALSE(EUDPTransportTest::aliveTimer(*peer.server).isRunning());
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ("DIS", commandOf(datagram));
    EXPECT_TRUE(peer.raw.quietFor(1000));
}

TEST(EUDPTimers, FullSendRingTowardsSilentPeerStillClosesOnTime) {
    // A: reliable, ring full, peer silent: the keep-alive callback blocks in sendData.
    ServerWithRawPeer full;
    ASSERT_TRUE(full.open(0, false));
    // B: an idle neighbour whose timers must not wait for A's blocked callback.
    ServerWithRawPeer idle;
    ASSERT_TRUE(idle.open(0, false));
    std::int64_t lastHeard = nowMs();
    ASSERT_TRUE(makeReliable(full));
    RingFiller filler(full.server.get());
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*full.server) == 999u; }, 10000));
    EXPECT_EQ(eReliable, full.server->getSendMode());

    EXPECT_TRUE(waitUntil([&] { return full.server->isClosed(); }, 16000));
    std::int64_t elapsed = nowMs() - lastHeard;
    RecordProperty("ClosedAfterMs", static_cast<int>(elapsed));
    EXPECT_GE(elapsed, 10000);
    EXPECT_LE(elapsed, 12500);
    EXPECT_TRUE(waitUntil([&] { return idle.server->isClosed(); }, 3000));

    // Destruction must not wait for the blocked keep-alive (or the blocked filler).
    std::int64_t start = nowMs();
    filler.destroy(full.server);
    EXPECT_LE(nowMs() - start, 3000);
}

TEST(EUDPTimers, DestroyWhileKeepAliveBlockedOnOpenConnection) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0, false));
    ASSERT_TRUE(makeReliable(peer));
    RingFiller filler(peer.server.get());
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::sendQueued(*peer.server) == 999u; }, 10000));
    // The keep-alive comes after half a second; give it time to block on the full ring.
    EXPECT_TRUE(waitUntil([&] { return EUDPTransportTest::aliveTimer(*peer.server).isRunning(); }, 5000));
    std::int64_t start = nowMs();
    filler.destroy(peer.server);
    EXPECT_LE(nowMs() - start, 3000);
}

// Idle past the silence close of both ends (the server's 10.5 s, the client's 11 s): the keep-alives
// and their answers keep the link up end to end. The driven pair counts them exactly over 30 s.
TEST(EUDPTimers, IdlePairStaysConnectedPastTheSilenceClose) {
    // One keep-alive per half-second quiet spell on the server; the client always hears one
    // before its own second is up.
    eudptest::expectIdlePairStaysUp(12000, 10, 25, 3);
}

// Ten keep-alive rounds of the servers.
TEST(EUDPTimers, HundredIdleConnectionsShareTimerThreads) {
    eudptest::expectIdleConnectionsShareTimerThreads(100, 5000, 250);
}

TEST(EUDPTimers, KilledServerIsNoticedByClientWithinElevenSeconds) {
    eudptest::PeerProcess peer;
    ASSERT_TRUE(peer.start({TEST_PEER_PATH, "eudp-idle", "server"}));
    std::string first = peer.readLine(10000);
    ASSERT_EQ(0u, first.rfind("port ", 0)) << first;
    uint16 port = static_cast<uint16>(std::stoi(first.substr(5)));

    eudptest::RecordingClient client;
    TARNConnection connection(eTransportEUDP);
    ASSERT_TRUE(connection.connect("127.0.0.1", port, &client));
    sal::Thread::mssleep(2000);  // a few keep-alive exchanges first
    ASSERT_EQ(0, client.disconnects());
    peer.kill();
    std::int64_t killed = nowMs();
    ASSERT_TRUE(waitUntil([&] { return client.disconnects() > 0; }, 15000));
    std::int64_t elapsed = client.disconnectedAt() - killed;
    RecordProperty("NoticedAfterMs", static_cast<int>(elapsed));
    EXPECT_GE(elapsed, 9800);
    EXPECT_LE(elapsed, 12500);
    connection.disconnect();
}

TEST(EUDPTimers, KilledClientIsNoticedByServerWithinTenAndAHalfSeconds) {
    eudptest::CollectingConnector::Shared shared;
    TARNListener listener(eTransportEUDP);
    ASSERT_TRUE(listener.listen("127.0.0.1", 0, new eudptest::CollectingConnector(&shared)));
    ASSERT_TRUE(waitUntil([&] { return listener.getLocalPort() != 0; }, 5000));

    eudptest::PeerProcess peer;
    ASSERT_TRUE(peer.start({TEST_PEER_PATH, "eudp-idle", "client", std::to_string(listener.getLocalPort())}));
    std::string first = peer.readLine(10000);
    ASSERT_EQ(0u, first.rfind("connected ", 0)) << first;
    ASSERT_TRUE(waitUntil([&] { return shared.count() == 1 && shared.server(0)->connects() == 1; }, 5000));
    sal::Thread::mssleep(2000);
    ASSERT_EQ(0, shared.server(0)->disconnects());
    peer.kill();
    std::int64_t killed = nowMs();
    ASSERT_TRUE(waitUntil([&] { return shared.server(0)->disconnects() > 0; }, 15000));
    std::int64_t elapsed = shared.server(0)->disconnectedAt() - killed;
    RecordProperty("NoticedAfterMs", static_cast<int>(elapsed));
    EXPECT_GE(elapsed, 9300);
    EXPECT_LE(elapsed, 12000);
    listener.shutdown(-1);
}

}  // namespace
