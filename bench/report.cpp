#include "report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bench {

namespace {

std::string format(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof(text), pattern, value);
    return text;
}

// 1234567 -> "1.23 M", 12345 -> "12.3 k": rates read at a glance.
std::string rate(double value) {
    if (value >= 1e6) {
        return format("%.2f M", value / 1e6);
    }
    if (value >= 1e3) {
        return format("%.1f k", value / 1e3);
    }
    return format("%.0f", value);
}

std::string micros(double value) {
    return value >= 100 ? format("%.0f", value) : format("%.1f", value);
}

std::string megabytes(std::uint64_t bytes) {
    return format("%.2f MB", static_cast<double>(bytes) / 1e6);
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string jsonNumber(double value) {
    if (!std::isfinite(value)) {
        return "null";
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%.6g", value);
    return text;
}

struct Verdict {
    bool known = false;
    double ratio = 0;
    bool met = false;
};

Verdict judge(const Results& results, const Comparison& comparison) {
    Verdict verdict;
    if (comparison.latency) {
        const RttSummary subject = summarise(results.roundTrips.at(comparison.subjectKey));
        const RttSummary baseline = summarise(results.roundTrips.at(comparison.baselineKey));
        if (subject.runs > 0 && baseline.runs > 0 && baseline.p50 > 0) {
            verdict.known = true;
            verdict.ratio = subject.p50 / baseline.p50;
            verdict.met = verdict.ratio <= comparison.bound;
        }
    } else {
        const StreamSummary subject = summarise(results.streams.at(comparison.subjectKey));
        const StreamSummary baseline = summarise(results.streams.at(comparison.baselineKey));
        if (subject.runs > 0 && baseline.runs > 0 && baseline.messagesPerSecond > 0) {
            verdict.known = true;
            verdict.ratio = subject.messagesPerSecond / baseline.messagesPerSecond;
            verdict.met = verdict.ratio >= comparison.bound;
        }
    }
    return verdict;
}

std::string goalText(const Comparison& comparison) {
    return (comparison.latency ? "≤ " : "≥ ") + format("%.2f", comparison.bound);
}

std::string streamCells(const StreamSummary& s) {
    if (s.runs == 0) {
        return "failed: " + s.note + " | | | |";
    }
    return rate(s.messagesPerSecond) + " | " + format("%.1f", s.megabytesPerSecond) + " | " +
           format("%.2f %%", s.lossPercent) +
           (s.kernelDrops > 0 ? " (" + rate(s.kernelDrops) + " dropped by the system)" : "") + " | " +
           format("%.2f", s.cpuPerMillion) + " |";
}

std::string rttCells(const RttSummary& s) {
    if (s.runs == 0) {
        return "failed: " + s.note + " | | | | |";
    }
    return micros(s.p50) + " | " + micros(s.p99) + " | " + micros(s.p999) + " | " + std::to_string(s.lost) +
           " | " + format("%.2f", s.cpuPerMillion) + " |";
}

void writeScaleSetUp(std::ostream& out, const ScaleResult& scale) {
    out << "### Set-up and idle\n\n"
        << "| Transport | Pairs up | Set-up s | Handshake ms: mean | p50 | p99 | max | RSS per end (idle) | "
           "Threads per end | Idle CPU % of one core per 1000 ends |\n"
        << "|---|---|---|---|---|---|---|---|---|---|\n";
    for (const ScaleTransport& t : scale.transports) {
        out << "| " << t.name << " | " << t.connected << "/" << t.clients << " | "
            << format("%.2f", t.setupSeconds) << " | " << format("%.2f", t.handshakeMeanMs) << " | "
            << format("%.2f", t.handshakeP50Ms) << " | " << format("%.2f", t.handshakeP99Ms) << " | "
            << format("%.2f", t.handshakeMaxMs) << " | " << format("%.1f KiB", t.residentPerEnd() / 1024.0)
            << " | " << format("%.2f", t.threadsPerEnd()) << " | "
            << format("%.2f", t.idleCpuPercentPer1000Ends()) << " |\n";
    }
    out << "\nA handshake runs from connect() until the server end reports connected; the pairs are set up "
           "one "
           "after another. Both ends of every pair live in the benchmark process; per-end figures are the "
           "pair's share divided by two. Idle CPU comes from the process's CPU times in /proc over a quiet "
           "spell (keep-alives only) after each transport's set-up; the whole process took";
    for (std::size_t i = 0; i < scale.transports.size(); ++i) {
        const ScaleTransport& t = scale.transports[i];
        out << (i == 0 ? " " : ", then ") << format("%.2f", t.idleProcessCpuPercent) << " % of one core over "
            << format("%.1f", t.idleSeconds) << " s with the " << t.name << " pairs"
            << (i == 0 ? "" : " added");
    }
    out << "; each transport's share is what its spell added.\n";
    const IdleFloor& floor = scale.idleFloor;
    for (const ScaleTransport& t : scale.transports) {
        if (t.name != "EUDP" || !floor.ran || floor.ends == 0) {
            continue;
        }
        out << "\nThe EUDP ends sent " << format("%.0f", t.idleDatagramsPerSecond)
            << " datagrams/s over their spell. The floor for that exchange, " << floor.ends
            << " raw UDP sockets in pairs exchanging " << format("%.0f", floor.datagramsPerSecond)
            << " datagrams/s (keep-alives from one thread, each answered by one thread waiting on an "
               "epoll set of them all), took "
            << format("%.2f", floor.cpuPercent) << " % of one core over " << format("%.1f", floor.seconds)
            << " s: " << format("%.2f", floor.cpuPercent * 1000.0 / floor.ends) << " % per 1000 ends.\n";
    }
    out << "\n";
}

void writeScaleLoad(std::ostream& out, const ScaleResult& scale, const Config& config) {
    out << "### Under load\n\n"
        << "| Transport | Round trips/s (expected) | p50 µs | p99 µs | p99.9 µs | Lost | Skipped ticks | "
           "Dropped |\n"
        << "|---|---|---|---|---|---|---|---|\n";
    for (const ScaleTransport& t : scale.transports) {
        out << "| " << t.name << " | " << format("%.0f", t.roundTripsPerSecond) << " ("
            << format("%.0f", t.expectedPerSecond) << ") | " << micros(t.p50Us) << " | " << micros(t.p99Us)
            << " | " << micros(t.p999Us) << " | " << t.lost << " | " << t.skipped << " | " << t.dropped
            << " |\n";
    }
    out << "\nProcess at peak: " << scale.threadsAtPeak << " threads, " << megabytes(scale.residentAtPeak)
        << " resident. CPU under load: " << format("%.1f", scale.loadCpuPercent) << " % of one core over "
        << format("%.1f", scale.loadSeconds) << " s. Tear-down: " << format("%.1f", scale.teardownSeconds)
        << " s.\n";
    if (scale.loadSeconds > 1.1 * config.scaleSeconds) {
        out << "The schedule planned for " << format("%.0f", config.scaleSeconds) << " s took "
            << format("%.1f", scale.loadSeconds)
            << " s: the calls went out late because the machine could not keep up, so the rates above are "
               "what it sustained, below the rate asked for.\n";
    }
}

void writeScaleMarkdown(std::ostream& out, const ScaleResult& scale, const Config& config) {
    out << "\n## Scale: " << config.scaleClients << " TCP and " << config.scaleClients
        << " EUDP clients on one server, round trips at " << format("%.0f", config.scaleRateHz)
        << " Hz each for " << format("%.0f", config.scaleSeconds) << " s\n\n";
    if (!scale.ran) {
        out << "Not run" << (scale.note.empty() ? "" : ": " + scale.note) << ".\n";
        return;
    }
    writeScaleSetUp(out, scale);
    writeScaleLoad(out, scale, config);
    out << "\n### Goals\n\n| Goal | Figure | Met |\n|---|---|---|\n";
    for (const ScaleGoal& goal : scaleGoals(scale)) {
        out << "| " << goal.what << (goal.strict ? " < " : " ≤ ") << format("%g", goal.bound) << " "
            << goal.unit << " | " << format("%.2f", goal.figure) << " " << goal.unit << " | "
            << (goal.met() ? "yes" : "**no**") << " |\n";
    }
}

}  // namespace

StreamSummary summarise(const StreamSeries& series) {
    StreamSummary summary;
    std::vector<double> rates, mbs, losses, cpus, drops;
    for (const StreamRun& run : series.runs) {
        if (!run.ok) {
            if (summary.note.empty()) {
                summary.note = run.note.empty() ? "incomplete" : run.note;
            }
            continue;
        }
        rates.push_back(run.messagesPerSecond());
        mbs.push_back(run.messagesPerSecond() * series.payload / 1e6);
        losses.push_back(run.lossPercent());
        cpus.push_back(run.cpuPerMillion());
        drops.push_back(static_cast<double>(run.kernelDrops));
    }
    summary.runs = static_cast<int>(rates.size());
    summary.kernelDrops = median(drops);
    summary.messagesPerSecond = median(rates);
    summary.megabytesPerSecond = median(mbs);
    summary.lossPercent = median(losses);
    summary.cpuPerMillion = median(cpus);
    return summary;
}

RttSummary summarise(const RttSeries& series) {
    RttSummary summary;
    std::vector<double> p50, p99, p999, cpus;
    std::vector<std::uint32_t> pooled;
    for (const RttRun& run : series.runs) {
        if (!run.ok) {
            if (summary.note.empty()) {
                summary.note = run.note.empty() ? "incomplete" : run.note;
            }
            continue;
        }
        std::vector<std::uint32_t> sorted = run.samples;
        std::sort(sorted.begin(), sorted.end());
        p50.push_back(percentileUs(sorted, 0.50));
        p99.push_back(percentileUs(sorted, 0.99));
        p999.push_back(percentileUs(sorted, 0.999));
        cpus.push_back(run.cpuPerMillion());
        summary.lost += run.lost;
        pooled.insert(pooled.end(), run.samples.begin(), run.samples.end());
    }
    summary.runs = static_cast<int>(p50.size());
    summary.samples = pooled.size();
    summary.p50 = median(p50);
    summary.p99 = median(p99);
    summary.p999 = median(p999);
    summary.cpuPerMillion = median(cpus);
    std::sort(pooled.begin(), pooled.end());
    if (!pooled.empty()) {
        // Quantiles evenly spaced on a log scale of 1/(1-q), from the median's neighbourhood out to
        // the largest sample, the way latency distributions are read.
        for (int k = 0; k <= 100; ++k) {
            const double q = 1.0 - std::pow(10.0, -k / 20.0);
            if (q > 1.0 - 1.0 / static_cast<double>(pooled.size())) {
                break;
            }
            summary.curve.emplace_back(q, percentileUs(pooled, q));
        }
        summary.curve.emplace_back(1.0, pooled.back() / 1000.0);
    }
    return summary;
}

namespace {

void writeStreamsMarkdown(std::ostream& out, const Results& results) {
    out << "\n## Streams\n\n"
        << "| Scenario | Payload | Subject | msg/s | MB/s | Loss | CPU s/M | Baseline | msg/s | MB/s | Loss "
           "| "
           "CPU s/M | Ratio | Goal | Met |\n"
        << "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (const Comparison& comparison : results.comparisons) {
        if (comparison.latency) {
            continue;
        }
        const StreamSeries& subject = results.streams.at(comparison.subjectKey);
        const StreamSeries& baseline = results.streams.at(comparison.baselineKey);
        const Verdict verdict = judge(results, comparison);
        out << "| " << comparison.scenario << " | " << subject.payload << " B | " << subject.label << " | "
            << streamCells(summarise(subject)) << " " << baseline.label << " | "
            << streamCells(summarise(baseline)) << " "
            << (verdict.known ? format("%.2f", verdict.ratio) : "n/a") << " | " << goalText(comparison)
            << " | " << (verdict.known ? (verdict.met ? "yes" : "**no**") : "n/a") << " |\n";
    }
}

void writeRoundTripsMarkdown(std::ostream& out, const Results& results) {
    out << "\n## Round trips (µs)\n\n"
        << "| Scenario | Subject | p50 | p99 | p99.9 | Lost | CPU s/M | Baseline | p50 | p99 | p99.9 | Lost "
           "| "
           "CPU s/M | p50 ratio | Goal | Met |\n"
        << "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (const Comparison& comparison : results.comparisons) {
        if (!comparison.latency) {
            continue;
        }
        const RttSeries& subject = results.roundTrips.at(comparison.subjectKey);
        const RttSeries& baseline = results.roundTrips.at(comparison.baselineKey);
        const Verdict verdict = judge(results, comparison);
        out << "| " << comparison.scenario << " | " << subject.label << " | " << rttCells(summarise(subject))
            << " " << baseline.label << " | " << rttCells(summarise(baseline)) << " "
            << (verdict.known ? format("%.2f", verdict.ratio) : "n/a") << " | " << goalText(comparison)
            << " | " << (verdict.known ? (verdict.met ? "yes" : "**no**") : "n/a") << " |\n";
    }
}

