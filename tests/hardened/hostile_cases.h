// The hostile-input run of the fault suites against a hardened EUDP server and client, and what it
// must leave behind; shared by the short and the 60-second suites.
#ifndef TARN_TESTS_HARDENED_HOSTILE_CASES_H
#define TARN_TESTS_HARDENED_HOSTILE_CASES_H

#include <algorithm>

#include <gtest/gtest.h>

#include "faultsupport.h"
#include "hostile.h"

namespace hardened {

inline void expectHardenedSurvives(int seconds, std::uint32_t seed) {
    const faults::HostileReport report = faults::runHostile(seconds, seed, true);
    faults::figure(describe(report));
    EXPECT_GT(report.datagramsSent, static_cast<std::uint64_t>(seconds) * 100);
    // Strangers can neither close nor stall the hardened link: one connection carries the run.
    EXPECT_EQ(0, report.eudpClosedByStrangers);
    EXPECT_EQ(1, report.eudpGenerations);
    EXPECT_GT(report.eudpDelivered, seconds * 50);
    EXPECT_EQ("", report.eudpOrderError);
    EXPECT_EQ("", faults::checkComplete(report.tcpReceived, report.tcpCalls));
    // The listener still serves, whatever reached its port.
    EXPECT_TRUE(report.servingAfterwards);
    ASSERT_GE(report.residentKb.size(), 4u);
    const std::size_t half = report.residentKb.size() / 2;
    const long firstHalf = *std::max_element(report.residentKb.begin(), report.residentKb.begin() + half);
    const long secondHalf = *std::max_element(report.residentKb.begin() + half, report.residentKb.end());
    EXPECT_LE(secondHalf, firstHalf + firstHalf / 2 + 128 * 1024) << "resident KiB";
}

}  // namespace hardened

#endif  // TARN_TESTS_HARDENED_HOSTILE_CASES_H
