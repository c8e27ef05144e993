#include "scale.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

namespace bench {

namespace {

const std::int64_t kLostAfterNs = 1000000000;
const std::uint32_t kPayload = 16;

// Round-trip times of one transport, from many receive threads.
class Recorder {
public:
    void add(std::uint32_t ns) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_samples.push_back(ns);
    }
    std::vector<std::uint32_t> take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::uint32_t> result;
        result.swap(m_samples);
        return result;
    }

private:
    std::mutex m_mutex;
    std::vector<std::uint32_t> m_samples;
};

// One client: at most one call open at a time. fire() runs on the driver thread, onTrigger on the
// connection's receive thread; the open call's number and send time are handed over in atomics.
class ScaleClient : public ITARNClient {
public:
    explicit ScaleClient(Recorder* recorder) : m_pRecorder(recorder) {}
    virtual ~ScaleClient() = default;

    void onTrigger(const std::string&, const ParameterValue& value) override {
        const std::int64_t now = nowNs();
        const std::uint64_t seq = parseSequence(value.getAsString());
        std::uint64_t expected = seq;
        if (seq != 0 && m_pending.compare_exchange_strong(expected, 0, std::memory_order_acq_rel)) {
            m_pRecorder->add(static_cast<std::uint32_t>(now - m_sentNs.load(std::memory_order_relaxed)));
        }
    }
    void onUpdateState(const std::string&, const ParameterValue&) override {}
    void onStatusChanged(EConnStatus status) override { m_end.note(status); }

    // One tick: sends the next call unless the last one is still open (and not yet given up).
    void fire(std::uint64_t& skipped, std::uint64_t& lost) {
        const std::int64_t now = nowNs();
        if (m_pending.load(std::memory_order_acquire) != 0) {
            if (now - m_sentNs.load(std::memory_order_relaxed) < kLostAfterNs) {
                ++skipped;
                return;
            }
            ++lost;
        }
        ++m_seq;
        m_sentNs.store(now, std::memory_order_relaxed);
        m_pending.store(m_seq, std::memory_order_release);
        ParameterList list;
        list.addString("s", sequenceText(m_seq, kPayload));
        m_pConnection->callFunctionId("rt", list);
    }

    TARNConnection* m_pConnection = nullptr;
    EndWatch m_end;

private:
    Recorder* m_pRecorder;
    std::uint64_t m_seq = 0;
    std::atomic<std::uint64_t> m_pending{0};
    std::atomic<std::int64_t> m_sentNs{0};
};

struct Side {
    ScaleTransport result;
    Recorder recorder;
    std::vector<std::unique_ptr<ScaleClient>> clients;
    std::vector<std::unique_ptr<ScaleClient>> failedClients;
    std::vector<TARNConnection*> connections;  // client and server ends
    std::vector<Answerer*> answerers;
};

// Handshake times are kept in microseconds, so that percentileUs reads them in milliseconds.
void summariseHandshakes(std::vector<std::uint32_t> micros, ScaleTransport& out) {
    if (micros.empty()) {
        return;
    }
    std::sort(micros.begin(), micros.end());
    double sum = 0;
    for (std::uint32_t us : micros) {
        sum += us;
    }
    out.handshakeMeanMs = sum / 1000.0 / static_cast<double>(micros.size());
    out.handshakeP50Ms = percentileUs(micros, 0.50);
    out.handshakeP99Ms = percentileUs(micros, 0.99);
    out.handshakeMaxMs = micros.back() / 1000.0;
}

// Sets the pairs up one after another; a pair is up once the server end has reported connected.
void connectAll(TarnServer& server, ETransport transport, Side& side, int count) {
    const std::uint64_t residentBefore = residentBytes();
    const int threadsBefore = threadCount();
    const std::int64_t start = nowNs();
    std::vector<std::uint32_t> handshakes;
    int failuresInARow = 0;
    for (int i = 0; i < count && failuresInARow < 10; ++i) {
        const std::int64_t began = nowNs();
        std::unique_ptr<ScaleClient> client(new ScaleClient(&side.recorder));
        TARNConnection* connection = new TARNConnection(transport);
        client->m_pConnection = connection;
        Accepted accepted;
        const bool connected = connection->connect("127.0.0.1", server.port(), client.get());
        side.connections.push_back(connection);
        if (!connected || !server.nextAccepted(accepted, 5000)) {
            // The connection keeps its client pointer until it is deleted with the rest.
            side.failedClients.push_back(std::move(client));
            ++failuresInARow;
            continue;
        }
        handshakes.push_back(static_cast<std::uint32_t>((nowNs() - began) / 1000));
        failuresInARow = 0;
        side.connections.push_back(accepted.connection);
        side.answerers.push_back(accepted.answerer);
        side.clients.push_back(std::move(client));
        if ((i + 1) % 200 == 0) {
            std::fprintf(stderr, "  scale: %s %d connected\n", side.result.name.c_str(), i + 1);
        }
    }
    side.result.setupSeconds = (nowNs() - start) / 1e9;
    side.result.connected = static_cast<int>(side.clients.size());
    side.result.residentDelta =
        static_cast<std::int64_t>(residentBytes()) - static_cast<std::int64_t>(residentBefore);
    side.result.threadDelta = threadCount() - threadsBefore;
    summariseHandshakes(std::move(handshakes), side.result);
}