void jsonStreams(std::ostream& out, const Results& results) {
    out << "  \"streams\": [";
    bool first = true;
    for (const auto& entry : results.streams) {
        const StreamSummary s = summarise(entry.second);
        out << (first ? "\n" : ",\n") << "    {\"key\": " << jsonString(entry.first)
            << ", \"label\": " << jsonString(entry.second.label) << ", \"payload\": " << entry.second.payload
            << ", \"message_bytes\": " << entry.second.messageLength << ", \"runs_ok\": " << s.runs
            << ", \"msgs_per_s\": " << jsonNumber(s.messagesPerSecond)
            << ", \"mb_per_s\": " << jsonNumber(s.megabytesPerSecond)
            << ", \"loss_pct\": " << jsonNumber(s.lossPercent)
            << ", \"kernel_drops\": " << jsonNumber(s.kernelDrops)
            << ", \"cpu_s_per_million\": " << jsonNumber(s.cpuPerMillion)
            << ", \"note\": " << jsonString(s.note) << ", \"runs\": [";
        bool firstRun = true;
        for (const StreamRun& run : entry.second.runs) {
            out << (firstRun ? "" : ", ") << "{\"ok\": " << (run.ok ? "true" : "false")
                << ", \"sent\": " << run.sent << ", \"delivered\": " << run.delivered
                << ", \"kernel_drops\": " << run.kernelDrops << ", \"backlog_drops\": " << run.backlogDrops
                << ", \"seconds\": " << jsonNumber(run.seconds)
                << ", \"cpu_seconds\": " << jsonNumber(run.cpuSeconds);
            if (!run.recovery.empty()) {
                out << ", \"recovery\": " << jsonString(run.recovery);
            }
            out << "}";
            firstRun = false;
        }
        out << "]}";
        first = false;
    }
    out << "\n  ],\n";
}

