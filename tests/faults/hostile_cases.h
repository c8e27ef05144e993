// The hostile-input run and its checks, shared by the short and the 60-second suites.
#ifndef TARN_TESTS_FAULTS_HOSTILE_CASES_H
#define TARN_TESTS_FAULTS_HOSTILE_CASES_H

#include <algorithm>

#include <gtest/gtest.h>

#include "faultsupport.h"
#include "hostile.h"

namespace faults {

inline void expectSurvives(int seconds, std::uint32_t seed) {
    const HostileReport report = runHostile(seconds, seed);
    figure(describe(report));
    EXPECT_GT(report.datagramsSent, static_cast<std::uint64_t>(seconds) * 100);
    EXPECT_GT(report.tcpStreams, static_cast<std::uint64_t>(seconds));
    // TCP connections are separate: the well-behaved one loses nothing.
    EXPECT_GT(report.tcpCalls, seconds * 100);
    EXPECT_EQ("", checkComplete(report.tcpReceived, report.tcpCalls));
    EXPECT_EQ(0, report.tcpDisconnects);
    // EUDP takes datagrams from anyone; the client keeps getting work done, in order per connection.
    EXPECT_GE(report.eudpGenerations, 1);
    EXPECT_GT(report.eudpDelivered, seconds * 5);  // about one stranger a second ends the connection
    EXPECT_EQ("", report.eudpOrderError);
    // Memory stays bounded: the second half of the run grows no further than a little over the first.
    ASSERT_GE(report.residentKb.size(), 4u);
    const std::size_t half = report.residentKb.size() / 2;
    const long firstHalf = *std::max_element(report.residentKb.begin(), report.residentKb.begin() + half);
    const long secondHalf = *std::max_element(report.residentKb.begin() + half, report.residentKb.end());
    EXPECT_LE(secondHalf, firstHalf + firstHalf / 2 + 128 * 1024) << "resident KiB";
}

}  // namespace faults

#endif  // TARN_TESTS_FAULTS_HOSTILE_CASES_H
