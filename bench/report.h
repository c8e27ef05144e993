// The results of one harness run and their two forms: a markdown report for people and JSON for
// machines (and for bench/plot.sh).
//
// Series collect the repetitions of one implementation in one scenario; comparisons pair a subject
// series with its baseline, carry the goal and say whether the medians meet it.
#ifndef TARN_BENCH_REPORT_H
#define TARN_BENCH_REPORT_H

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "common.h"
#include "scale.h"

namespace bench {

struct StreamSeries {
    std::string label;  // e.g. "TARN TCP"
    std::uint32_t payload = 0;
    std::uint32_t messageLength = 0;
    std::vector<StreamRun> runs;
};

struct RttSeries {
    std::string label;
    std::uint32_t payload = 0;
    std::vector<RttRun> runs;
};

// Medians over the runs that completed.
struct StreamSummary {
    int runs = 0;
    double messagesPerSecond = 0;
    double megabytesPerSecond = 0;  // payload bytes
    double lossPercent = 0;
    double kernelDrops = 0;  // UDP receive-buffer drops counted by the system per run
    double cpuPerMillion = 0;
    std::string note;  // the first failure note, if any run failed
};
StreamSummary summarise(const StreamSeries& series);

struct RttSummary {
    int runs = 0;
    std::uint64_t samples = 0;
    std::uint64_t lost = 0;
    double p50 = 0;
    double p99 = 0;
    double p999 = 0;
    double cpuPerMillion = 0;
    std::vector<std::pair<double, double>> curve;  // (quantile, microseconds) over all runs' samples
    std::string note;
};
RttSummary summarise(const RttSeries& series);

// A goal on the ratio subject / baseline: at least `bound` for rates, at most `bound` for latency.
struct Comparison {
    std::string scenario;
    std::string subjectKey;
    std::string baselineKey;
    bool latency = false;
    double bound = 0;
};

struct Results {
    MachineInfo machine;
    std::string command;
    Config config;
    std::map<std::string, StreamSeries> streams;
    std::map<std::string, RttSeries> roundTrips;
    std::vector<Comparison> comparisons;
    ScaleResult scale;
    std::map<std::string, std::uint64_t> logLines;  // "LEVEL text" (digits folded to #) -> count
    double totalSeconds = 0;
};

void writeMarkdown(std::ostream& out, const Results& results);
void writeJson(std::ostream& out, const Results& results);

}  // namespace bench

#endif  // TARN_BENCH_REPORT_H