void jsonRoundTrips(std::ostream& out, const Results& results) {
    out << "  \"round_trips\": [";
    bool first = true;
    for (const auto& entry : results.roundTrips) {
        const RttSummary s = summarise(entry.second);
        out << (first ? "\n" : ",\n") << "    {\"key\": " << jsonString(entry.first)
            << ", \"label\": " << jsonString(entry.second.label) << ", \"payload\": " << entry.second.payload
            << ", \"runs_ok\": " << s.runs << ", \"samples\": " << s.samples << ", \"lost\": " << s.lost
            << ", \"p50_us\": " << jsonNumber(s.p50) << ", \"p99_us\": " << jsonNumber(s.p99)
            << ", \"p999_us\": " << jsonNumber(s.p999)
            << ", \"cpu_s_per_million\": " << jsonNumber(s.cpuPerMillion)
            << ", \"note\": " << jsonString(s.note) << ", \"curve\": [";
        for (std::size_t i = 0; i < s.curve.size(); ++i) {
            out << (i == 0 ? "" : ", ") << "[" << jsonNumber(s.curve[i].first) << ", "
                << jsonNumber(s.curve[i].second) << "]";
        }
        out << "]}";
        first = false;
    }
    out << "\n  ],\n";
}

void jsonComparisons(std::ostream& out, const Results& results) {
    out << "  \"comparisons\": [";
    bool first = true;
    for (const Comparison& comparison : results.comparisons) {
        const Verdict verdict = judge(results, comparison);
        out << (first ? "\n" : ",\n") << "    {\"scenario\": " << jsonString(comparison.scenario)
            << ", \"subject\": " << jsonString(comparison.subjectKey)
            << ", \"baseline\": " << jsonString(comparison.baselineKey)
            << ", \"metric\": " << (comparison.latency ? "\"p50 ratio\"" : "\"rate ratio\"")
            << ", \"goal\": " << jsonString(goalText(comparison))
            << ", \"ratio\": " << (verdict.known ? jsonNumber(verdict.ratio) : "null")
            << ", \"met\": " << (verdict.known ? (verdict.met ? "true" : "false") : "null") << "}";
        first = false;
    }
    out << "\n  ],\n";
}

