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
#include "recording.h"
#include "sequence.h"

namespace eudptest {

// The toolkit's recorders (recording.h) with a record of their own: entries() holds every callback
// but the statuses, in the toolkit's words ("client:trigger bell I:5", "server:subscribe item");
// the statuses are counted (StatusCounter).
class OwnRecord : public testsupport::StatusCounter {
public:
    std::vector<std::string> entries() const { return m_events.list(); }
    std::size_t size() const { return m_events.size(); }
    // When the first eDisconnected came (nowMs), -1 before.
    std::int64_t disconnectedAt() const { return disconnectedAtMs(); }

protected:
    testsupport::Events m_events;
};

class RecordingClient : public ITARNClient, public OwnRecord {
public:
    void onTrigger(const std::string& name, const ParameterValue& value) override {
        m_recorder.onTrigger(name, value);
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override {
        m_recorder.onUpdateState(name, value);
    }
    void onStatusChanged(EConnStatus status) override { report(status); }

private:
    testsupport::RecordingClient m_recorder{m_events};
};

class RecordingServer : public ITARNServer, public OwnRecord {
public:
    void onSubscribe(const std::string& name) override { m_recorder.onSubscribe(name); }
    void onUnsubscribe(const std::string& name) override { m_recorder.onUnsubscribe(name); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override {
        m_recorder.onCallFunctionId(name, params);
    }
    void onStatusChanged(EConnStatus status) override { report(status); }

private:
    testsupport::RecordingServer m_recorder{m_events};
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

// A listener whose connector is a CollectingConnector; shut down when the server is destroyed.
struct CollectingServer {
    CollectingConnector::Shared shared;  // outlives the listener
    TARNListener listener;

    explicit CollectingServer(ETransport transport) : listener(transport) {}
    ~CollectingServer() { listener.shutdown(-1); }
    // Listens on `address` (ephemeral port) and waits until the port is bound.
    bool open(const std::string& address = "127.0.0.1");
};

// The five commands across a connected pair: `connection` subscribes "item", unsubscribes "other"
// and calls "func", its peer `accepted` triggers "bell" and updates "lamp"; each side's recorder
// gets exactly these, in this order.
void expectFiveCommands(TARNConnection& connection, const RecordingClient& client, TARNConnection& accepted,
                        const RecordingServer& recorder);

// A peer process (tarn_test_peer, tests/faults/testpeer.cpp): its servers listen and print
// "port <n>", its clients connect and print "connected <local port>". Killed with SIGKILL, it sends
// nothing more. The toolkit's ChildProcess, started later than constructed.
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
