#include "servercore.h"

namespace tarnpy {

class Session;

// What the listener's connector, the sessions and the ServerCore share.
class ServerHub : public std::enable_shared_from_this<ServerHub> {
public:
    explicit ServerHub(std::size_t queueLimit) : m_queue(queueLimit) {}

    void adopt(TARNConnection* connection);  // listener thread
    void finish(int id);                     // once a connection has ended
    std::vector<std::shared_ptr<Session>> takeAll();

    std::vector<std::shared_ptr<Session>> targets(const std::string& name, int only);

    mutable std::mutex m_mutex;  // guards everything below but the queue
    std::map<int, std::shared_ptr<Session>> m_sessions;
    std::map<std::string, ParameterValue> m_states;
    int m_nextId = 1;
    bool m_closed = false;
    EventQueue<ServerEvent> m_queue;
};

// One accepted connection: its server callbacks and its subscriptions.
class Session : public ITARNServer {
public:
    Session(const std::shared_ptr<ServerHub>& hub, int id, const std::string& peer)
        : m_hub(hub), m_id(id), m_peer(peer) {}

    void onSubscribe(const std::string& name) override;
    void onUnsubscribe(const std::string& name) override;
    void onCallFunctionId(const std::string& name, const ParameterList& params) override;
    void onStatusChanged(EConnStatus status) override;

    // Runs `send` on the connection under this session's send lock; false once the connection is gone.
    template <class Send>
    bool sendLocked(Send send) {
        std::lock_guard<std::mutex> lock(m_sendMutex);
        ConnRef connection;
        {
            std::lock_guard<std::mutex> hubLock(m_hub->m_mutex);
            connection = m_connection;
        }
        return connection && send(*connection->connection);
    }

    ServerEvent event(ServerEvent::Kind kind) const {
        ServerEvent e;
        e.kind = kind;
        e.connection = m_id;
        e.peer = m_peer;
        return e;
    }

    const std::shared_ptr<ServerHub> m_hub;
    const int m_id;
    const std::string m_peer;
    ConnRef m_connection;                // under the hub's lock; reset once the connection ended
    std::set<std::string> m_subscribed;  // under the hub's lock
    bool m_sawConnected = false;         // under the hub's lock
    bool m_sawDisconnected = false;      // under the hub's lock
    Handoff* m_pHandoff = nullptr;

private:
    std::mutex m_sendMutex;
};

namespace {

class Connector : public ITARNConnector {
public:
    explicit Connector(const std::shared_ptr<ServerHub>& hub) : m_hub(hub) {}
    void onNewConnection(TARNConnection* connection) override { m_hub->adopt(connection); }

private:
    std::shared_ptr<ServerHub> m_hub;
};

}  // namespace

void ServerHub::adopt(TARNConnection* connection) {
    const std::string peer = connection->getPeerAddress() + ":" + std::to_string(connection->getPeerPort());
    auto* box = new ConnBox(false);
    box->connection = connection;
    std::shared_ptr<Session> session;
    ConnRef unwanted;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        session = std::make_shared<Session>(shared_from_this(), m_nextId++, peer);
        box->keepAlive = session;
        session->m_pHandoff = &box->handoff;
        session->m_connection = adoptConnection(box);
        if (m_closed) {
            unwanted.swap(session->m_connection);  // the server closed meanwhile: let it go
        } else {
            m_sessions[session->m_id] = session;
        }
    }
    // Attached before the listener starts the connection, so that the session sees every command
    // from the first packet on, and eConnected, which completes the hand-over.
    connection->setServer(session.get());
    m_queue.push(session->event(ServerEvent::Connected));
}

void ServerHub::finish(int id) {
    ConnRef connection;
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_sessions.find(id);
    if (it == m_sessions.end()) {
        return;
    }
    connection.swap(it->second->m_connection);
    m_sessions.erase(it);
    // `connection` goes when the lock is released: the reaper disconnects and deletes it.
}

std::vector<std::shared_ptr<Session>> ServerHub::takeAll() {
    std::vector<std::shared_ptr<Session>> all;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = true;
    for (auto& entry : m_sessions) {
        all.push_back(entry.second);
    }
    m_sessions.clear();
    return all;
}

std::vector<std::shared_ptr<Session>> ServerHub::targets(const std::string& name, int only) {
    std::vector<std::shared_ptr<Session>> out;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& entry : m_sessions) {
        if (only != 0 ? entry.first == only : entry.second->m_subscribed.count(name) != 0) {
            out.push_back(entry.second);
        }
    }
    return out;
}

// The subscription is recorded, and the state sent, under the send lock and before the event is
// queued: whoever reads the event and then sets the state sends the only update after it.
void Session::onSubscribe(const std::string& name) {
    sendLocked([this, &name](TARNConnection& connection) {
        ParameterValue value;
        {
            std::lock_guard<std::mutex> lock(m_hub->m_mutex);
            m_subscribed.insert(name);
            auto it = m_hub->m_states.find(name);
            if (it == m_hub->m_states.end()) {
                return false;
            }
            value = it->second;
        }
        return connection.updateState(name, value);
    });
    ServerEvent e = event(ServerEvent::Subscribe);
    e.name = name;
    m_hub->m_queue.push(std::move(e));
}

