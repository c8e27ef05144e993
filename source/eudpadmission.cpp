// EUDP listener admission: the live and per-source counts and the one-second window per source.
#include "eudpadmission.h"

namespace {
const std::int64_t WINDOW_MS = 1000;
const std::int64_t LOG_INTERVAL_MS = 1000;
}  // namespace

EUDPAdmission::EUDPAdmission() : m_live(0), m_liveSnapshot(0), m_bHardened(false), m_accepted(0) {
    for (unsigned int i = 0; i < LISTENER_REFUSAL_CAUSES; ++i) {
        m_refused[i].store(0, std::memory_order_relaxed);
        m_lastLog[i].store(-LOG_INTERVAL_MS, std::memory_order_relaxed);
    }
    for (std::atomic<std::uint64_t>& drop : m_drops) {
        drop.store(0, std::memory_order_relaxed);
    }
}

void EUDPAdmission::setHardening(const EUDPHardening& hardening) {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_hardening = hardening;
    m_bHardened.store(hardening.enabled, std::memory_order_relaxed);
}

// True when the source already had its maximum of admissions within the last second.
bool EUDPAdmission::recentlyFull(const Source& source, std::int64_t nowMillis) const {
    const std::uint32_t limit = m_hardening.maxNewPerSecondPerSource;
    if (limit == 0 || source.admittedAt.size() < limit) {
        return false;
    }
    // Full: the entry at `next` is the oldest of the last `limit` admissions.
    return nowMillis - source.admittedAt[source.next] < WINDOW_MS;
}

int EUDPAdmission::admit(const std::string& key, std::int64_t nowMillis) {
    std::lock_guard<std::mutex> hold(m_mutex);
    int refusal = -1;
    auto found = m_sources.find(key);
    if (m_hardening.enabled) {
        if (m_hardening.maxConnections != 0 && m_live >= m_hardening.maxConnections) {
            refusal = eRefusedTotalLimit;
        } else if (found != m_sources.end() && m_hardening.maxPerSource != 0 &&
                   found->second.live >= m_hardening.maxPerSource) {
            refusal = eRefusedPerSourceLimit;
        } else if (found != m_sources.end() && recentlyFull(found->second, nowMillis)) {
            refusal = eRefusedRateLimit;
        }
    }
    if (refusal >= 0) {
        m_refused[refusal].fetch_add(1, std::memory_order_relaxed);
        return refusal;
    }
    if (found == m_sources.end()) {
        // Sources with nothing live and no admission in the last second are forgotten once they
        // outnumber the live connections, so the table stays within a bound of what is live.
        if (m_sources.size() >= 2 * static_cast<std::size_t>(m_live) + 64) {
            prune(nowMillis);
        }
        found = m_sources.emplace(key, Source()).first;
    }
    Source& source = found->second;
    ++source.live;
    ++m_live;
    m_liveSnapshot.store(m_live, std::memory_order_relaxed);
    const std::uint32_t limit = m_hardening.enabled ? m_hardening.maxNewPerSecondPerSource : 0;
    if (limit != 0) {
        if (source.admittedAt.size() < limit) {
            source.admittedAt.push_back(nowMillis);
        } else {
            source.admittedAt[source.next] = nowMillis;
            source.next = (source.next + 1) % limit;
        }
    }
    return -1;
}

void EUDPAdmission::prune(std::int64_t nowMillis) {
    for (auto it = m_sources.begin(); it != m_sources.end();) {
        bool recent = false;
        for (std::int64_t at : it->second.admittedAt) {
            recent = recent || nowMillis - at < WINDOW_MS;
        }
        if (it->second.live == 0 && !recent) {
            it = m_sources.erase(it);
        } else {
            ++it;
        }
    }
}

void EUDPAdmission::release(const std::string& key) {
    std::lock_guard<std::mutex> hold(m_mutex);
    auto found = m_sources.find(key);
    if (found == m_sources.end() || found->second.live == 0 || m_live == 0) {
        return;
    }
    --found->second.live;
    --m_live;
    m_liveSnapshot.store(m_live, std::memory_order_relaxed);
    if (found->second.live == 0 && found->second.admittedAt.empty()) {
        m_sources.erase(found);
    }
}

std::uint64_t EUDPAdmission::countDrop(EDrop kind) {
    return m_drops[kind].fetch_add(1, std::memory_order_relaxed) + 1;
}

bool EUDPAdmission::logDue(int cause, std::int64_t nowMillis) {
    std::int64_t last = m_lastLog[cause].load(std::memory_order_relaxed);
    return nowMillis - last >= LOG_INTERVAL_MS &&
           m_lastLog[cause].compare_exchange_strong(last, nowMillis, std::memory_order_relaxed);
}

TARNListenerStatistics EUDPAdmission::snapshot() const {
    TARNListenerStatistics out;
    out.hardened = m_bHardened.load(std::memory_order_relaxed);
    out.accepted = m_accepted.load(std::memory_order_relaxed);
    out.live = m_liveSnapshot.load(std::memory_order_relaxed);
    for (unsigned int i = 0; i < LISTENER_REFUSAL_CAUSES; ++i) {
        out.refused[i] = m_refused[i].load(std::memory_order_relaxed);
    }
    out.invalidReceived = m_drops[eDropInvalid].load(std::memory_order_relaxed);
    out.nonConReceived = m_drops[eDropNonCon].load(std::memory_order_relaxed);
    out.emptyReceived = m_drops[eDropEmpty].load(std::memory_order_relaxed);
    out.receiveErrors = m_drops[eDropReceiveError].load(std::memory_order_relaxed);
    return out;
}

std::size_t EUDPAdmission::trackedSources() const {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_sources.size();
}
