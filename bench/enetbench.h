// The reliable-UDP reference: ENet's reliable channel carrying messages of the same sizes as the
// library's, a host per end on 127.0.0.1, each host serviced by a thread of its own.
//
// Both hosts get an MTU of 1500, so that a message that fits one EUDP datagram fits one ENet
// datagram too and neither side fragments. A stream keeps at most 999 messages queued and
// unacknowledged at the sender, as many as the library's send ring holds.
//
// Built only when ENet's development files were found (TARN_BENCH_HAVE_ENET); otherwise every
// function returns a run that is not ok and says why.
#ifndef TARN_BENCH_ENETBENCH_H
#define TARN_BENCH_ENETBENCH_H

#include <cstdint>

#include "common.h"

namespace bench {

bool enetAvailable();

StreamRun enetStream(std::uint32_t messageLength, std::uint64_t count, double timeLimit);

RttRun enetRoundTrips(std::uint32_t callLength, std::uint32_t replyLength, std::uint32_t count,
                      std::uint32_t warmUp, double timeLimit);

}  // namespace bench

#endif  // TARN_BENCH_ENETBENCH_H
