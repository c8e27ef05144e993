// TLSTransport: TARN's TCP framing inside a TLS session.
#include <tlstransport.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <vector>

#include "tlstransportimpl.h"

using tarntls::TlsContext;
using tarntls::TlsLink;
using tarntls::tlsLog;

namespace {

// The listening socket's backlog. Handshakes run off the accept path, so peers leave the backlog
// at once; the room is for bursts of new peers.
const int kBacklog = 64;

std::mutex g_registryMutex;
std::map<const TARNConnection*, TLSTransport*> g_registry;

// Milliseconds from now to `deadline`, 0 once it has passed.
int msLeft(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

void setOption(int fd, int level, int name) {
    const int on = 1;
    setsockopt(fd, level, name, &on, sizeof on);
}

// A TCP connection to `address`:`port` within `timeoutMs`, non-blocking from then on; -1 (with
// the reason in `error`) when it cannot be made.
int connectTcp(const sal::HostAddress& address, uint16 port, int timeoutMs, std::string& error) {
    sockaddr_storage peer{};
    const socklen_t length = address.toSockaddr(port, peer);
    const int fd = ::socket(peer.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        error = std::strerror(errno);
        return -1;
    }
    setOption(fd, IPPROTO_TCP, TCP_NODELAY);
    setOption(fd, SOL_SOCKET, SO_KEEPALIVE);
    int result = ::connect(fd, reinterpret_cast<const sockaddr*>(&peer), length);
    if (result != 0 && errno == EINPROGRESS) {
        pollfd entry{fd, POLLOUT, 0};
        result = ::poll(&entry, 1, timeoutMs);
        if (result == 0) {
            errno = ETIMEDOUT;
            result = -1;
        } else if (result > 0) {
            int failure = 0;
            socklen_t size = sizeof failure;
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size);
            errno = failure;
            result = failure == 0 ? 0 : -1;
        }
    }
    if (result != 0) {
        error = std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

// A socket bound to `local` and listening; -1 (errno set) when that fails.
int bindAndListen(const sockaddr_storage& local, socklen_t length, bool dualStack) {
    const int fd = ::socket(local.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    setOption(fd, SOL_SOCKET, SO_REUSEADDR);
    if (dualStack) {
        const int off = 0;
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    }
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&local), length) != 0 || ::listen(fd, kBacklog) != 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

// A bound, listening, non-blocking socket; -1 (with the reason in `error`) when it cannot be made.
// The any-address listens on IPv6 and IPv4 both where the system has IPv6, as TCP listeners do.
int listenTcp(const sal::HostAddress& address, uint16 port, std::string& error) {
    sockaddr_storage local{};
    int fd = -1;
    if (address.isAny() && address.isIPv4()) {
        const socklen_t length = sal::HostAddress("::").toSockaddr(port, local);
        fd = length != 0 ? bindAndListen(local, length, true) : -1;
    }
    if (fd < 0) {
        const socklen_t length = address.toSockaddr(port, local);
        fd = bindAndListen(local, length, false);
    }
    if (fd < 0) {
        error = std::strerror(errno);
    }
    return fd;
}

uint16 boundPort(int fd) {
    sockaddr_storage local{};
    socklen_t size = sizeof local;
    sal::HostAddress address;
    uint16 port = 0;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) == 0) {
        sal::HostAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&local), size, address, port);
    }
    return port;
}

}  // namespace

namespace tarntls {

void registerConnection(const TARNConnection* connection, TLSTransport* transport) {
    std::lock_guard<std::mutex> hold(g_registryMutex);
    g_registry[connection] = transport;
}

}  // namespace tarntls

TLSTransport::TLSTransport(const TLSConfig& config) : m_pImpl(new Impl(config)) {}

TLSTransport::TLSTransport(std::unique_ptr<Impl> impl) : m_pImpl(std::move(impl)) {}

TLSTransport::~TLSTransport() {
    disconnect();
    std::lock_guard<std::mutex> hold(g_registryMutex);
    for (auto it = g_registry.begin(); it != g_registry.end(); ++it) {
        if (it->second == this) {
            g_registry.erase(it);
            break;
        }
    }
}

TLSTransport* TLSTransport::of(const TARNConnection* connection) {
    std::lock_guard<std::mutex> hold(g_registryMutex);
    const auto it = g_registry.find(connection);
    return it != g_registry.end() ? it->second : nullptr;
}

bool TLSTransport::setWindowSize(uint /*windowSize*/) {
    return false;
}

bool TLSTransport::listen(const sal::HostAddress& address, uint16 port) {
    Impl& self = *m_pImpl;
    if (self.listenFd >= 0 || self.link) {
        return false;
    }
    std::string error;
    if (!self.context || self.context->role() != TlsContext::eServer) {
        self.context = TlsContext::create(self.config, TlsContext::eServer, error);
    }
    if (!self.context) {
        self.lastError = error;
        tlsLog().getErrorStream() << "TARN/TLS: cannot listen: " << error;
        return false;
    }
    const int fd = address.isValid() ? listenTcp(address, port, error) : -1;
    if (fd < 0) {
        self.lastError = address.isValid() ? error : "no such address";
        tlsLog().getErrorStream() << "TARN/TLS: cannot listen on " << tarntls::endpointText(address, port)
                                  << ": " << self.lastError;
        return false;
    }
    self.lastError.clear();
    self.acceptor.reset();  // a previous run's, stopped by disconnect
    self.listenFd = fd;
    self.listenPort = boundPort(fd);
    self.acceptor.reset(new tarntls::TlsAcceptor(self.context, fd));
    tlsLog().getInfoStream() << "TARN/TLS: listening on " << tarntls::endpointText(address, self.listenPort);
    return true;
}

