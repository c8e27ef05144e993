#include "rawbench.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "sockets.h"

namespace bench {

namespace {

// The EUDP header that a data datagram carries in front of the message.
const std::uint32_t kDatagramHeader = 8;
// A realtime receiver that has heard nothing for this long after the sender finished is done.
const std::int64_t kIdleEndNs = 300000000;

// A connected pair of TCP sockets on loopback, both with TCP_NODELAY. False when the system refused.
bool tcpPair(int& client, int& server) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 1) != 0) {
        if (listener >= 0) {
            close(listener);
        }
        return false;
    }
    address = loopback(localPort(listener));
    client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client < 0 || connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(listener);
        if (client >= 0) {
            close(client);
        }
        return false;
    }
    server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    close(listener);
    if (server < 0) {
        close(client);
        return false;
    }
    setOption(client, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(server, IPPROTO_TCP, TCP_NODELAY, 1);
    return true;
}

bool sendAll(int fd, const std::uint8_t* data, std::size_t length) {
    while (length > 0) {
        const ssize_t n = send(fd, data, length, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

bool receiveExact(int fd, std::uint8_t* buffer, std::size_t length) {
    while (length > 0) {
        const ssize_t n = recv(fd, buffer, length, 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        buffer += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

// One framed message the way the library puts it on the stream: the length, then the message, in
// two send calls.
bool sendFrame(int fd, const std::vector<std::uint8_t>& message) {
    const std::uint8_t header[2] = {static_cast<std::uint8_t>(message.size() & 0xFF),
                                    static_cast<std::uint8_t>(message.size() >> 8)};
    return sendAll(fd, header, 2) && sendAll(fd, message.data(), message.size());
}

// Reads one framed message into `buffer`; its length, or -1 once the stream ended.
int receiveFrame(int fd, std::vector<std::uint8_t>& buffer) {
    std::uint8_t header[2];
    if (!receiveExact(fd, header, 2)) {
        return -1;
    }
    const std::size_t length = header[0] | (static_cast<std::size_t>(header[1]) << 8);
    if (buffer.size() < length) {
        buffer.resize(length);
    }
    return receiveExact(fd, buffer.data(), length) ? static_cast<int>(length) : -1;
}

bool deadlinePassed(std::int64_t startNs, double limitSeconds) {
    return static_cast<double>(nowNs() - startNs) > limitSeconds * 1e9;
}

}  // namespace

StreamRun rawTcpStream(std::uint32_t messageLength, std::uint64_t count, double timeLimit) {
    StreamRun run;
    int client = -1;
    int server = -1;
    if (!tcpPair(client, server)) {
        run.note = "socket set-up failed";
        return run;
    }
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::int64_t> lastNs{0};
    std::thread receiver([&] {
        std::vector<std::uint8_t> buffer(messageLength);
        while (receiveFrame(client, buffer) >= 0) {
            lastNs.store(nowNs(), std::memory_order_relaxed);
            delivered.fetch_add(1, std::memory_order_relaxed);
        }
    });

    const std::vector<std::uint8_t> message(messageLength, 'x');
    const double cpuStart = processCpuSeconds();
    const std::int64_t startNs = nowNs();
    std::uint64_t sent = 0;
    while (sent < count && !deadlinePassed(startNs, timeLimit) && sendFrame(server, message)) {
        ++sent;
    }
    shutdown(server, SHUT_WR);  // the receiver reads to the end of the stream, then stops
    receiver.join();
    run.cpuSeconds = processCpuSeconds() - cpuStart;
    run.sent = sent;
    run.delivered = delivered.load();
    run.seconds = static_cast<double>(lastNs.load() - startNs) / 1e9;
    run.ok = run.delivered == run.sent;
    close(client);
    close(server);
    return run;
}

StreamRun rawUdpStream(std::uint32_t messageLength, std::uint64_t count, double timeLimit) {
    StreamRun run;
    const int receiverFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int senderFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    if (receiverFd < 0 || senderFd < 0 ||
        bind(receiverFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        run.note = "socket set-up failed";
        close(receiverFd);
        close(senderFd);
        return run;
    }
    address = loopback(localPort(receiverFd));
    setReceiveTimeout(receiverFd, 50);

    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::int64_t> lastNs{0};
    std::atomic<std::int64_t> senderDoneNs{0};
    std::thread receiver([&] {
        std::vector<std::uint8_t> buffer(1500);
        for (;;) {
            const ssize_t n = recv(receiverFd, buffer.data(), buffer.size(), 0);
            if (n > 0) {
                lastNs.store(nowNs(), std::memory_order_relaxed);
                if (delivered.fetch_add(1, std::memory_order_relaxed) + 1 == count) {
                    return;
                }
                continue;
            }
            const std::int64_t done = senderDoneNs.load();
            const std::int64_t quietSince = std::max(done, lastNs.load(std::memory_order_relaxed));
            if (done != 0 && nowNs() - quietSince > kIdleEndNs) {
                return;
            }
        }
    });

    const std::vector<std::uint8_t> datagram(messageLength + kDatagramHeader, 'x');
    const std::uint64_t dropsBefore = udpReceiveBufferErrors();
    const double cpuStart = processCpuSeconds();
    const std::int64_t startNs = nowNs();
    std::uint64_t sent = 0;
    while (sent < count && !deadlinePassed(startNs, timeLimit)) {
        if (sendto(senderFd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&address),
                   sizeof(address)) == static_cast<ssize_t>(datagram.size())) {
            ++sent;
        }
    }
    senderDoneNs.store(nowNs());
    receiver.join();
    run.cpuSeconds = processCpuSeconds() - cpuStart;
    run.kernelDrops = udpReceiveBufferErrors() - dropsBefore;
    run.sent = sent;
    run.delivered = delivered.load();
    run.seconds = static_cast<double>(lastNs.load() - startNs) / 1e9;
    run.ok = run.delivered > 0;
    close(receiverFd);
    close(senderFd);
    return run;
}

RttRun rawTcpRoundTrips(std::uint32_t callLength, std::uint32_t replyLength, std::uint32_t count,
                        std::uint32_t warmUp, double timeLimit) {
    RttRun run;
    int client = -1;
    int server = -1;
    if (!tcpPair(client, server)) {
        run.note = "socket set-up failed";
        return run;
    }
    std::thread answerer([&] {
        std::vector<std::uint8_t> buffer(callLength);
        const std::vector<std::uint8_t> reply(replyLength, 'r');
        while (receiveFrame(server, buffer) >= 0 && sendFrame(server, reply)) {
        }
    });

    run.samples.reserve(count);
    std::vector<std::uint8_t> buffer(replyLength);
    const std::vector<std::uint8_t> call(callLength, 'c');
    double cpuStart = processCpuSeconds();
    std::int64_t startNs = nowNs();
    for (std::uint32_t i = 0; i < warmUp + count; ++i) {
        if (i == warmUp) {
            cpuStart = processCpuSeconds();
            startNs = nowNs();
        }
        const std::int64_t t0 = nowNs();
        if (!sendFrame(client, call) || receiveFrame(client, buffer) < 0) {
            run.note = "connection lost";
            break;
        }
        if (i >= warmUp) {
            run.samples.push_back(static_cast<std::uint32_t>(nowNs() - t0));
            if (deadlinePassed(startNs, timeLimit)) {
                break;
            }
        }
    }
    run.seconds = static_cast<double>(nowNs() - startNs) / 1e9;
    run.cpuSeconds = processCpuSeconds() - cpuStart;
    shutdown(client, SHUT_WR);
    answerer.join();
    close(client);
    close(server);
    run.ok = !run.samples.empty();
    return run;
}

RttRun rawUdpRoundTrips(std::uint32_t callLength, std::uint32_t replyLength, std::uint32_t count,
                        std::uint32_t warmUp, double timeLimit) {
    RttRun run;
    const int serverFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int clientFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    if (serverFd < 0 || clientFd < 0 ||
        bind(serverFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        run.note = "socket set-up failed";
        close(serverFd);
        close(clientFd);
        return run;
    }
    address = loopback(localPort(serverFd));
    setReceiveTimeout(serverFd, 50);
    setReceiveTimeout(clientFd, 200);

    std::atomic<bool> stop{false};
    std::thread answerer([&] {
        std::vector<std::uint8_t> buffer(1500);
        std::vector<std::uint8_t> reply(replyLength + kDatagramHeader, 'r');
        while (!stop.load()) {
            sockaddr_in from;
            socklen_t fromLength = sizeof(from);
            const ssize_t n = recvfrom(serverFd, buffer.data(), buffer.size(), 0,
                                       reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (n >= 8) {
                std::memcpy(reply.data(), buffer.data(), 8);  // the answer names its call
                sendto(serverFd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from),
                       fromLength);
            }
        }
    });

    run.samples.reserve(count);
    std::vector<std::uint8_t> call(callLength + kDatagramHeader, 'c');
    std::vector<std::uint8_t> buffer(1500);
    double cpuStart = processCpuSeconds();
    std::int64_t startNs = nowNs();
    std::uint64_t seq = 0;
    for (std::uint32_t i = 0; i < warmUp + count; ++i) {
        if (i == warmUp) {
            cpuStart = processCpuSeconds();
            startNs = nowNs();
        }
        const std::int64_t t0 = nowNs();
        ++seq;
        std::memcpy(call.data(), &seq, 8);
        sendto(clientFd, call.data(), call.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        bool answered = false;
        for (;;) {
            const ssize_t n = recv(clientFd, buffer.data(), buffer.size(), 0);
            if (n < 0) {
                break;  // timed out: this round trip is lost, the next one starts
            }
            std::uint64_t echoed = 0;
            std::memcpy(&echoed, buffer.data(), 8);
            if (n >= 8 && echoed == seq) {
                answered = true;
                break;
            }
        }
        if (i >= warmUp) {
            if (answered) {
                run.samples.push_back(static_cast<std::uint32_t>(nowNs() - t0));
            } else {
                ++run.lost;
            }
            if (deadlinePassed(startNs, timeLimit)) {
                break;
            }
        }
    }
    run.seconds = static_cast<double>(nowNs() - startNs) / 1e9;
    run.cpuSeconds = processCpuSeconds() - cpuStart;
    stop.store(true);
    answerer.join();
    close(serverFd);
    close(clientFd);
    run.ok = !run.samples.empty();
    return run;
}

}  // namespace bench
