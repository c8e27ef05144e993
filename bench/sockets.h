// Small helpers for the raw-socket baselines: loopback addresses, ports, options and datagram
// sockets, so that every baseline sets its sockets up the same way.
//
// Plain POSIX calls and nothing else; each function works on the descriptor it is given and keeps
// no state.
#ifndef TARN_BENCH_SOCKETS_H
#define TARN_BENCH_SOCKETS_H

#include <netinet/in.h>

#include <cstdint>

namespace bench {

// 127.0.0.1 with `port` (host order).
sockaddr_in loopback(std::uint16_t port);
// The local port a socket is bound to, in host order (0 when it is not bound).
std::uint16_t localPort(int fd);
void setOption(int fd, int level, int name, int value);
// Makes blocking receives on `fd` give up after `milliseconds` (EAGAIN).
void setReceiveTimeout(int fd, int milliseconds);
// A UDP socket bound to 127.0.0.1 with an ephemeral port; -1 when the system refused.
int boundUdpSocket();

}  // namespace bench

#endif  // TARN_BENCH_SOCKETS_H
