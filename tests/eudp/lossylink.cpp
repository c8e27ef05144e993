#include "lossylink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace eudptest {

namespace {

using Datagram = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

int openSocket(std::uint16_t& port) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        return -1;
    }
    int size = 4 * 1024 * 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

void sendTo(int fd, const Datagram& datagram, std::uint16_t port) {
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
}

bool disturbable(const Datagram& datagram) {
    if (datagram.size() < 4) {
        return false;
    }
    std::string command(datagram.begin() + 1, datagram.begin() + 4);
    return command == "CMD" || command == "ACK" || command == "NAK" || command == "NOP";
}

// One direction of one connection: where it goes, and a datagram held back for reordering.
struct Direction {
    int fd = -1;
    std::uint16_t port = 0;
    bool holding = false;
    Datagram held;
    Clock::time_point heldSince;
};

struct Connection {
    int backFd = -1;           // the relay's socket towards the server for this client
    bool established = false;  // the server has answered from its connection port
    Direction toServer;
    Direction toClient;
};

}  // namespace

struct LossyLink::State {
    Options options;
    std::mt19937 random;
    std::uniform_real_distribution<double> chance{0.0, 1.0};
    int frontFd = -1;
    std::uint16_t serverPort = 0;
    std::map<std::uint16_t, Connection> connections;  // by client port
};

LossyLink::LossyLink(std::uint16_t serverPort, const Options& options)
    : m_port(0),
      m_pState(new State),
      m_bStop(false),
      m_forwarded(0),
      m_dropped(0),
      m_duplicated(0),
      m_reordered(0) {
    m_pState->options = options;
    m_pState->random.seed(options.seed);
    m_pState->serverPort = serverPort;
    m_pState->frontFd = openSocket(m_port);
    m_thread = std::thread([this] { run(); });
}

LossyLink::~LossyLink() {
    m_bStop = true;
    m_thread.join();
    for (auto& entry : m_pState->connections) {
        close(entry.second.backFd);
    }
    if (m_pState->frontFd >= 0) {
        close(m_pState->frontFd);
    }
}

void LossyLink::run() {
    State& state = *m_pState;
    auto forward = [&](Direction& direction, const Datagram& datagram, bool disturb) {
        auto flushHeld = [&] {
            if (direction.holding) {
                sendTo(direction.fd, direction.held, direction.port);
                direction.holding = false;
            }
        };
        if (!disturb) {
            sendTo(direction.fd, datagram, direction.port);
            flushHeld();
            ++m_forwarded;
            return;
        }
        if (state.chance(state.random) < state.options.drop) {
            ++m_dropped;
            return;
        }
        if (!direction.holding && state.chance(state.random) < state.options.reorder) {
            direction.held = datagram;
            direction.holding = true;
            direction.heldSince = Clock::now();
            ++m_reordered;
            return;
        }
        sendTo(direction.fd, datagram, direction.port);
        ++m_forwarded;
        if (state.chance(state.random) < state.options.duplicate) {
            sendTo(direction.fd, datagram, direction.port);
            ++m_duplicated;
        }
        flushHeld();
    };

    std::vector<std::uint8_t> buffer(2048);
    while (!m_bStop) {
        std::vector<pollfd> fds;
        std::vector<std::uint16_t> owners;  // 0 for the front socket, else the client port
        fds.push_back(pollfd{state.frontFd, POLLIN, 0});
        owners.push_back(0);
        for (auto& entry : state.connections) {
            fds.push_back(pollfd{entry.second.backFd, POLLIN, 0});
            owners.push_back(entry.first);
        }
        int ready = poll(fds.data(), fds.size(), 5);

        // A datagram held back too long goes out anyway.
        Clock::time_point now = Clock::now();
        for (auto& entry : state.connections) {
            for (Direction* direction : {&entry.second.toServer, &entry.second.toClient}) {
                if (direction->holding && now - direction->heldSince > std::chrono::milliseconds(20)) {
                    sendTo(direction->fd, direction->held, direction->port);
                    direction->holding = false;
                }
            }
        }
        if (ready <= 0) {
            continue;
        }
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if ((fds[i].revents & POLLIN) == 0) {
                continue;
            }
            sockaddr_in from;
            socklen_t length = sizeof from;
            ssize_t n = recvfrom(fds[i].fd, buffer.data(), buffer.size(), 0,
                                 reinterpret_cast<sockaddr*>(&from), &length);
            if (n < 0) {
                continue;
            }
            Datagram datagram(buffer.begin(), buffer.begin() + n);
            std::uint16_t fromPort = ntohs(from.sin_port);
            if (owners[i] == 0) {
                Connection& connection = state.connections[fromPort];
                if (connection.backFd < 0) {
                    std::uint16_t unused = 0;
                    connection.backFd = openSocket(unused);
                    connection.toServer = Direction{connection.backFd, state.serverPort, false, {}, {}};
                    connection.toClient = Direction{state.frontFd, fromPort, false, {}, {}};
                }
                forward(connection.toServer, datagram, connection.established && disturbable(datagram));
            } else {
                Connection& connection = state.connections[owners[i]];
                bool wasEstablished = connection.established;
                if (!connection.established && fromPort != state.serverPort) {
                    connection.established = true;  // the server's port for this connection
                    connection.toServer.port = fromPort;
                }
                // The answer to CON itself always gets through.
                forward(connection.toClient, datagram, wasEstablished && disturbable(datagram));
            }
        }
    }
}

}  // namespace eudptest
