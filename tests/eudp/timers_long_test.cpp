// Liveness supervision over half a minute of idle links, left out of the test command (ctest label
// "long"): the driven pair (driven_test.cpp) counts the keep-alives of 30 s exactly, and the test
// command's real-socket versions run idle past the silence close.

#include <gtest/gtest.h>

#include "eudptestaccess.h"

namespace {

TEST(EUDPTimersLong, IdlePairStaysConnectedFor30s) {
    eudptest::expectIdlePairStaysUp(30000, 25, 62, 6);
}

TEST(EUDPTimersLong, HundredIdleConnectionsShareTimerThreadsFor30s) {
    eudptest::expectIdleConnectionsShareTimerThreads(100, 30000, 1000);
}

}  // namespace
