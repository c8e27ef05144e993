// The raw-UDP floor of the idle spell: every keep-alive leaves on time and is answered, so the
// floor exchanges twice as many datagrams as keep-alives were asked for.
#include <gtest/gtest.h>

#include "idlefloor.h"

using namespace bench;

TEST(IdleFloor, SendsTheKeepAlivesAskedForAndAnswersEach) {
    const IdleFloor floor = measureIdleFloor(20, 200.0, 1.0);
    ASSERT_TRUE(floor.ran);
    EXPECT_EQ(floor.ends, 40);
    EXPECT_DOUBLE_EQ(floor.keepAlivesPerSecond, 200.0);
    EXPECT_GT(floor.seconds, 0.9);
    // 200 keep-alives and 200 answers a second; the margin is for a loaded machine.
    EXPECT_GT(floor.datagramsPerSecond, 300.0);
    EXPECT_LT(floor.datagramsPerSecond, 500.0);
    EXPECT_GE(floor.cpuPercent, 0.0);
}

TEST(IdleFloor, RefusesARateOfZero) {
    const IdleFloor floor = measureIdleFloor(2, 0.0, 0.1);
    EXPECT_FALSE(floor.ran);
    EXPECT_EQ(floor.ends, 0);
}
