// The server side of the tool: a listening transport with its accept thread, the connections it
// accepts, a table of named states and each connection's subscriptions.
//
// The tool accepts on a transport of its own rather than through a TARNListener so that it can
// keep each accepted EUDP transport at hand to show the modes a request left, and tell a peer that
// stopped answering from one that closed; and so that a port that cannot be bound is known before
// anything starts.
//
// Ownership: StateServer owns the listening transport and the accept thread; its
// TARNConnectionSet owns every connection accepted, each with the Session that serves it. A
// connection is disconnected and deleted off the main thread (its destructor waits for its receive
// thread, which takes a while) once its Disconnected event has been handled, or by stop(); the set
// deletes it before its Session, never from a callback.
//
// Threads: the accept thread adds sessions under m_mutex; each Session's callbacks run on its
// connection's receive thread and only push events. Everything else (handle, set, trigger, the
// listings, the requests, stop) belongs to the main thread, which alone removes sessions and alone
// reads and writes the state table and the subscriptions.
#ifndef TARN_TOOLS_SERVER_H
#define TARN_TOOLS_SERVER_H

#include <atomic>
#include <cstdint>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <eudptransport.h>
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

    // Before listen, EUDP only: the modes each accepted connection agrees to when its client asks.
    void allowModes(bool sendRealtime, bool sendReliable, bool receiveRealtime, bool receiveReliable);
    // EUDP: hardened mode for the listening transport and every connection it accepts; before listen.
    void setHardening(const EUDPHardening& hardening) { m_hardening = hardening; }
    // Accepted, live and refused connections: the listening transport's figures over EUDP, this
    // server's own count over TCP. Any thread.
    TARNListenerStatistics listenerStatistics() const;

    // Binds address:port and starts accepting. `address` empty means every interface.
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
    std::size_t connectionCount() const;

    // The session's connection and, over EUDP, its transport; null when unknown.
    TARNConnection* connection(int id) const;
    EUDPTransport* eudp(int id) const;

    // Stops accepting, then disconnects and deletes every connection, all at once. Their
    // Disconnected events are in the queue when this returns.
    void stop();

private:
    class Session;

    void acceptLoop();                      // accept thread
    void adopt(ITARNTransport* transport);  // accept thread
    Session* find(int id) const;
    void reap(int id);
    Delivery sendToSubscribers(const std::string& name, const ParameterValue& value, bool isTrigger);

    ETransport m_kind;
    EventQueue& m_queue;
    std::string m_address;
    bool m_allow[4] = {true, true, true, true};  // send realtime, send reliable, receive ...
    ITARNTransport* m_pListening = nullptr;
    std::thread m_acceptor;
    std::atomic<bool> m_bStopping{false};

    // Declared before the sessions' table: destroyed after it, and the sessions are the set's.
    TARNConnectionSet m_connections;
    mutable std::mutex m_mutex;          // guards m_sessions and m_nextId
    std::map<int, Session*> m_sessions;  // owned by m_connections
    int m_nextId = 1;
    EUDPHardening m_hardening;

    std::map<std::string, ParameterValue> m_states;  // main thread only
    std::list<std::future<void>> m_closing;          // main thread only: ended connections going
};

}  // namespace tarncli

#endif  // TARN_TOOLS_SERVER_H
