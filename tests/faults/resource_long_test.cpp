// A burst of 1000 connection requests: EUDP CONs from one silent stranger, and TCP connections.
#include "resource_cases.h"

TEST(ResourceCostLong, BurstOf1000EudpConnectionRequests) {
    faults::measureConnectionRequests(1000, 128);
}

TEST(ResourceCostLong, BurstOf1000TcpConnections) {
    faults::measureTcpConnections(1000, 4 * 1024);
}
