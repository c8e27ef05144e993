// Peers killed with SIGKILL in the middle of a stream, over TCP and EUDP: the surviving side reports
// exactly one eDisconnected (EUDP within its keep-alive bounds: a client about 11 s after the last
// datagram, a server about 10.5 s), keeps no thread of the dead connection, and a new connection to
// a restarted peer works.
#include <string>

#include <gtest/gtest.h>

#include "faultsupport.h"
#include "tarnpeers.h"
#include "testsupport.h"

using testsupport::nowMs;
using testsupport::waitUntil;

namespace {

std::string transportWord(ETransport kind) {
    return kind == eTransportTCP ? "tcp" : "eudp";
}

// Starts a peer process and reads the number it prints after `prefix` ("port " or "connected ").
int startPeer(eudptest::PeerProcess& peer, const std::vector<std::string>& arguments,
              const std::string& prefix) {
    std::vector<std::string> all{TEST_PEER_PATH};
    all.insert(all.end(), arguments.begin(), arguments.end());
    if (!peer.start(all)) {
        return -1;
    }
    const std::string line = peer.readLine(60000);
    if (line.compare(0, prefix.size(), prefix) != 0) {
        return -1;
    }
    return std::atoi(line.c_str() + prefix.size());
}

// A connection's own threads: its receive thread, and over EUDP the transport's sender and receiver.
int threadsPerConnection(ETransport kind) {
    return kind == eTransportTCP ? 1 : 3;
}

// Our server, a client process streaming calls to it, killed; then a second client process.
void killedClient(ETransport kind, std::int64_t minMs, std::int64_t maxMs) {
    faults::TestServer server(kind);
    ASSERT_NE(0, server.start());
    eudptest::PeerProcess peer;
    const int clientPort =
        startPeer(peer, {"client", transportWord(kind), std::to_string(server.port())}, "connected ");
    ASSERT_GT(clientPort, 0);
    int index = -1;
    ASSERT_TRUE(waitUntil(
        [&] {
            index = server.accepted().findByPeerPort(static_cast<uint16>(clientPort));
            return index >= 0 &&
                   server.accepted().server(static_cast<std::size_t>(index))->calls.size() >= 200;
        },
        30000));
    faults::SeqServer* recorder = server.accepted().server(static_cast<std::size_t>(index));
    // Threads are counted while the connection lives, so that threads a runtime starts lazily (a
    // sanitizer's, the platform's timer threads) do not count as the connection's.
    const int withConnection = faults::ownThreadCount();
    // The time is taken before the kill: the disconnect can be seen before kill() has returned.
    const std::int64_t killed = nowMs();
    peer.kill();
    ASSERT_TRUE(waitUntil([&] { return recorder->disconnects() > 0; }, static_cast<int>(maxMs) + 5000));
    const std::int64_t noticed = recorder->disconnectedAtMs() - killed;
    EXPECT_GE(noticed, minMs);
    EXPECT_LE(noticed, maxMs);
    EXPECT_EQ("", faults::checkComplete(recorder->calls.values(), static_cast<int>(recorder->calls.size())))
        << "what arrived before the kill is in order";
    faults::figure(transportWord(kind) + " server noticed a killed client after " + std::to_string(noticed) +
                   " ms");

    // The dead connection is deleted and its threads are gone.
    EXPECT_EQ(0u, server.accepted().reap());
    EXPECT_TRUE(waitUntil(
        [&] { return faults::ownThreadCount() <= withConnection - threadsPerConnection(kind); }, 10000))
        << faults::ownThreadCount() << " threads, " << withConnection << " with the connection";

    eudptest::PeerProcess again;
    const int secondPort =
        startPeer(again, {"client", transportWord(kind), std::to_string(server.port())}, "connected ");
    ASSERT_GT(secondPort, 0);
    EXPECT_TRUE(waitUntil(
        [&] {
            const int i = server.accepted().findByPeerPort(static_cast<uint16>(secondPort));
            return i >= 0 && server.accepted().server(static_cast<std::size_t>(i))->calls.size() >= 50;
        },
        30000));
    again.kill();
    EXPECT_EQ(1, recorder->disconnects()) << "exactly one eDisconnected for the killed client";
}

// Our client, subscribed to a stream from a server process that is killed; then a new server.
void killedServer(ETransport kind, std::int64_t minMs, std::int64_t maxMs) {
    eudptest::PeerProcess peer;
    const int port = startPeer(peer, {"server", transportWord(kind)}, "port ");
    ASSERT_GT(port, 0);
    faults::SeqClient client;
    std::unique_ptr<TARNConnection> connection =
        faults::connectWithRetry(kind, static_cast<uint16>(port), &client, 3);
    ASSERT_TRUE(connection);
    ASSERT_TRUE(connection->subscribe("stream"));
    ASSERT_TRUE(waitUntil([&] { return client.triggers.size() >= 200; }, 30000));
    const int withConnection = faults::ownThreadCount();
    // The time is taken before the kill: the disconnect can be seen before kill() has returned.
    const std::int64_t killed = nowMs();
    peer.kill();
    ASSERT_TRUE(waitUntil([&] { return client.disconnects() > 0; }, static_cast<int>(maxMs) + 5000));
    const std::int64_t noticed = client.disconnectedAtMs() - killed;
    EXPECT_GE(noticed, minMs);
    EXPECT_LE(noticed, maxMs);
    EXPECT_EQ("", faults::checkIncreasing(client.triggers.values()));
    faults::figure(transportWord(kind) + " client noticed a killed server after " + std::to_string(noticed) +
                   " ms");
    connection->disconnect();
    connection.reset();
    EXPECT_TRUE(waitUntil(
        [&] { return faults::ownThreadCount() <= withConnection - threadsPerConnection(kind); }, 10000))
        << faults::ownThreadCount() << " threads, " << withConnection << " with the connection";
    EXPECT_EQ(1, client.disconnects()) << "exactly one eDisconnected for the killed server";

    eudptest::PeerProcess again;
    const int newPort = startPeer(again, {"server", transportWord(kind)}, "port ");
    ASSERT_GT(newPort, 0);
    faults::SeqClient second;
    connection = faults::connectWithRetry(kind, static_cast<uint16>(newPort), &second, 3);
    ASSERT_TRUE(connection);
    ASSERT_TRUE(connection->subscribe("stream"));
    EXPECT_TRUE(waitUntil([&] { return second.triggers.size() >= 50; }, 30000));
    again.kill();
    faults::closeClient(connection, second);
}

// TCP: the kernel closes the dead process's sockets at once.
TEST(DeadPeer, TcpServerReportsKilledClientOnceAndAcceptsANewOne) {
    killedClient(eTransportTCP, 0, 5000);
}

TEST(DeadPeer, TcpClientReportsKilledServerOnceAndConnectsToANewOne) {
    killedServer(eTransportTCP, 0, 5000);
}

// EUDP: only the keep-alive notices; 0.5 s quiet spell plus 10 s on the server side, 1 s plus 10 s
// on the client side.
TEST(DeadPeer, EudpServerReportsKilledClientOnceWithinTenAndAHalfSeconds) {
    killedClient(eTransportEUDP, 9500, 13500);
}

TEST(DeadPeer, EudpClientReportsKilledServerOnceWithinElevenSeconds) {
    killedServer(eTransportEUDP, 10000, 14000);
}

}  // namespace
