// tarn-bench: libtarn against raw sockets and against ENet, side by side in one run.
//
//   tarn-bench [--quick] [--json] [--out FILE] [--reps N] [--messages N] [--roundtrips N]
//              [--scale-clients N] [--scale-seconds S] [--scale-idle S] [--no-streams] [--no-rtt]
//              [--no-scale] [--only TEXT] [--global-futex-hash]
//
// Markdown goes to standard output (JSON with --json); --out also writes the JSON to FILE.
// Progress goes to standard error. --only runs just the series whose key (e.g. "tarn-eudp-rt/16")
// contains TEXT, or one of several texts separated by commas, which is what a profiler wants to
// look at; --only scale runs the scale scenario alone. The exit status is 3 when some scenario
// never completed a run or left a figure unmeasured.
//
// --global-futex-hash has the process's futexes served from the system-wide hash (Linux 6.17 and
// later). Without it the system gives a process a hash of its own sized by the number of
// processors, and with thousands of threads asleep on futexes (two per idle EUDP end) every
// wake-up walks a long chain of them; the report names the hash the run had.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <logging/logging.h>
#include <tarnconnection.h>

#include "common.h"
#include "enetbench.h"
#include "rawbench.h"
#include "rawreliable.h"
#include "report.h"
#include "scale.h"
#include "tarnbench.h"
#include "tarnfixture.h"
#include "tlsbench.h"

namespace Log = Corvane::Utilities::Logging;
using namespace bench;

namespace {

struct Options {
    Config config;
    bool json = false;
    std::string outFile;
    bool ok = true;
};

void usage() {
    std::fprintf(
        stderr,
        "usage: tarn-bench [--quick] [--json] [--out FILE] [--reps N] [--messages N] [--roundtrips N]\n"
        "                  [--scale-clients N] [--scale-seconds S] [--scale-idle S] [--no-streams]\n"
        "                  [--no-rtt] [--no-scale] [--only TEXT | --only scale] [--global-futex-hash]\n");
}

Options parse(int argc, char** argv) {
    Options options;
    Config& c = options.config;
    // --quick first, so that explicit counts given with it win over its defaults.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            c.quick = true;
            c.repetitions = 1;
            c.streamMessages = 20000;
            c.streamTimeLimit = 2.0;
            c.roundTrips = 3000;
            c.warmUp = 200;
            c.roundTripTimeLimit = 3.0;
            c.scaleClients = 25;
            c.scaleSeconds = 3.0;
            c.scaleIdleSeconds = 2.0;
        }
    }
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--quick") {
            continue;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--out" && hasValue) {
            options.outFile = argv[++i];
        } else if (arg == "--reps" && hasValue) {
            c.repetitions = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--messages" && hasValue) {
            c.streamMessages = std::strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--roundtrips" && hasValue) {
            c.roundTrips = static_cast<std::uint32_t>(std::strtoul(argv[++i], nullptr, 10));
        } else if (arg == "--scale-clients" && hasValue) {
            c.scaleClients = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--scale-seconds" && hasValue) {
            c.scaleSeconds = std::atof(argv[++i]);
        } else if (arg == "--scale-idle" && hasValue) {
            c.scaleIdleSeconds = std::max(0.1, std::atof(argv[++i]));
        } else if (arg == "--no-streams") {
            c.runStreams = false;
        } else if (arg == "--no-rtt") {
            c.runRoundTrips = false;
        } else if (arg == "--only" && hasValue) {
            c.only = argv[++i];
        } else if (arg == "--no-scale") {
            c.runScale = false;
        } else if (arg == "--global-futex-hash") {
            c.globalFutexHash = true;
        } else {
            options.ok = false;
        }
    }
    if (c.only == "scale") {
        c.runStreams = false;
        c.runRoundTrips = false;
        c.only.clear();
    } else if (!c.only.empty()) {
        c.runScale = false;  // the scale scenario is not a series: --only TEXT leaves it out
    }
    return options;
}

// Counts the library's log lines instead of printing them: a flood of warnings would bury the
// report, and the counts say where the protocol struggled. Digits are folded so that lines that
// differ only in numbers count together.
class LogCounter {
public:
    void install(std::map<std::string, std::uint64_t>& counts) {
        m_pCounts = &counts;
        Log::LogManager::getInstance().setSink(
            [this](Log::ELogLevel level, const std::string&, const std::string& text) {
                std::string key = std::string(Log::levelName(level)) + " ";
                for (char ch : text) {
                    if (ch >= '0' && ch <= '9') {
                        if (key.empty() || key.back() != '#') {
                            key += '#';
                        }
                    } else {
                        key += ch;
                    }
                }
                std::lock_guard<std::mutex> lock(m_mutex);
                ++(*m_pCounts)[key];
            });
    }
    void remove() { Log::LogManager::getInstance().setSink(Log::LogSink()); }

private:
    std::mutex m_mutex;
    std::map<std::string, std::uint64_t>* m_pCounts = nullptr;
};

