#include "tarnpeers.h"

#include <gtest/gtest.h>

#include "testsupport.h"

namespace eudptest {

CollectingConnector::Shared::~Shared() {
    owned.closeAll();
    for (RecordingServer* server : servers) {
        delete server;
    }
}

std::size_t CollectingConnector::Shared::count() {
    std::lock_guard<std::mutex> lock(mutex);
    return connections.size();
}

TARNConnection* CollectingConnector::Shared::connection(std::size_t i) {
    std::lock_guard<std::mutex> lock(mutex);
    return connections.at(i);
}

RecordingServer* CollectingConnector::Shared::server(std::size_t i) {
    std::lock_guard<std::mutex> lock(mutex);
    return servers.at(i);
}

void CollectingConnector::onNewConnection(TARNConnection* connection) {
    RecordingServer* server = new RecordingServer;
    m_pShared->owned.add(connection, server);
    std::lock_guard<std::mutex> lock(m_pShared->mutex);
    m_pShared->connections.push_back(connection);
    m_pShared->servers.push_back(server);
}

bool CollectingServer::open(const std::string& address) {
    if (!listener.listen(address, 0, new CollectingConnector(&shared))) {
        return false;
    }
    return testsupport::waitUntil([&] { return listener.getLocalPort() != 0; }, 5000);
}

void expectFiveCommands(TARNConnection& connection, const RecordingClient& client, TARNConnection& accepted,
                        const RecordingServer& recorder) {
    ParameterList params;
    params.addNumeric("count", 3);
    params.addString("name", "x");
    ASSERT_TRUE(connection.subscribe("item"));
    ASSERT_TRUE(connection.unsubscribe("other"));
    ASSERT_TRUE(connection.callFunctionId("func", params));
    ASSERT_TRUE(testsupport::waitUntil([&] { return recorder.size() == 3; }, 5000));
    const std::vector<std::string> serverSaw = recorder.entries();
    EXPECT_EQ("server:subscribe item", serverSaw[0]);
    EXPECT_EQ("server:unsubscribe other", serverSaw[1]);
    EXPECT_EQ("server:call func " + testsupport::describe(params), serverSaw[2]);

    ASSERT_TRUE(accepted.trigger("bell", ParameterValue(5)));
    ASSERT_TRUE(accepted.updateState("lamp", ParameterValue(true)));
    ASSERT_TRUE(testsupport::waitUntil([&] { return client.size() == 2; }, 5000));
    const std::vector<std::string> clientSaw = client.entries();
    EXPECT_EQ("client:trigger bell I:5", clientSaw[0]);
    EXPECT_EQ("client:state lamp B:ON", clientSaw[1]);
}

bool PeerProcess::start(const std::vector<std::string>& arguments) {
    m_child.reset(new testsupport::ChildProcess(arguments));
    return m_child->started();
}

std::string PeerProcess::readLine(int timeoutMs) {
    std::string line;
    return m_child && m_child->nextLine(line, timeoutMs) ? line : std::string();
}

}  // namespace eudptest
