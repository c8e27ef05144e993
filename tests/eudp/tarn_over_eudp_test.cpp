// TARN end to end over EUDP: connections and a listener on eTransportEUDP.
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "eudptestaccess.h"
#include "tarnpeers.h"

using eudptest::CollectingServer;
using eudptest::RecordingClient;
using testsupport::nowMs;
using testsupport::waitUntil;

namespace {

// A server and one client connected to it over EUDP, for each test; `accepted` is the server's end.
class TARNOverEUDPPair : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.open());
        ASSERT_TRUE(connection.connect("127.0.0.1", server.listener.getLocalPort(), &client));
        ASSERT_TRUE(waitUntil([&] { return server.shared.count() == 1; }, 5000));
        accepted = server.shared.connection(0);
    }
    CollectingServer server{eTransportEUDP};
    RecordingClient client;
    TARNConnection connection{eTransportEUDP};
    TARNConnection* accepted = nullptr;
};

TEST_F(TARNOverEUDPPair, AllFiveCommands) {
    eudptest::RecordingServer* recorder = server.shared.server(0);
    EXPECT_NE(server.listener.getLocalPort(), accepted->getLocalPort());
    EXPECT_EQ(connection.getLocalPort(), accepted->getPeerPort());
    EXPECT_EQ(accepted->getLocalPort(), connection.getPeerPort());

    ASSERT_NO_FATAL_FAILURE(eudptest::expectFiveCommands(connection, client, *accepted, *recorder));

    // The client's DIS ends the server side at once.
    connection.disconnect();
    EXPECT_TRUE(waitUntil([&] { return recorder->disconnects() == 1; }, 3000));
    EXPECT_TRUE(waitUntil([&] { return client.disconnects() == 1; }, 3000));
}

TEST(TARNOverEUDP, TwentyClientsOnOneListener) {
    const int kClients = 20;
    CollectingServer server(eTransportEUDP);
    ASSERT_TRUE(server.open());
    std::vector<std::unique_ptr<RecordingClient>> clients;
    std::vector<std::unique_ptr<TARNConnection>> connections;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(new RecordingClient);
        connections.emplace_back(new TARNConnection(eTransportEUDP));
        ASSERT_TRUE(
            connections.back()->connect("127.0.0.1", server.listener.getLocalPort(), clients.back().get()));
        ASSERT_TRUE(connections.back()->subscribe("client " + std::to_string(i)));
    }
    ASSERT_TRUE(waitUntil([&] { return server.shared.count() == kClients; }, 10000));
    std::set<uint16> serverPorts;
    std::set<std::string> subscriptions;
    for (int i = 0; i < kClients; ++i) {
        TARNConnection* accepted = server.shared.connection(i);
        serverPorts.insert(accepted->getLocalPort());
        ASSERT_TRUE(waitUntil([&] { return server.shared.server(i)->size() == 1; }, 5000));
        subscriptions.insert(server.shared.server(i)->entries()[0]);
        ASSERT_TRUE(accepted->trigger("back", ParameterValue(i)));
    }
    EXPECT_EQ(static_cast<std::size_t>(kClients), serverPorts.size());  // a port per connection
    EXPECT_EQ(static_cast<std::size_t>(kClients), subscriptions.size());
    for (int i = 0; i < kClients; ++i) {
        ASSERT_TRUE(waitUntil([&] { return clients[i]->size() == 1; }, 5000));
        // Each accepted connection answers the client whose port it carries.
        uint16 clientPort = connections[i]->getLocalPort();
        for (int j = 0; j < kClients; ++j) {
            if (server.shared.connection(j)->getPeerPort() == clientPort) {
                EXPECT_EQ("client:trigger back I:" + std::to_string(j), clients[i]->entries()[0]);
                EXPECT_EQ("server:subscribe client " + std::to_string(i),
                          server.shared.server(j)->entries()[0]);
            }
        }
    }
    for (auto& connection : connections) {
        connection->disconnect();
    }
}

TEST_F(TARNOverEUDPPair, TenThousandReliableMessagesInOrder) {
    const int kMessages = 10000;

    // The client asks the server to send reliably.
    ASSERT_TRUE(connection.setSendMode(eReliable));
    std::int64_t start = nowMs();
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_TRUE(accepted->trigger("n", ParameterValue(i)));
    }
    ASSERT_TRUE(waitUntil([&] { return client.size() == static_cast<std::size_t>(kMessages); }, 120000))
        << client.size();
    std::int64_t elapsed = nowMs() - start;
    std::vector<std::string> entries = client.entries();
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_EQ("client:trigger n I:" + std::to_string(i), entries[i]) << "at " << i;
    }
    EXPECT_TRUE(
        testsupport::waitUntil([&] { return client.size() == static_cast<std::size_t>(kMessages); }, 0));
    RecordProperty("ReliableMessagesPerSecond",
                   static_cast<int>(kMessages * 1000 / (elapsed > 0 ? elapsed : 1)));
    connection.disconnect();
}

}  // namespace
