// Liveness supervision over half a minute of idle links, left out of the test command (ctest label
// "long"): the driven pair (driven_test.cpp) counts the keep-alives of 30 s exactly, and the test
// command's real-socket versions run idle past the silence close.
#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eudptestaccess.h"

using eudptest::TransportPair;
using testsupport::nowMs;

namespace {

int threadCount() {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(dir);
    return count;
}

TEST(EUDPTimersLong, IdlePairStaysConnectedFor30s) {
    TransportPair pair;
    ASSERT_TRUE(pair.open());
    sal::Thread::mssleep(30000);  // the idle time itself is what is tested
    EXPECT_FALSE(pair.client.isClosed());
    EXPECT_FALSE(pair.server->isClosed());
    // One keep-alive per half-second quiet spell on the server; the client always hears one
    // before its own second is up.
    int serverKeepAlives = EUDPTransportTest::sendSeq(*pair.server).getValue();
    EXPECT_GE(serverKeepAlives, 25);
    EXPECT_LE(serverKeepAlives, 62);
    EXPECT_LE(EUDPTransportTest::sendSeq(pair.client).getValue(), 6);
    // Still carries data both ways.
    ASSERT_TRUE(pair.client.sendData(reinterpret_cast<const uint8*>("ok"), 2));
    std::uint8_t buffer[8];
    EXPECT_EQ(2, pair.server->receiveData(buffer, sizeof buffer));
}

TEST(EUDPTimersLong, HundredIdleConnectionsShareTimerThreadsFor30s) {
    const int kCount = 100;
    int before = threadCount();
    EUDPTransport listener;
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    std::vector<std::unique_ptr<EUDPTransport>> servers;
    std::thread acceptor([&] {
        for (int i = 0; i < kCount; ++i) {
            EUDPTransport* accepted = static_cast<EUDPTransport*>(listener.accept());
            if (accepted == nullptr) {
                return;
            }
            servers.emplace_back(accepted);
        }
    });
    std::vector<std::unique_ptr<EUDPTransport>> clients;
    for (int i = 0; i < kCount; ++i) {
        clients.emplace_back(new EUDPTransport);
        ASSERT_TRUE(clients.back()->connect(sal::HostAddress("127.0.0.1"), listener.getLocalPort())) << i;
    }
    acceptor.join();
    ASSERT_EQ(static_cast<std::size_t>(kCount), servers.size());

    std::int64_t end = nowMs() + 30000;
    int most = 0;
    while (nowMs() < end) {
        sal::Thread::mssleep(1000);
        most = std::max(most, threadCount());
    }
    for (int i = 0; i < kCount; ++i) {
        EXPECT_FALSE(clients[i]->isClosed()) << i;
        EXPECT_FALSE(servers[i]->isClosed()) << i;
    }
    RecordProperty("ThreadsBefore", before);
    RecordProperty("ThreadsMost", most);
    // Two threads per transport; the timers add a small shared pool, not one thread each.
    EXPECT_LE(most - before, 4 * kCount + 32) << "threads before " << before << ", most " << most;
}

}  // namespace
