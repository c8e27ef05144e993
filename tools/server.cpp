#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <chrono>
#include <thread>

#include <sal/hostaddress.h>

namespace tarncli {

namespace {

// How long stop() waits for each connection's receive thread to report its end after disconnect().
const int kDisconnectWaitMs = 10000;

// Whether address:port can be bound right now. The listener binds on its own thread and reports
// nothing when that fails (and a TCP listener whose bind failed hands out a connection without a
// socket), so the tool asks the system first and refuses to start instead.
bool canBind(ETransport kind, const sal::HostAddress& address, std::uint16_t port) {
    const int fd = ::socket(AF_INET, (kind == eTransportTCP ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    if (kind == eTransportTCP) {
        const int on = 1;  // as the platform's TCP socket does: a port in TIME_WAIT is free
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    }
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    local.sin_addr.s_addr = htonl(address.toUint32());
    const bool ok = ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

class StateServer::Connector : public ITARNConnector {
public:
    explicit Connector(StateServer* server) : m_pServer(server) {}
    void onNewConnection(TARNConnection* connection) override { m_pServer->adopt(connection); }

private:
    StateServer* m_pServer;
};

class StateServer::Session : public ITARNServer {
public:
    Session(int id, TARNConnection* connection, const std::string& peer, EventQueue& queue)
        : m_id(id), m_pConnection(connection), m_peer(peer), m_gate(queue) {}
    virtual ~Session() = default;

    void onSubscribe(const std::string& name) override {
        Event event = make(EventKind::Subscribe);
        event.name = name;
        m_gate.push(event);
    }
    void onUnsubscribe(const std::string& name) override {
        Event event = make(EventKind::Unsubscribe);
        event.name = name;
        m_gate.push(event);
    }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override {
        Event event = make(EventKind::Call);
        event.name = name;
        event.params = listEntries(params);
        m_gate.push(event);
    }
    void onStatusChanged(EConnStatus status) override {
        if (status == eConnected) {
            Event event = make(EventKind::Connected);
            event.peer = m_peer;
            m_gate.open(event);
        } else {
            m_gate.push(make(EventKind::Disconnected));
        }
    }

    // Waits for the receive thread's last act (see EventGate) before the connection is deleted.
    void waitDisconnected() { m_gate.waitDisconnected(kDisconnectWaitMs); }

    const int m_id;
    TARNConnection* const m_pConnection;  // owned by the StateServer
    const std::string m_peer;
    std::set<std::string> m_subscriptions;  // main thread only

private:
    Event make(EventKind kind) const {
        Event event;
        event.kind = kind;
        event.source = m_id;
        return event;
    }

    EventGate m_gate;
};

StateServer::StateServer(ETransport kind, EventQueue& queue) : m_kind(kind), m_queue(queue) {}

StateServer::~StateServer() {
    stop();
}

StateServer::ListenResult StateServer::listen(const std::string& address, std::uint16_t port) {
    const sal::HostAddress host(address);
    if (!host.isValid()) {
        return ListenResult::BadAddress;
    }
    m_address = host.getAddressString();
    if (!canBind(m_kind, host, port)) {
        return ListenResult::Unavailable;
    }
    m_pListener = new TARNListener(m_kind);
    m_pListener->listen(m_address, port, new Connector(this));
    // The listener binds on its own thread; wait for the port it got.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (m_pListener->getLocalPort() == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            return ListenResult::Unavailable;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return ListenResult::Listening;
}

std::uint16_t StateServer::port() const {
    return m_pListener ? m_pListener->getLocalPort() : 0;
}

void StateServer::adopt(TARNConnection* connection) {
    const std::string peer = connection->getPeerAddress() + ":" + std::to_string(connection->getPeerPort());
    std::lock_guard<std::mutex> lock(m_mutex);
    const int id = m_nextId++;
    std::unique_ptr<Session> session(new Session(id, connection, peer, m_queue));
    // Attached before the listener starts the connection: every command from the first packet on,
    // and the connected status, reach the session.
    connection->setServer(session.get());
    m_sessions[id] = std::move(session);
}

StateServer::Session* StateServer::find(int id) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_sessions.find(id);
    return it == m_sessions.end() ? nullptr : it->second.get();
}

void StateServer::reap(int id) {
    std::unique_ptr<Session> session;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_sessions.find(id);
        if (it == m_sessions.end()) {
            return;
        }
        session = std::move(it->second);
        m_sessions.erase(it);
    }
    // The connection goes first: deleting it joins its receive thread, the session's only caller.
    // The Disconnected event being handled here has already come from that thread.
    session->m_pConnection->disconnect();
    delete session->m_pConnection;
}

StateServer::Reply StateServer::handle(const Event& event) {
    Reply reply;
    Session* const session = find(event.source);
    if (!session) {
        return reply;
    }
    switch (event.kind) {
        case EventKind::Subscribe: {
            session->m_subscriptions.insert(event.name);
            const auto state = m_states.find(event.name);
            if (state != m_states.end()) {
                reply.sentState = true;
                reply.value = state->second;
                reply.sendOk = session->m_pConnection->updateState(event.name, state->second);
            }
            break;
        }
        case EventKind::Unsubscribe:
            session->m_subscriptions.erase(event.name);
            break;
        case EventKind::Disconnected:
            reap(event.source);
            break;
        default:
            break;
    }
    return reply;
}

StateServer::Delivery StateServer::sendToSubscribers(const std::string& name, const ParameterValue& value,
                                                     bool isTrigger) {
    std::vector<Session*> targets;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& entry : m_sessions) {
            if (entry.second->m_subscriptions.count(name) != 0) {
                targets.push_back(entry.second.get());
            }
        }
    }
    // Sent outside the lock: a send may wait for room in a transport, and the listener thread must
    // not wait behind it. Only this thread deletes sessions, so the pointers stay valid.
    Delivery delivery;
    for (Session* session : targets) {
        const bool ok = isTrigger ? session->m_pConnection->trigger(name, value)
                                  : session->m_pConnection->updateState(name, value);
        if (ok) {
            ++delivery.sent;
        } else {
            delivery.failed.push_back(session->m_id);
        }
    }
    return delivery;
}

StateServer::Delivery StateServer::set(const std::string& name, const ParameterValue& value) {
    m_states[name] = value;
    return sendToSubscribers(name, value, false);
}

StateServer::Delivery StateServer::trigger(const std::string& name, const ParameterValue& value) {
    return sendToSubscribers(name, value, true);
}

std::vector<StateServer::StateInfo> StateServer::states() const {
    std::vector<StateInfo> out;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& state : m_states) {
        StateInfo info;
        info.name = state.first;
        info.value = state.second;
        for (const auto& entry : m_sessions) {
            if (entry.second->m_subscriptions.count(state.first) != 0) {
                info.subscribers.push_back(entry.first);
            }
        }
        out.push_back(info);
    }
    return out;
}

std::vector<StateServer::ConnectionInfo> StateServer::connections() const {
    std::vector<ConnectionInfo> out;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& entry : m_sessions) {
        ConnectionInfo info;
        info.id = entry.first;
        info.peer = entry.second->m_peer;
        info.subscriptions.assign(entry.second->m_subscriptions.begin(), entry.second->m_subscriptions.end());
        out.push_back(info);
    }
    return out;
}

TARNConnection* StateServer::connection(int id) const {
    Session* const session = find(id);
    return session ? session->m_pConnection : nullptr;
}

void StateServer::stop() {
    // Deleting the listener waits for its thread; after that no connection is handed over.
    delete m_pListener;
    m_pListener = nullptr;
    std::map<int, std::unique_ptr<Session>> sessions;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        sessions.swap(m_sessions);
    }
    for (auto& entry : sessions) {
        entry.second->m_pConnection->disconnect();
    }
    for (auto& entry : sessions) {
        entry.second->waitDisconnected();
        delete entry.second->m_pConnection;
    }
}

}  // namespace tarncli
