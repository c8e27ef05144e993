// TARN applications for the EUDP suites: a client and a server that record what they are told, a
// connector that keeps every accepted connection, and a peer process that can be killed.
#ifndef TARN_TESTS_EUDP_TARNPEERS_H
#define TARN_TESTS_EUDP_TARNPEERS_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

namespace eudptest {

// Records everything a connection reports, with the time of the first eDisconnected.
class Recorder {
public:
    void record(const std::string& entry) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.push_back(entry);
    }
    std::vector<std::string> entries() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries;
    }
    std::size_t size() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries.size();
    }
    void status(EConnStatus status, std::int64_t nowMs) {
        if (status == eDisconnected) {
            std::int64_t none = -1;
            m_disconnectedAt.compare_exchange_strong(none, nowMs);
            ++m_disconnects;
        } else {
            ++m_connects;
        }
    }
    std::int64_t disconnectedAt() const { return m_disconnectedAt.load(); }
    int disconnects() const { return m_disconnects.load(); }
    int connects() const { return m_connects.load(); }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_entries;
    std::atomic<std::int64_t> m_disconnectedAt{-1};
    std::atomic<int> m_disconnects{0};
    std::atomic<int> m_connects{0};
};

std::string text(const ParameterList& params);

class RecordingClient : public ITARNClient, public Recorder {
public:
    virtual ~RecordingClient() = default;
    void onTrigger(const std::string& name, const ParameterValue& value) override {
        record("T " + name + " " + value.getAsString());
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override {
        record("S " + name + " " + value.getAsString());
    }
    void onStatusChanged(EConnStatus status) override;
};

class RecordingServer : public ITARNServer, public Recorder {
public:
    virtual ~RecordingServer() = default;
    void onSubscribe(const std::string& name) override { record("U " + name); }
    void onUnsubscribe(const std::string& name) override { record("X " + name); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override {
        record("F " + name + " " + text(params));
    }
    void onStatusChanged(EConnStatus status) override;
};

// Keeps every accepted connection with a RecordingServer of its own; owned by the listener.
class CollectingConnector : public ITARNConnector {
public:
    struct Shared {
        std::mutex mutex;
        TARNConnectionSet owned;                   // disconnects and deletes them at the end
        std::vector<TARNConnection*> connections;  // in order of arrival, for the tests to reach
        std::vector<RecordingServer*> servers;     // outlive their connections
        ~Shared();
        std::size_t count();
        TARNConnection* connection(std::size_t i);
        RecordingServer* server(std::size_t i);
    };
    explicit CollectingConnector(Shared* pShared) : m_pShared(pShared) {}
    void onNewConnection(TARNConnection* connection) override;

private:
    Shared* m_pShared;
};

// A peer process (tests/eudp/eudp_peer): "server" listens and prints "port <n>"; "client <port>"
// connects and prints "connected <local port>". Killed with SIGKILL, it sends nothing more.
class PeerProcess {
public:
    PeerProcess() = default;
    ~PeerProcess();
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;
    bool start(const std::vector<std::string>& arguments);
    // The first line the peer printed, within timeoutMs ("" on time-out).
    std::string readLine(int timeoutMs);
    void kill();

private:
    int m_pid = -1;
    int m_out = -1;
    std::string m_pending;
};

}  // namespace eudptest

#endif  // TARN_TESTS_EUDP_TARNPEERS_H
