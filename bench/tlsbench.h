// TARN over TLS in the benchmarks: a TarnServer whose listener is a TLSListener with a throw-away
// certificate, and whose client ends are TLS transports that trust it, so that the TCP scenarios
// run unchanged over TLS 1.3 and their rows stand next to TCP and raw TCP.
#ifndef TARN_BENCH_TLSBENCH_H
#define TARN_BENCH_TLSBENCH_H

#include <memory>

#include "tarnfixture.h"

namespace bench {

// Null when the benchmark was built without libtarn_tls (no OpenSSL 3); its rows then stay empty.
std::unique_ptr<TarnServer> makeTlsServer();

}  // namespace bench

#endif  // TARN_BENCH_TLSBENCH_H
