// TARN over TLS: a transport that carries TARN's TCP framing (a 2-byte little-endian length, then the
// message) inside a TLS session, so that only trusted peers get in and nobody on the path reads or
// alters the traffic. Part of libtarn_tls (CMake target tarn::tls, pkg-config module tarn-tls);
// libtarn itself knows nothing of it and is used through ITARNTransport as it is.
//
// A client builds a TLSTransport from a TLSConfig and hands it to a TARNConnection, which owns it
// from then on; connect() returns once the handshake has succeeded. A server uses TLSListener
// (tlslistener.h), which runs TARNListener's accept loop on a listening TLSTransport.
//
// Ownership: whoever creates a transport owns it; accept() hands a new, connected transport (its
// handshake done) to its caller. Threads: as for every ITARNTransport, one thread receives while
// any number of threads send; disconnect() may be called from any thread and wakes a blocked
// accept() or receiveData(). Nothing here throws; failures are results plus log lines in the
// category "TARN", beginning "TARN/TLS: ", with OpenSSL's own reason.
#ifndef TARN_TLSTRANSPORT_H
#define TARN_TLSTRANSPORT_H

#include <memory>
#include <string>
#include <vector>

#include <itarntransport.h>
#include <tarn_tls_export.h>

class TARNConnection;

// What a TLS end presents and whom it trusts. PEM text in memory is used instead of the file of the
// same role when it is not empty.
struct TARN_TLS_EXPORT TLSConfig {
    // This end's certificate chain (its own certificate first) and private key. A server needs
    // them; a client needs them only for a server that requires client certificates.
    std::string certFile;
    std::string keyFile;
    std::string certPem;
    std::string keyPem;

    // The CA certificates trusted to have signed the peer's certificate: files, and PEM text that
    // may hold several. With none given, the system's default trust store is used.
    std::vector<std::string> caFiles;
    std::string caPem;

    // Client: the name the server's certificate must carry (also sent as SNI). Empty: the address
    // connected to, checked against the certificate's IP addresses. An IP literal is checked as an
    // address.
    std::string serverName;
    // Client: check that name (on by default). Off, any certificate from a trusted CA is accepted.
    bool verifyHostName = true;

    // Server: ask every client for a certificate and refuse those without one from a trusted CA.
    bool requireClientCert = false;

    // Accept any peer certificate without checking it (and no host name). For tests only: the link
    // is encrypted but anyone in the middle can read it.
    bool insecure = false;

    // TLS 1.3 only, unless this allows TLS 1.2 as well.
    bool allowTls12 = false;

    // How long a handshake may take before the connection is given up, in milliseconds.
    int handshakeTimeoutMs = 10000;
};

// A TLS link that carries TARN messages (see the top of this file). A listening one (listen) runs
// handshakes on a thread of its own, so that one slow or hostile peer never holds up the others;
// accept() hands out only links whose handshake succeeded.
class TARN_TLS_EXPORT TLSTransport : public ITARNTransport {
public:
    explicit TLSTransport(const TLSConfig& config);
    ~TLSTransport() override;
    TLSTransport(const TLSTransport&) = delete;
    TLSTransport& operator=(const TLSTransport&) = delete;

    // No window: false.
    bool setWindowSize(uint windowSize) override;
    // Binds, listens and starts the handshake thread; false (and a log line) when the address cannot
    // be bound or the certificate, key or CAs cannot be loaded.
    bool listen(const sal::HostAddress& address, uint16 port) override;
    // The next peer whose handshake succeeded; null once disconnected. Failed handshakes are logged
    // and never show here.
    ITARNTransport* accept() override;
    void allowSendMode(bool realtime, bool reliable) override;     // one mode: ignored
    void allowReceiveMode(bool realtime, bool reliable) override;  // one mode: ignored
    bool setSendMode(EConnMode mode) override;                     // true for eReliable only
    bool setReceiveMode(EConnMode mode) override;                  // true for eReliable only
    // Connects over TCP and completes the handshake within the time-out; false, with OpenSSL's
    // reason in the log, when either fails. A disconnected transport may connect again.
    bool connect(const sal::HostAddress& address, uint16 port) override;
    // Sends close_notify when it can and closes the link; wakes a blocked accept or receiveData.
    void disconnect() override;
    // One message, framed as over TCP (only the low 16 bits of `length` count); whole or not at all.
    bool sendData(const uint8* data, uint length) override;
    // As TCPTransport: the message's length; 0 once closed (by the peer or disconnect); -1 when the
    // next message is longer than `bufferSize` (it stays waiting); -2 on a TLS error.
    int receiveData(uint8* buffer, uint bufferSize) override;
    sal::HostAddress getPeerAddress() const override;
    uint16 getPeerPort() const override;
    uint16 getLocalPort() const override;

    // After the handshake: the peer certificate's subject in one line ("CN=client,O=Example"),
    // "" when the peer sent none.
    std::string getPeerSubject() const;
    // After the handshake: the protocol ("TLSv1.3") and cipher suite agreed.
    std::string getProtocol() const;
    std::string getCipher() const;
    // Why the last connect or listen failed (the text of its log line after the peer), "" after a
    // success.
    std::string getLastError() const;

    // The TLS transport under a connection that a TLSListener handed to its connector, for as long
    // as that connection lives; null for any other connection.
    static TLSTransport* of(const TARNConnection* connection);

    struct Impl;

private:
    explicit TLSTransport(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_pImpl;
};

// A throw-away identity for demonstrations and tests: a new P-256 key and a self-signed certificate
// for "localhost" and 127.0.0.1, valid for a day, as PEM text. A client trusts it by taking the
// certificate as its CA (TLSConfig::caPem). False when OpenSSL cannot make them.
TARN_TLS_EXPORT bool makeSelfSignedCertificate(std::string& certPem, std::string& keyPem);

#endif  // TARN_TLSTRANSPORT_H
