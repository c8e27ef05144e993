// Ten seconds of the fault suites' hostile input against a hardened EUDP server and client (the
// 60-second run is hostile_long_test.cpp).
#include "hostile_cases.h"

TEST(HardenedHostileInput, TenSecondsLeaveTheLinkAndTheListenerServing) {
    hardened::expectHardenedSurvives(10, 20261124);
}