// The process's CPU over an idle spell of `seconds`, in % of one core, after a short pause in
// which the last set-up's traffic dies down; also the UDP datagrams a second that the system sent
// over the spell.
double idleSpell(double seconds, double& measuredSeconds, double& datagramsPerSecond) {
    std::this_thread::sleep_for(std::chrono::duration<double>(std::min(1.0, seconds / 2)));
    const double cpuStart = procCpuSeconds();
    const std::uint64_t datagramsStart = udpOutDatagrams();
    const std::int64_t start = nowNs();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    measuredSeconds = (nowNs() - start) / 1e9;
    datagramsPerSecond = static_cast<double>(udpOutDatagrams() - datagramsStart) / measuredSeconds;
    return 100.0 * (procCpuSeconds() - cpuStart) / measuredSeconds;
}

// Every client fires once per period, spread evenly over the period; runs until `seconds` passed.
void drive(std::vector<Side*>& sides, double rateHz, double seconds, std::vector<std::uint64_t>& skipped,
           std::vector<std::uint64_t>& lost) {
    std::vector<std::pair<std::size_t, ScaleClient*>> all;
    for (std::size_t s = 0; s < sides.size(); ++s) {
        for (auto& client : sides[s]->clients) {
            all.emplace_back(s, client.get());
        }
    }
    if (all.empty()) {
        return;
    }
    const std::int64_t periodNs = static_cast<std::int64_t>(1e9 / rateHz);
    const std::int64_t start = nowNs();
    const std::int64_t end = start + static_cast<std::int64_t>(seconds * 1e9);
    for (std::int64_t cycle = 0;; ++cycle) {
        for (std::size_t i = 0; i < all.size(); ++i) {
            const std::int64_t due =
                start + cycle * periodNs +
                static_cast<std::int64_t>(i) * periodNs / static_cast<std::int64_t>(all.size());
            if (due >= end) {
                return;
            }
            const std::int64_t wait = due - nowNs();
            if (wait > 0) {
                std::this_thread::sleep_for(std::chrono::nanoseconds(wait));
            }
            all[i].second->fire(skipped[all[i].first], lost[all[i].first]);
        }
    }
}

// Each transport's pairs, then an idle spell: TCP's first, while no EUDP pair exists, so that the
// EUDP ends' share is what their spell adds to it.
void setUp(TarnServer& tcpServer, TarnServer& eudpServer, Side& tcp, Side& eudp, const Config& config) {
    std::fprintf(stderr, "  scale: connecting %d TCP clients, then %.0f s idle\n", config.scaleClients,
                 config.scaleIdleSeconds);
    connectAll(tcpServer, eTransportTCP, tcp, config.scaleClients);
    tcp.result.idleProcessCpuPercent =
        idleSpell(config.scaleIdleSeconds, tcp.result.idleSeconds, tcp.result.idleDatagramsPerSecond);
    tcp.result.idleCpuPercent = tcp.result.idleProcessCpuPercent;

    std::fprintf(stderr, "  scale: connecting %d EUDP clients, then %.0f s idle\n", config.scaleClients,
                 config.scaleIdleSeconds);
    connectAll(eudpServer, eTransportEUDP, eudp, config.scaleClients);
    eudp.result.idleProcessCpuPercent =
        idleSpell(config.scaleIdleSeconds, eudp.result.idleSeconds, eudp.result.idleDatagramsPerSecond);
    eudp.result.idleCpuPercent = eudp.result.idleProcessCpuPercent - tcp.result.idleProcessCpuPercent;
}

void load(std::vector<Side*>& sides, const Config& config, ScaleResult& result) {
    std::vector<std::uint64_t> skipped(sides.size(), 0);
    std::vector<std::uint64_t> lost(sides.size(), 0);
    std::fprintf(stderr, "  scale: %.0f s of round trips at %.0f Hz per client\n", config.scaleSeconds,
                 config.scaleRateHz);
    const double cpuStart = processCpuSeconds();
    const std::int64_t start = nowNs();
    drive(sides, config.scaleRateHz, config.scaleSeconds, skipped, lost);
    result.loadSeconds = (nowNs() - start) / 1e9;
    result.loadCpuPercent = 100.0 * (processCpuSeconds() - cpuStart) / result.loadSeconds;

    // Answers still on their way belong to the load.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    for (std::size_t s = 0; s < sides.size(); ++s) {
        ScaleTransport& out = sides[s]->result;
        std::vector<std::uint32_t> samples = sides[s]->recorder.take();
        std::sort(samples.begin(), samples.end());
        out.completed = samples.size();
        out.skipped = skipped[s];
        out.lost = lost[s];
        out.roundTripsPerSecond = static_cast<double>(samples.size()) / result.loadSeconds;
        out.expectedPerSecond = out.connected * config.scaleRateHz;
        out.p50Us = percentileUs(samples, 0.50);
        out.p99Us = percentileUs(samples, 0.99);
        out.p999Us = percentileUs(samples, 0.999);
    }
}

