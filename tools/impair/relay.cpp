#include "relay.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <vector>

namespace tarnrelay {

namespace {

using Datagram = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;
using ClientKey = std::uint64_t;  // IPv4 address << 16 | port, both in host order

// A datagram of 64 KiB is the most UDP can carry; the relay passes whatever it gets, whole.
constexpr std::size_t kMaxDatagram = 65536;
// Datagrams read from one socket per round, so that a flooding side cannot starve the others.
constexpr int kReadsPerRound = 64;
// The longest poll: how soon a stop() is noticed when nothing happens.
constexpr int kMaxPollMs = 50;

ClientKey keyOf(const sockaddr_in& address) {
    return (static_cast<ClientKey>(ntohl(address.sin_addr.s_addr)) << 16) | ntohs(address.sin_port);
}

bool resolve(const std::string& host, std::uint16_t port, sockaddr_in& out) {
    std::memset(&out, 0, sizeof out);
    out.sin_family = AF_INET;
    out.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &out.sin_addr) == 1) {
        return true;
    }
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* result = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &result) != 0 || result == nullptr) {
        return false;
    }
    out.sin_addr = reinterpret_cast<const sockaddr_in*>(result->ai_addr)->sin_addr;
    freeaddrinfo(result);
    return true;
}

int openSocket(const sockaddr_in& bindTo) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    // Bursts of a reliable window arrive faster than one thread forwards them on a busy machine.
    int size = 4 * 1024 * 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&bindTo), sizeof bindTo) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::uint16_t localPort(int fd) {
    sockaddr_in address;
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

// The data path of an established connection: what a lossy network may do to without only
// testing the time-outs of requests that the protocol never repeats.
bool isDataPath(const Datagram& datagram) {
    if (datagram.size() < 4) {
        return false;
    }
    const char* command = reinterpret_cast<const char*>(datagram.data() + 1);
    return std::memcmp(command, "CMD", 3) == 0 || std::memcmp(command, "ACK", 3) == 0 ||
           std::memcmp(command, "NAK", 3) == 0 || std::memcmp(command, "NOP", 3) == 0;
}

// One direction of one client's mapping, with the datagram it holds back for reordering.
struct Direction {
    bool toClient = false;
    bool holding = false;
    Datagram held;
    Clock::time_point heldSince;
};

struct Client {
    int backFd = -1;           // the relay's socket towards the server for this client
    sockaddr_in address{};     // the client, where answers go
    sockaddr_in server{};      // the server's listening port, then its connection port
    bool established = false;  // the server has answered from its connection port
    Clock::time_point lastActive;
    Direction toServer;
    Direction toClient;
};

// A datagram waiting for its time. The socket is looked up when it is due, since an idle mapping
// may have been closed in between.
struct Pending {
    ClientKey key = 0;
    bool toClient = false;
    Datagram datagram;
};

}  // namespace

std::string describe(const RelayCounts& counts) {
    std::ostringstream out;
    out << "received " << counts.received << ", forwarded " << counts.forwarded << ", dropped "
        << counts.dropped << ", duplicated " << counts.duplicated << ", reordered " << counts.reordered
        << ", delayed " << counts.delayed << ", clients " << counts.clients << ", refused " << counts.refused;
    return out.str();
}

struct Relay::State {
    ImpairOptions options;
    std::mt19937 random;
    std::uniform_real_distribution<double> chance{0.0, 1.0};
    int frontFd = -1;
    sockaddr_in server{};
    std::map<ClientKey, Client> clients;
    std::multimap<Clock::time_point, Pending> pending;  // equal times keep their order

    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> forwarded{0};
    std::atomic<std::uint64_t> dropped{0};
    std::atomic<std::uint64_t> duplicated{0};
    std::atomic<std::uint64_t> reordered{0};
    std::atomic<std::uint64_t> delayed{0};
    std::atomic<std::uint64_t> clientCount{0};
    std::atomic<std::uint64_t> refused{0};

    static void bump(std::atomic<std::uint64_t>& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

    bool roll(double probability) { return probability > 0.0 && chance(random) < probability; }

    Clock::duration latency() {
        long ms = static_cast<long>(options.delayMs);
        if (options.jitterMs > 0) {
            const long jitter = static_cast<long>(options.jitterMs);
            ms += std::uniform_int_distribution<long>(-jitter, jitter)(random);
        }
        return std::chrono::milliseconds(ms < 0 ? 0 : ms);
    }

    void transmit(ClientKey key, bool toClient, const Datagram& datagram) {
        auto found = clients.find(key);
        if (found == clients.end()) {
            return;  // the mapping was closed while the datagram waited
        }
        const Client& client = found->second;
        const int fd = toClient ? frontFd : client.backFd;
        const sockaddr_in& to = toClient ? client.address : client.server;
        sendto(fd, datagram.data(), datagram.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to),
               sizeof to);
        bump(forwarded);
    }

