// The counters behind EUDPStatistics: one object per EUDPTransport, written by the threads that do
// the work and read by anyone through EUDPTransport::getStatistics(). Internal to the library; an
// application reads the plain EUDPStatistics instead.
//
// Every counter is a relaxed atomic. The send side is written by the sending threads (data under
// the transport's send mutex, control datagrams from whichever thread sends them), the receive
// side by whichever thread holds the reading turn, one at a time; the two sit on separate cache
// lines so that the threads do not contend for one.
#ifndef TARN_EUDPCOUNTERS_H
#define TARN_EUDPCOUNTERS_H

#include <atomic>
#include <cstdint>

#include <eudppacket.h>
#include <tarn_export.h>
#include <tarnstatistics.h>

class TARN_EXPORT EUDPCounters {
public:
    EUDPCounters();
    EUDPCounters(const EUDPCounters&) = delete;
    EUDPCounters& operator=(const EUDPCounters&) = delete;

    // A header-only datagram handed to the socket.
    void countSentControl(EEUDPCommand command) { add(m_sentDatagrams[command], 1); }
    // A CMD handed to the socket, numbered `word`; called with the transport's send mutex held.
    // One numbered at or before the highest sent so far is a resend. A reliable one that is new
    // starts a round-trip sample when none is running; a resend cancels the running one.
    void countSentData(std::int32_t word, std::uint32_t payload, bool reliable);
    // An ACK that moved the acknowledged number to `seq`; with the send mutex held.
    void countAcknowledged(std::int32_t seq);

    // The thread that holds the transport's reading turn (the receiver thread, or a receiveData
    // caller that reads the socket itself): one at a time.
    void countReceived(EEUDPCommand command, std::uint32_t payload);
    void countInvalid() { add(m_invalid, 1); }
    void countRealtimeGap(std::int32_t skipped) {
        add(m_gaps, 1);
        add(m_skipped, static_cast<std::uint64_t>(skipped));
    }
    void countLate() { add(m_late, 1); }
    void countDuplicate() { add(m_duplicates, 1); }
    void countRingFull() { add(m_ringFull, 1); }

    // Any thread. Returns the count including this one.
    std::uint64_t countHardened(EEUDPHardenedCause cause) {
        return m_hardened[cause].fetch_add(1, std::memory_order_relaxed) + 1;
    }

    std::uint64_t hardened(EEUDPHardenedCause cause) const {
        return m_hardened[cause].load(std::memory_order_relaxed);
    }

    // Fills the counters and the two timing fields; the caller adds the "now" state it owns.
    void fill(EUDPStatistics& out) const;

    // A monotonic clock in milliseconds that is cheap enough to read for every datagram (its
    // resolution is a few milliseconds).
    static std::int64_t coarseMillis();

private:
    static void add(std::atomic<std::uint64_t>& counter, std::uint64_t n) {
        counter.fetch_add(n, std::memory_order_relaxed);
    }

    // Send side.
    alignas(64) std::atomic<std::uint64_t> m_sentDatagrams[EUDP_COMMAND_KINDS];
    std::atomic<std::uint64_t> m_sentBytes[EUDP_COMMAND_KINDS];
    std::atomic<std::uint64_t> m_resent;
    std::atomic<bool> m_bAnyDataSent;
    std::atomic<std::int32_t> m_highestSent;
    std::atomic<bool> m_bSampling;          // a round-trip sample is running
    std::atomic<std::int32_t> m_sampleSeq;  // for this datagram
    std::atomic<std::int64_t> m_sampleStartMicros;
    std::atomic<std::int64_t> m_smoothedRttMicros;  // -1 before the first sample

    // Receive side.
    alignas(64) std::atomic<std::uint64_t> m_receivedDatagrams[EUDP_COMMAND_KINDS];
    std::atomic<std::uint64_t> m_receivedBytes[EUDP_COMMAND_KINDS];
    std::atomic<std::uint64_t> m_invalid;
    std::atomic<std::uint64_t> m_gaps;
    std::atomic<std::uint64_t> m_skipped;
    std::atomic<std::uint64_t> m_late;
    std::atomic<std::uint64_t> m_duplicates;
    std::atomic<std::uint64_t> m_ringFull;
    std::atomic<std::int64_t> m_lastHeardMillis;  // -1 before the first valid datagram

    alignas(64) std::atomic<std::uint64_t> m_hardened[EUDP_HARDENED_CAUSES];
};

#endif  // TARN_EUDPCOUNTERS_H