void tearDown(std::vector<Side*>& sides, ScaleResult& result) {
    for (Side* side : sides) {
        for (auto& client : side->clients) {
            side->result.dropped += client->m_end.ended() ? 1 : 0;
        }
    }
    std::fprintf(stderr, "  scale: closing\n");
    const std::int64_t start = nowNs();
    std::vector<TARNConnection*> connections;
    std::vector<Answerer*> answerers;
    for (Side* side : sides) {
        connections.insert(connections.end(), side->connections.begin(), side->connections.end());
        answerers.insert(answerers.end(), side->answerers.begin(), side->answerers.end());
    }
    closeAll(connections, answerers, 256);
    result.teardownSeconds = (nowNs() - start) / 1e9;
}

}  // namespace

double ScaleTransport::residentPerEnd() const {
    return ends() > 0 ? static_cast<double>(residentDelta) / ends() : 0;
}

double ScaleTransport::threadsPerEnd() const {
    return ends() > 0 ? static_cast<double>(threadDelta) / ends() : 0;
}

double ScaleTransport::idleCpuPercentPer1000Ends() const {
    return ends() > 0 ? idleCpuPercent * 1000.0 / ends() : 0;
}

ScaleResult runScale(TarnServer& tcpServer, TarnServer& eudpServer, const Config& config) {
    ScaleResult result;
    raiseSoftLimits();
    Side tcp;
    Side eudp;
    tcp.result.name = "TCP";
    eudp.result.name = "EUDP";
    tcp.result.clients = eudp.result.clients = config.scaleClients;
    setUp(tcpServer, eudpServer, tcp, eudp, config);
    result.threadsAtPeak = threadCount();
    result.residentAtPeak = residentBytes();

    std::vector<Side*> sides{&tcp, &eudp};
    load(sides, config, result);
    tearDown(sides, result);
    if (eudp.result.connected > 0) {
        std::fprintf(stderr, "  scale: the raw-UDP floor of the EUDP idle spell, %.0f s\n",
                     config.scaleIdleSeconds);
        result.idleFloor = measureIdleFloor(eudp.result.connected, eudp.result.idleDatagramsPerSecond / 2,
                                            config.scaleIdleSeconds);
    }
    result.transports.push_back(tcp.result);
    result.transports.push_back(eudp.result);
    result.ran = true;
    return result;
}

std::vector<ScaleGoal> scaleGoals(const ScaleResult& result) {
    std::vector<ScaleGoal> goals;
    for (const ScaleTransport& t : result.transports) {
        if (t.name == "EUDP") {
            goals.push_back(
                ScaleGoal{"EUDP resident memory per idle end", "KiB", t.residentPerEnd() / 1024.0, 64});
            goals.push_back(ScaleGoal{"EUDP set-up per handshake (mean)", "ms", t.handshakeMeanMs, 1});
            goals.push_back(
                ScaleGoal{"EUDP idle CPU per 1000 ends", "% of one core", t.idleCpuPercentPer1000Ends(), 1});
        }
    }
    for (const ScaleTransport& t : result.transports) {
        goals.push_back(ScaleGoal{t.name + " p99 round trip under load", "ms", t.p99Us / 1000.0, 5, true});
    }
    return goals;
}

std::vector<std::string> scaleProblems(const ScaleResult& result) {
    std::vector<std::string> problems;
    if (!result.ran) {
        problems.push_back("the scale scenario did not run");
    }
    for (const ScaleTransport& t : result.transports) {
        const std::string what = "scale " + t.name + ": ";
        if (t.connected < t.clients) {
            problems.push_back(what + std::to_string(t.connected) + " of " + std::to_string(t.clients) +
                               " pairs up");
        }
        if (t.handshakeMeanMs <= 0) {
            problems.push_back(what + "no handshake times");
        }
        if (t.threadDelta <= 0) {
            problems.push_back(what + "no threads counted for its connections");
        }
        if (t.idleSeconds <= 0) {
            problems.push_back(what + "no idle spell measured");
        }
        if (t.name == "EUDP" && t.connected > 0 && !result.idleFloor.ran) {
            problems.push_back(what + "no raw-UDP floor measured for its idle spell");
        }
        if (t.completed == 0 || t.p50Us <= 0) {
            problems.push_back(what + "no round trip completed under load");
        }
    }
    return problems;
}

}  // namespace bench
