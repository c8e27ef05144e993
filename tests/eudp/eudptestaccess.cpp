#include "eudptestaccess.h"

#include <dirent.h>

#include <algorithm>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using testsupport::Bytes;
using testsupport::eudpDatagram;

namespace eudptest {

std::string line(unsigned int id, const std::string& text) {
    return "TARN/EUDP[" + std::to_string(id) + "]: " + text;
}

std::string commandOf(const Bytes& datagram) {
    if (datagram.size() < 4) {
        return std::string();
    }
    return std::string(datagram.begin() + 1, datagram.begin() + 4);
}

Bytes payloadOf(const Bytes& datagram) {
    if (datagram.size() <= 8) {
        return Bytes();
    }
    return Bytes(datagram.begin() + 8, datagram.end());
}

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

// The next datagram the raw peer receives from `port`, passing over those from other ports.
bool nextFrom(testsupport::RawUdp& raw, std::uint16_t port, Bytes& datagram, int timeoutMs) {
    std::uint16_t from = 0;
    std::int64_t deadline = testsupport::nowMs() + timeoutMs;
    while (true) {
        int left = static_cast<int>(deadline - testsupport::nowMs());
        if (left <= 0 || !raw.receive(datagram, from, left)) {
            return false;
        }
        if (from == port) {
            return true;
        }
    }
}

}  // namespace

bool ServerWithRawPeer::open(std::uint32_t conValue, bool quiet) {
    if (!listener.listen(sal::HostAddress("127.0.0.1"), 0)) {
        ADD_FAILURE() << "listen failed";
        return false;
    }
    listenPort = listener.getLocalPort();
    if (!raw.sendTo(eudpDatagram("CON", conValue), listenPort)) {
        ADD_FAILURE() << "CON not sent";
        return false;
    }
    server.reset(static_cast<EUDPTransport*>(listener.accept()));
    if (!server) {
        ADD_FAILURE() << "accept returned null";
        return false;
    }
    if (quiet) {
        EUDPTransportTest::quietTimers(*server);
    }
    Bytes ack;
    if (!raw.receive(ack, serverPort, 2000)) {
        ADD_FAILURE() << "no ACK";
        return false;
    }
    EXPECT_EQ(testsupport::hex(eudpDatagram("ACK", conValue)), testsupport::hex(ack));
    return true;
}

bool ServerWithRawPeer::next(Bytes& datagram, int timeoutMs) {
    return nextFrom(raw, serverPort, datagram, timeoutMs);
}

bool ClientWithRawPeer::open(bool quiet) {
    std::thread answer([this] {
        Bytes con;
        std::uint16_t from = 0;
        if (raw.receive(con, from, 4000) && con.size() == 8) {
            clientPort = from;
            raw.sendTo(eudpDatagram("ACK", testsupport::le32(con, 4)), from);
        }
    });
    bool ok = client.connect(sal::HostAddress("127.0.0.1"), raw.port());
    answer.join();
    if (!ok) {
        ADD_FAILURE() << "connect failed";
        return false;
    }
    if (quiet) {
        EUDPTransportTest::quietTimers(client);
    }
    return true;
}

bool ClientWithRawPeer::next(Bytes& datagram, int timeoutMs) {
    return nextFrom(raw, clientPort, datagram, timeoutMs);
}

bool TransportPair::open() {
    if (!listener.listen(sal::HostAddress("127.0.0.1"), 0)) {
        ADD_FAILURE() << "listen failed";
        return false;
    }
    std::uint16_t port = listener.getLocalPort();
    std::thread acceptor([this] { server.reset(static_cast<EUDPTransport*>(listener.accept())); });
    bool ok = client.connect(sal::HostAddress("127.0.0.1"), port);
    if (!ok) {
        listener.disconnect();
    }
    acceptor.join();
    if (!ok || !server) {
        ADD_FAILURE() << "pair did not connect";
        return false;
    }
    return true;
}

void expectIdlePairStaysUp(int idleMs, int serverMin, int serverMax, int clientMax) {
    TransportPair pair;
    ASSERT_TRUE(pair.open());
    sal::Thread::mssleep(idleMs);  // the idle time itself is what is tested
    EXPECT_FALSE(pair.client.isClosed());
    EXPECT_FALSE(pair.server->isClosed());
    // One keep-alive per half-second quiet spell on the server; the client always hears one
    // before its own second is up.
    int serverKeepAlives = EUDPTransportTest::sendSeq(*pair.server).getValue();
    EXPECT_GE(serverKeepAlives, serverMin);
    EXPECT_LE(serverKeepAlives, serverMax);
    EXPECT_LE(EUDPTransportTest::sendSeq(pair.client).getValue(), clientMax);
    // Still carries data both ways.
    ASSERT_TRUE(pair.client.sendData(reinterpret_cast<const uint8*>("ok"), 2));
    std::uint8_t buffer[8];
    EXPECT_EQ(2, pair.server->receiveData(buffer, sizeof buffer));
}

void expectIdleConnectionsShareTimerThreads(int count, int idleMs, int sampleMs) {
    int before = threadCount();
    EUDPTransport listener;
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    std::vector<std::unique_ptr<EUDPTransport>> servers;
    std::thread acceptor([&] {
        for (int i = 0; i < count; ++i) {
            EUDPTransport* accepted = static_cast<EUDPTransport*>(listener.accept());
            if (accepted == nullptr) {
                return;
            }
            servers.emplace_back(accepted);
        }
    });
    std::vector<std::unique_ptr<EUDPTransport>> clients;
    for (int i = 0; i < count; ++i) {
        clients.emplace_back(new EUDPTransport);
        ASSERT_TRUE(clients.back()->connect(sal::HostAddress("127.0.0.1"), listener.getLocalPort())) << i;
    }
    acceptor.join();
    ASSERT_EQ(static_cast<std::size_t>(count), servers.size());

    std::int64_t end = testsupport::nowMs() + idleMs;
    int most = 0;
    while (testsupport::nowMs() < end) {
        sal::Thread::mssleep(sampleMs);
        most = std::max(most, threadCount());
    }
    for (int i = 0; i < count; ++i) {
        EXPECT_FALSE(clients[i]->isClosed()) << i;
        EXPECT_FALSE(servers[i]->isClosed()) << i;
    }
    ::testing::Test::RecordProperty("ThreadsBefore", before);
    ::testing::Test::RecordProperty("ThreadsMost", most);
    // Two threads per transport; the timers add a small shared pool, not one thread each.
    EXPECT_LE(most - before, 4 * count + 32) << "threads before " << before << ", most " << most;
}

}  // namespace eudptest
