#include <sal/udpsocket.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

#include "sockutil.h"

namespace sal {

const int UdpSocket::WOULD_BLOCK;

UdpSocket::UdpSocket() : m_fd(-1), m_family(AF_INET), m_watchFd(-1), m_bClosed(false) {
    m_fd = detail::openSocket(SOCK_DGRAM, m_family);
}

// The descriptor is released only here, never by close(), so that a receiver woken by close() can
// never find its descriptor number reused by another file.
UdpSocket::~UdpSocket() {
    if (m_watchFd.load() >= 0) {
        ::close(m_watchFd.load());
    }
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
    return receive(buffer, size, from, fromPort, 0);
}

int UdpSocket::tryReceiveFrom(void* buffer, int size, HostAddress& from, uint16& fromPort) {
    return receive(buffer, size, from, fromPort, MSG_DONTWAIT);
}

int UdpSocket::receive(void* buffer, int size, HostAddress& from, uint16& fromPort, int flags) {
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
        const ssize_t n = ::recvfrom(m_fd, buffer, static_cast<size_t>(size), flags,
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
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return WOULD_BLOCK;  // only without waiting: a blocking receive does not end so
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

// A one-shot, level-triggered watch: arming reports a datagram already waiting as well, so a turn
// handed over with data in the queue is never missed, and the report disarms it again, so a thread
// that does not hold the turn sleeps however many datagrams arrive for the thread that does.
bool UdpSocket::armWatch() {
    return setWatch(EPOLLIN | EPOLLONESHOT);
}

bool UdpSocket::disarmWatch() {
    return m_watchFd.load() >= 0 && setWatch(0);
}

// A datagram socket can always take a datagram, so watching for room to send reports at once.
bool UdpSocket::wakeWatcher() {
    return setWatch(EPOLLIN | EPOLLOUT | EPOLLONESHOT);
}

bool UdpSocket::setWatch(unsigned int events) {
    if (m_fd < 0) {
        return false;
    }
    epoll_event event;
    std::memset(&event, 0, sizeof(event));
    event.events = events;
    int watchFd = m_watchFd.load();
    if (watchFd >= 0) {
        return ::epoll_ctl(watchFd, EPOLL_CTL_MOD, m_fd, &event) == 0;
    }
    watchFd = ::epoll_create1(EPOLL_CLOEXEC);
    if (watchFd < 0) {
        return false;
    }
    if (::epoll_ctl(watchFd, EPOLL_CTL_ADD, m_fd, &event) != 0) {
        ::close(watchFd);
        return false;
    }
    m_watchFd.store(watchFd);
    return true;
}

bool UdpSocket::waitReadable() {
    const int watchFd = m_watchFd.load();
    if (watchFd < 0) {
        return false;
    }
    for (;;) {
        epoll_event event;
        const int n = ::epoll_wait(watchFd, &event, 1, -1);
        if (n > 0) {
            return true;
        }
        if (n < 0 && errno != EINTR) {
            return false;
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