void Session::onUnsubscribe(const std::string& name) {
    {
        std::lock_guard<std::mutex> lock(m_hub->m_mutex);
        m_subscribed.erase(name);
    }
    ServerEvent e = event(ServerEvent::Unsubscribe);
    e.name = name;
    m_hub->m_queue.push(std::move(e));
}

void Session::onCallFunctionId(const std::string& name, const ParameterList& params) {
    ServerEvent e = event(ServerEvent::Call);
    e.name = name;
    e.params = listEntries(params);
    m_hub->m_queue.push(std::move(e));
}

// A connection is done once it ended and the listener has also finished handing it over; the two
// reports can come in either order.
void Session::onStatusChanged(EConnStatus status) {
    bool done = false;
    {
        std::lock_guard<std::mutex> lock(m_hub->m_mutex);
        if (status == eConnected) {
            m_sawConnected = true;
        } else {
            m_sawDisconnected = true;
        }
        done = m_sawConnected && m_sawDisconnected;
    }
    if (status == eConnected) {
        m_pHandoff->complete();
    } else {
        m_hub->m_queue.push(event(ServerEvent::Disconnected));
    }
    if (done) {
        m_hub->finish(m_id);
    }
}

// ---- ServerCore ------------------------------------------------------------------------------------

ServerCore::ServerCore(bool tcp, std::size_t queueLimit)
    : m_tcp(tcp), m_hub(std::make_shared<ServerHub>(queueLimit)) {}

ServerCore::~ServerCore() {
    close();
}

EventQueue<ServerEvent>& ServerCore::queue() {
    return m_hub->m_queue;
}

bool ServerCore::listen(const std::string& host, std::uint16_t port, std::string& error) {
    if (!canBind(host, port, m_tcp, error)) {
        return false;
    }
    // Bound and listening before this returns, so a client may connect at once: the port that
    // listen() would report while its thread binds is not yet accepting.
    auto* listener = new TARNListener(m_tcp ? eTransportTCP : eTransportEUDP);
    auto* connector = new Connector(m_hub);
    if (!listener->bindAndListen(host, port, connector)) {
        delete connector;
        delete listener;
        error = "the address cannot be bound";
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_listenerMutex);
        m_pListener = listener;
    }
    m_port = listener->getLocalPort();
    return true;
}

int ServerCore::set(const std::string& name, const ParameterValue& value) {
    {
        std::lock_guard<std::mutex> lock(m_hub->m_mutex);
        m_hub->m_states[name] = value;
    }
    int sent = 0;
    for (auto& session : m_hub->targets(name, 0)) {
        const bool ok = session->sendLocked([this, &name](TARNConnection& connection) {
            ParameterValue current;
            {
                std::lock_guard<std::mutex> lock(m_hub->m_mutex);
                current = m_hub->m_states[name];
            }
            return connection.updateState(name, current);
        });
        sent += ok ? 1 : 0;
    }
    return sent;
}

int ServerCore::trigger(const std::string& name, const ParameterValue& value, int only) {
    int sent = 0;
    for (auto& session : m_hub->targets(name, only)) {
        const bool ok = session->sendLocked(
            [&name, &value](TARNConnection& connection) { return connection.trigger(name, value); });
        sent += ok ? 1 : 0;
    }
    return sent;
}

bool ServerCore::state(const std::string& name, ParameterValue& value) const {
    std::lock_guard<std::mutex> lock(m_hub->m_mutex);
    auto it = m_hub->m_states.find(name);
    if (it == m_hub->m_states.end()) {
        return false;
    }
    value = it->second;
    return true;
}

std::vector<std::pair<std::string, ParameterValue>> ServerCore::states() const {
    std::lock_guard<std::mutex> lock(m_hub->m_mutex);
    return std::vector<std::pair<std::string, ParameterValue>>(m_hub->m_states.begin(),
                                                               m_hub->m_states.end());
}

std::vector<ConnectionInfo> ServerCore::connections() const {
    std::vector<ConnectionInfo> out;
    std::lock_guard<std::mutex> lock(m_hub->m_mutex);
    for (auto& entry : m_hub->m_sessions) {
        ConnectionInfo info;
        info.id = entry.first;
        info.peer = entry.second->m_peer;
        info.subscriptions.assign(entry.second->m_subscribed.begin(), entry.second->m_subscribed.end());
        out.push_back(info);
    }
    return out;
}

void ServerCore::close() {
    TARNListener* listener = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_listenerMutex);
        std::swap(listener, m_pListener);
    }
    // Deleting the listener waits for its thread; after that no connection is handed over.
    delete listener;
    for (auto& session : m_hub->takeAll()) {
        ConnRef connection;
        std::lock_guard<std::mutex> lock(m_hub->m_mutex);
        connection.swap(session->m_connection);
    }
    m_hub->m_queue.close();
}

}  // namespace tarnpy
