#include "client.h"

#include <sal/hostaddress.h>

#include "tls_options.h"
#include "values.h"

namespace tarncli {

namespace {

// The longest close() waits for an EUDP send ring to empty before the DIS goes out; a peer that
// no longer acknowledges costs no more than this.
const int kDrainBeforeCloseMs = 1000;

}  // namespace

const char* transportName(ETransport kind) {
    return kind == eTransportEUDP ? "eudp" : (kind == kTransportTls ? "tls" : "tcp");
}

ClientSession::ClientSession(ETransport kind, EventQueue& queue, int id)
    : m_kind(kind), m_queue(queue), m_gate(queue), m_id(id) {
    createConnection();
}

ClientSession::~ClientSession() {
    close();
}

void ClientSession::createConnection() {
    if (m_kind == eTransportEUDP) {
        // The session makes the transport itself so that it can read the modes the peers agreed.
        m_pEudp = new EUDPTransport();
        m_pEudp->allowSendMode(m_allow[0], m_allow[1]);
        m_pEudp->allowReceiveMode(m_allow[2], m_allow[3]);
        m_pEudp->setHardening(m_hardening);
        m_pConnection = new TARNConnection(m_pEudp);
    } else if (m_kind == kTransportTls) {
        m_pTls = newTlsClientTransport(m_tlsHost);
        m_pConnection = new TARNConnection(m_pTls);
    } else {
        m_pConnection = new TARNConnection(eTransportTCP);
    }
}

void ClientSession::deleteConnection() {
    m_pConnection->disconnect();
    // The destructor waits for the receive thread, which has reported eDisconnected by then.
    delete m_pConnection;
    m_pConnection = nullptr;
    m_pEudp = nullptr;
    m_pTls = nullptr;
}

void ClientSession::allowModes(bool sendRealtime, bool sendReliable, bool receiveRealtime,
                               bool receiveReliable) {
    m_allow[0] = sendRealtime;
    m_allow[1] = sendReliable;
    m_allow[2] = receiveRealtime;
    m_allow[3] = receiveReliable;
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
    if (m_kind == kTransportTls && host != m_tlsHost && !m_bConnected) {
        // The server's certificate is checked against the host as written: a fresh transport.
        m_tlsHost = host;
        deleteConnection();
        createConnection();
    }
    if (m_bTried && !m_bConnected && m_pConnection) {
        // A connection whose connect failed runs nothing; a fresh one makes the next try.
        deleteConnection();
        createConnection();
    }
    m_bTried = true;
    m_peer = hostPort(address.getAddressString(), port);
    if (!m_pConnection->connect(address.getAddressString(), port, this)) {
        return m_kind == eTransportTCP ? ConnectResult::Refused : ConnectResult::TimedOut;
    }
    m_bConnected = true;
    return ConnectResult::Connected;
}

std::string ClientSession::describe(ConnectResult result, const std::string& host, std::uint16_t port) const {
    const std::string where = hostPort(host, port) + " over " + transportName(m_kind);
    if (m_kind == kTransportTls && result != ConnectResult::Connected &&
        result != ConnectResult::UnknownHost) {
        return "cannot connect to " + where + ": " + tlsConnectError(m_pTls);
    }
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
    m_bClosing = true;
    if (m_bConnected && m_pEudp && !m_pEudp->isClosed()) {
        // EUDP data leaves from the transport's sender thread while the disconnect's DIS leaves at
        // once from this one: the last messages go out (reliable: are acknowledged) first.
        m_pEudp->waitUntilSent(kDrainBeforeCloseMs);
    }
    deleteConnection();
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

}  // namespace tarncli
