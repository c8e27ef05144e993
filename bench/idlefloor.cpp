#include "idlefloor.h"

#include <netinet/in.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "common.h"
#include "sockets.h"

namespace bench {

namespace {

const char kKeepAlive = 'K';
const char kAnswer = 'A';

// Both ends of every pair, each connected to the other; false when the system refuses one.
bool makePairs(int pairs, std::vector<int>& fds) {
    for (int i = 0; i < pairs; ++i) {
        const int fa = boundUdpSocket();
        const int fb = boundUdpSocket();
        if (fa >= 0) {
            fds.push_back(fa);
        }
        if (fb >= 0) {
            fds.push_back(fb);
        }
        if (fa < 0 || fb < 0) {
            return false;
        }
        const sockaddr_in a = loopback(localPort(fa));
        const sockaddr_in b = loopback(localPort(fb));
        if (::connect(fa, reinterpret_cast<const sockaddr*>(&b), sizeof(b)) != 0 ||
            ::connect(fb, reinterpret_cast<const sockaddr*>(&a), sizeof(a)) != 0) {
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
        const auto dueAt = [&](std::int64_t i) { return cycle + i * periodNs / ends; };
        for (std::int64_t i = 0; i < ends && !stop.load(std::memory_order_relaxed);) {
            const std::int64_t wait = dueAt(i) + grouping - nowNs();
            if (wait > 0) {
                std::this_thread::sleep_for(std::chrono::nanoseconds(wait));
            }
            // Everything due by now leaves in this wake-up.
            const std::int64_t now = nowNs();
            for (; i < ends && dueAt(i) <= now; ++i) {
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
