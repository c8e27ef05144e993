// The library's side of the stream and round-trip scenarios, through the public API only: a
// TARNConnection client against a connection that the benchmark's TarnServer accepted.
//
// Streams: the server end sends triggers "s" with a text value of the payload size from the calling
// thread; the client counts them in onTrigger. Round trips: the client calls "rt" with a text that
// names the round trip, the server answers with a trigger carrying the same text, and the client's
// onTrigger records the time and sends the next call from the receive thread, the way an
// application answering in its callback would.
//
// Each call opens a fresh pair of connections and closes it before returning.
#ifndef TARN_BENCH_TARNBENCH_H
#define TARN_BENCH_TARNBENCH_H

#include <cstdint>

#include <itarntransport.h>

#include "common.h"
#include "tarnfixture.h"

namespace bench {

// How an EUDP pair is set up before it is measured; ignored for TCP.
struct EudpSetup {
    bool reliable = false;     // both directions reliable (realtime: the defaults, nothing asked)
    std::uint32_t window = 0;  // window the client asks the server to send with; 0 leaves the default
};

StreamRun tarnStream(TarnServer& server, ETransport transport, const EudpSetup& setup, std::uint32_t payload,
                     std::uint64_t count, double timeLimit);

RttRun tarnRoundTrips(TarnServer& server, ETransport transport, const EudpSetup& setup, std::uint32_t payload,
                      std::uint32_t count, std::uint32_t warmUp, double timeLimit);

}  // namespace bench

#endif  // TARN_BENCH_TARNBENCH_H
