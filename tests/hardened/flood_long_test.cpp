// For comparison with the hardened suite's flood: what 1000 CONs from one raw socket cost a
// default EUDP listener, which accepts every one (three threads each until the keep-alive gives
// up), and whether a client from 127.0.0.2 still connects meanwhile.
#include "flood.h"

TEST(DefaultListenerFlood, EveryConnectionRequestCostsAConnection) {
    const int kFlood = 1000;
    TARNListenerStatistics figures;
    faults::figure(hardened::flood(false, kFlood, &figures));
    EXPECT_EQ(0u, figures.refused[eRefusedRateLimit] + figures.refused[eRefusedPerSourceLimit] +
                      figures.refused[eRefusedTotalLimit]);
    EXPECT_GT(figures.accepted, static_cast<std::uint64_t>(kFlood) * 9 / 10);
}