void jsonScaleTransport(std::ostream& out, const ScaleTransport& t) {
    out << "{\"name\": " << jsonString(t.name) << ", \"clients\": " << t.clients
        << ", \"connected\": " << t.connected << ", \"setup_seconds\": " << jsonNumber(t.setupSeconds)
        << ", \"handshake_mean_ms\": " << jsonNumber(t.handshakeMeanMs)
        << ", \"handshake_p50_ms\": " << jsonNumber(t.handshakeP50Ms)
        << ", \"handshake_p99_ms\": " << jsonNumber(t.handshakeP99Ms)
        << ", \"handshake_max_ms\": " << jsonNumber(t.handshakeMaxMs)
        << ", \"rss_delta\": " << t.residentDelta << ", \"rss_per_end\": " << jsonNumber(t.residentPerEnd())
        << ", \"thread_delta\": " << t.threadDelta
        << ", \"threads_per_end\": " << jsonNumber(t.threadsPerEnd())
        << ", \"idle_seconds\": " << jsonNumber(t.idleSeconds)
        << ", \"idle_process_cpu_pct\": " << jsonNumber(t.idleProcessCpuPercent)
        << ", \"idle_cpu_pct\": " << jsonNumber(t.idleCpuPercent)
        << ", \"idle_cpu_pct_per_1000_ends\": " << jsonNumber(t.idleCpuPercentPer1000Ends())
        << ", \"idle_datagrams_per_second\": " << jsonNumber(t.idleDatagramsPerSecond)
        << ", \"completed\": " << t.completed << ", \"lost\": " << t.lost << ", \"skipped\": " << t.skipped
        << ", \"dropped\": " << t.dropped << ", \"rate\": " << jsonNumber(t.roundTripsPerSecond)
        << ", \"expected_rate\": " << jsonNumber(t.expectedPerSecond)
        << ", \"p50_us\": " << jsonNumber(t.p50Us) << ", \"p99_us\": " << jsonNumber(t.p99Us)
        << ", \"p999_us\": " << jsonNumber(t.p999Us) << "}";
}

