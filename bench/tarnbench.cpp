#include "tarnbench.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace bench {

namespace {

const std::int64_t kIdleEndNs = 300000000;  // a lossy stream is over after this long without news
const int kAcceptWaitMs = 5000;

// Counts the triggers of a stream.
class Counter : public ITARNClient {
public:
    virtual ~Counter() = default;
    void onTrigger(const std::string&, const ParameterValue&) override {
        m_lastNs.store(nowNs(), std::memory_order_relaxed);
        m_count.fetch_add(1, std::memory_order_relaxed);
    }
    void onUpdateState(const std::string&, const ParameterValue&) override {}
    void onStatusChanged(EConnStatus) override {}
    std::atomic<std::uint64_t> m_count{0};
    std::atomic<std::int64_t> m_lastNs{0};
};

// Drives round trips from the client's receive thread: each answer records its time and sends the
// next call. The lock serialises that with kick(), which the watchdog uses to restart the chain
// after a lost message.
class Pinger : public ITARNClient {
public:
    Pinger(std::uint32_t payload, std::uint32_t warmUp, std::uint32_t count)
        : m_payload(payload), m_warmUp(warmUp), m_total(warmUp + count) {
        m_samples.reserve(count);
    }
    virtual ~Pinger() = default;

    void attach(TARNConnection* connection) { m_pConnection = connection; }

    void onTrigger(const std::string& name, const ParameterValue& value) override {
        const std::int64_t now = nowNs();
        std::lock_guard<std::mutex> lock(m_mutex);
        if (name != "rt" || parseSequence(value.getAsString()) != m_current || m_bDone) {
            return;  // a late answer to a call the watchdog gave up on
        }
        if (m_answered >= m_warmUp) {
            if (m_answered == m_warmUp) {
                m_cpuStart = processCpuSeconds();
                m_startNs = m_sentNs;
            }
            m_samples.push_back(static_cast<std::uint32_t>(now - m_sentNs));
        }
        ++m_answered;
        m_progress.fetch_add(1, std::memory_order_relaxed);
        if (m_answered >= m_total || m_bStop) {
            finishLocked(now);
            return;
        }
        sendLocked();
    }
    void onUpdateState(const std::string&, const ParameterValue&) override {}
    void onStatusChanged(EConnStatus) override {}

    // Starts the chain, or restarts it after a loss.
    void kick(bool lost) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bDone) {
            return;
        }
        if (lost && m_answered >= m_warmUp) {
            ++m_lost;
        }
        sendLocked();
    }

    // Waits until done, up to `limit` seconds of measuring; restarts a stalled chain when `lossy`.
    void wait(double limit, bool lossy) {
        std::unique_lock<std::mutex> lock(m_mutex);
        const std::int64_t begin = nowNs();
        std::uint64_t seen = m_progress.load();
        std::int64_t seenNs = nowNs();
        while (!m_bDone) {
            m_doneSignal.wait_for(lock, std::chrono::milliseconds(50));
            const std::int64_t now = nowNs();
            const double measured = m_startNs != 0 ? (now - m_startNs) / 1e9 : (now - begin) / 1e9;
            if (measured > limit) {
                m_bStop = true;
                if (now - seenNs > 1000000000) {
                    finishLocked(now);  // the chain is stuck: give up on it
                }
            }
            if (m_progress.load() != seen) {
                seen = m_progress.load();
                seenNs = now;
            } else if (lossy && now - seenNs > 200000000 && !m_bDone) {
                seenNs = now;
                lock.unlock();
                kick(true);
                lock.lock();
            }
        }
    }

    void result(RttRun& run) {
        std::lock_guard<std::mutex> lock(m_mutex);
        run.samples.swap(m_samples);
        run.lost = m_lost;
        run.seconds = m_startNs != 0 ? (m_endNs - m_startNs) / 1e9 : 0;
        run.cpuSeconds = m_startNs != 0 ? m_cpuEnd - m_cpuStart : 0;
        run.ok = !run.samples.empty();
    }

private:
    void sendLocked() {
        ++m_current;
        ParameterList list;
        list.addString("s", sequenceText(m_current, m_payload));
        m_sentNs = nowNs();
        m_pConnection->callFunctionId("rt", list);
    }

    void finishLocked(std::int64_t now) {
        m_bDone = true;
        m_endNs = now;
        m_cpuEnd = processCpuSeconds();
        m_doneSignal.notify_all();
    }

    const std::uint32_t m_payload;
    const std::uint32_t m_warmUp;
    const std::uint32_t m_total;
    TARNConnection* m_pConnection = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_doneSignal;
    std::uint64_t m_current = 0;
    std::uint32_t m_answered = 0;
    std::uint64_t m_lost = 0;
    std::int64_t m_sentNs = 0;
    std::int64_t m_startNs = 0;
    std::int64_t m_endNs = 0;
    double m_cpuStart = 0;
    double m_cpuEnd = 0;
    bool m_bDone = false;
    bool m_bStop = false;
    std::atomic<std::uint64_t> m_progress{0};
    std::vector<std::uint32_t> m_samples;
};

