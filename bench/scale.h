// The scale scenario: many TCP and EUDP clients on one server in this process. Each transport's
// pairs are set up one after another, then left idle for a fixed spell so that only keep-alive
// traffic remains, then all of them do round trips at a fixed rate together.
//
// Measured per transport: the time of each handshake (connect() until the server end is up), the
// memory and threads that its idle connections add, the CPU its idle ends cost (from the process's
// CPU times in /proc over the spell, TCP's spell before any EUDP pair exists, EUDP's share being
// what its spell adds to TCP's), and under the load the aggregate round-trip rate, its
// distribution and the connections that dropped. EUDP pairs keep their default (realtime) modes.
//
// After the tear-down, the floor for EUDP's idle spell (idlefloor.h): raw UDP pairs exchanging as
// many datagrams a second as the idle EUDP ends sent, half of them keep-alives and half their
// answers, with one sending and one reading thread.
#ifndef TARN_BENCH_SCALE_H
#define TARN_BENCH_SCALE_H

#include <cstdint>
#include <string>
#include <vector>

#include "common.h"
#include "idlefloor.h"
#include "tarnfixture.h"

namespace bench {

struct ScaleTransport {
    std::string name;
    int clients = 0;          // asked for
    int connected = 0;        // pairs that came up
    double setupSeconds = 0;  // all pairs, one after another
    double handshakeMeanMs = 0;
    double handshakeP50Ms = 0;
    double handshakeP99Ms = 0;
    double handshakeMaxMs = 0;
    std::int64_t residentDelta = 0;  // bytes added by the idle pairs (both ends live in this process)
    int threadDelta = 0;
    double idleSeconds = 0;             // the idle spell after this transport's pairs came up
    double idleProcessCpuPercent = 0;   // of one core, the whole process over that spell
    double idleCpuPercent = 0;          // of one core, the share of this transport's ends
    double idleDatagramsPerSecond = 0;  // UDP datagrams the system sent over the spell (TCP's: none)
    std::uint64_t completed = 0;        // round trips answered during the load
    std::uint64_t lost = 0;             // calls left unanswered for a second
    std::uint64_t skipped = 0;          // ticks that found the previous call still open
    int dropped = 0;                    // client ends that reported eDisconnected before the tear-down
    double roundTripsPerSecond = 0;
    double expectedPerSecond = 0;
    double p50Us = 0;
    double p99Us = 0;
    double p999Us = 0;

    int ends() const { return 2 * connected; }
    double residentPerEnd() const;
    double threadsPerEnd() const;
    double idleCpuPercentPer1000Ends() const;
};

struct ScaleResult {
    bool ran = false;
    std::string note;
    std::vector<ScaleTransport> transports;
    double loadSeconds = 0;
    double loadCpuPercent = 0;  // of one core, whole process
    int threadsAtPeak = 0;
    std::uint64_t residentAtPeak = 0;
    double teardownSeconds = 0;
    IdleFloor idleFloor;  // for the EUDP ends' idle spell
};

ScaleResult runScale(TarnServer& tcpServer, TarnServer& eudpServer, const Config& config);

// A bound that a scale figure is held to: met when the figure is at most the bound (below it, when
// `strict`).
struct ScaleGoal {
    std::string what;  // e.g. "EUDP resident memory per idle end"
    std::string unit;
    double figure = 0;
    double bound = 0;
    bool strict = false;
    bool met() const { return strict ? figure < bound : figure <= bound; }
};
std::vector<ScaleGoal> scaleGoals(const ScaleResult& result);

// What makes a scale result unusable (a transport whose pairs did not all come up, or a figure
// that was never measured); empty when every figure is there.
std::vector<std::string> scaleProblems(const ScaleResult& result);

}  // namespace bench

#endif  // TARN_BENCH_SCALE_H
