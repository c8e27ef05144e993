// TlsLink: the TLS session of one connection.
#include "tlslink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "tlssocketbio.h"

namespace tarntls {

namespace {

// The largest frame (2 length bytes and 65535 of message) plus room for one whole TLS record, so
// that a read never has to stop short of a record.
const std::size_t kInputCapacity = 2 + 65535 + 16384 + 512;

std::uint16_t loadLe16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

int msUntil(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// The link a session belongs to, kept in the session's application data.
TlsLink* linkOf(SSL* ssl) {
    return static_cast<TlsLink*>(SSL_get_app_data(ssl));
}

}  // namespace

int TlsLink::onCertificateRequest(SSL* ssl, void* /*argument*/) {
    if (TlsLink* const link = linkOf(ssl)) {
        link->m_bCertificateRequested = true;
    }
    return 1;
}

int TlsLink::onNewSession(SSL* ssl, SSL_SESSION* /*session*/) {
    if (TlsLink* const link = linkOf(ssl)) {
        link->m_bTicketSeen = true;
    }
    return 0;  // the session is not kept
}

std::string endpointText(const sal::HostAddress& address, std::uint16_t port) {
    const std::string text = address.getAddressString();
    return (address.isIPv6() ? "[" + text + "]" : text) + ":" + std::to_string(port);
}

TlsLink::TlsLink(const std::shared_ptr<TlsContext>& context, SSL* ssl, int fd)
    : m_context(context), m_pSsl(ssl), m_fd(fd), m_input(kInputCapacity) {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0) {
        sal::HostAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&peer), size, m_peerAddress, m_peerPort);
    }
    sockaddr_storage local{};
    size = sizeof local;
    sal::HostAddress localAddress;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) == 0) {
        sal::HostAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&local), size, localAddress, m_localPort);
    }
    m_peerText = endpointText(m_peerAddress, m_peerPort);
}

std::unique_ptr<TlsLink> TlsLink::create(const std::shared_ptr<TlsContext>& context, int fd,
                                         std::string& error) {
    ERR_clear_error();
    SSL* const ssl = SSL_new(context->get());
    BIO* const bio = (ssl != nullptr) ? newSocketBio(fd) : nullptr;
    if (bio == nullptr) {
        error = "cannot make a TLS session: " + takeOpensslErrors("out of memory");
        SSL_free(ssl);
        ::close(fd);
        return nullptr;
    }
    SSL_set_bio(ssl, bio, bio);
    std::unique_ptr<TlsLink> link(new TlsLink(context, ssl, fd));
    SSL_set_app_data(ssl, link.get());
    if (context->role() == TlsContext::eServer) {
        SSL_set_accept_state(ssl);
    } else {
        SSL_set_connect_state(ssl);
        SSL_set_cert_cb(ssl, onCertificateRequest, nullptr);
    }
    return link;
}

TlsLink::~TlsLink() {
    close();
    SSL_free(m_pSsl);
    ::close(m_fd);
}

bool TlsLink::expectServer(const std::string& nameOrAddress) {
    std::lock_guard<std::mutex> hold(m_sslMutex);
    unsigned char scratch[16];
    const bool isAddress = inet_pton(AF_INET, nameOrAddress.c_str(), scratch) == 1 ||
                           inet_pton(AF_INET6, nameOrAddress.c_str(), scratch) == 1;
    if (isAddress) {
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(m_pSsl), nameOrAddress.c_str()) == 1;
    }
    return SSL_set_tlsext_host_name(m_pSsl, nameOrAddress.c_str()) == 1 &&
           SSL_set1_host(m_pSsl, nameOrAddress.c_str()) == 1;
}

