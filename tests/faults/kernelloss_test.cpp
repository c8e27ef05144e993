// TARN under packet loss in the kernel, short runs: EUDP reliable both ways and realtime at 5 %,
// TCP at 5 %. The full-size runs are in kernelloss_long_test.cpp.
#include "kernelloss_cases.h"

namespace {

TEST(KernelLoss, EudpReliableBothWaysAt5PercentArrivesCompleteInOrder) {
    TARN_ENTER_LOSSY_NAMESPACE("udp", 50);
    faults::expectReliable(eTransportEUDP, 50, 1000, 120000);
}

TEST(KernelLoss, EudpRealtimeAt5PercentArrivesStrictlyIncreasing) {
    TARN_ENTER_LOSSY_NAMESPACE("udp", 50);
    faults::expectRealtime(50, 2000);
}

TEST(KernelLoss, TcpAt5PercentArrivesCompleteInOrder) {
    TARN_ENTER_LOSSY_NAMESPACE("tcp", 50);
    faults::expectReliable(eTransportTCP, 50, 1000, 120000);
}

}  // namespace
