#include "tarnfixture.h"

#include "common.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace bench {

void Answerer::onCallFunctionId(const std::string& name, const ParameterList& params) {
    std::string key;
    std::string text;
    if (params.getParam(0u, key, text)) {
        m_pConnection->trigger(name, ParameterValue(text));
    }
}

void Answerer::onStatusChanged(EConnStatus status) {
    if (status == eConnected && !m_bReported) {
        m_bReported = true;
        m_pOwner->ready(m_pConnection, this);
    }
}

class TarnServer::Connector : public ITARNConnector {
public:
    explicit Connector(TarnServer* owner) : m_pOwner(owner) {}
    void onNewConnection(TARNConnection* connection) override { m_pOwner->add(connection); }

private:
    TarnServer* m_pOwner;
};

TarnServer::TarnServer(ETransport transport) : m_transport(transport) {}

TarnServer::~TarnServer() {
    stopListening();
    std::vector<TARNConnection*> connections;
    std::vector<Answerer*> answerers;
    for (const Accepted& accepted : m_accepted) {
        connections.push_back(accepted.connection);
        answerers.push_back(accepted.answerer);
    }
    m_accepted.clear();
    closeAll(connections, answerers);
}

bool TarnServer::start() {
    m_port = listenWith(new Connector(this));
    return m_port != 0;
}

uint16 TarnServer::listenWith(ITARNConnector* connector) {
    m_pListener = new TARNListener(m_transport);
    m_pListener->listen("127.0.0.1", 0, connector);
    uint16 port = 0;
    for (int i = 0; i < 500 && port == 0; ++i) {
        port = m_pListener->getLocalPort();
        if (port == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    return port;
}

void TarnServer::stopListening() {
    if (m_pListener != nullptr) {
        m_pListener->shutdown(-1);
        delete m_pListener;  // deletes the connector too
        m_pListener = nullptr;
    }
}

// Runs on the listener's thread, before the connection is started: the answerer sees every call
// from the first packet on.
void TarnServer::add(TARNConnection* connection) {
    connection->setServer(new Answerer(connection, this));
}

void TarnServer::ready(TARNConnection* connection, Answerer* answerer) {
    Accepted accepted;
    accepted.connection = connection;
    accepted.answerer = answerer;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_accepted.push_back(accepted);
    m_added.notify_all();
}

bool TarnServer::nextAccepted(Accepted& accepted, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_added.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                          [this] { return !m_accepted.empty(); })) {
        return false;
    }
    accepted = m_accepted.front();
    m_accepted.pop_front();
    return true;
}

void closeAll(std::vector<TARNConnection*>& connections, std::vector<Answerer*>& answerers, int threads) {
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t i = next.fetch_add(1); i < connections.size(); i = next.fetch_add(1)) {
            TARNConnection* connection = connections[i];
            if (connection == nullptr) {
                continue;
            }
            connection->disconnect();
            delete connection;
        }
    };
    const int count = std::max(1, std::min<int>(threads, static_cast<int>(connections.size())));
    std::vector<std::thread> pool;
    for (int i = 0; i < count; ++i) {
        pool.emplace_back(worker);
    }
    for (std::thread& thread : pool) {
        thread.join();
    }
    // The receive threads are gone with their connections: nothing calls an answerer any more.
    for (Answerer* answerer : answerers) {
        delete answerer;
    }
    connections.clear();
    answerers.clear();
}

}  // namespace bench
