#include "tcptestutil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

namespace tcptest {

Bytes packet(std::uint8_t command, const Bytes& body) {
    Bytes out{1, command, static_cast<std::uint8_t>(body.size() & 0xFF),
              static_cast<std::uint8_t>((body.size() >> 8) & 0xFF)};
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes cstr(const std::string& text) {
    Bytes out(text.begin(), text.end());
    out.push_back(0);
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

Bytes intValue(std::int32_t value) {
    const auto u = static_cast<std::uint32_t>(value);
    return Bytes{'I', static_cast<std::uint8_t>(u & 0xFF), static_cast<std::uint8_t>((u >> 8) & 0xFF),
                 static_cast<std::uint8_t>((u >> 16) & 0xFF), static_cast<std::uint8_t>(u >> 24)};
}

namespace {

// The platform's sockets are IPv6 sockets that carry IPv4 too where the system has IPv6.
std::uint16_t portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    }
    if (address.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    }
    return 0;
}

}  // namespace

std::uint16_t localPortOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return portOf(address);
}

std::uint16_t peerPortOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return portOf(address);
}

int findSocket(std::uint16_t localPort, std::uint16_t peerPort) {
    for (int fd = 0; fd < 4096; ++fd) {
        int type = 0;
        socklen_t length = sizeof(type);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_STREAM) {
            continue;
        }
        if (localPortOf(fd) == localPort && peerPortOf(fd) == peerPort) {
            return fd;
        }
    }
    return -1;
}

bool socketOption(int fd, int level, int option) {
    int value = 0;
    socklen_t length = sizeof(value);
    return getsockopt(fd, level, option, &value, &length) == 0 && value != 0;
}

bool quietFor(int fd, int ms) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, ms) == 0;
}

}  // namespace tcptest