    // Sends now, or queues for later when the link has a delay.
    void schedule(ClientKey key, bool toClient, const Datagram& datagram, Clock::time_point now) {
        const Clock::duration wait = latency();
        if (wait == Clock::duration::zero() && pending.empty()) {
            transmit(key, toClient, datagram);
            return;
        }
        if (wait > Clock::duration::zero()) {
            bump(delayed);
        }
        pending.emplace(now + wait, Pending{key, toClient, datagram});
    }

    void releaseHeld(ClientKey key, Direction& direction, Clock::time_point now) {
        if (direction.holding) {
            direction.holding = false;
            schedule(key, direction.toClient, direction.held, now);
        }
    }

    void pass(ClientKey key, Direction& direction, const Datagram& datagram, bool disturb,
              Clock::time_point now) {
        if (disturb && roll(options.loss)) {
            bump(dropped);
            return;
        }
        if (disturb && !direction.holding && roll(options.reorder)) {
            direction.held = datagram;
            direction.holding = true;
            direction.heldSince = now;
            bump(reordered);
            return;
        }
        schedule(key, direction.toClient, datagram, now);
        if (disturb && roll(options.duplicate)) {
            schedule(key, direction.toClient, datagram, now);
            bump(duplicated);
        }
        releaseHeld(key, direction, now);  // the held one goes out behind its successor
    }

    void fromClient(const sockaddr_in& from, const Datagram& datagram, Clock::time_point now) {
        const ClientKey key = keyOf(from);
        auto found = clients.find(key);
        if (found == clients.end()) {
            if (clients.size() >= options.maxClients) {
                bump(refused);
                return;
            }
            sockaddr_in any;
            std::memset(&any, 0, sizeof any);
            any.sin_family = AF_INET;
            any.sin_addr.s_addr = htonl(INADDR_ANY);
            const int fd = openSocket(any);
            if (fd < 0) {
                bump(refused);
                return;
            }
            Client client;
            client.backFd = fd;
            client.address = from;
            client.server = server;
            client.toClient.toClient = true;
            found = clients.emplace(key, client).first;
            bump(clientCount);
        }
        Client& client = found->second;
        client.lastActive = now;
        const bool disturb = options.dataOnly ? client.established && isDataPath(datagram) : true;
        pass(key, client.toServer, datagram, disturb, now);
    }

    void fromServer(ClientKey key, const sockaddr_in& from, const Datagram& datagram, Clock::time_point now) {
        Client& client = clients[key];
        client.lastActive = now;
        const bool wasEstablished = client.established;
        if (!client.established &&
            (from.sin_port != server.sin_port || from.sin_addr.s_addr != server.sin_addr.s_addr)) {
            client.established = true;  // the server's port for this connection
            client.server = from;
        }
        // In data-only mode the answer to CON always gets through.
        const bool disturb = options.dataOnly ? wasEstablished && isDataPath(datagram) : true;
        pass(key, client.toClient, datagram, disturb, now);
    }

    void flushDue(Clock::time_point now) {
        while (!pending.empty() && pending.begin()->first <= now) {
            Pending due = std::move(pending.begin()->second);
            pending.erase(pending.begin());
            transmit(due.key, due.toClient, due.datagram);
        }
    }

    void releaseStale(Clock::time_point now) {
        const auto hold = std::chrono::milliseconds(options.reorderHoldMs);
        for (auto& entry : clients) {
            for (Direction* direction : {&entry.second.toServer, &entry.second.toClient}) {
                if (direction->holding && now - direction->heldSince >= hold) {
                    releaseHeld(entry.first, *direction, now);
                }
            }
        }
    }

    void closeIdle(Clock::time_point now) {
        const auto idle = std::chrono::milliseconds(options.idleMs);
        for (auto it = clients.begin(); it != clients.end();) {
            if (now - it->second.lastActive > idle) {
                close(it->second.backFd);
                it = clients.erase(it);
            } else {
                ++it;
            }
        }
    }