std::string key(const std::string& implementation, std::uint32_t payload) {
    return implementation + "/" + std::to_string(payload);
}

// Runs `a` then `b`, or `b` then `a` on odd repetitions, so that neither always runs on a machine
// the other has just warmed (or heated).
void alternate(int repetition, const std::function<void()>& a, const std::function<void()>& b) {
    if (repetition % 2 == 0) {
        a();
        b();
    } else {
        b();
        a();
    }
}

void progress(const std::string& what, const StreamRun& run) {
    std::fprintf(stderr, "  %-34s %10.0f msg/s  loss %5.2f %%  system drops %llu (backlog %llu) %s%s\n",
                 what.c_str(), run.messagesPerSecond(), run.lossPercent(),
                 static_cast<unsigned long long>(run.kernelDrops),
                 static_cast<unsigned long long>(run.backlogDrops), run.recovery.c_str(),
                 run.ok ? "" : (" FAILED " + run.note).c_str());
}

void progress(const std::string& what, const RttRun& run) {
    std::vector<std::uint32_t> sorted = run.samples;
    std::sort(sorted.begin(), sorted.end());
    std::fprintf(stderr, "  %-34s p50 %8.1f µs  p99 %8.1f µs  lost %llu %s\n", what.c_str(),
                 percentileUs(sorted, 0.5), percentileUs(sorted, 0.99),
                 static_cast<unsigned long long>(run.lost), run.ok ? "" : ("FAILED " + run.note).c_str());
}

class Plan {
public:
    Plan(Results& results, TarnServer& tcp, TarnServer& eudp, TarnServer* tls)
        : m_r(results), m_tcp(tcp), m_eudp(eudp), m_pTls(tls) {}

    void streams(int rep) {
        for (std::uint32_t payload : m_r.config.payloads) {
            streamsOf(rep, payload);
        }
    }

    void roundTrips(int rep) {
        const Config& c = m_r.config;
        const std::uint32_t payload = c.rttPayload;
        const std::uint32_t call = callLength(payload);
        const std::uint32_t reply = triggerLength("rt", payload);
        const std::uint32_t n = c.roundTrips;
        const std::uint32_t warm = c.warmUp;
        const double limit = c.roundTripTimeLimit;
        auto rtt = [&](const std::string& impl, const std::string& label, std::function<RttRun()> body) {
            if (!selected(key(impl, payload))) {
                return;
            }
            RttSeries& series = m_r.roundTrips[key(impl, payload)];
            series.label = label;
            series.payload = payload;
            series.runs.push_back(body());
            progress(label + " round trip", series.runs.back());
        };
        EudpSetup reliable;
        reliable.reliable = true;
        alternate(
            rep,
            [&] { rtt("raw-tcp", "raw TCP", [&] { return rawTcpRoundTrips(call, reply, n, warm, limit); }); },
            [&] {
                rtt("tarn-tcp", "TARN TCP", [&] {
                    return tarnRoundTrips(m_tcp, eTransportTCP, EudpSetup(), payload, n, warm, limit);
                });
            });
        if (m_pTls != nullptr) {
            rtt("tarn-tls", "TARN TLS",
                [&] { return tarnRoundTrips(*m_pTls, eTransportTCP, EudpSetup(), payload, n, warm, limit); });
        }
        alternate(
            rep,
            [&] { rtt("raw-udp", "raw UDP", [&] { return rawUdpRoundTrips(call, reply, n, warm, limit); }); },
            [&] {
                rtt("tarn-eudp-rt", "TARN EUDP realtime", [&] {
                    return tarnRoundTrips(m_eudp, eTransportEUDP, EudpSetup(), payload, n, warm, limit);
                });
            });
        alternate(
            rep,
            [&] {
                rtt("enet", "ENet reliable", [&] { return enetRoundTrips(call, reply, n, warm, limit); });
            },
            [&] {
                rtt("tarn-eudp-rel", "TARN EUDP reliable", [&] {
                    return tarnRoundTrips(m_eudp, eTransportEUDP, reliable, payload, n, warm, limit);
                });
            });
    }