void jsonScale(std::ostream& out, const ScaleResult& scale) {
    out << "  \"scale\": ";
    if (!scale.ran) {
        out << "null,\n";
        return;
    }
    out << "{\"load_seconds\": " << jsonNumber(scale.loadSeconds)
        << ", \"load_cpu_pct\": " << jsonNumber(scale.loadCpuPercent)
        << ", \"threads_at_peak\": " << scale.threadsAtPeak << ", \"rss_at_peak\": " << scale.residentAtPeak
        << ", \"teardown_seconds\": " << jsonNumber(scale.teardownSeconds);
    const IdleFloor& floor = scale.idleFloor;
    out << ", \"idle_floor\": ";
    if (floor.ran) {
        out << "{\"ends\": " << floor.ends
            << ", \"datagrams_per_second\": " << jsonNumber(floor.datagramsPerSecond)
            << ", \"seconds\": " << jsonNumber(floor.seconds)
            << ", \"cpu_pct\": " << jsonNumber(floor.cpuPercent) << ", \"cpu_pct_per_1000_ends\": "
            << jsonNumber(floor.ends > 0 ? floor.cpuPercent * 1000.0 / floor.ends : 0) << "}";
    } else {
        out << "null";
    }
    out << ", \"transports\": [";
    for (std::size_t i = 0; i < scale.transports.size(); ++i) {
        out << (i == 0 ? "" : ", ");
        jsonScaleTransport(out, scale.transports[i]);
    }
    out << "], \"goals\": [";
    const std::vector<ScaleGoal> goals = scaleGoals(scale);
    for (std::size_t i = 0; i < goals.size(); ++i) {
        out << (i == 0 ? "" : ", ") << "{\"goal\": " << jsonString(goals[i].what)
            << ", \"unit\": " << jsonString(goals[i].unit) << ", \"figure\": " << jsonNumber(goals[i].figure)
            << ", \"bound\": " << jsonNumber(goals[i].bound)
            << ", \"strict\": " << (goals[i].strict ? "true" : "false")
            << ", \"met\": " << (goals[i].met() ? "true" : "false") << "}";
    }
    out << "]},\n";
}

}  // namespace

