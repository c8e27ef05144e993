// Ten seconds of hostile input while well-behaved clients keep working (the 60-second run is
// hostile_long_test.cpp).
#include "hostile_cases.h"

TEST(HostileInput, TenSecondsOfRandomAndMutatedInput) {
    faults::expectSurvives(10, 20261122);
}
