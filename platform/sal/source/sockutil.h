// Small helpers shared by the TCP and UDP sockets: address conversion and socket options.
#ifndef SAL_SOURCE_SOCKUTIL_H
#define SAL_SOURCE_SOCKUTIL_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include <sal/hostaddress.h>
#include <sal/types.h>

namespace sal {
namespace detail {

inline sockaddr_in toSockaddr(const HostAddress& address, uint16 port) {
    sockaddr_in result;
    std::memset(&result, 0, sizeof(result));
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(address.toUint32());
    return result;
}

inline void fromSockaddr(const sockaddr_in& from, HostAddress& address, uint16& port) {
    address = HostAddress::fromUint32(ntohl(from.sin_addr.s_addr));
    port = ntohs(from.sin_port);
}

inline uint16 localPortOf(int fd) {
    if (fd < 0) {
        return 0;
    }
    sockaddr_in local;
    socklen_t length = sizeof(local);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0 || local.sin_family != AF_INET) {
        return 0;
    }
    return ntohs(local.sin_port);
}

inline bool setIntOption(int fd, int level, int name, int value) {
    return fd >= 0 && ::setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

}  // namespace detail
}  // namespace sal

#endif  // SAL_SOURCE_SOCKUTIL_H
