#include <sal/udpsocket.h>

#include <unistd.h>

#include <cerrno>

#include "sockutil.h"

namespace sal {

UdpSocket::UdpSocket() : m_fd(-1), m_family(AF_INET), m_bClosed(false) {
    m_fd = detail::openSocket(SOCK_DGRAM, m_family);
}

// The descriptor is released only here, never by close(), so that a receiver woken by close() can
// never find its descriptor number reused by another file.
UdpSocket::~UdpSocket() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool UdpSocket::bind(const HostAddress& address, uint16 port) {
    if (m_fd < 0 || isClosed() || !address.isValid()) {
        return false;
    }
    sockaddr_in6 local;
    const socklen_t length = detail::toSockaddr(m_family, address, port, true, local);
    return length != 0 && ::bind(m_fd, reinterpret_cast<const sockaddr*>(&local), length) == 0;
}

// sendto() on a datagram socket hands the kernel one whole datagram per call, so concurrent
// senders need no lock of ours.
int UdpSocket::sendTo(const void* data, int length, const HostAddress& address, uint16 port) {
    if (m_fd < 0 || isClosed() || length < 0 || (data == nullptr && length > 0) || !address.isValid()) {
        return -1;
    }
    sockaddr_in6 remote;
    const socklen_t remoteLength = detail::toSockaddr(m_family, address, port, false, remote);
    if (remoteLength == 0) {
        return -1;
    }
    for (;;) {
        const ssize_t n = ::sendto(m_fd, data, static_cast<size_t>(length), MSG_NOSIGNAL,
                                   reinterpret_cast<const sockaddr*>(&remote), remoteLength);
        if (n >= 0) {
            return static_cast<int>(n);
        }
        if (errno != EINTR || isClosed()) {
            return -1;
        }
    }
}

int UdpSocket::receiveFrom(void* buffer, int size, HostAddress& from, uint16& fromPort) {
    if (m_fd < 0 || size < 0 || (buffer == nullptr && size > 0)) {
        return -1;
    }
    for (;;) {
        if (isClosed()) {
            return -1;
        }
        sockaddr_in6 sender;
        std::memset(&sender, 0, sizeof(sender));
        socklen_t length = sizeof(sender);
        const ssize_t n = ::recvfrom(m_fd, buffer, static_cast<size_t>(size), 0,
                                     reinterpret_cast<sockaddr*>(&sender), &length);
        // After close() the shutdown makes recvfrom return 0 at once and for ever; the flag tells
        // that apart from a real empty datagram.
        if (isClosed()) {
            return -1;
        }
        if (n >= 0) {
            detail::fromSockaddr(sender, length, from, fromPort);
            return static_cast<int>(n);
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

void UdpSocket::close() {
    if (m_bClosed.exchange(true, std::memory_order_acq_rel)) {
        return;
    }
    if (m_fd >= 0) {
        ::shutdown(m_fd, SHUT_RDWR);  // wakes a receiver blocked in recvfrom
    }
}

bool UdpSocket::setReceiveBufferSize(int bytes) {
    return ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) == 0;
}

uint16 UdpSocket::getLocalPort() const {
    return detail::localPortOf(m_fd);
}

}  // namespace sal