    int pollTimeout(Clock::time_point now) const {
        Clock::time_point next = now + std::chrono::milliseconds(kMaxPollMs);
        if (!pending.empty() && pending.begin()->first < next) {
            next = pending.begin()->first;
        }
        for (const auto& entry : clients) {
            for (const Direction* direction : {&entry.second.toServer, &entry.second.toClient}) {
                const Clock::time_point release =
                    direction->heldSince + std::chrono::milliseconds(options.reorderHoldMs);
                if (direction->holding && release < next) {
                    next = release;
                }
            }
        }
        if (next <= now) {
            return 0;
        }
        // Rounded up, so that the loop does not spin for the last fraction of a millisecond.
        return static_cast<int>(
            std::chrono::duration_cast<std::chrono::microseconds>(next - now).count() / 1000 + 1);
    }
};

Relay::Relay(const ImpairOptions& options) : m_port(0), m_pState(new State), m_bStop(false) {
    m_pState->options = options;
    m_pState->random.seed(options.seed);
}

Relay::~Relay() {
    stop();
    for (auto& entry : m_pState->clients) {
        close(entry.second.backFd);
    }
    if (m_pState->frontFd >= 0) {
        close(m_pState->frontFd);
    }
}

bool Relay::resolves(const std::string& host) {
    sockaddr_in address;
    return resolve(host, 0, address);
}

bool Relay::open(const std::string& listenAddress, std::uint16_t listenPort, const std::string& serverHost,
                 std::uint16_t serverPort, std::string& error) {
    sockaddr_in front;
    if (!resolve(listenAddress, listenPort, front)) {
        error = "cannot resolve listen address '" + listenAddress + "'";
        return false;
    }
    if (!resolve(serverHost, serverPort, m_pState->server)) {
        error = "cannot resolve server host '" + serverHost + "'";
        return false;
    }
    m_pState->frontFd = openSocket(front);
    if (m_pState->frontFd < 0) {
        error =
            "cannot bind " + listenAddress + ":" + std::to_string(listenPort) + ": " + std::strerror(errno);
        return false;
    }
    m_port = localPort(m_pState->frontFd);
    return true;
}

void Relay::start() {
    if (!m_thread.joinable() && m_pState->frontFd >= 0) {
        m_bStop = false;
        m_thread = std::thread([this] { run(); });
    }
}

void Relay::stop() {
    m_bStop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

RelayCounts Relay::counts() const {
    const State& s = *m_pState;
    RelayCounts counts;
    counts.received = s.received.load(std::memory_order_relaxed);
    counts.forwarded = s.forwarded.load(std::memory_order_relaxed);
    counts.dropped = s.dropped.load(std::memory_order_relaxed);
    counts.duplicated = s.duplicated.load(std::memory_order_relaxed);
    counts.reordered = s.reordered.load(std::memory_order_relaxed);
    counts.delayed = s.delayed.load(std::memory_order_relaxed);
    counts.clients = s.clientCount.load(std::memory_order_relaxed);
    counts.refused = s.refused.load(std::memory_order_relaxed);
    return counts;
}

void Relay::run() {
    State& state = *m_pState;
    Datagram buffer(kMaxDatagram);
    std::vector<pollfd> fds;
    std::vector<ClientKey> owners;  // parallel to fds; the front socket's entry is unused
    Clock::time_point lastIdleCheck = Clock::now();
    while (!m_bStop.load()) {
        fds.clear();
        owners.clear();
        fds.push_back(pollfd{state.frontFd, POLLIN, 0});
        owners.push_back(0);
        for (const auto& entry : state.clients) {
            fds.push_back(pollfd{entry.second.backFd, POLLIN, 0});
            owners.push_back(entry.first);
        }
        const int ready = poll(fds.data(), fds.size(), state.pollTimeout(Clock::now()));
        Clock::time_point now = Clock::now();
        state.releaseStale(now);
        state.flushDue(now);
        if (ready > 0) {
            for (std::size_t i = 0; i < fds.size(); ++i) {
                if ((fds[i].revents & POLLIN) == 0) {
                    continue;
                }
                for (int read = 0; read < kReadsPerRound; ++read) {
                    sockaddr_in from;
                    socklen_t length = sizeof from;
                    const ssize_t n = recvfrom(fds[i].fd, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                               reinterpret_cast<sockaddr*>(&from), &length);
                    if (n < 0) {
                        break;
                    }
                    State::bump(state.received);
                    const Datagram datagram(buffer.begin(), buffer.begin() + n);
                    now = Clock::now();
                    if (i == 0) {
                        state.fromClient(from, datagram, now);
                    } else if (state.clients.count(owners[i]) != 0) {
                        state.fromServer(owners[i], from, datagram, now);
                    }
                }
            }
        }
        if (now - lastIdleCheck > std::chrono::seconds(1)) {
            lastIdleCheck = now;
            state.closeIdle(now);
        }
    }
}

}  // namespace tarnrelay