    void comparisons() {
        const Config& c = m_r.config;
        if (c.runStreams) {
            for (std::uint32_t payload : c.payloads) {
                add("TCP stream", key("tarn-tcp", payload), key("raw-tcp", payload), false, 0.9);
                add("TLS stream (against TARN TCP)", key("tarn-tls", payload), key("tarn-tcp", payload),
                    false, 0.5);
                add("TLS stream (against raw TCP)", key("tarn-tls", payload), key("raw-tcp", payload), false,
                    0.5);
                add("EUDP realtime stream", key("tarn-eudp-rt", payload), key("raw-udp", payload), false,
                    0.7);
                for (std::uint32_t window : c.windows) {
                    add("EUDP reliable stream", key("tarn-eudp-rel-w" + std::to_string(window), payload),
                        key("enet", payload), false, 1.0);
                }
                for (std::uint32_t window : c.windows) {
                    const std::string w = "-w" + std::to_string(window);
                    add("EUDP reliable stream", key("tarn-eudp-rel" + w, payload),
                        key("raw-eudp-rel" + w, payload), false, 0.8);
                }
            }
        }
        if (c.runRoundTrips) {
            const std::uint32_t p = c.rttPayload;
            add("TCP round trip", key("tarn-tcp", p), key("raw-tcp", p), true, 1.15);
            add("TLS round trip (against TARN TCP)", key("tarn-tls", p), key("tarn-tcp", p), true, 1.5);
            add("TLS round trip (against raw TCP)", key("tarn-tls", p), key("raw-tcp", p), true, 1.5);
            add("EUDP realtime round trip", key("tarn-eudp-rt", p), key("raw-udp", p), true, 1.5);
            add("EUDP reliable round trip", key("tarn-eudp-rel", p), key("enet", p), true, 1.0);
        }
    }

private:
    // Runs one stream series once and keeps the run, unless --only leaves the series out.
    void stream(const std::string& impl, const std::string& label, std::uint32_t payload,
                const std::function<StreamRun()>& body) {
        if (!selected(key(impl, payload))) {
            return;
        }
        StreamSeries& series = m_r.streams[key(impl, payload)];
        series.label = label;
        series.payload = payload;
        series.messageLength = triggerLength("s", payload);
        series.runs.push_back(body());
        progress(label + " " + std::to_string(payload) + " B", series.runs.back());
    }

    void streamsOf(int rep, std::uint32_t payload) {
        const std::uint32_t length = triggerLength("s", payload);
        const std::uint64_t n = m_r.config.streamMessages;
        const double limit = m_r.config.streamTimeLimit;
        alternate(
            rep,
            [&] { stream("raw-tcp", "raw TCP", payload, [&] { return rawTcpStream(length, n, limit); }); },
            [&] {
                stream("tarn-tcp", "TARN TCP", payload,
                       [&] { return tarnStream(m_tcp, eTransportTCP, EudpSetup(), payload, n, limit); });
            });
        if (m_pTls != nullptr) {
            stream("tarn-tls", "TARN TLS", payload,
                   [&] { return tarnStream(*m_pTls, eTransportTCP, EudpSetup(), payload, n, limit); });
        }
        alternate(
            rep,
            [&] { stream("raw-udp", "raw UDP", payload, [&] { return rawUdpStream(length, n, limit); }); },
            [&] {
                stream("tarn-eudp-rt", "TARN EUDP realtime", payload,
                       [&] { return tarnStream(m_eudp, eTransportEUDP, EudpSetup(), payload, n, limit); });
            });
        alternate(
            rep,
            [&] { stream("enet", "ENet reliable", payload, [&] { return enetStream(length, n, limit); }); },
            [&] {
                for (std::uint32_t window : m_r.config.windows) {
                    reliableStreams(rep, payload, window);
                }
            });
    }

    // The library's reliable stream with `window`, alternating with its raw-UDP limit at the
    // payloads that have one.
    void reliableStreams(int rep, std::uint32_t payload, std::uint32_t window) {
        const Config& c = m_r.config;
        const std::string w = "-w" + std::to_string(window);
        const bool withLimit =
            std::find(c.limitPayloads.begin(), c.limitPayloads.end(), payload) != c.limitPayloads.end();
        EudpSetup setup;
        setup.reliable = true;
        setup.window = window;
        alternate(
            rep,
            [&] {
                if (withLimit) {
                    stream("raw-eudp-rel" + w, "raw UDP reliable w" + std::to_string(window), payload, [&] {
                        return rawReliableStream(triggerBytes("s", payload), window, c.streamMessages,
                                                 c.streamTimeLimit);
                    });
                }
            },
            [&] {
                stream("tarn-eudp-rel" + w, "TARN EUDP reliable w" + std::to_string(window), payload, [&] {
                    return tarnStream(m_eudp, eTransportEUDP, setup, payload, c.streamMessages,
                                      c.streamTimeLimit);
                });
            });
    }

    // --only TEXT may list several texts separated by commas: a series runs when its key contains
    // any of them.
    bool selected(const std::string& seriesKey) const {
        const std::string& only = m_r.config.only;
        if (only.empty()) {
            return true;
        }
        std::size_t begin = 0;
        for (;;) {
            const std::size_t end = only.find(',', begin);
            const std::string text =
                only.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
            if (!text.empty() && seriesKey.find(text) != std::string::npos) {
                return true;
            }
            if (end == std::string::npos) {
                return false;
            }
            begin = end + 1;
        }
    }

