// The client side of the tool: one TARNConnection to a server, with its ITARNClient callbacks
// turned into events on the main thread's queue.
//
// Ownership: the session owns its connection (and through it the transport, which the session
// creates itself so that an EUDP transport's modes can be shown). A failed connect leaves the
// connection behind unused; the next connect() replaces it with a fresh one. close() disconnects
// and then deletes the connection, whose destructor waits for its receive thread; it runs on the
// main thread only, never from a callback. The destructor closes first.
//
// Threads: connect, close and the accessors on the main thread; the callbacks on the connection's
// receive thread, where they only push events.
#ifndef TARN_TOOLS_CLIENT_H
#define TARN_TOOLS_CLIENT_H

#include <atomic>
#include <cstdint>
#include <string>

#include <eudptransport.h>
#include <tarnconnection.h>

#include "events.h"

namespace tarncli {

const char* transportName(ETransport kind);

class ClientSession : public ITARNClient {
public:
    enum class ConnectResult { Connected, UnknownHost, Refused, TimedOut };

    ClientSession(ETransport kind, EventQueue& queue, int id = 0);
    virtual ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    // EUDP only: the modes this side agrees to when the server asks; kept for every connect.
    void allowModes(bool sendRealtime, bool sendReliable, bool receiveRealtime, bool receiveReliable);
    // EUDP only: hardened mode for every connect (eudphardening.h).
    void setHardening(const EUDPHardening& hardening) {
        m_hardening = hardening;
        if (m_pEudp != nullptr) {
            m_pEudp->setHardening(hardening);
        }
    }

    // Resolves the host first, so that a name that does not resolve is told apart from a server
    // that does not answer. On success the Connected event is queued before this returns. May be
    // called again after a failure.
    ConnectResult connect(const std::string& host, std::uint16_t port);

    // A one-line reason for a failed connect: "unknown host 'x'", "cannot connect to ...: why".
    std::string describe(ConnectResult result, const std::string& host, std::uint16_t port) const;

    TARNConnection* connection() { return m_pConnection; }
    // The EUDP transport, to read its modes and window; null over TCP or once closed.
    EUDPTransport* eudp() { return m_pEudp; }
    ETransport kind() const { return m_kind; }
    int id() const { return m_id; }

    // Disconnects and deletes the connection; harmless twice. The Disconnected event of an open
    // connection (with EndReason::Local) is queued before this returns.
    void close();

    void onTrigger(const std::string& name, const ParameterValue& value) override;
    void onUpdateState(const std::string& name, const ParameterValue& value) override;
    void onStatusChanged(EConnStatus status) override;

private:
    Event make(EventKind kind) const;
    void createConnection();
    void deleteConnection();

    ETransport m_kind;
    EventQueue& m_queue;
    EventGate m_gate;
    int m_id;
    std::string m_peer;
    TARNConnection* m_pConnection = nullptr;
    EUDPTransport* m_pEudp = nullptr;  // owned by m_pConnection
    ITARNTransport* m_pTls = nullptr;  // owned by m_pConnection; --tls only
    std::string m_tlsHost;             // the host the TLS transport checks the server against
    bool m_bConnected = false;
    bool m_bTried = false;
    bool m_allow[4] = {true, true, true, true};  // send realtime, send reliable, receive ...
    EUDPHardening m_hardening;
    std::atomic<bool> m_bClosing{false};  // close() has begun: an end now is this side's
};

}  // namespace tarncli

#endif  // TARN_TOOLS_CLIENT_H
