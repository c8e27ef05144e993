// The server side of TARN over TLS: TARNListener's accept loop running on a listening TLSTransport.
// Each peer whose handshake succeeded becomes a TARNConnection, handed to the application's
// ITARNConnector before it starts, exactly as with TARNListener; peers whose handshake fails
// (plaintext, wrong or missing certificate, garbage, too slow) are logged and never reach it.
//
// In onNewConnection, TLSTransport::of(connection) gives the connection's TLS transport, whose
// getPeerSubject() names the client certificate's subject when client certificates are required.
//
// Ownership: the listener owns its listening transport and the connector it was given (deleted
// with it); connections handed out belong to the application. Threads: listen, shutdown and the
// destructor on the application's thread; onNewConnection on the listener's accept thread.
#ifndef TARN_TLSLISTENER_H
#define TARN_TLSLISTENER_H

#include <memory>
#include <string>

#include <tarn_tls_export.h>
#include <tarnlistener.h>
#include <tlstransport.h>

class TARN_TLS_EXPORT TLSListener {
public:
    explicit TLSListener(const TLSConfig& config);
    ~TLSListener();  // shuts down, then deletes the connector and the listening transport
    TLSListener(const TLSListener&) = delete;
    TLSListener& operator=(const TLSListener&) = delete;

    // Loads the certificate and key, binds `address`:`port` (port 0: the system chooses) and starts
    // accepting; getLocalPort() answers at once. False, with a log line, when the configuration
    // cannot be loaded, the address cannot be bound or the listener is already accepting; then the
    // connector stays the caller's. On true the listener takes the connector.
    bool listen(const std::string& address, uint16 port, ITARNConnector* connector);
    // Stops accepting and closes the listening socket, waiting up to `timeout` ms for the accept
    // thread (-1: no limit). Connections already handed out run on.
    bool shutdown(int timeout);
    uint16 getLocalPort() const;

private:
    TLSConfig m_config;
    std::unique_ptr<TLSTransport> m_pTransport;  // declared before the listener: deleted after it
    std::unique_ptr<TARNListener> m_pListener;
    bool m_bListening = false;
};

#endif  // TARN_TLSLISTENER_H
