// Where the EUDP sender thread's loop stands. Owns m_senderLock and what it guards: the wait the
// loop is in (m_senderWait), the step a giver has it resume at (m_senderResume), when its
// acknowledgement wait began, a pending data give, and whether it sleeps without a limit; and the
// two semaphores it sleeps on (m_sendWakeSem) or finds given (m_ackSem). Here: the thread's wait
// (500 ms for an acknowledgement, the only resend delay) and the gives of new data and new
// acknowledgements, which take the sender's steps that send nothing themselves (eudpsender.cpp has
// the steps).
#include <eudptransport.h>

#include "eudplink.h"

namespace {

const unsigned int ACK_WAIT_MS = 500;

using SenderClock = EUDPLink::Clock;

// The whole milliseconds to sleep so as to wake no earlier than `deadline`, at least one.
unsigned int msUntil(SenderClock::time_point deadline, SenderClock::time_point now) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - now);
    const long long ms = (left.count() + 999) / 1000;
    return ms < 1 ? 1u : static_cast<unsigned int>(ms);
}

}  // namespace

bool EUDPTransport::isSenderWait(SenderStep step) {
    return step == SenderStep::eWaitData || step == SenderStep::eWaitAckBeforePass ||
           step == SenderStep::eWaitAckAfterPass;
}

// The thread waits in `wait` until a giver has it resume, its acknowledgement wait runs out
// (500 ms after it began, a beginning that givers move later without waking it), or, in a data
// wait, a plain give of m_sendWakeSem (the closing paths).
EUDPTransport::SenderStep EUDPTransport::waitAs(SenderStep wait) {
    std::unique_lock<std::mutex> lock(m_senderLock);
    SenderStep next = beginWaitLocked(wait);
    bool bGiven = false;
    while (isSenderWait(next)) {
        next = checkWaitLocked(bGiven);
        if (!isSenderWait(next)) {
            break;
        }
        const bool bTimed = next != SenderStep::eWaitData;
        const SenderClock::time_point deadline = m_ackWaitStart + std::chrono::milliseconds(ACK_WAIT_MS);
        m_bSleepsUntimed = !bTimed;
        lock.unlock();
        const int timedOut =
            m_sendWakeSem.take(bTimed ? msUntil(deadline, m_pLink->now()) : sal::WAIT_FOREVER);
        m_senderWakeUps.fetch_add(1, std::memory_order_relaxed);
        lock.lock();
        m_bSleepsUntimed = false;
        bGiven = timedOut == 0;
    }
    return next;
}

// A give that was pending when the wait began is taken at once, as a semaphore would: the step it
// leads to is returned. Otherwise the sender now waits in `wait`, which is returned.
EUDPTransport::SenderStep EUDPTransport::beginWaitLocked(SenderStep wait) {
    if (wait == SenderStep::eWaitData) {
        if (m_bWakePending || m_sendWakeSem.take(0) == 0) {
            m_bWakePending = false;
            return SenderStep::eWokenForData;
        }
    } else if (m_ackSem.take(0) == 0) {
        return wait == SenderStep::eWaitAckBeforePass ? SenderStep::eAckBeforePassGiven
                                                      : SenderStep::eAckAfterPassGiven;
    } else {
        m_ackWaitStart = m_pLink->now();
    }
    m_senderWait = wait;
    return wait;
}

// Where a waiting sender stands now, `bGiven` telling that it has just taken a plain give of
// m_sendWakeSem: the step it resumes at, or the wait it stays in. A plain give ends a data wait;
// during an acknowledgement wait it stays pending for the next data wait, as m_sendWakeSem's give
// would.
EUDPTransport::SenderStep EUDPTransport::checkWaitLocked(bool bGiven) {
    if (bGiven && m_senderWait != SenderStep::eRunning) {
        if (m_senderWait == SenderStep::eWaitData) {
            m_senderWait = SenderStep::eRunning;
            return SenderStep::eWokenForData;
        }
        m_bWakePending = true;
    }
    if (m_senderWait == SenderStep::eRunning) {
        return m_senderResume;
    }
    if (m_senderWait != SenderStep::eWaitData &&
        m_pLink->now() >= m_ackWaitStart + std::chrono::milliseconds(ACK_WAIT_MS)) {
        const SenderStep next = m_senderWait == SenderStep::eWaitAckBeforePass
                                    ? SenderStep::eAckBeforePassTimedOut
                                    : SenderStep::eAckAfterPassTimedOut;
        m_senderWait = SenderStep::eRunning;
        return next;
    }
    return m_senderWait;
}

bool EUDPTransport::giveDataLocked() {
    std::lock_guard<std::mutex> lock(m_senderLock);
    if (m_senderWait != SenderStep::eWaitData) {
        m_bWakePending = true;
        return false;
    }
    return advanceLocked(SenderStep::eWokenForData);
}

bool EUDPTransport::giveAckLocked() {
    std::lock_guard<std::mutex> lock(m_senderLock);
    if (m_senderWait == SenderStep::eWaitAckBeforePass) {
        return advanceLocked(SenderStep::eAckBeforePassGiven);
    }
    if (m_senderWait == SenderStep::eWaitAckAfterPass) {
        return advanceLocked(SenderStep::eAckAfterPassGiven);
    }
    m_ackSem.give();
    return false;
}

void EUDPTransport::giveAckForResend() {
    bool bWake = false;
    {
        std::lock_guard<std::mutex> lock(m_senderLock);
        if (m_senderWait == SenderStep::eWaitAckBeforePass || m_senderWait == SenderStep::eWaitAckAfterPass) {
            m_senderResume = m_senderWait == SenderStep::eWaitAckBeforePass ? SenderStep::eAckBeforePassGiven
                                                                            : SenderStep::eAckAfterPassGiven;
            m_senderWait = SenderStep::eRunning;
            bWake = true;
        } else {
            m_ackSem.give();
        }
    }
    if (bWake) {
        m_sendWakeSem.give();
    }
}

// The giver's look ahead: the steps that need no sending are taken here, pending gives consumed
// on the way as the thread would consume them, and the wait reached becomes the sender's. An
// acknowledgement wait reached this way begins now, as it would have begun in the thread; the
// thread, asleep until the end of an earlier one, finds the later end when it wakes and sleeps on.
// Only a thread asleep without a limit is woken, to begin counting. A step that sends or ends is
// left to the thread, which resumes there.
bool EUDPTransport::advanceLocked(SenderStep from) {
    SenderStep step = from;
    for (int guard = 0; guard < 16; ++guard) {
        const SenderStep next = senderStep(step, true, nullptr);
        if (next == SenderStep::eNeedsThread) {
            break;
        }
        if (next == SenderStep::eWaitData) {
            if (m_bWakePending) {
                m_bWakePending = false;
                step = SenderStep::eWokenForData;
                continue;
            }
            m_senderWait = next;
            return false;
        }
        if (next == SenderStep::eWaitAckBeforePass || next == SenderStep::eWaitAckAfterPass) {
            if (m_ackSem.take(0) == 0) {
                step = next == SenderStep::eWaitAckBeforePass ? SenderStep::eAckBeforePassGiven
                                                              : SenderStep::eAckAfterPassGiven;
                continue;
            }
            m_senderWait = next;
            m_ackWaitStart = m_pLink->now();
            return m_bSleepsUntimed;
        }
        step = next;
    }
    m_senderResume = step;
    m_senderWait = SenderStep::eRunning;
    return true;
}