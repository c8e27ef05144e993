// Sixty seconds of hostile input while well-behaved clients keep working.
#include "hostile_cases.h"

TEST(HostileInputLong, SixtySecondsOfRandomAndMutatedInput) {
    faults::expectSurvives(60, 7);
}
