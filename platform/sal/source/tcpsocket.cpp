#include <sal/tcpsocket.h>

#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "sockutil.h"

namespace sal {

TcpSocket::TcpSocket() : m_fd(-1), m_family(AF_INET), m_bClosed(false) {
    m_fd = detail::openSocket(SOCK_STREAM, m_family);
}

TcpSocket::TcpSocket(int fd, int family) : m_fd(fd), m_family(family), m_bClosed(false) {}

// The descriptor is released here and nowhere else: a thread still blocked on it after close()
// has been woken by the shutdown and can never see the number reused for another file.
TcpSocket::~TcpSocket() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool TcpSocket::bind(const HostAddress& address, uint16 port) {
    if (m_fd < 0 || isClosed() || !address.isValid()) {
        return false;
    }
    sockaddr_in6 local;
    const socklen_t length = detail::toSockaddr(m_family, address, port, true, local);
    if (length == 0) {
        return false;
    }
    detail::setIntOption(m_fd, SOL_SOCKET, SO_REUSEADDR, 1);
    return ::bind(m_fd, reinterpret_cast<const sockaddr*>(&local), length) == 0;
}

bool TcpSocket::listen(int backlog) {
    if (m_fd < 0 || isClosed()) {
        return false;
    }
    return ::listen(m_fd, backlog) == 0;
}

TcpSocket* TcpSocket::accept() {
    if (m_fd < 0) {
        return nullptr;
    }
    for (;;) {
        if (isClosed()) {
            return nullptr;
        }
        const int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            if (isClosed()) {
                // Closed while the peer was being accepted: the caller asked for no more peers.
                ::close(fd);
                return nullptr;
            }
            return new (std::nothrow) TcpSocket(fd, m_family);
        }
        if (errno != EINTR && errno != ECONNABORTED) {
            return nullptr;
        }
    }
}

bool TcpSocket::connect(const HostAddress& address, uint16 port) {
    if (m_fd < 0 || isClosed() || !address.isValid()) {
        return false;
    }
    sockaddr_in6 remote;
    const socklen_t remoteLength = detail::toSockaddr(m_family, address, port, false, remote);
    if (remoteLength == 0) {
        return false;
    }
    if (::connect(m_fd, reinterpret_cast<const sockaddr*>(&remote), remoteLength) == 0) {
        return true;
    }
    if (errno != EINTR) {
        return false;
    }
    // An interrupted connect goes on in the background; wait for its outcome instead of starting
    // it again (a second connect would fail with EALREADY).
    pollfd entry;
    entry.fd = m_fd;
    entry.events = POLLOUT;
    entry.revents = 0;
    int ready;
    do {
        ready = ::poll(&entry, 1, -1);
    } while (ready < 0 && errno == EINTR && !isClosed());
    if (ready <= 0 || isClosed()) {
        return false;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    return ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

int TcpSocket::send(const void* data, int length) {
    if (length < 0 || m_fd < 0 || isClosed()) {
        return -1;
    }
    if (length == 0) {
        return 0;
    }
    if (data == nullptr) {
        return -1;
    }
    const char* p = static_cast<const char*>(data);
    int left = length;
    while (left > 0) {
        const ssize_t n = ::send(m_fd, p, static_cast<size_t>(left), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR && !isClosed()) {
                continue;
            }
            return -1;
        }
        p += n;
        left -= static_cast<int>(n);
    }
    return length;
}

int TcpSocket::receive(void* buffer, int length) {
    if (length == 0) {
        return 0;
    }
    if (length < 0 || buffer == nullptr || m_fd < 0) {
        return -1;
    }
    char* p = static_cast<char*>(buffer);
    int received = 0;
    while (received < length) {
        if (isClosed()) {
            return 0;
        }
        const ssize_t n = ::recv(m_fd, p + received, static_cast<size_t>(length - received), 0);
        if (n == 0) {
            // The peer ended the stream (or close() shut it down here); a partial message is lost
            // with it, as the stream has nothing more to complete it with.
            return 0;
        }
        if (n < 0) {
            if (isClosed()) {
                return 0;
            }
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        received += static_cast<int>(n);
    }
    return length;
}

void TcpSocket::close() {
    if (m_bClosed.exchange(true, std::memory_order_acq_rel)) {
        return;
    }
    if (m_fd >= 0) {
        // Wakes a thread blocked in accept() or recv() on this descriptor; on an unconnected
        // socket it fails harmlessly.
        ::shutdown(m_fd, SHUT_RDWR);
    }
}

bool TcpSocket::setNoDelay(bool on) {
    return detail::setIntOption(m_fd, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0);
}

bool TcpSocket::setKeepAlive(bool on) {
    return detail::setIntOption(m_fd, SOL_SOCKET, SO_KEEPALIVE, on ? 1 : 0);
}

bool TcpSocket::getPeerName(HostAddress& address, uint16& port) const {
    if (m_fd < 0) {
        return false;
    }
    sockaddr_in6 peer;
    socklen_t length = sizeof(peer);
    if (::getpeername(m_fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        return false;
    }
    return detail::fromSockaddr(peer, length, address, port);
}

uint16 TcpSocket::getLocalPort() const {
    return detail::localPortOf(m_fd);
}

}  // namespace sal