std::string TlsLink::failureReason(int sslError) const {
    std::string reason;
    if (sslError == SSL_ERROR_SYSCALL || sslError == SSL_ERROR_ZERO_RETURN) {
        const int savedErrno = errno;
        reason =
            takeOpensslErrors(savedErrno != 0 ? std::strerror(savedErrno) : "the peer closed the connection");
    } else {
        reason = takeOpensslErrors("TLS error " + std::to_string(sslError));
    }
    const long verify = SSL_get_verify_result(m_pSsl);
    if (verify != X509_V_OK) {
        reason += " (" + std::string(X509_verify_cert_error_string(verify)) + ")";
    }
    return reason;
}

TlsLink::EStep TlsLink::handshakeStep(std::string& error) {
    std::lock_guard<std::mutex> hold(m_sslMutex);
    ERR_clear_error();
    errno = 0;
    const int result = SSL_do_handshake(m_pSsl);
    if (result == 1) {
        return eDone;
    }
    const int sslError = SSL_get_error(m_pSsl, result);
    if (sslError == SSL_ERROR_WANT_READ) {
        return eWantRead;
    }
    if (sslError == SSL_ERROR_WANT_WRITE) {
        return eWantWrite;
    }
    error = failureReason(sslError);
    return eFailed;
}

bool TlsLink::runHandshake(std::chrono::steady_clock::time_point deadline, int timeoutMs,
                           std::string& error) {
    for (;;) {
        const EStep step = handshakeStep(error);
        if (step == eDone) {
            return true;
        }
        if (step == eFailed) {
            return false;
        }
        if (!waitFor(step == eWantRead ? POLLIN : POLLOUT, msUntil(deadline))) {
            error = "no answer within " + std::to_string(timeoutMs) + " ms";
            return false;
        }
        if (m_bClosed.load()) {
            error = "the transport was disconnected";
            return false;
        }
    }
}

bool TlsLink::waitFor(short events, int timeoutMs) const {
    pollfd entry{m_fd, events, 0};
    for (;;) {
        const int ready = ::poll(&entry, 1, timeoutMs);
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
    }
}

bool TlsLink::send(const std::uint8_t* data, std::size_t length) {
    std::lock_guard<std::mutex> message(m_sendMutex);
    std::size_t done = 0;
    while (done < length) {
        if (m_bClosed.load()) {
            return false;
        }
        int result = 0;
        int sslError = SSL_ERROR_NONE;
        {
            std::lock_guard<std::mutex> hold(m_sslMutex);
            ERR_clear_error();
            result = SSL_write(m_pSsl, data + done, static_cast<int>(length - done));
            if (result <= 0) {
                sslError = SSL_get_error(m_pSsl, result);
                ERR_clear_error();
            }
        }
        if (result > 0) {
            done += static_cast<std::size_t>(result);
            continue;
        }
        if (sslError == SSL_ERROR_WANT_WRITE) {
            waitFor(POLLOUT, -1);
        } else if (sslError == SSL_ERROR_WANT_READ) {
            waitFor(POLLIN, 10);  // the receiver reads what the session waits for
        } else {
            tlsLog().getDebugStream() << "TARN/TLS: send to " << m_peerText << " failed";
            return false;
        }
    }
    return true;
}

int TlsLink::readStep(std::string& reason) {
    std::lock_guard<std::mutex> hold(m_sslMutex);
    ERR_clear_error();
    errno = 0;
    const int result =
        SSL_read(m_pSsl, m_input.data() + m_inputEnd, static_cast<int>(m_input.size() - m_inputEnd));
    if (result > 0) {
        m_inputEnd += static_cast<std::size_t>(result);
        return result;
    }
    const int sslError = SSL_get_error(m_pSsl, result);
    if (sslError == SSL_ERROR_WANT_READ) {
        return kWantRead;
    }
    if (sslError == SSL_ERROR_WANT_WRITE) {
        return kWantWrite;
    }
    if (sslError == SSL_ERROR_ZERO_RETURN) {
        return 0;
    }
    reason = failureReason(sslError);
    return -2;
}

