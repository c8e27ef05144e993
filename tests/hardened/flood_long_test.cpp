// For comparison with the hardened suite's flood: what 1000 CONs from one raw socket cost a
// default EUDP listener, which accepts every one (three threads each until the keep-alive gives
// up), and whether a client from 127.0.0.2 still connects meanwhile. TARN_DEFAULT_FLOOD=N sends N
// instead: 10 000 take about 30 000 threads, so run that only where the process ids allow it
// (for instance inside a pids control group of its own).
#include <cstdlib>

#include "flood.h"

TEST(DefaultListenerFlood, EveryConnectionRequestCostsAConnection) {
    const char* count = std::getenv("TARN_DEFAULT_FLOOD");
    const int kFlood = count != nullptr && std::atoi(count) > 0 ? std::atoi(count) : 1000;
    TARNListenerStatistics figures;
    faults::figure(hardened::flood(false, kFlood, &figures));
    EXPECT_EQ(0u, figures.refused[eRefusedRateLimit] + figures.refused[eRefusedPerSourceLimit] +
                      figures.refused[eRefusedTotalLimit]);
    EXPECT_GT(figures.accepted, static_cast<std::uint64_t>(kFlood) * 9 / 10);
}
