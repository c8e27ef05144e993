// EUDP statistics: the counters each transport keeps and the snapshot it hands out.
#include <eudpcounters.h>
#include <eudptransport.h>

#include <time.h>

#include <chrono>

namespace {

std::int64_t steadyMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

EUDPCounters::EUDPCounters()
    : m_resent(0),
      m_bAnyDataSent(false),
      m_highestSent(0),
      m_bSampling(false),
      m_sampleSeq(0),
      m_sampleStartMicros(0),
      m_smoothedRttMicros(-1),
      m_invalid(0),
      m_gaps(0),
      m_skipped(0),
      m_late(0),
      m_duplicates(0),
      m_ringFull(0),
      m_lastHeardMillis(-1) {
    for (unsigned int i = 0; i < EUDP_COMMAND_KINDS; ++i) {
        m_sentDatagrams[i].store(0, std::memory_order_relaxed);
        m_sentBytes[i].store(0, std::memory_order_relaxed);
        m_receivedDatagrams[i].store(0, std::memory_order_relaxed);
        m_receivedBytes[i].store(0, std::memory_order_relaxed);
    }
    for (unsigned int i = 0; i < EUDP_HARDENED_CAUSES; ++i) {
        m_hardened[i].store(0, std::memory_order_relaxed);
    }
}

std::int64_t EUDPCounters::coarseMillis() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void EUDPCounters::countSentData(std::int32_t word, std::uint32_t payload, bool reliable) {
    add(m_sentDatagrams[CMD], 1);
    add(m_sentBytes[CMD], payload);
    const std::int32_t seq = word % ModuloValue::MODULUS;
    if (m_bAnyDataSent.load(std::memory_order_relaxed) &&
        ModuloValue::distance(seq, m_highestSent.load(std::memory_order_relaxed)) <= 0) {
        add(m_resent, 1);
        m_bSampling.store(false, std::memory_order_relaxed);  // its ACK may answer either copy
        return;
    }
    m_bAnyDataSent.store(true, std::memory_order_relaxed);
    m_highestSent.store(seq, std::memory_order_relaxed);
    if (reliable && !m_bSampling.load(std::memory_order_relaxed)) {
        m_sampleSeq.store(seq, std::memory_order_relaxed);
        m_sampleStartMicros.store(steadyMicros(), std::memory_order_relaxed);
        m_bSampling.store(true, std::memory_order_relaxed);
    }
}

void EUDPCounters::countAcknowledged(std::int32_t seq) {
    if (!m_bSampling.load(std::memory_order_relaxed) ||
        ModuloValue::distance(seq, m_sampleSeq.load(std::memory_order_relaxed)) < 0) {
        return;
    }
    m_bSampling.store(false, std::memory_order_relaxed);
    const std::int64_t sample = steadyMicros() - m_sampleStartMicros.load(std::memory_order_relaxed);
    const std::int64_t smoothed = m_smoothedRttMicros.load(std::memory_order_relaxed);
    m_smoothedRttMicros.store(smoothed < 0 ? sample : smoothed + (sample - smoothed) / 8,
                              std::memory_order_relaxed);
}

void EUDPCounters::countReceived(EEUDPCommand command, std::uint32_t payload) {
    add(m_receivedDatagrams[command], 1);
    add(m_receivedBytes[command], payload);
    m_lastHeardMillis.store(coarseMillis(), std::memory_order_relaxed);
}

void EUDPCounters::fill(EUDPStatistics& out) const {
    for (unsigned int i = 0; i < EUDP_COMMAND_KINDS; ++i) {
        out.sentDatagrams[i] = m_sentDatagrams[i].load(std::memory_order_relaxed);
        out.sentPayloadBytes[i] = m_sentBytes[i].load(std::memory_order_relaxed);
        out.receivedDatagrams[i] = m_receivedDatagrams[i].load(std::memory_order_relaxed);
        out.receivedPayloadBytes[i] = m_receivedBytes[i].load(std::memory_order_relaxed);
    }
    for (unsigned int i = 0; i < EUDP_HARDENED_CAUSES; ++i) {
        out.hardenedDropped[i] = m_hardened[i].load(std::memory_order_relaxed);
    }
    out.invalidReceived = m_invalid.load(std::memory_order_relaxed);
    out.dataResent = m_resent.load(std::memory_order_relaxed);
    out.naksSent = out.sentDatagrams[NAK];
    out.naksReceived = out.receivedDatagrams[NAK];
    out.realtimeGapsSkipped = m_gaps.load(std::memory_order_relaxed);
    out.realtimeDatagramsSkipped = m_skipped.load(std::memory_order_relaxed);
    out.lateDropped = m_late.load(std::memory_order_relaxed);
    out.duplicatesDropped = m_duplicates.load(std::memory_order_relaxed);
    out.receiveRingFullDropped = m_ringFull.load(std::memory_order_relaxed);
    out.smoothedRttMicros = m_smoothedRttMicros.load(std::memory_order_relaxed);
    const std::int64_t heard = m_lastHeardMillis.load(std::memory_order_relaxed);
    if (heard >= 0) {
        const std::int64_t since = coarseMillis() - heard;
        out.millisSincePeerHeard = since < 0 ? 0 : since;
    }
}

EUDPStatistics EUDPTransport::getStatistics() const {
    EUDPStatistics out;
    m_counters.fill(out);
    out.hardened = isHardened();
    const std::uint32_t capacity = m_sendBuffer.capacity();
    out.sendRingOccupancy = (m_sendBuffer.writeIndex() + capacity - m_sendBuffer.readIndex()) % capacity;
    out.unacknowledged = m_unacked.load(std::memory_order_relaxed);
    out.sendMode = getSendMode();
    out.receiveMode = getReceiveMode();
    out.windowSize = getWindowSize();
    return out;
}
