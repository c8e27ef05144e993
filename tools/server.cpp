#include "server.h"

#include <chrono>

#include <sal/hostaddress.h>
#include <tcptransport.h>

#include "tls_options.h"
#include "values.h"

namespace tarncli {

namespace {

// After a failed accept that left the listening transport open (out of descriptors, say), the
// accept thread waits this long before it tries again, so that it does not spin.
const int kAcceptRetryMs = 100;

}  // namespace

class StateServer::Session : public ITARNServer {
public:
    Session(int id, TARNConnection* connection, EUDPTransport* eudp, const std::string& peer,
            EventQueue& queue)
        : m_id(id), m_pConnection(connection), m_pEudp(eudp), m_peer(peer), m_gate(queue) {}
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
            return;
        }
        Event event = make(EventKind::Disconnected);
        if (m_bClosing) {
            event.end = EndReason::Local;
        } else if (m_pEudp && m_pEudp->hasTimedOut()) {
            event.end = EndReason::Lost;
        } else {
            event.end = EndReason::Closed;
        }
        m_gate.push(event);
    }

    const int m_id;
    TARNConnection* const m_pConnection;  // owned by m_connections
    EUDPTransport* const m_pEudp;         // owned by m_pConnection; null over TCP
    const std::string m_peer;
    std::set<std::string> m_subscriptions;  // main thread only
    std::atomic<bool> m_bClosing{false};    // this side is ending the connection

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

void StateServer::allowModes(bool sendRealtime, bool sendReliable, bool receiveRealtime,
                             bool receiveReliable) {
    m_allow[0] = sendRealtime;
    m_allow[1] = sendReliable;
    m_allow[2] = receiveRealtime;
    m_allow[3] = receiveReliable;
}

StateServer::ListenResult StateServer::listen(const std::string& address, std::uint16_t port) {
    const sal::HostAddress host(address);
    if (!host.isValid()) {
        return ListenResult::BadAddress;
    }
    m_address = host.getAddressString();
    ITARNTransport* listening = nullptr;
    if (m_kind == eTransportEUDP) {
        EUDPTransport* eudp = new EUDPTransport();
        eudp->setHardening(m_hardening);
        // In force before each accepted transport's receiver starts: a mode request right after
        // the handshake already meets them.
        eudp->allowAcceptedSendMode(m_allow[0], m_allow[1]);
        eudp->allowAcceptedReceiveMode(m_allow[2], m_allow[3]);
        listening = eudp;
    } else if (m_kind == kTransportTls) {
        listening = newTlsListeningTransport();
    } else {
        listening = new TCPTransport();
    }
    if (!listening->listen(host, port)) {
        delete listening;
        return ListenResult::Unavailable;
    }
    m_pListening = listening;
    m_acceptor = std::thread(&StateServer::acceptLoop, this);
    return ListenResult::Listening;
}

TARNListenerStatistics StateServer::listenerStatistics() const {
    TARNListenerStatistics out;
    if (m_kind == eTransportEUDP && m_pListening) {
        out = static_cast<const EUDPTransport*>(m_pListening)->getListenerStatistics();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    out.accepted = static_cast<std::uint64_t>(m_nextId - 1);
    out.live = static_cast<std::uint32_t>(m_sessions.size());
    return out;
}

std::uint16_t StateServer::port() const {
    return m_pListening ? m_pListening->getLocalPort() : 0;
}

void StateServer::acceptLoop() {
    for (;;) {
        ITARNTransport* const accepted = m_pListening->accept();
        if (m_bStopping.load()) {
            delete accepted;  // a peer accepted at this moment is dropped unused
            return;
        }
        if (accepted == nullptr) {
            return;  // the listening transport failed for good
        }
        // A TCP accept that failed hands out a transport without a socket, which has no port.
        if (m_kind == eTransportTCP && accepted->getLocalPort() == 0) {
            delete accepted;
            std::this_thread::sleep_for(std::chrono::milliseconds(kAcceptRetryMs));
            continue;
        }
        adopt(accepted);
    }
}

void StateServer::adopt(ITARNTransport* transport) {
    EUDPTransport* const eudp = m_kind == eTransportEUDP ? static_cast<EUDPTransport*>(transport) : nullptr;
    TARNConnection* const connection = new TARNConnection(transport);
    const std::string peer = hostPort(connection->getPeerAddress(), connection->getPeerPort());
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const int id = m_nextId++;
        Session* const session = new Session(id, connection, eudp, peer, m_queue);
        // Attached before the connection starts: every command from the first packet on, and the
        // connected status, reach the session. The set deletes the session after its connection.
        m_connections.add(connection, session, true);
        m_sessions[id] = session;
    }
    connection->start();
    connection->updateStatus(eConnected);
}

StateServer::Session* StateServer::find(int id) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_sessions.find(id);
    return it == m_sessions.end() ? nullptr : it->second;
}

void StateServer::reap(int id) {
    TARNConnection* connection = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_sessions.find(id);
        if (it == m_sessions.end()) {
            return;
        }
        connection = it->second->m_pConnection;
        m_sessions.erase(it);
    }
    // The connection's receive thread has ended (its Disconnected event is being handled); the
    // deletion still waits a while, so it runs beside the main thread.
    m_closing.push_back(
        std::async(std::launch::async, [this, connection] { m_connections.close(connection); }));
    m_closing.remove_if([](const std::future<void>& closing) {
        return closing.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
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
                targets.push_back(entry.second);
            }
        }
    }
    // Sent outside the lock: a send may wait for room in a transport, and the accept thread must
    // not wait behind it. Only this thread removes sessions, so the pointers stay valid.
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

std::size_t StateServer::connectionCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sessions.size();
}

TARNConnection* StateServer::connection(int id) const {
    Session* const session = find(id);
    return session ? session->m_pConnection : nullptr;
}

EUDPTransport* StateServer::eudp(int id) const {
    Session* const session = find(id);
    return session ? session->m_pEudp : nullptr;
}

void StateServer::stop() {
    m_bStopping = true;
    if (m_pListening) {
        m_pListening->disconnect();  // a blocked accept comes back
        m_acceptor.join();
        delete m_pListening;
        m_pListening = nullptr;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& entry : m_sessions) {
            entry.second->m_bClosing = true;  // their Disconnected events tell this side ended them
        }
        m_sessions.clear();
    }
    m_connections.closeAll();
    for (std::future<void>& closing : m_closing) {
        closing.wait();
    }
    m_closing.clear();
}

}  // namespace tarncli
