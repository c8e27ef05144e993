// Helpers for the TLS suites: certificates made with the openssl command at test time, ready
// configurations, a TLS server that records its connections, and a child process with binary pipes
// (openssl s_server and s_client as peers we did not write).
#ifndef TARN_TESTS_TLS_TLSTESTSUPPORT_H
#define TARN_TESTS_TLS_TLSTESTSUPPORT_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <tarnconnection.h>
#include <tlslistener.h>
#include <tlstransport.h>

#include "childprocess.h"
#include "tcptestutil.h"
#include "testsupport.h"

namespace tlstest {

using testsupport::Bytes;

// Certificates and keys (PEM files) made by the openssl command in the build tree when the first
// suite needs them: a CA, a server certificate for localhost and 127.0.0.1, a client certificate,
// an expired server certificate, and a second CA with a server and a client certificate of its own.
struct Certs {
    std::string dir;
    std::string ca, caKey;
    std::string server, serverKey;
    std::string client, clientKey;
    std::string expired, expiredKey;
    std::string otherCa, otherCaKey;
    std::string otherServer, otherServerKey;
    std::string otherClient, otherClientKey;
};
// Made on the first call (a fatal test failure when openssl fails); the same afterwards.
const Certs& certs();

std::string readFile(const std::string& path);

// The server: the server certificate and key, trusting the CA for client certificates.
TLSConfig serverConfig();
// The client: trusting the CA, no certificate of its own, host name checked against 127.0.0.1.
TLSConfig clientConfig();
// The client with the client certificate.
TLSConfig clientConfigWithCert();

// A TLSListener on 127.0.0.1 whose connector keeps every connection with a RecordingServer on it
// (events "server#N ..."), and the peer subject TLSTransport::of gave inside onNewConnection.
class TlsServer {
public:
    explicit TlsServer(const TLSConfig& config);
    ~TlsServer();  // shuts down, disconnects and deletes every connection
    bool listening() const { return m_bListening; }
    std::uint16_t port() const { return m_listener.getLocalPort(); }
    testsupport::Events& events() { return m_events; }
    std::size_t count() const;
    TARNConnection* connection(std::size_t index) const;
    std::string subject(std::size_t index) const;
    // Waits until `n` connections were handed out and the listener has started each (eConnected):
    // only then may a test disconnect one.
    bool waitCount(std::size_t n, int timeoutMs) const;
    void shutdown() { m_listener.shutdown(-1); }

private:
    friend class RecordingConnector;
    testsupport::Events m_events;
    mutable std::mutex m_mutex;
    std::vector<TARNConnection*> m_connections;
    std::vector<std::unique_ptr<ITARNServer>> m_servers;
    std::vector<std::string> m_subjects;
    TLSListener m_listener;
    bool m_bListening;
};

// A TARN client connection over TLS with a RecordingClient ("client ..." events).
struct TlsClient {
    explicit TlsClient(const TLSConfig& config);
    ~TlsClient();
    bool connect(std::uint16_t port, const std::string& host = "127.0.0.1");
    testsupport::Events events;
    testsupport::RecordingClient client;
    TLSTransport* transport;  // owned by the connection
    TARNConnection connection;
};

// A child process (the toolkit's ChildProcess) whose standard input and output carry bytes rather
// than lines; standard error is kept apart.
class Child : public testsupport::ChildProcess {
public:
    explicit Child(const std::vector<std::string>& args) : testsupport::ChildProcess(args) {}
    bool write(const Bytes& bytes) { return sendRaw(std::string(bytes.begin(), bytes.end())); }
    // Exactly `count` bytes of standard output within `timeoutMs`.
    bool readExactly(Bytes& bytes, std::size_t count, int timeoutMs);
    std::string errors() { return errorsSoFar(); }  // standard error so far
};

}  // namespace tlstest

#endif  // TARN_TESTS_TLS_TLSTESTSUPPORT_H