void writeMarkdown(std::ostream& out, const Results& results) {
    const Config& c = results.config;
    out << "# tarn-bench results\n\n"
        << "Command: `" << results.command << "`\n\n"
        << "Machine: " << results.machine.cores << " cores, " << results.machine.cpuModel << ", "
        << results.machine.kernel << "; load average " << results.machine.loadAtStart << " at the start, "
        << results.machine.loadAtEnd << " at the end. Run time " << format("%.0f", results.totalSeconds)
        << " s. Futex hash of the process: " << results.machine.futexHash << ".\n\n"
        << "Every figure is the median of " << c.repetitions << " repetition(s); subject and baseline run "
        << "alternately in the same process on 127.0.0.1. Streams send " << c.streamMessages
        << " messages per run (at most " << format("%.0f", c.streamTimeLimit)
        << " s of sending); round trips "
        << "record " << c.roundTrips << " per run after " << c.warmUp
        << " unrecorded ones. MB/s counts payload "
        << "bytes; CPU is user+system seconds of the whole process per million messages delivered (a round "
        << "trip is two messages).\n";
    if (c.runStreams) {
        writeStreamsMarkdown(out, results);
    }
    if (c.runRoundTrips) {
        writeRoundTripsMarkdown(out, results);
    }
    if (c.runScale) {
        writeScaleMarkdown(out, results.scale, c);
    }
    if (!results.logLines.empty()) {
        out << "\n## Library log lines during the run\n\n| Count | Line |\n|---|---|\n";
        for (const auto& line : results.logLines) {
            out << "| " << line.second << " | `" << line.first << "` |\n";
        }
    }
}

void writeJson(std::ostream& out, const Results& results) {
    const Config& c = results.config;
    out << "{\n  \"command\": " << jsonString(results.command) << ",\n"
        << "  \"machine\": {\"cores\": " << results.machine.cores
        << ", \"cpu\": " << jsonString(results.machine.cpuModel)
        << ", \"kernel\": " << jsonString(results.machine.kernel)
        << ", \"load_start\": " << jsonString(results.machine.loadAtStart)
        << ", \"load_end\": " << jsonString(results.machine.loadAtEnd)
        << ", \"futex_hash\": " << jsonString(results.machine.futexHash) << "},\n"
        << "  \"config\": {\"quick\": " << (c.quick ? "true" : "false")
        << ", \"global_futex_hash\": " << (c.globalFutexHash ? "true" : "false")
        << ", \"repetitions\": " << c.repetitions << ", \"stream_messages\": " << c.streamMessages
        << ", \"round_trips\": " << c.roundTrips << ", \"warm_up\": " << c.warmUp
        << ", \"scale_clients\": " << c.scaleClients << ", \"scale_seconds\": " << jsonNumber(c.scaleSeconds)
        << ", \"scale_idle_seconds\": " << jsonNumber(c.scaleIdleSeconds)
        << ", \"scale_rate_hz\": " << jsonNumber(c.scaleRateHz) << "},\n"
        << "  \"total_seconds\": " << jsonNumber(results.totalSeconds) << ",\n";
    jsonStreams(out, results);
    jsonRoundTrips(out, results);
    jsonComparisons(out, results);
    jsonScale(out, results.scale);
    out << "  \"log_lines\": {";
    bool first = true;
    for (const auto& line : results.logLines) {
        out << (first ? "" : ", ") << jsonString(line.first) << ": " << line.second;
        first = false;
    }
    out << "}\n}\n";
}

}  // namespace bench
