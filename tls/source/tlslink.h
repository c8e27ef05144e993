// One TLS session on a connected, non-blocking TCP socket: the handshake, taken a step at a time or
// run to the end within a time limit, then TARN's TCP framing inside the session.
//
// Threads: one thread receives while any number of threads send; every call into OpenSSL holds the
// session lock, and no thread holds it while it waits on the socket, so a receiver waiting for data
// never holds up a sender. close() from any thread wakes both.
#ifndef TARN_TLS_TLSLINK_H
#define TARN_TLS_TLSLINK_H

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sal/hostaddress.h>

#include "tlscontext.h"

namespace tarntls {

class TlsLink {
public:
    enum EStep { eDone, eWantRead, eWantWrite, eFailed };

    // A session on `fd` (connected, non-blocking), which the link owns and closes from then on.
    // Null, with the reason in `error`, when OpenSSL cannot make one; `fd` is closed then too.
    static std::unique_ptr<TlsLink> create(const std::shared_ptr<TlsContext>& context, int fd,
                                           std::string& error);
    ~TlsLink();
    TlsLink(const TlsLink&) = delete;
    TlsLink& operator=(const TlsLink&) = delete;

    // Client: the name or address the server's certificate must carry, and SNI for a name.
    bool expectServer(const std::string& nameOrAddress);

    // One step of the handshake; on eFailed `error` holds OpenSSL's reason.
    EStep handshakeStep(std::string& error);
    // Steps until done, failed, or `deadline` has passed; the failure then names `timeoutMs`, the
    // time the whole connect was given.
    bool runHandshake(std::chrono::steady_clock::time_point deadline, int timeoutMs, std::string& error);

    // Client, after the handshake: over TLS 1.3 a server checks the client's certificate only after
    // the client has finished, so a client that was asked for one waits up to `timeoutMs` for the
    // server's first ticket or data, or its refusal. False, with the reason, on a refusal.
    bool awaitServerVerdict(int timeoutMs, std::string& error);

    // Counts the server's session tickets (installed on client contexts).
    static int onNewSession(SSL* ssl, SSL_SESSION* session);

    // Sends bytes of the plaintext stream, all or nothing; false once the link failed or closed.
    bool send(const std::uint8_t* data, std::size_t length);
    // The TCP transport's receive: a whole message's length, 0 once closed, -1 when the message is
    // longer than `bufferSize` (it stays for the next call), -2 on a TLS error.
    int receive(std::uint8_t* buffer, unsigned bufferSize);
    // Sends close_notify when the socket takes it at once, then shuts the socket down. Harmless twice.
    void close();

    int fd() const { return m_fd; }
    const std::string& peerText() const { return m_peerText; }  // "127.0.0.1:41234", "[::1]:41234"
    const sal::HostAddress& peerAddress() const { return m_peerAddress; }
    std::uint16_t peerPort() const { return m_peerPort; }
    std::uint16_t localPort() const { return m_localPort; }
    std::string peerSubject() const;
    std::string protocol() const;
    std::string cipher() const;

private:
    TlsLink(const std::shared_ptr<TlsContext>& context, SSL* ssl, int fd);
    static const int kWantRead = -10;
    static const int kWantWrite = -11;
    static int onCertificateRequest(SSL* ssl, void* argument);

    // One non-blocking read into the input buffer: bytes read, 0 once closed, -2 on error (reason
    // set), kWantRead or kWantWrite.
    int readStep(std::string& reason);
    // Reads more of the plaintext stream into the input buffer: bytes read, 0 once closed, -2 on
    // error.
    int fill();
    // Waits until the socket is ready for `events`, at most `timeoutMs` (-1: no limit).
    bool waitFor(short events, int timeoutMs) const;
    std::string failureReason(int sslError) const;

    std::shared_ptr<TlsContext> m_context;
    SSL* m_pSsl;
    int m_fd;
    std::string m_peerText;
    sal::HostAddress m_peerAddress;
    std::uint16_t m_peerPort = 0;
    std::uint16_t m_localPort = 0;
    std::atomic<bool> m_bClosed{false};
    std::atomic<bool> m_bCertificateRequested{false};
    std::atomic<bool> m_bTicketSeen{false};
    mutable std::mutex m_sslMutex;  // every call into m_pSsl
    std::mutex m_sendMutex;         // one message at a time
    std::mutex m_receiveMutex;      // the input buffer
    std::vector<std::uint8_t> m_input;
    std::size_t m_inputStart = 0;
    std::size_t m_inputEnd = 0;
};

// Log text of a peer: "address:port", an IPv6 address in brackets.
std::string endpointText(const sal::HostAddress& address, std::uint16_t port);

}  // namespace tarntls

#endif  // TARN_TLS_TLSLINK_H
