// EUDP liveness supervision: after a quiet spell one keep-alive (an empty data datagram) goes out,
// and a peer that stays silent for 10 s after it is taken for gone and the connection closed here.
//
// Both timers are started one-shot: one keep-alive per quiet spell, and one final expiry. A start
// while a timer runs changes nothing, so a second keep-alive never postpones the close.
#include <eudptransport.h>

#include "eudplink.h"

namespace {
const unsigned int FINAL_WAIT_US = 10000000;
}  // namespace

void EUDPTransport::initTimers(unsigned int aliveTimeout) {
    if (m_bTimersInitialised) {
        return;
    }
    m_bTimersInitialised = true;
    // The timers own their callbacks and delete them. The callbacks are in place before the
    // period is, so that the receiver thread (already running) never arms a timer without one.
    // Each also has an inline attempt, so that an expiry that need not wait is handled on the
    // timer service's own thread without waking a worker.
    m_sendAliveTimer.setCallback(new sal::Callback<EUDPTransport>(this, &EUDPTransport::onSendAliveTimer,
                                                                  &EUDPTransport::sendAliveWithoutWaiting));
    m_aliveTimer.setCallback(
        new sal::Callback<EUDPTransport>(this, &EUDPTransport::onAliveTimer, &EUDPTransport::closeOnSilence));
    m_aliveTimeout.store(aliveTimeout);
    resetTimers();
}

void EUDPTransport::stopTimers() {
    if (m_pLink->isTimerRunning(m_sendAliveTimer)) {
        m_pLink->stopTimer(m_sendAliveTimer);
    }
    if (m_pLink->isTimerRunning(m_aliveTimer)) {
        m_pLink->stopTimer(m_aliveTimer);
    }
}

void EUDPTransport::resetTimers() {
    stopTimers();
    // A period of 0 means initTimers has not run yet (the receiver starts before it): nothing to
    // arm then, initTimers arms the timer itself.
    unsigned int period = m_aliveTimeout.load();
    if (period != 0) {
        m_pLink->startTimer(m_sendAliveTimer, period);
    }
}

void EUDPTransport::onSendAliveTimer() {
    // Armed before the keep-alive is queued: if the ring is full this callback waits in sendData,
    // and the close must still come on time.
    m_pLink->startTimer(m_aliveTimer, FINAL_WAIT_US);
    sendData(nullptr, 0);
}

// The keep-alive as onSendAliveTimer sends it, unless that would mean waiting: for the send lock,
// which the sender thread may hold for a whole realtime pass, for a data datagram on its way, or
// for room in a full ring. Then it declines and onSendAliveTimer runs on a worker; the final timer
// it has already armed is not postponed by the second start.
bool EUDPTransport::sendAliveWithoutWaiting() {
    m_pLink->startTimer(m_aliveTimer, FINAL_WAIT_US);
    if (m_sendMutex.take(0) != 0) {
        return false;
    }
    if (m_bClosed.load() || m_bDestroying.load()) {
        refuseClosedLocked();
        return true;
    }
    if (m_sendBuffer.isFull()) {
        m_sendMutex.give();
        return false;
    }
    // Nor for a datagram still on its way from sendData: it holds m_wireLock, which the send needs.
    // Only a holder of m_sendMutex takes that lock, so it stays free until queueLocked sends.
    if (!m_wireLock.try_lock()) {
        m_sendMutex.give();
        return false;
    }
    m_wireLock.unlock();
    queueLocked(nullptr, 0);
    return true;
}

// Closing never waits.
bool EUDPTransport::closeOnSilence() {
    onAliveTimer();
    return true;
}

void EUDPTransport::onAliveTimer() {
    m_bTimedOut.store(true);  // before the close, which is what the application sees next
    if (m_pLink->isTimerRunning(m_sendAliveTimer)) {
        m_pLink->stopTimer(m_sendAliveTimer);
    }
    sal::UdpSocket* pSocket = m_pSocket.load();
    if (pSocket != nullptr) {
        pSocket->close();
    }
    m_bClosed.store(true);
    m_sendWakeSem.give();
    m_receiveSem.give();
}
