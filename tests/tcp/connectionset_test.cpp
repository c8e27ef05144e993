// TARNConnectionSet: hands every server callback on unchanged, deletes only connections that have
// ended, disconnects and deletes one on close and the rest on closeAll, and runs the ending handler
// just before each deletion.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "tcptestutil.h"

using namespace testsupport;
using namespace tcptest;

namespace {

// A recording server that counts its own deletion.
class CountedServer final : public ITARNServer {
public:
    CountedServer(Events& events, std::atomic<int>& deleted, std::string prefix)
        : m_recorder(events, std::move(prefix)), m_deleted(deleted) {}
    ~CountedServer() override { ++m_deleted; }
    void onSubscribe(const std::string& name) override { m_recorder.onSubscribe(name); }
    void onUnsubscribe(const std::string& name) override { m_recorder.onUnsubscribe(name); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override {
        m_recorder.onCallFunctionId(name, params);
    }
    void onStatusChanged(EConnStatus status) override { m_recorder.onStatusChanged(status); }

private:
    RecordingServer m_recorder;
    std::atomic<int>& m_deleted;
};

// Adds each accepted connection to the set with a CountedServer named "server<n>".
class SetConnector final : public ITARNConnector {
public:
    SetConnector(TARNConnectionSet& set, Events& events, std::atomic<int>& deleted)
        : m_set(set), m_events(events), m_deleted(deleted) {}
    void onNewConnection(TARNConnection* connection) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_accepted.push_back(connection);
        }
        m_set.add(connection, new CountedServer(m_events, m_deleted, "server" + std::to_string(m_next++)),
                  true);
    }
    // The server end of client `i`, in the order they were accepted.
    TARNConnection* accepted(std::size_t i) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return i < m_accepted.size() ? m_accepted[i] : nullptr;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<TARNConnection*> m_accepted;
    TARNConnectionSet& m_set;
    Events& m_events;
    std::atomic<int>& m_deleted;
    int m_next = 0;
};

// A set filled by a TCP listener on 127.0.0.1, and clients that connect to it one after another.
struct TarnConnectionSetTcp : ::testing::Test {
    // Destroyed from the bottom up: the clients go before the recorders their threads call.
    Events events;
    std::atomic<int> deleted{0};
    std::vector<std::unique_ptr<RecordingClient>> recorders;
    TARNConnectionSet set;
    TARNListener listener{eTransportTCP};
    SetConnector* connector = new SetConnector(set, events, deleted);  // the listener's once listening
    std::vector<std::unique_ptr<TARNConnection>> clients;

    void SetUp() override { ASSERT_TRUE(listener.bindAndListen("127.0.0.1", 0, connector)); }
    void TearDown() override {
        listener.shutdown(-1);
        for (auto& client : clients) {
            client->disconnect();
        }
    }
    // Connects client number `clients.size()` and waits until its server end reported eConnected.
    void connectClient() {
        const std::string name = "client" + std::to_string(clients.size());
        recorders.emplace_back(new RecordingClient(events, name));
        clients.emplace_back(new TARNConnection(eTransportTCP));
        ASSERT_TRUE(clients.back()->connect("127.0.0.1", listener.getLocalPort(), recorders.back().get()));
        ASSERT_TRUE(events.waitFor("server" + std::to_string(clients.size() - 1) + ":connected", 5000))
            << ::testing::PrintToString(events.list());
    }
};

TEST_F(TarnConnectionSetTcp, HandsEveryCallbackOnToTheServer) {
    connectClient();
    ASSERT_TRUE(clients[0]->subscribe("temperature"));
    EXPECT_TRUE(events.waitFor("server0:subscribe temperature", 5000))
        << ::testing::PrintToString(events.list());
    EXPECT_EQ(1u, set.size());
}

TEST_F(TarnConnectionSetTcp, ReapDeletesOnlyTheConnectionsThatEnded) {
    connectClient();
    connectClient();
    clients[0]->disconnect();
    ASSERT_TRUE(events.waitFor("server0:disconnected", 5000)) << ::testing::PrintToString(events.list());
    // The set notes the status after the server's callback returned: reap until it has.
    EXPECT_TRUE(waitUntil([&] { return set.reap() == 1; }, 5000));
    EXPECT_EQ(1, deleted.load());
    EXPECT_EQ(0, events.count("server1:disconnected"));
    EXPECT_EQ(0, events.count("client1:disconnected"));
}

