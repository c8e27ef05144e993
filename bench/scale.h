// The scale scenario: many TCP and EUDP clients on one server in this process, each doing round
// trips at a fixed rate, then left idle so that only the keep-alive traffic remains.
//
// Measured: the memory and threads that each transport's connections add, the aggregate round-trip
// rate and its distribution under the load, the CPU of the loaded and of the idle phase, and how
// many connections dropped on the way. EUDP pairs keep their default (realtime) modes.
#ifndef TARN_BENCH_SCALE_H
#define TARN_BENCH_SCALE_H

#include <cstdint>
#include <string>
#include <vector>

#include "common.h"
#include "tarnfixture.h"

namespace bench {

struct ScaleTransport {
    std::string name;
    int clients = 0;    // asked for
    int connected = 0;  // pairs that came up
    double setupSeconds = 0;
    std::uint64_t residentDelta = 0;  // bytes added by the pairs (both ends live in this process)
    int threadDelta = 0;
    std::uint64_t completed = 0;  // round trips answered during the load
    std::uint64_t lost = 0;       // calls left unanswered for a second
    std::uint64_t skipped = 0;    // ticks that found the previous call still open
    int dropped = 0;              // client ends that reported eDisconnected before the tear-down
    double roundTripsPerSecond = 0;
    double expectedPerSecond = 0;
    double p50Us = 0;
    double p99Us = 0;
    double p999Us = 0;
};

struct ScaleResult {
    bool ran = false;
    std::string note;
    std::vector<ScaleTransport> transports;
    double loadSeconds = 0;
    double loadCpuPercent = 0;  // of one core, whole process
    double idleSeconds = 0;
    double idleCpuPercent = 0;
    int threadsAtPeak = 0;
    std::uint64_t residentAtPeak = 0;
    double teardownSeconds = 0;
};

ScaleResult runScale(TarnServer& tcpServer, TarnServer& eudpServer, const Config& config);

}  // namespace bench

#endif  // TARN_BENCH_SCALE_H