ITARNTransport* TLSTransport::accept() {
    Impl& self = *m_pImpl;
    if (!self.acceptor) {
        return nullptr;
    }
    std::unique_ptr<TlsLink> link = self.acceptor->accept();
    if (!link) {
        return nullptr;
    }
    std::unique_ptr<Impl> impl(new Impl(self.config));
    impl->context = self.context;
    impl->link = std::move(link);
    self.lastAccepted = new TLSTransport(std::move(impl));
    return self.lastAccepted;
}

void TLSTransport::allowSendMode(bool /*realtime*/, bool /*reliable*/) {}

void TLSTransport::allowReceiveMode(bool /*realtime*/, bool /*reliable*/) {}

bool TLSTransport::setSendMode(EConnMode mode) {
    return mode == eReliable;
}

bool TLSTransport::setReceiveMode(EConnMode mode) {
    return mode == eReliable;
}

bool TLSTransport::connect(const sal::HostAddress& address, uint16 port) {
    Impl& self = *m_pImpl;
    if (self.listenFd >= 0) {
        return false;
    }
    const std::string peer = tarntls::endpointText(address, port);
    std::string error;
    if (!self.context || self.context->role() != TlsContext::eClient) {
        self.context = TlsContext::create(self.config, TlsContext::eClient, error);
    }
    if (!self.context) {
        self.lastError = error;
        tlsLog().getErrorStream() << "TARN/TLS: cannot connect to " << peer << ": " << error;
        return false;
    }
    self.link.reset();  // a link that was disconnected before
    const auto start = std::chrono::steady_clock::now();
    const int fd = address.isValid() ? connectTcp(address, port, self.config.handshakeTimeoutMs, error) : -1;
    if (fd < 0) {
        self.lastError = address.isValid() ? error : "no such address";
        tlsLog().getErrorStream() << "TARN/TLS: cannot connect to " << peer << ": " << self.lastError;
        return false;
    }
    std::unique_ptr<TlsLink> link = TlsLink::create(self.context, fd, error);
    const std::string expected =
        self.config.serverName.empty() ? address.getAddressString() : self.config.serverName;
    if (link && !self.config.insecure && self.config.verifyHostName && !link->expectServer(expected)) {
        error = "cannot check the server's name " + expected;
        link.reset();
    }
    // The TCP connect and the handshake share one time limit.
    const auto deadline = start + std::chrono::milliseconds(self.config.handshakeTimeoutMs);
    if (!link || !link->runHandshake(deadline, self.config.handshakeTimeoutMs, error) ||
        !link->awaitServerVerdict(std::min(msLeft(deadline), 2000), error)) {
        self.lastError = "TLS handshake failed: " + error;
        tlsLog().getErrorStream() << "TARN/TLS: handshake with " << peer << " failed: " << error;
        return false;
    }
    self.lastError.clear();
    tlsLog().getInfoStream() << "TARN/TLS: connected to " << peer << " (" << link->protocol() << ", "
                             << link->cipher() << ")";
    self.link = std::move(link);
    return true;
}

void TLSTransport::disconnect() {
    Impl& self = *m_pImpl;
    if (self.link) {
        self.link->close();
    }
    if (self.acceptor) {
        self.acceptor->stop();
    }
    std::lock_guard<std::mutex> hold(self.closeMutex);
    if (self.listenFd >= 0) {
        ::close(self.listenFd);
        self.listenFd = -1;
    }
}

bool TLSTransport::sendData(const uint8* data, uint length) {
    tarntls::TlsLink* const link = m_pImpl->link.get();
    if (link == nullptr) {
        return false;
    }
    // As over TCP, only the low 16 bits of the length count. The length and the message go to the
    // session in one write, and so in one record.
    const uint16 length16 = static_cast<uint16>(length & 0xFFFF);
    uint8 small[2 + 1492];
    std::vector<uint8> large;
    uint8* frame = small;
    if (length16 > sizeof small - 2) {
        large.resize(2u + length16);
        frame = large.data();
    }
    frame[0] = static_cast<uint8>(length16 & 0xFF);
    frame[1] = static_cast<uint8>(length16 >> 8);
    if (length16 > 0) {
        std::memcpy(frame + 2, data, length16);
    }
    return link->send(frame, 2u + length16);
}

int TLSTransport::receiveData(uint8* buffer, uint bufferSize) {
    tarntls::TlsLink* const link = m_pImpl->link.get();
    return link != nullptr ? link->receive(buffer, bufferSize) : 0;
}

sal::HostAddress TLSTransport::getPeerAddress() const {
    const tarntls::TlsLink* const link = m_pImpl->link.get();
    return link != nullptr ? link->peerAddress() : sal::HostAddress();
}

uint16 TLSTransport::getPeerPort() const {
    const tarntls::TlsLink* const link = m_pImpl->link.get();
    return link != nullptr ? link->peerPort() : 0;
}

uint16 TLSTransport::getLocalPort() const {
    const tarntls::TlsLink* const link = m_pImpl->link.get();
    return link != nullptr ? link->localPort() : m_pImpl->listenPort.load();
}

std::string TLSTransport::getPeerSubject() const {
    const tarntls::TlsLink* const link = m_pImpl->link.get();
    return link != nullptr ? link->peerSubject() : "";
}

std::string TLSTransport::getProtocol() const {
    const tarntls::TlsLink* const link = m_pImpl->link.get();
    return link != nullptr ? link->protocol() : "";
}

std::string TLSTransport::getCipher() const {
    const tarntls::TlsLink* const link = m_pImpl->link.get();
    return link != nullptr ? link->cipher() : "";
}

std::string TLSTransport::getLastError() const {
    return m_pImpl->lastError;
}
