// TARN under packet loss in the kernel, full size: EUDP reliable both ways at 1 % and 5 % with
// 10 000 messages and at 20 % with 1 000, realtime at the same rates, TCP at 5 % with 10 000.
#include "kernelloss_cases.h"

namespace {

TEST(KernelLossLong, EudpReliableAt1Percent10000) {
    TARN_ENTER_LOSSY_NAMESPACE("udp", 10);
    faults::expectReliable(eTransportEUDP, 10, 10000, 1800000);
}

TEST(KernelLossLong, EudpReliableAt5Percent10000) {
    TARN_ENTER_LOSSY_NAMESPACE("udp", 50);
    faults::expectReliable(eTransportEUDP, 50, 10000, 1800000);
}

TEST(KernelLossLong, EudpReliableAt20Percent1000) {
    TARN_ENTER_LOSSY_NAMESPACE("udp", 200);
    faults::expectReliable(eTransportEUDP, 200, 1000, 1800000);
}

TEST(KernelLossLong, EudpRealtimeAt1Percent10000) {
    TARN_ENTER_LOSSY_NAMESPACE("udp", 10);
    faults::expectRealtime(10, 10000);
}

TEST(KernelLossLong, EudpRealtimeAt5Percent10000) {
    TARN_ENTER_LOSSY_NAMESPACE("udp", 50);
    faults::expectRealtime(50, 10000);
}

TEST(KernelLossLong, EudpRealtimeAt20Percent1000) {
    TARN_ENTER_LOSSY_NAMESPACE("udp", 200);
    faults::expectRealtime(200, 1000);
}

TEST(KernelLossLong, TcpAt5Percent10000) {
    TARN_ENTER_LOSSY_NAMESPACE("tcp", 50);
    faults::expectReliable(eTransportTCP, 50, 10000, 1800000);
}

}  // namespace
