#include "clientcore.h"

#include <chrono>

#include <eudptransport.h>
#include <tcptransport.h>

namespace tarnpy {

namespace {

// How long close() waits for the receive loop to end after the transport was closed under it. The
// loop only pushes to a queue, so it ends at once; the limit only guards against a stuck link.
const auto kLoopEndWait = std::chrono::seconds(10);

}  // namespace

ClientCore::ClientCore(bool tcp, std::size_t queueLimit) : m_tcp(tcp), m_queue(queueLimit) {}

ClientCore::~ClientCore() = default;

bool ClientCore::connect(const std::string& host, std::uint16_t port, const Allowed& allowed) {
    ITARNTransport* transport = nullptr;
    if (m_tcp) {
        transport = new TCPTransport();
    } else {
        transport = new EUDPTransport();
        transport->allowSendMode(allowed.sendRealtime, allowed.sendReliable);
        transport->allowReceiveMode(allowed.receiveRealtime, allowed.receiveReliable);
    }
    auto* box = new ConnBox;
    box->transport = transport;
    box->connection = new TARNConnection(transport);
    box->keepAlive = shared_from_this();
    ConnRef connection = adoptConnection(box);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connection = connection;
    }
    // Both are set before connecting: the loop may end (and say so) before connect() returns.
    m_connected = true;
    {
        std::lock_guard<std::mutex> lock(m_loopMutex);
        m_loopRunning = true;
    }
    if (box->connection->connect(host, port, this)) {
        return true;
    }
    m_connected = false;
    {
        std::lock_guard<std::mutex> lock(m_loopMutex);
        m_loopRunning = false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connection.reset();
    }
    m_queue.close();
    return false;
}

ConnRef ClientCore::reference() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connection;
}

bool ClientCore::send(Command command, const std::string& name, const ParameterList* params) {
    ConnRef connection = reference();
    if (!connection) {
        return false;
    }
    switch (command) {
        case Command::Subscribe:
            return connection->connection->subscribe(name);
        case Command::Unsubscribe:
            return connection->connection->unsubscribe(name);
        case Command::Call:
            return connection->connection->callFunctionId(name, *params);
    }
    return false;
}

bool ClientCore::setSendMode(EConnMode mode) {
    ConnRef connection = reference();
    return connection && connection->connection->setSendMode(mode);
}

bool ClientCore::setReceiveMode(EConnMode mode) {
    ConnRef connection = reference();
    return connection && connection->connection->setReceiveMode(mode);
}

bool ClientCore::setWindowSize(unsigned int size) {
    ConnRef connection = reference();
    return connection && connection->connection->setWindowSize(size);
}

void ClientCore::close() {
    ConnRef connection;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        connection.swap(m_connection);
    }
    if (!connection) {
        return;
    }
    m_connected = false;
    m_queue.close();
    // Closing the transport makes the blocked receive return, so the loop ends now rather than after
    // the connection's own pauses; the reaper then disconnects and deletes it.
    connection->transport->disconnect();
    {
        std::unique_lock<std::mutex> lock(m_loopMutex);
        m_loopEnded.wait_for(lock, kLoopEndWait, [this] { return !m_loopRunning; });
    }
    connection.reset();
}

std::uint16_t ClientCore::localPort() {
    ConnRef connection = reference();
    return connection ? connection->connection->getLocalPort() : 0;
}

std::string ClientCore::peer() {
    ConnRef connection = reference();
    if (!connection) {
        return std::string();
    }
    return connection->connection->getPeerAddress() + ":" +
           std::to_string(connection->connection->getPeerPort());
}

void ClientCore::onTrigger(const std::string& name, const ParameterValue& value) {
    ClientEvent event;
    event.kind = ClientEvent::Trigger;
    event.name = name;
    event.value = value;
    m_queue.push(std::move(event));
}

void ClientCore::onUpdateState(const std::string& name, const ParameterValue& value) {
    ClientEvent event;
    event.kind = ClientEvent::Update;
    event.name = name;
    event.value = value;
    m_queue.push(std::move(event));
}

void ClientCore::onStatusChanged(EConnStatus status) {
    if (status != eDisconnected) {
        return;
    }
    m_connected = false;
    ClientEvent event;
    event.kind = ClientEvent::Disconnected;
    m_queue.push(std::move(event));  // refused when the application closed the client itself
    m_queue.close();
    std::lock_guard<std::mutex> lock(m_loopMutex);
    m_loopRunning = false;
    m_loopEnded.notify_all();
}

}  // namespace tarnpy