// A connected pair: the client end with `client` as its callbacks, and the accepted server end.
struct Pair {
    TARNConnection* client = nullptr;
    Accepted server;
};

bool openPair(TarnServer& server, ETransport transport, ITARNClient* client, Pair& pair, std::string& note) {
    ITARNTransport* const own = server.newClientTransport();
    pair.client = own != nullptr ? new TARNConnection(own) : new TARNConnection(transport);
    if (!pair.client->connect("127.0.0.1", server.port(), client)) {
        note = "connect failed";
        return false;
    }
    if (!server.nextAccepted(pair.server, kAcceptWaitMs)) {
        note = "server never saw the connection";
        return false;
    }
    return true;
}

bool negotiate(Pair& pair, ETransport transport, const EudpSetup& setup, std::string& note) {
    if (transport != eTransportEUDP) {
        return true;
    }
    if (setup.reliable && (!pair.client->setSendMode(eReliable) || !pair.client->setReceiveMode(eReliable))) {
        note = "reliable mode refused";
        return false;
    }
    if (setup.window != 0 && !pair.client->setWindowSize(setup.window)) {
        note = "window size refused";
        return false;
    }
    return true;
}

void closePair(Pair& pair) {
    std::vector<TARNConnection*> connections{pair.client};
    std::vector<Answerer*> answerers;
    if (pair.server.connection != nullptr) {
        connections.push_back(pair.server.connection);
        answerers.push_back(pair.server.answerer);
    }
    closeAll(connections, answerers, 2);
}

}  // namespace

StreamRun tarnStream(TarnServer& server, ETransport transport, const EudpSetup& setup, std::uint32_t payload,
                     std::uint64_t count, double timeLimit) {
    StreamRun run;
    Counter counter;
    Pair pair;
    if (!openPair(server, transport, &counter, pair, run.note) ||
        !negotiate(pair, transport, setup, run.note)) {
        closePair(pair);
        return run;
    }
    // Only realtime EUDP may lose messages; everything else is waited for to the last one.
    const bool lossy = transport == eTransportEUDP && !setup.reliable;
    const ParameterValue value(std::string(payload, 'x'));
    TARNConnection* sender = pair.server.connection;

    const std::uint64_t dropsBefore = udpReceiveBufferErrors();
    const std::uint64_t backlogBefore = backlogDrops();
    const double cpuStart = processCpuSeconds();
    const std::int64_t startNs = nowNs();
    std::uint64_t sent = 0;
    while (sent < count && (nowNs() - startNs) < timeLimit * 1e9) {
        if (!sender->trigger("s", value)) {
            run.note = "send failed";
            break;
        }
        ++sent;
    }
    const std::int64_t sentNs = nowNs();
    // Reliable transports get as long again as the sending took (and at least 10 s) to deliver.
    const std::int64_t patienceNs = std::max<std::int64_t>(sentNs - startNs, 10000000000LL);
    for (;;) {
        const std::uint64_t delivered = counter.m_count.load();
        const std::int64_t now = nowNs();
        if (delivered >= sent) {
            break;
        }
        if (lossy) {
            const std::int64_t quietSince = std::max(sentNs, counter.m_lastNs.load());
            if (now - quietSince > kIdleEndNs) {
                break;
            }
        } else if (now - sentNs > patienceNs) {
            run.note = "not all delivered";
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    run.cpuSeconds = processCpuSeconds() - cpuStart;
    if (transport == eTransportEUDP) {
        run.kernelDrops = udpReceiveBufferErrors() - dropsBefore;
        run.backlogDrops = backlogDrops() - backlogBefore;
        if (setup.reliable) {
            const EUDPStatistics out = sender->getStatistics().eudp;
            const EUDPStatistics in = pair.client->getStatistics().eudp;
            run.recovery = "NAKs " + std::to_string(out.naksReceived) + ", resent " +
                           std::to_string(out.dataResent) + ", receive ring full " +
                           std::to_string(in.receiveRingFullDropped) + ", duplicates " +
                           std::to_string(in.duplicatesDropped);
        }
    }
    run.sent = sent;
    run.delivered = counter.m_count.load();
    run.seconds = (counter.m_lastNs.load() - startNs) / 1e9;
    run.ok = lossy ? run.delivered > 0 : run.delivered == run.sent;
    closePair(pair);
    return run;
}

RttRun tarnRoundTrips(TarnServer& server, ETransport transport, const EudpSetup& setup, std::uint32_t payload,
                      std::uint32_t count, std::uint32_t warmUp, double timeLimit) {
    RttRun run;
    Pinger pinger(payload, warmUp, count);
    Pair pair;
    if (!openPair(server, transport, &pinger, pair, run.note) ||
        !negotiate(pair, transport, setup, run.note)) {
        closePair(pair);
        return run;
    }
    pinger.attach(pair.client);
    pinger.kick(false);
    pinger.wait(timeLimit, transport == eTransportEUDP && !setup.reliable);
    pinger.result(run);
    closePair(pair);
    return run;
}

}  // namespace bench
