// The server side of the tool: a TARNListener, the connections it hands over, a table of named
// states and each connection's subscriptions.
//
// Ownership: StateServer owns the listener (which owns and deletes the small connector object) and
// every connection handed to onNewConnection, each with the Session that serves it. A connection
// is deleted on the main thread once its Disconnected event has been handled, after disconnect(),
// and before its Session; never from a callback.
//
// Threads: the connector runs on the listener's thread and adds sessions under m_mutex; each
// Session's callbacks run on its connection's receive thread and only push events. Everything else
// (handle, set, trigger, the listings, stop) belongs to the main thread, which alone deletes
// sessions and alone reads and writes the state table and the subscriptions.
#ifndef TARN_TOOLS_SERVER_H
#define TARN_TOOLS_SERVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "events.h"

namespace tarncli {

class StateServer {
public:
    enum class ListenResult { Listening, BadAddress, Unavailable };

    StateServer(ETransport kind, EventQueue& queue);
    virtual ~StateServer();
    StateServer(const StateServer&) = delete;
    StateServer& operator=(const StateServer&) = delete;

    // Starts listening and waits until the port is bound. `address` empty means every interface.
    ListenResult listen(const std::string& address, std::uint16_t port);
    std::uint16_t port() const;
    std::string address() const { return m_address; }
    ETransport kind() const { return m_kind; }

    // What handle() did in answer to an event: on a subscription to a known state, the state that
    // was sent at once.
    struct Reply {
        bool sentState = false;
        bool sendOk = true;
        ParameterValue value;
    };
    // Main thread: keeps subscriptions and connections up to date for one event from the queue.
    Reply handle(const Event& event);

    struct Delivery {
        int sent = 0;
        std::vector<int> failed;  // connection numbers whose send failed
    };
    // Stores the state and sends updateState to each connection subscribed to `name`.
    Delivery set(const std::string& name, const ParameterValue& value);
    // Sends a trigger to each connection subscribed to `name`; nothing is stored.
    Delivery trigger(const std::string& name, const ParameterValue& value);

    struct StateInfo {
        std::string name;
        ParameterValue value;
        std::vector<int> subscribers;
    };
    struct ConnectionInfo {
        int id;
        std::string peer;
        std::vector<std::string> subscriptions;
    };
    std::vector<StateInfo> states() const;
    std::vector<ConnectionInfo> connections() const;

    // The session's connection, for the demo's scripted steps; null when unknown.
    TARNConnection* connection(int id) const;

    // Stops listening, then disconnects and deletes every connection. Their Disconnected events are
    // in the queue when this returns.
    void stop();

private:
    class Connector;
    class Session;

    void adopt(TARNConnection* connection);  // listener thread
    Session* find(int id) const;
    void reap(int id);
    Delivery sendToSubscribers(const std::string& name, const ParameterValue& value, bool isTrigger);

    ETransport m_kind;
    EventQueue& m_queue;
    std::string m_address;
    TARNListener* m_pListener = nullptr;

    mutable std::mutex m_mutex;  // guards m_sessions and m_nextId
    std::map<int, std::unique_ptr<Session>> m_sessions;
    int m_nextId = 1;

    std::map<std::string, ParameterValue> m_states;  // main thread only
};

}  // namespace tarncli

#endif  // TARN_TOOLS_SERVER_H
