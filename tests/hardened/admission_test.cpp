// The hardened listener's admission of connection requests, with the time given by the test.
#include <gtest/gtest.h>

#include <string>

#include "eudpadmission.h"

namespace {

const int kAdmitted = -1;

EUDPAdmission* limited(EUDPAdmission& admission, std::uint32_t all, std::uint32_t perSource,
                       std::uint32_t perSecond) {
    EUDPHardening hardening = EUDPHardening::on();
    hardening.maxConnections = all;
    hardening.maxPerSource = perSource;
    hardening.maxNewPerSecondPerSource = perSecond;
    admission.setHardening(hardening);
    return &admission;
}

std::string source(int n) {
    return std::string(15, '\0') + static_cast<char>(n);
}

}  // namespace

TEST(EudpAdmission, DefaultsAreDocumentedValues) {
    EUDPHardening hardening;
    EXPECT_FALSE(hardening.enabled);
    EXPECT_EQ(1024u, hardening.maxConnections);
    EXPECT_EQ(64u, hardening.maxPerSource);
    EXPECT_EQ(20u, hardening.maxNewPerSecondPerSource);
    EXPECT_TRUE(EUDPHardening::on().enabled);
}

TEST(EudpAdmission, WithoutHardeningEverythingIsAdmittedAndCounted) {
    EUDPAdmission admission;
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(kAdmitted, admission.admit(source(1), 0));
    }
    TARNListenerStatistics figures = admission.snapshot();
    EXPECT_FALSE(figures.hardened);
    EXPECT_EQ(5000u, figures.live);
    EXPECT_EQ(0u, figures.refused[eRefusedRateLimit]);
    for (int i = 0; i < 5000; ++i) {
        admission.release(source(1));
    }
    EXPECT_EQ(0u, admission.snapshot().live);
    EXPECT_EQ(0u, admission.trackedSources());
}

TEST(EudpAdmission, PerSourceLimitRefusesTheNextUntilOneEnds) {
    EUDPAdmission admission;
    limited(admission, 0, 3, 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(kAdmitted, admission.admit(source(1), i * 5000));
    }
    EXPECT_EQ(eRefusedPerSourceLimit, admission.admit(source(1), 20000));
    EXPECT_EQ(kAdmitted, admission.admit(source(2), 20000));  // another address
    admission.release(source(1));
    EXPECT_EQ(kAdmitted, admission.admit(source(1), 20001));
    EXPECT_EQ(eRefusedPerSourceLimit, admission.admit(source(1), 20002));
    const TARNListenerStatistics figures = admission.snapshot();
    EXPECT_TRUE(figures.hardened);
    EXPECT_EQ(2u, figures.refused[eRefusedPerSourceLimit]);
    EXPECT_EQ(4u, figures.live);
}

TEST(EudpAdmission, TotalLimitCountsEverySource) {
    EUDPAdmission admission;
    limited(admission, 4, 0, 0);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(kAdmitted, admission.admit(source(i), 0));
    }
    EXPECT_EQ(eRefusedTotalLimit, admission.admit(source(9), 0));
    admission.release(source(2));
    EXPECT_EQ(kAdmitted, admission.admit(source(9), 0));
    EXPECT_EQ(1u, admission.snapshot().refused[eRefusedTotalLimit]);
}

TEST(EudpAdmission, RateLimitIsASlidingSecondPerSource) {
    EUDPAdmission admission;
    limited(admission, 0, 0, 3);
    EXPECT_EQ(kAdmitted, admission.admit(source(1), 1000));
    EXPECT_EQ(kAdmitted, admission.admit(source(1), 1400));
    EXPECT_EQ(kAdmitted, admission.admit(source(1), 1900));
    EXPECT_EQ(eRefusedRateLimit, admission.admit(source(1), 1999));  // three within (999, 1999]
    EXPECT_EQ(kAdmitted, admission.admit(source(2), 1999));          // another address
    EXPECT_EQ(kAdmitted, admission.admit(source(1), 2000));          // 1000 is a second old
    EXPECT_EQ(eRefusedRateLimit, admission.admit(source(1), 2399));
    EXPECT_EQ(kAdmitted, admission.admit(source(1), 2400));
    EXPECT_EQ(2u, admission.snapshot().refused[eRefusedRateLimit]);
    // Releasing does not give back rate: only time does.
    admission.release(source(1));
    EXPECT_EQ(eRefusedRateLimit, admission.admit(source(1), 2401));
}

TEST(EudpAdmission, RefusalsTakeNoPlace) {
    EUDPAdmission admission;
    limited(admission, 0, 1, 0);
    EXPECT_EQ(kAdmitted, admission.admit(source(1), 0));
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(eRefusedPerSourceLimit, admission.admit(source(1), i));
    }
    EXPECT_EQ(1u, admission.snapshot().live);
    EXPECT_EQ(10000u, admission.snapshot().refused[eRefusedPerSourceLimit]);
    EXPECT_EQ(1u, admission.trackedSources());
}

TEST(EudpAdmission, ForgottenSourcesKeepTheTableBounded) {
    EUDPAdmission admission;
    limited(admission, 0, 0, 20);
    // 10 000 sources that each connect once and end: the table keeps no more than a bound.
    for (int i = 0; i < 10000; ++i) {
        const std::string key = std::to_string(i);
        ASSERT_EQ(kAdmitted, admission.admit(key, static_cast<std::int64_t>(i) * 2000));
        admission.release(key);
    }
    EXPECT_LE(admission.trackedSources(), 65u);
}

TEST(EudpAdmission, LogLinesAreDueOncePerSecondPerCause) {
    EUDPAdmission admission;
    EXPECT_TRUE(admission.logDue(eRefusedRateLimit, 5000));
    EXPECT_FALSE(admission.logDue(eRefusedRateLimit, 5999));
    EXPECT_TRUE(admission.logDue(eRefusedPerSourceLimit, 5999));
    EXPECT_TRUE(admission.logDue(eRefusedRateLimit, 6000));
}

TEST(EudpAdmission, DropsAreCountedByKind) {
    EUDPAdmission admission;
    EXPECT_EQ(1u, admission.countDrop(EUDPAdmission::eDropEmpty));
    EXPECT_EQ(2u, admission.countDrop(EUDPAdmission::eDropEmpty));
    admission.countDrop(EUDPAdmission::eDropInvalid);
    admission.countDrop(EUDPAdmission::eDropNonCon);
    admission.countDrop(EUDPAdmission::eDropReceiveError);
    const TARNListenerStatistics figures = admission.snapshot();
    EXPECT_EQ(2u, figures.emptyReceived);
    EXPECT_EQ(1u, figures.invalidReceived);
    EXPECT_EQ(1u, figures.nonConReceived);
    EXPECT_EQ(1u, figures.receiveErrors);
}
