#include "idlefloor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "common.h"

namespace bench {

namespace {

const char kKeepAlive = 'K';
const char kAnswer = 'A';

// A socket bound to an ephemeral port on 127.0.0.1; -1 on failure.
int boundSocket(sockaddr_in& address) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    std::memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Both ends of every pair, each connected to the other; false when the system refuses one.
bool makePairs(int pairs, std::vector<int>& fds) {
    for (int i = 0; i < pairs; ++i) {
        sockaddr_in a;
        sockaddr_in b;
        const int fa = boundSocket(a);
        const int fb = boundSocket(b);
        if (fa >= 0) {
            fds.push_back(fa);
        }
        if (fb >= 0) {
            fds.push_back(fb);
        }
        if (fa < 0 || fb < 0 || ::connect(fa, reinterpret_cast<sockaddr*>(&b), sizeof(b)) != 0 ||
            ::connect(fb, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
            return false;
        }
    }
    return true;
}

// Reads whatever the sockets report and answers the keep-alives, until `stop`.
void answer(int epollFd, const std::vector<int>& fds, const std::atomic<bool>& stop,
            std::atomic<std::uint64_t>& sent) {
    epoll_event reports[64];
    while (!stop.load(std::memory_order_relaxed)) {
        const int n = ::epoll_wait(epollFd, reports, 64, 100);
        for (int i = 0; i < n; ++i) {
            const int fd = fds[reports[i].data.u32];
            char datagram[16];
            const ssize_t length = ::recv(fd, datagram, sizeof(datagram), MSG_DONTWAIT);
            if (length > 0 && datagram[0] == kKeepAlive) {
                ::send(fd, &kAnswer, 1, MSG_NOSIGNAL);
                sent.fetch_add(1, std::memory_order_relaxed);
            }
        }
    }
}

// Sends each end's keep-alive when due: end i at start + (k + i / ends) * period.
void sendKeepAlives(const std::vector<int>& fds, double keepAlivesPerSecond, const std::atomic<bool>& stop,
                    std::atomic<std::uint64_t>& sent) {
    const std::int64_t ends = static_cast<std::int64_t>(fds.size());
    const std::int64_t periodNs =
        static_cast<std::int64_t>(1e9 * static_cast<double>(ends) / keepAlivesPerSecond);
    const std::int64_t start = nowNs();
    const std::int64_t grouping = 1000000;
    for (std::int64_t k = 0; !stop.load(std::memory_order_relaxed); ++k) {
        const std::int64_t cycle = start + k * periodNs;
        for (std::int64_t i = 0; i < ends && !stop.load(std::memory_order_relaxed);) {
            const std::int64_t due = cycle + i * periodNs / ends;
            const std::int64_t wait = due + grouping - nowNs();
            if (wait > 0) {
                std::this_thread::sleep_for(std::chrono::nanoseconds(wait));
            }
            // Everything due by now leaves in this wake-up.
            const std::int64_t now = nowNs();
            for (; i < ends && cycle + i * periodNs / ends <= now; ++i) {
                ::send(fds[static_cast<std::size_t>(i)], &kKeepAlive, 1, MSG_NOSIGNAL);
                sent.fetch_add(1, std::memory_order_relaxed);
            }
        }
    }
}

}  // namespace

IdleFloor measureIdleFloor(int pairs, double keepAlivesPerSecond, double seconds) {
    IdleFloor floor;
    floor.keepAlivesPerSecond = keepAlivesPerSecond;
    std::vector<int> fds;
    const int epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    bool ok = epollFd >= 0 && keepAlivesPerSecond > 0 && makePairs(pairs, fds);
    for (std::size_t i = 0; ok && i < fds.size(); ++i) {
        epoll_event event;
        std::memset(&event, 0, sizeof(event));
        event.events = EPOLLIN;
        event.data.u32 = static_cast<std::uint32_t>(i);
        ok = ::epoll_ctl(epollFd, EPOLL_CTL_ADD, fds[i], &event) == 0;
    }
    if (ok) {
        std::atomic<bool> stop{false};
        std::atomic<std::uint64_t> sent{0};
        std::thread reader([&] { answer(epollFd, fds, stop, sent); });
        std::thread sender([&] { sendKeepAlives(fds, keepAlivesPerSecond, stop, sent); });
        // Named so that a profile tells them from the library's threads.
        ::pthread_setname_np(reader.native_handle(), "floor-reader");
        ::pthread_setname_np(sender.native_handle(), "floor-sender");
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const double cpuStart = procCpuSeconds();
        const std::uint64_t sentStart = sent.load();
        const std::int64_t start = nowNs();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        floor.seconds = (nowNs() - start) / 1e9;
        floor.cpuPercent = 100.0 * (procCpuSeconds() - cpuStart) / floor.seconds;
        floor.datagramsPerSecond = static_cast<double>(sent.load() - sentStart) / floor.seconds;
        stop.store(true);
        sender.join();
        reader.join();
        floor.ends = static_cast<int>(fds.size());
        floor.ran = true;
    }
    for (int fd : fds) {
        ::close(fd);
    }
    if (epollFd >= 0) {
        ::close(epollFd);
    }
    return floor;
}

}  // namespace bench
