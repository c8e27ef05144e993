// Shared pieces of the benchmark harness: clocks, process counters, the result records every
// scenario fills, and the message sizes that make the library and its baselines move the same bytes.
//
// Everything here is plain data or a free function; nothing is shared between threads except
// through the caller's own synchronisation.
#ifndef TARN_BENCH_COMMON_H
#define TARN_BENCH_COMMON_H

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// User plus system CPU seconds of the whole process so far (getrusage).
double processCpuSeconds();
// The same from the kernel's per-process counters (/proc/self/stat), in whole clock ticks
// (usually 10 ms); threads that have ended still count.
double procCpuSeconds();
// Resident memory in bytes and the number of threads of this process (/proc/self/status).
std::uint64_t residentBytes();
int threadCount();
// The system's count of UDP datagrams dropped for a full socket receive buffer (RcvbufErrors in
// /proc/net/snmp). System-wide: other UDP traffic on the machine counts too.
std::uint64_t udpReceiveBufferErrors();
// UDP datagrams the system has sent (OutDatagrams in /proc/net/snmp); system-wide as well.
std::uint64_t udpOutDatagrams();
// Packets the system dropped before any socket saw them, because a processor's queue of received
// packets (netdev_max_backlog) was full: the sum of the second column of /proc/net/softnet_stat.
std::uint64_t backlogDrops();
// Raises the soft limits for open files and processes to their hard limits.
void raiseSoftLimits();

struct MachineInfo {
    unsigned cores = 0;
    std::string cpuModel;
    std::string kernel;
    std::string loadAtStart;
    std::string loadAtEnd;
    std::string futexHash;  // futexHashText() at the end of the run
};
MachineInfo machineInfo();
// Asks the system (Linux 6.17 and later) to serve this process's futexes from the system-wide
// hash instead of a hash of its own, whose size follows the number of processors (16 slots on two)
// however many threads wait; false when the system refuses.
bool useGlobalFutexHash();
// Which futex hash serves the process: "16 slots of its own", "the system's", or "not told by the
// system" on kernels without the choice.
std::string futexHashText();
std::string loadAverage();

// What one run of the harness does; --quick shrinks every count.
struct Config {
    bool quick = false;
    int repetitions = 5;
    std::uint64_t streamMessages = 200000;
    double streamTimeLimit = 8.0;  // seconds of sending per stream run, whatever the count
    std::uint32_t roundTrips = 100000;
    std::uint32_t warmUp = 2000;
    double roundTripTimeLimit = 20.0;
    std::vector<std::uint32_t> payloads{16, 256, 1400};
    std::vector<std::uint32_t> windows{10, 64, 999};
    // Payloads at which the reliable streams are also measured against their raw-UDP limit.
    std::vector<std::uint32_t> limitPayloads{16, 1400};
    std::uint32_t rttPayload = 16;
    bool runStreams = true;
    bool runRoundTrips = true;
    bool runScale = true;
    bool globalFutexHash = false;  // --global-futex-hash: useGlobalFutexHash() before anything runs
    std::string only;  // run just the series whose key contains this ("scale": the scale scenario)
    int scaleClients = 1000;
    double scaleSeconds = 30.0;
    double scaleIdleSeconds = 10.0;
    double scaleRateHz = 10.0;
};

// One run of a stream: `sent` messages offered, `delivered` counted by the receiver between the
// first send and the last arrival.
struct StreamRun {
    std::uint64_t sent = 0;
    std::uint64_t delivered = 0;
    std::uint64_t kernelDrops = 0;   // UDP datagrams the system dropped during the run
    std::uint64_t backlogDrops = 0;  // packets dropped on a full processor backlog during the run
    std::string recovery;            // what the reliable exchange did about loss (go-backs, resends)
    double seconds = 0;
    double cpuSeconds = 0;
    bool ok = false;
    std::string note;

    double messagesPerSecond() const { return seconds > 0 ? static_cast<double>(delivered) / seconds : 0; }
    double lossPercent() const {
        return sent > 0 ? 100.0 * static_cast<double>(sent - delivered) / static_cast<double>(sent) : 0;
    }
    double cpuPerMillion() const {
        return delivered > 0 ? cpuSeconds * 1e6 / static_cast<double>(delivered) : 0;
    }
};

// One run of round trips: every sample in nanoseconds, plus the round trips that never came back.
struct RttRun {
    std::vector<std::uint32_t> samples;
    std::uint64_t lost = 0;
    double seconds = 0;
    double cpuSeconds = 0;
    bool ok = false;
    std::string note;

    // Round trips count two messages each.
    double cpuPerMillion() const {
        return samples.empty() ? 0 : cpuSeconds * 1e6 / (2.0 * static_cast<double>(samples.size()));
    }
};

// Percentile of sorted samples (nearest rank), in microseconds.
double percentileUs(const std::vector<std::uint32_t>& sorted, double q);

// Sizes of the TARN messages the scenarios send, so that the baselines move the same bytes: a
// trigger `name` whose value is a text of `payload` bytes (the stream sends "s", a round trip's
// answer is "rt"), and the call "rt" whose list holds one text of `payload` bytes.
std::uint32_t triggerLength(const std::string& name, std::uint32_t payload);
// The bytes of that trigger as the connection puts them into one transport message (text of 'x').
std::vector<std::uint8_t> triggerBytes(const std::string& name, std::uint32_t payload);
std::uint32_t callLength(std::uint32_t payload);

// The text value carried by round trip number `seq`: the number in decimal, zero-padded or cut to
// `payload` characters, so that a reply names the call it answers.
std::string sequenceText(std::uint64_t seq, std::uint32_t payload);
std::uint64_t parseSequence(const std::string& text);

// Median of a set of values (the mean of the middle two for an even count; 0 for none).
double median(std::vector<double> values);

}  // namespace bench

#endif  // TARN_BENCH_COMMON_H