    // Only pairs whose two series both ran are compared.
    void add(const std::string& scenario, const std::string& subject, const std::string& baseline,
             bool latency, double bound) {
        const bool ran = latency ? m_r.roundTrips.count(subject) != 0 && m_r.roundTrips.count(baseline) != 0
                                 : m_r.streams.count(subject) != 0 && m_r.streams.count(baseline) != 0;
        if (!ran) {
            return;
        }
        Comparison comparison;
        comparison.scenario = scenario;
        comparison.subjectKey = subject;
        comparison.baselineKey = baseline;
        comparison.latency = latency;
        comparison.bound = bound;
        m_r.comparisons.push_back(comparison);
    }

    Results& m_r;
    TarnServer& m_tcp;
    TarnServer& m_eudp;
    TarnServer* m_pTls;  // null without libtarn_tls
};

// A series none of whose runs completed means a scenario that does not work at all, and so does a
// scale figure that was never measured; each is named on standard error, and the exit status says
// so, so that the smoke test notices (ENet's rows are empty by design without it). True when there
// is none.
bool reportProblems(const Results& results) {
    std::vector<std::string> problems;
    for (const auto& entry : results.streams) {
        if (summarise(entry.second).runs == 0 &&
            (enetAvailable() || entry.first.compare(0, 4, "enet") != 0)) {
            problems.push_back("no run of stream " + entry.first + " completed");
        }
    }
    for (const auto& entry : results.roundTrips) {
        if (summarise(entry.second).runs == 0 &&
            (enetAvailable() || entry.first.compare(0, 4, "enet") != 0)) {
            problems.push_back("no run of round trip " + entry.first + " completed");
        }
    }
    if (results.config.runScale) {
        const std::vector<std::string> scale = scaleProblems(results.scale);
        problems.insert(problems.end(), scale.begin(), scale.end());
    }
    for (const std::string& problem : problems) {
        std::fprintf(stderr, "tarn-bench: %s\n", problem.c_str());
    }
    return problems.empty();
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            usage();
            return 0;
        }
    }
    Options options = parse(argc, argv);
    if (!options.ok) {
        usage();
        return 2;
    }
    Results results;
    results.config = options.config;
    results.machine = machineInfo();
    results.command = "tarn-bench";
    for (int i = 1; i < argc; ++i) {
        results.command += std::string(" ") + argv[i];
    }
    const std::int64_t start = nowNs();
    const Config& c = results.config;
    if (c.globalFutexHash && !useGlobalFutexHash()) {
        std::fprintf(stderr, "tarn-bench: the system refused the global futex hash\n");
    }
    if (!enetAvailable()) {
        std::fprintf(stderr, "tarn-bench: built without ENet; its rows stay empty\n");
    }

    tarnInit();
    LogCounter logCounter;
    logCounter.install(results.logLines);
    {
        TarnServer tcp(eTransportTCP);
        TarnServer eudp(eTransportEUDP);
        std::unique_ptr<TarnServer> tls = makeTlsServer();
        if (!tcp.start() || !eudp.start() || (tls && !tls->start())) {
            std::fprintf(stderr, "tarn-bench: the TARN listeners did not come up\n");
            return 1;
        }
        Plan plan(results, tcp, eudp, tls.get());
        for (int rep = 0; rep < c.repetitions; ++rep) {
            if (c.runStreams) {
                std::fprintf(stderr, "[%d/%d] streams\n", rep + 1, c.repetitions);
                plan.streams(rep);
            }
            if (c.runRoundTrips) {
                std::fprintf(stderr, "[%d/%d] round trips\n", rep + 1, c.repetitions);
                plan.roundTrips(rep);
            }
        }
        plan.comparisons();
        if (c.runScale) {
            std::fprintf(stderr, "scale\n");
            results.scale = runScale(tcp, eudp, c);
        }
    }
    logCounter.remove();
    tarnDeinit();

    const bool complete = reportProblems(results);
    results.machine.loadAtEnd = loadAverage();
    results.machine.futexHash = futexHashText();
    results.totalSeconds = (nowNs() - start) / 1e9;
    if (options.json) {
        writeJson(std::cout, results);
    } else {
        writeMarkdown(std::cout, results);
    }
    if (!options.outFile.empty()) {
        std::ofstream file(options.outFile);
        writeJson(file, results);
        if (!file) {
            std::fprintf(stderr, "tarn-bench: could not write %s\n", options.outFile.c_str());
            return 1;
        }
    }
    return complete ? 0 : 3;
}
