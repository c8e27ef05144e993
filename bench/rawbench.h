// The baselines: plain POSIX sockets on 127.0.0.1 doing what the library does on the wire, with
// nothing in between, so that the ratio to them is the library's own cost.
//
// TCP: every message is a 2-byte little-endian length and the message, written with two send
// calls, TCP_NODELAY on both ends, and read as the length then exactly that many bytes. UDP: one
// datagram per message, as long as an EUDP data datagram (8-byte header and the message), sendto
// and recvfrom with the system's default buffers.
//
// Each function runs one scenario to its end on threads of its own and returns its figures; it
// owns and closes every socket it opens.
#ifndef TARN_BENCH_RAWBENCH_H
#define TARN_BENCH_RAWBENCH_H

#include <cstdint>

#include "common.h"

namespace bench {

// A stream of `count` messages of `messageLength` bytes from one end to the other.
StreamRun rawTcpStream(std::uint32_t messageLength, std::uint64_t count, double timeLimit);
StreamRun rawUdpStream(std::uint32_t messageLength, std::uint64_t count, double timeLimit);

// Ping-pong: a call of `callLength` bytes answered with `replyLength` bytes, `count` times after
// `warmUp` unrecorded ones.
RttRun rawTcpRoundTrips(std::uint32_t callLength, std::uint32_t replyLength, std::uint32_t count,
                        std::uint32_t warmUp, double timeLimit);
RttRun rawUdpRoundTrips(std::uint32_t callLength, std::uint32_t replyLength, std::uint32_t count,
                        std::uint32_t warmUp, double timeLimit);

}  // namespace bench

#endif  // TARN_BENCH_RAWBENCH_H
