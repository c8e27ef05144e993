#include <sal/udpsocket.h>

#include <sys/epoll.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "readerservice.h"
#include "sockutil.h"

namespace sal {

const int UdpSocket::WOULD_BLOCK;
const int UdpSocket::MAX_BATCH;

namespace {

detail::ReaderService::Entry* entryOf(const std::atomic<void*>& shared) {
    return static_cast<detail::ReaderService::Entry*>(shared.load());
}

}  // namespace

UdpSocket::UdpSocket() : m_fd(-1), m_family(AF_INET), m_watchFd(-1), m_bClosed(false), m_pShared(nullptr) {
    m_fd = detail::openSocket(SOCK_DGRAM, m_family);
}

// The descriptor is released only here, never by close(), so that a receiver woken by close() can
// never find its descriptor number reused by another file.
UdpSocket::~UdpSocket() {
    if (m_pShared.load() != nullptr) {
        detail::ReaderService::instance()->retire(entryOf(m_pShared));
    }
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
            return WOULD_BLOCK;  // without waiting, or a blocking receive's time-out
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

int UdpSocket::receiveBatch(ReceivedDatagram* datagrams, int count) {
    return receiveMany(datagrams, count, MSG_WAITFORONE);
}

int UdpSocket::tryReceiveBatch(ReceivedDatagram* datagrams, int count) {
    return receiveMany(datagrams, count, MSG_DONTWAIT);
}

namespace {

// Takes up to `n` (at most N) datagrams in one call. The headers live on the caller's stack and
// their room grows with N, so a small count is served with a small frame: a thread that only ever
// reads one or two datagrams at a time keeps its stack as shallow as a single read leaves it.
template <int N>
[[gnu::noinline]] int receiveUpTo(const UdpSocket& socket, UdpSocket::ReceivedDatagram* datagrams, int n,
                                  int flags) {
    mmsghdr headers[N];
    iovec pieces[N];
    sockaddr_in6 senders[N];
    for (int i = 0; i < n; ++i) {
        if (datagrams[i].size < 0 || (datagrams[i].buffer == nullptr && datagrams[i].size > 0)) {
            return -1;
        }
        pieces[i].iov_base = datagrams[i].buffer;
        pieces[i].iov_len = static_cast<size_t>(datagrams[i].size);
        std::memset(&headers[i], 0, sizeof(headers[i]));
        headers[i].msg_hdr.msg_name = &senders[i];
        headers[i].msg_hdr.msg_namelen = sizeof(senders[i]);
        headers[i].msg_hdr.msg_iov = &pieces[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    for (;;) {
        if (socket.isClosed()) {
            return -1;
        }
        const int taken =
            ::recvmmsg(socket.getDescriptor(), headers, static_cast<unsigned int>(n), flags, nullptr);
        // After close() the shutdown makes the call return at once with a zero-length entry; the
        // flag tells that apart from a real empty datagram.
        if (socket.isClosed()) {
            return -1;
        }
        if (taken > 0) {
            for (int i = 0; i < taken; ++i) {
                datagrams[i].length = static_cast<int>(headers[i].msg_len);
                detail::fromSockaddr(senders[i], headers[i].msg_hdr.msg_namelen, datagrams[i].from,
                                     datagrams[i].fromPort);
            }
            return taken;
        }
        // Without waiting, or a blocking receive's time-out (setReceiveTimeout).
        if (taken < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return UdpSocket::WOULD_BLOCK;
        }
        if (taken == 0 || errno != EINTR) {
            return -1;
        }
    }
}

}  // namespace

// MSG_WAITFORONE blocks for the first datagram only and takes the rest without waiting.
int UdpSocket::receiveMany(ReceivedDatagram* datagrams, int count, int flags) {
    if (m_fd < 0 || datagrams == nullptr || count < 1) {
        return -1;
    }
    const int n = count < MAX_BATCH ? count : MAX_BATCH;
    return n <= SMALL_BATCH ? receiveUpTo<SMALL_BATCH>(*this, datagrams, n, flags)
                            : receiveUpTo<MAX_BATCH>(*this, datagrams, n, flags);
}

// The system hands over what it can in one call and reports how many went; an error on a datagram
// after the first ends that call early and is lost, and the next call, beginning at that datagram,
// reports it, so the refused datagram is skipped there.
int UdpSocket::sendBatchTo(const OutgoingDatagram* datagrams, int count, const HostAddress& address,
                           uint16 port) {
    if (m_fd < 0 || isClosed() || datagrams == nullptr || count < 0 || !address.isValid()) {
        return -1;
    }
    sockaddr_in6 remote;
    const socklen_t remoteLength = detail::toSockaddr(m_family, address, port, false, remote);
    if (remoteLength == 0) {
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        if (datagrams[i].length < 0 || (datagrams[i].data == nullptr && datagrams[i].length > 0)) {
            return -1;
        }
    }
    int sent = 0;
    int next = 0;
    while (next < count) {
        if (isClosed()) {
            return sent;
        }
        const int n = count - next < MAX_BATCH ? count - next : MAX_BATCH;
        mmsghdr headers[MAX_BATCH];
        iovec pieces[MAX_BATCH];
        for (int i = 0; i < n; ++i) {
            pieces[i].iov_base = const_cast<void*>(datagrams[next + i].data);
            pieces[i].iov_len = static_cast<size_t>(datagrams[next + i].length);
            std::memset(&headers[i], 0, sizeof(headers[i]));
            headers[i].msg_hdr.msg_name = &remote;
            headers[i].msg_hdr.msg_namelen = remoteLength;
            headers[i].msg_hdr.msg_iov = &pieces[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
        const int handed = ::sendmmsg(m_fd, headers, static_cast<unsigned int>(n), MSG_NOSIGNAL);
        if (handed > 0) {
            sent += handed;
            next += handed;
        } else if (handed < 0 && errno == EINTR) {
            continue;
        } else {
            ++next;  // refused: skipped, as a failed sendTo
        }
    }
    return sent;
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
    return waitReadableFor(-1) == 1;
}

// A wait that a signal interrupts goes on for the whole time again: it ends no earlier than asked.
int UdpSocket::waitReadableFor(int timeoutMs) {
    const int watchFd = m_watchFd.load();
    if (watchFd < 0) {
        return -1;
    }
    for (;;) {
        epoll_event event;
        const int n = ::epoll_wait(watchFd, &event, 1, timeoutMs);
        if (n > 0) {
            return 1;
        }
        if (n == 0) {
            return 0;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

bool UdpSocket::watchShared(IReader* pReader) {
    if (m_fd < 0 || m_pShared.load() != nullptr || pReader == nullptr) {
        return false;
    }
    detail::ReaderService* pService = detail::ReaderService::instance();
    if (pService == nullptr) {
        return false;
    }
    detail::ReaderService::Entry* pEntry = pService->add(m_fd, pReader);
    m_pShared.store(pEntry);
    return pEntry != nullptr;
}

bool UdpSocket::armShared() {
    detail::ReaderService::Entry* pEntry = entryOf(m_pShared);
    return pEntry != nullptr && detail::ReaderService::instance()->set(pEntry, EPOLLIN);
}

bool UdpSocket::disarmShared() {
    detail::ReaderService::Entry* pEntry = entryOf(m_pShared);
    return pEntry != nullptr && detail::ReaderService::instance()->set(pEntry, 0);
}

void UdpSocket::unwatchShared() {
    detail::ReaderService::Entry* pEntry = entryOf(m_pShared);
    if (pEntry != nullptr) {
        detail::ReaderService::instance()->remove(pEntry);
    }
}

bool UdpSocket::setReceiveTimeout(int timeoutMs) {
    if (m_fd < 0 || timeoutMs < 0) {
        return false;
    }
    timeval limit;
    limit.tv_sec = timeoutMs / 1000;
    limit.tv_usec = (timeoutMs % 1000) * 1000;
    return ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0;
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
