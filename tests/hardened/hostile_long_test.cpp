// Sixty seconds of the fault suites' hostile input against a hardened EUDP server and client.
#include "hostile_cases.h"

TEST(HardenedHostileInput, SixtySecondsLeaveTheLinkAndTheListenerServing) {
    hardened::expectHardenedSurvives(60, 20261124);
}