TEST_F(TarnConnectionSetTcp, CloseAllDisconnectsAndDeletesEveryConnection) {
    connectClient();
    connectClient();
    set.closeAll();
    EXPECT_EQ(0u, set.size());
    EXPECT_EQ(2, deleted.load());
    // Each server saw its own end before it was deleted, and each client saw the link end.
    EXPECT_EQ(1, events.count("server0:disconnected"));
    EXPECT_EQ(1, events.count("server1:disconnected"));
    EXPECT_TRUE(events.waitFor("client0:disconnected", 5000));
    EXPECT_TRUE(events.waitFor("client1:disconnected", 5000));
}

// What the ending handler saw at each call.
struct Ending {
    TARNConnection* connection;
    ITARNServer* server;
    int deletedBefore;                // servers deleted when it ran
    std::vector<std::string> events;  // events recorded when it ran
};

TEST_F(TarnConnectionSetTcp, CloseEndsOnlyTheConnectionItIsGivenAndRunsTheHandlerFirst) {
    std::mutex mutex;
    std::vector<Ending> endings;
    set.setEndingHandler([&](TARNConnection* connection, ITARNServer* server) {
        std::lock_guard<std::mutex> lock(mutex);
        endings.push_back(Ending{connection, server, deleted.load(), events.list()});
    });
    connectClient();
    connectClient();
    TARNConnection stranger(eTransportTCP);
    EXPECT_FALSE(set.close(&stranger));
    EXPECT_EQ(2u, set.size());

    ASSERT_TRUE(set.close(connector->accepted(0)));
    EXPECT_EQ(1u, set.size());
    EXPECT_EQ(1, deleted.load());
    EXPECT_EQ(0, events.count("server1:disconnected"));
    EXPECT_TRUE(events.waitFor("client0:disconnected", 5000)) << ::testing::PrintToString(events.list());
    ASSERT_EQ(1u, endings.size());
    EXPECT_EQ(connector->accepted(0), endings[0].connection);
    EXPECT_NE(nullptr, endings[0].server);
    EXPECT_EQ(0, endings[0].deletedBefore);
    EXPECT_EQ(1, std::count(endings[0].events.begin(), endings[0].events.end(), "server0:disconnected"));

    set.closeAll();
    ASSERT_EQ(2u, endings.size());
    EXPECT_EQ(connector->accepted(1), endings[1].connection);
    EXPECT_NE(endings[0].server, endings[1].server);
    EXPECT_EQ(1, endings[1].deletedBefore);
    EXPECT_EQ(1, std::count(endings[1].events.begin(), endings[1].events.end(), "server1:disconnected"));
    EXPECT_EQ(2, deleted.load());
}

TEST(TarnConnectionSet, TheEndingHandlerRunsOnceJustBeforeAnEndedConnectionIsDeleted) {
    Events events;
    std::atomic<int> deleted{0};
    std::vector<Ending> endings;  // reap runs the only deletion on this thread
    TARNConnectionSet set;
    set.setEndingHandler([&](TARNConnection* connection, ITARNServer* server) {
        endings.push_back(Ending{connection, server, deleted.load(), events.list()});
    });
    TARNConnection* connection = new TARNConnection(eTransportTCP);
    CountedServer* server = new CountedServer(events, deleted, "server");
    set.add(connection, server, true);
    connection->updateStatus(eConnected);
    EXPECT_EQ(1u, set.reap());
    EXPECT_TRUE(endings.empty());
    connection->updateStatus(eDisconnected);
    EXPECT_EQ(0u, set.reap());
    ASSERT_EQ(1u, endings.size());
    EXPECT_EQ(connection, endings[0].connection);
    EXPECT_EQ(server, endings[0].server);
    EXPECT_EQ(0, endings[0].deletedBefore);
    EXPECT_EQ((std::vector<std::string>{"server:connected", "server:disconnected"}), endings[0].events);
    EXPECT_EQ(1, deleted.load());
    set.closeAll();
    EXPECT_EQ(1u, endings.size());
}

TEST(TarnConnectionSet, ServersAddedWithoutDeleteStayTheCallers) {
    Events events;
    std::atomic<int> deleted{0};
    CountedServer server(events, deleted, "server");
    {
        TARNConnectionSet set;
        TARNConnection* connection = new TARNConnection(eTransportTCP);
        set.add(connection, &server);
        connection->updateStatus(eConnected);     // as a listener reports it
        connection->updateStatus(eDisconnected);  // as an ended receive loop reports it
        EXPECT_EQ(0u, set.reap());
    }
    EXPECT_EQ(0, deleted.load());
    EXPECT_EQ((std::vector<std::string>{"server:connected", "server:disconnected"}), events.list());
}

}  // namespace
