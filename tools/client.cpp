#include "client.h"

#include <chrono>
#include <thread>

#include <sal/hostaddress.h>

namespace tarncli {

namespace {

// How long close() waits for the receive thread to report its end after disconnect(); it comes at
// once unless the machine is badly overloaded.
const int kDisconnectWaitMs = 10000;

}  // namespace

const char* transportName(ETransport kind) {
    return kind == eTransportEUDP ? "eudp" : "tcp";
}

ClientSession::ClientSession(ETransport kind, EventQueue& queue, int id)
    : m_kind(kind), m_queue(queue), m_gate(queue), m_id(id), m_pConnection(nullptr), m_pEudp(nullptr) {
    if (kind == eTransportEUDP) {
        // The session makes the transport itself so that it can read the modes the peers agreed.
        m_pEudp = new EUDPTransport();
        m_pConnection = new TARNConnection(m_pEudp);
    } else {
        m_pConnection = new TARNConnection(eTransportTCP);
    }
}

ClientSession::~ClientSession() {
    close();
}

void ClientSession::allowModes(bool sendRealtime, bool sendReliable, bool receiveRealtime,
                               bool receiveReliable) {
    if (m_pEudp) {
        m_pEudp->allowSendMode(sendRealtime, sendReliable);
        m_pEudp->allowReceiveMode(receiveRealtime, receiveReliable);
    }
}

ClientSession::ConnectResult ClientSession::connect(const std::string& host, std::uint16_t port) {
    const sal::HostAddress address(host);
    if (!address.isValid()) {
        return ConnectResult::UnknownHost;
    }
    m_peer = address.getAddressString() + ":" + std::to_string(port);
    if (!m_pConnection->connect(address.getAddressString(), port, this)) {
        return m_kind == eTransportTCP ? ConnectResult::Refused : ConnectResult::TimedOut;
    }
    m_bConnected = true;
    return ConnectResult::Connected;
}

std::string ClientSession::describe(ConnectResult result, const std::string& host, std::uint16_t port) const {
    const std::string where = host + ":" + std::to_string(port) + " over " + transportName(m_kind);
    switch (result) {
        case ConnectResult::UnknownHost:
            return "unknown host '" + host + "'";
        case ConnectResult::Refused:
            return "cannot connect to " + where + ": connection refused";
        case ConnectResult::TimedOut:
            return "cannot connect to " + where + ": no answer within 5 s (timed out)";
        default:
            return "connected to " + where;
    }
}

void ClientSession::close() {
    if (!m_pConnection) {
        return;
    }
    if (m_bConnected && m_pEudp && !m_pEudp->isClosed()) {
        // EUDP data leaves from the transport's sender thread while the disconnect's DIS leaves at
        // once from this one; a short pause lets the last messages out first.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    m_pConnection->disconnect();
    if (m_bConnected) {
        // The receive thread reports eDisconnected as the last thing it does; only then may the
        // connection (which deletes the transport before it joins that thread) go.
        m_gate.waitDisconnected(kDisconnectWaitMs);
    }
    delete m_pConnection;  // joins the receive thread: no callback runs after this
    m_pConnection = nullptr;
    m_pEudp = nullptr;
}

Event ClientSession::make(EventKind kind) const {
    Event event;
    event.kind = kind;
    event.source = m_id;
    return event;
}

void ClientSession::onTrigger(const std::string& name, const ParameterValue& value) {
    Event event = make(EventKind::Trigger);
    event.name = name;
    event.value = value;
    m_gate.push(event);
}

void ClientSession::onUpdateState(const std::string& name, const ParameterValue& value) {
    Event event = make(EventKind::Update);
    event.name = name;
    event.value = value;
    m_gate.push(event);
}

void ClientSession::onStatusChanged(EConnStatus status) {
    if (status == eConnected) {
        Event event = make(EventKind::Connected);
        event.peer = m_peer;
        m_gate.open(event);
    } else {
        m_gate.push(make(EventKind::Disconnected));
    }
}

}  // namespace tarncli
