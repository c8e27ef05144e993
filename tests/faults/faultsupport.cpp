#include "faultsupport.h"

#include <sal/thread.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <system_error>
#include <thread>

#include "testsupport.h"

namespace faults {

using testsupport::nowMs;
using testsupport::waitUntil;

Accepted::Accepted() {
    m_set.setEndingHandler([this](TARNConnection* connection, ITARNServer* server) {
        // The server's stream thread sends on the connection: it stops first.
        static_cast<SeqServer*>(server)->stopStreaming();
        forget(connection);
    });
}

Accepted::~Accepted() {
    closeAll();
}

void Accepted::add(TARNConnection* connection, SeqServer* server) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connections.push_back(connection);
        m_servers.push_back(server);
    }
    m_set.add(connection, server);
}

void Accepted::forget(TARNConnection* connection) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (TARNConnection*& known : m_connections) {
        if (known == connection) {
            known = nullptr;
        }
    }
}

std::size_t Accepted::count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connections.size();
}

TARNConnection* Accepted::connection(std::size_t i) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return i < m_connections.size() ? m_connections[i] : nullptr;
}

SeqServer* Accepted::server(std::size_t i) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return i < m_servers.size() ? m_servers[i] : nullptr;
}

int Accepted::findByPeerPort(uint16 port) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (std::size_t i = 0; i < m_connections.size(); ++i) {
        if (m_connections[i] != nullptr && m_connections[i]->getPeerPort() == port) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// The recorders stay (tests read them after the connection ended); closeAll deletes them.
std::size_t Accepted::reap() {
    return m_set.reap();
}

void Accepted::closeAll() {
    m_set.closeAll();
    std::vector<SeqServer*> servers;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connections.clear();
        servers.swap(m_servers);
    }
    for (SeqServer* server : servers) {
        delete server;
    }
}

namespace {

class Connector : public ITARNConnector {
public:
    explicit Connector(Accepted& accepted) : m_accepted(accepted) {}
    void onNewConnection(TARNConnection* connection) override {
        m_accepted.add(connection, new SeqServer(connection));
    }

private:
    Accepted& m_accepted;
};

}  // namespace

TestServer::TestServer(ETransport kind) : m_kind(kind) {}

TestServer::~TestServer() {
    stop();
    m_accepted.closeAll();
}

uint16 TestServer::start(const std::string& address) {
    m_pListener = new TARNListener(m_kind);
    m_pListener->setHardening(hardening);
    m_pListener->listen(address, 0, new Connector(m_accepted));
    waitUntil([&] { return m_pListener->getLocalPort() != 0; }, 10000);
    m_port = m_pListener->getLocalPort();
    return m_port;
}

void TestServer::stop() {
    if (m_pListener != nullptr) {
        m_pListener->shutdown(-1);
        delete m_pListener;
        m_pListener = nullptr;
    }
}

std::unique_ptr<TARNConnection> connectWithRetry(ETransport kind, uint16 port, ITARNClient* client,
                                                 int attempts, int* attemptsUsed,
                                                 const EUDPHardening* hardening) {
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        std::unique_ptr<TARNConnection> connection(new TARNConnection(kind));
        if (hardening != nullptr) {
            connection->setHardening(*hardening);
        }
        if (connection->connect("127.0.0.1", port, client)) {
            if (attemptsUsed != nullptr) {
                *attemptsUsed = attempt;
            }
            return connection;
        }
        connection->disconnect();
        if (kind == eTransportTCP) {
            sal::Thread::mssleep(100);
        }
    }
    return nullptr;
}

bool retry(const std::function<bool()>& request, int attempts, int* attemptsUsed) {
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        if (request()) {
            if (attemptsUsed != nullptr) {
                *attemptsUsed = attempt;
            }
            return true;
        }
    }
    return false;
}

void closeClient(std::unique_ptr<TARNConnection>& connection, const StatusCounter& status) {
    if (connection) {
        connection->disconnect();
        waitUntil([&] { return status.disconnects() > 0; }, 30000);
        connection.reset();
    }
}

std::string checkComplete(const std::vector<int>& values, int count) {
    std::ostringstream out;
    if (static_cast<int>(values.size()) != count) {
        out << "received " << values.size() << " of " << count << "; ";
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (values[i] != static_cast<int>(i)) {
            out << "at " << i << " got " << values[i];
            return out.str();
        }
    }
    return out.str();
}

std::string checkIncreasing(const std::vector<int>& values) {
    for (std::size_t i = 1; i < values.size(); ++i) {
        if (values[i] <= values[i - 1]) {
            std::ostringstream out;
            out << "at " << i << ": " << values[i] << " after " << values[i - 1];
            return out.str();
        }
    }
    return std::string();
}

namespace {

long statusField(const std::string& field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, field.size(), field) == 0) {
            return std::atol(line.c_str() + field.size());
        }
    }
    return -1;
}

}  // namespace

long residentKb() {
    return statusField("VmRSS:");
}

int threadCount() {
    return static_cast<int>(statusField("Threads:"));
}

int ownThreadCount() {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return -1;
    }
    int count = 0;
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream in(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(in, name);
        if (name.compare(0, 9, "sal-timer") != 0 && name != "sal-reader") {
            ++count;
        }
    }
    closedir(tasks);
    return count;
}

void figure(const std::string& text) {
    std::cout << "[ figure ] " << text << std::endl;
}

}  // namespace faults
