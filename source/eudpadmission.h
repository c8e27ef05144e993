// What a hardened EUDP listener lets connection requests cost, and what any EUDP listener has
// accepted and refused. One record per listening transport, shared with the transports it accepted
// (each gives its place back when its link ends). Decisions take the time as an argument, so they
// are tested apart from sockets and clocks.
//
// Threads: the listener's accept thread admits; accepted transports' receiver threads release;
// anyone takes a snapshot. One mutex guards the per-source table; the counters are relaxed atomics.
#ifndef TARN_EUDPADMISSION_H
#define TARN_EUDPADMISSION_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <eudphardening.h>
#include <tarn_export.h>
#include <tarnstatistics.h>

class TARN_EXPORT EUDPAdmission {
public:
    // What the listening socket received besides CONs.
    enum EDrop { eDropInvalid, eDropNonCon, eDropEmpty, eDropReceiveError };

    EUDPAdmission();
    EUDPAdmission(const EUDPAdmission&) = delete;
    EUDPAdmission& operator=(const EUDPAdmission&) = delete;

    // The limits to enforce; with hardening off every request is admitted (and still counted).
    void setHardening(const EUDPHardening& hardening);

    // A CON from the source `key` (an address's bytes) at `nowMillis`: -1 when admitted (a place
    // is taken: call release(key) once when that connection ends), otherwise the EListenerRefusal
    // that refused it, counted.
    int admit(const std::string& key, std::int64_t nowMillis);
    void release(const std::string& key);
    // Returns the count of this kind including this one.
    std::uint64_t countDrop(EDrop kind);
    void countAccepted() { m_accepted.fetch_add(1, std::memory_order_relaxed); }

    // The refusal count of `cause`, and whether a log line for it is due (at most one a second).
    bool logDue(int cause, std::int64_t nowMillis);

    TARNListenerStatistics snapshot() const;
    std::size_t trackedSources() const;  // table size, for tests of its bound

private:
    struct Source {
        std::uint32_t live = 0;
        std::vector<std::int64_t> admittedAt;  // the last maxNewPerSecondPerSource admissions
        std::size_t next = 0;                  // oldest entry once admittedAt is full
    };
    bool recentlyFull(const Source& source, std::int64_t nowMillis) const;
    void prune(std::int64_t nowMillis);

    EUDPHardening m_hardening;  // guarded by m_mutex
    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Source> m_sources;
    std::uint32_t m_live;  // guarded by m_mutex; mirrored in m_liveSnapshot for readers
    std::atomic<std::uint32_t> m_liveSnapshot;
    std::atomic<bool> m_bHardened;
    std::atomic<std::uint64_t> m_accepted;
    std::atomic<std::uint64_t> m_refused[LISTENER_REFUSAL_CAUSES];
    std::atomic<std::uint64_t> m_drops[4];
    std::atomic<std::int64_t> m_lastLog[LISTENER_REFUSAL_CAUSES];
};

#endif  // TARN_EUDPADMISSION_H