int TlsLink::fill() {
    if (m_inputStart > 0) {
        std::memmove(m_input.data(), m_input.data() + m_inputStart, m_inputEnd - m_inputStart);
        m_inputEnd -= m_inputStart;
        m_inputStart = 0;
    }
    for (;;) {
        if (m_bClosed.load()) {
            return 0;
        }
        std::string reason;
        const int result = readStep(reason);
        if (result == kWantRead || result == kWantWrite) {
            waitFor(result == kWantRead ? POLLIN : POLLOUT, -1);
            continue;
        }
        if (result == -2 && !m_bClosed.load()) {
            tlsLog().getErrorStream() << "TARN/TLS: receive from " << m_peerText << " failed: " << reason;
        }
        return m_bClosed.load() ? 0 : result;
    }
}

bool TlsLink::awaitServerVerdict(int timeoutMs, std::string& error) {
    if (!m_bCertificateRequested.load() || SSL_version(m_pSsl) != TLS1_3_VERSION) {
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const int result = readStep(error);
        if (result > 0 || ((result == kWantRead || result == kWantWrite) && m_bTicketSeen.load())) {
            return true;
        }
        if (result == 0 || result == -2) {
            if (result == 0) {
                error = "the server closed the connection after the handshake";
            }
            return false;
        }
        const int left = msUntil(deadline);
        if (left == 0 || !waitFor(result == kWantRead ? POLLIN : POLLOUT, left)) {
            return true;  // a server that sends neither tickets nor data: nothing refused us so far
        }
    }
}

int TlsLink::receive(std::uint8_t* buffer, unsigned bufferSize) {
    std::lock_guard<std::mutex> hold(m_receiveMutex);
    for (;;) {
        if (m_bClosed.load()) {
            return 0;
        }
        const std::size_t available = m_inputEnd - m_inputStart;
        if (available >= 2) {
            const std::uint8_t* const frame = m_input.data() + m_inputStart;
            const std::uint16_t length = loadLe16(frame);
            if (length > bufferSize) {
                return -1;  // the frame stays waiting
            }
            if (available >= 2u + length) {
                std::memcpy(buffer, frame + 2, length);
                m_inputStart += 2u + length;
                if (length > 0) {
                    return length;
                }
                continue;  // an empty frame carries no message, as over TCP
            }
        }
        const int got = fill();
        if (got <= 0) {
            return got;
        }
    }
}

void TlsLink::close() {
    if (m_bClosed.exchange(true)) {
        return;
    }
    {
        // A sender or receiver holds the lock only for one non-blocking call, never while waiting.
        std::lock_guard<std::mutex> hold(m_sslMutex);
        if (SSL_is_init_finished(m_pSsl)) {
            ERR_clear_error();
            SSL_shutdown(m_pSsl);
            ERR_clear_error();
        }
    }
    ::shutdown(m_fd, SHUT_RDWR);  // wakes a thread waiting on the socket
}

std::string TlsLink::peerSubject() const {
    std::lock_guard<std::mutex> hold(m_sslMutex);
    X509* const cert = SSL_get1_peer_certificate(m_pSsl);
    if (cert == nullptr) {
        return "";
    }
    std::string text;
    BIO* const out = BIO_new(BIO_s_mem());
    if (out != nullptr && X509_NAME_print_ex(out, X509_get_subject_name(cert), 0,
                                             XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) >= 0) {
        char* data = nullptr;
        const long size = BIO_get_mem_data(out, &data);
        text.assign(data, static_cast<std::size_t>(size));
    }
    BIO_free(out);
    X509_free(cert);
    return text;
}

std::string TlsLink::protocol() const {
    std::lock_guard<std::mutex> hold(m_sslMutex);
    return SSL_get_version(m_pSsl);
}

std::string TlsLink::cipher() const {
    std::lock_guard<std::mutex> hold(m_sslMutex);
    const char* const name = SSL_get_cipher_name(m_pSsl);
    return name != nullptr ? name : "";
}

}  // namespace tarntls
