// TARN applications for the EUDP suites: a client and a server that record what they are told, a
// connector that keeps every accepted connection, and a peer process that can be killed.
#ifndef TARN_TESTS_EUDP_TARNPEERS_H
#define TARN_TESTS_EUDP_TARNPEERS_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "childprocess.h"
#include "sequence.h"

namespace eudptest {

// Records every callback but the statuses as one line of text ("T name value", "U name"), and
// counts the statuses as the toolkit's StatusCounter does.
class Recorder : public testsupport::StatusCounter {
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
    // When the first eDisconnected came (nowMs), -1 before.
    std::int64_t disconnectedAt() const { return disconnectedAtMs(); }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_entries;
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
    void onStatusChanged(EConnStatus status) override { report(status); }
};

class RecordingServer : public ITARNServer, public Recorder {
public:
    virtual ~RecordingServer() = default;
    void onSubscribe(const std::string& name) override { record("U " + name); }
    void onUnsubscribe(const std::string& name) override { record("X " + name); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override {
        record("F " + name + " " + text(params));
    }
    void onStatusChanged(EConnStatus status) override { report(status); }
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
// connects and prints "connected <local port>". Killed with SIGKILL, it sends nothing more. The
// toolkit's ChildProcess, started later than constructed.
class PeerProcess {
public:
    bool start(const std::vector<std::string>& arguments);
    // The next line the peer printed, within timeoutMs ("" on time-out).
    std::string readLine(int timeoutMs);
    // Kills the peer with SIGKILL and reaps it.
    void kill() { m_child.reset(); }

private:
    std::unique_ptr<testsupport::ChildProcess> m_child;
};

}  // namespace eudptest

#endif  // TARN_TESTS_EUDP_TARNPEERS_H
