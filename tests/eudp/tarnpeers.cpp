#include "tarnpeers.h"

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

bool PeerProcess::start(const std::vector<std::string>& arguments) {
    m_child.reset(new testsupport::ChildProcess(arguments));
    return m_child->started();
}

std::string PeerProcess::readLine(int timeoutMs) {
    std::string line;
    return m_child && m_child->nextLine(line, timeoutMs) ? line : std::string();
}

}  // namespace eudptest
