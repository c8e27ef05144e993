// Small helpers shared by the TCP and UDP sockets: socket creation, address conversion and socket
// options.
//
// A socket's address family is fixed when it is made. Where the system has IPv6 it is an IPv6
// socket that carries IPv4 as well (dual-stack): IPv4 addresses travel in their mapped form
// (::ffff:a.b.c.d), and the IPv4 any-address binds to ::, which takes peers of both families.
// Where the system has no IPv6 it is an IPv4 socket, and IPv6 addresses are refused.
#ifndef SAL_SOURCE_SOCKUTIL_H
#define SAL_SOURCE_SOCKUTIL_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include <sal/hostaddress.h>
#include <sal/types.h>

namespace sal {
namespace detail {

inline bool setIntOption(int fd, int level, int name, int value) {
    return fd >= 0 && ::setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

// Makes a socket of `type` and tells its family; -1 (family AF_INET) when none can be made.
inline int openSocket(int type, int& family) {
    const int fd = ::socket(AF_INET6, type | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        if (setIntOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0)) {
            family = AF_INET6;
            return fd;
        }
        ::close(fd);
    }
    family = AF_INET;
    return ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
}

// Writes address:port in the form a socket of `family` takes (`out` has room for either form) and
// returns its length, or 0 when such a socket cannot reach the address. `forBind`: an any-address
// means every local address of the socket's families. Copies only: no lookup, no allocation, as it
// runs for every datagram sent.
inline socklen_t toSockaddr(int family, const HostAddress& address, uint16 port, bool forBind,
                            sockaddr_in6& out) {
    if (!address.isValid()) {
        return 0;
    }
    if (family == AF_INET6) {
        std::memset(&out, 0, sizeof(out));
        out.sin6_family = AF_INET6;
        out.sin6_port = htons(port);
        if (!(forBind && address.isAny())) {
            std::memcpy(&out.sin6_addr, address.getIPv6Bytes(), sizeof(out.sin6_addr));
            out.sin6_scope_id = address.getScopeId();
        }
        return sizeof(out);
    }
    if (!address.isIPv4() && !(forBind && address.isAny())) {
        return 0;
    }
    sockaddr_in v4;
    std::memset(&v4, 0, sizeof(v4));
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(address.toUint32());
    std::memcpy(&out, &v4, sizeof(v4));
    return sizeof(v4);
}

// A mapped IPv4 peer comes back as plain IPv4.
inline bool fromSockaddr(const sockaddr_in6& from, socklen_t length, HostAddress& address, uint16& port) {
    return HostAddress::fromSockaddr(reinterpret_cast<const sockaddr*>(&from), length, address, port);
}

inline uint16 localPortOf(int fd) {
    if (fd < 0) {
        return 0;
    }
    sockaddr_in6 local;
    socklen_t length = sizeof(local);
    HostAddress address;
    uint16 port = 0;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0 ||
        !fromSockaddr(local, length, address, port)) {
        return 0;
    }
    return port;
}

}  // namespace detail
}  // namespace sal

#endif  // SAL_SOURCE_SOCKUTIL_H
