// EUDP sending path: control datagrams sent at once, data queued in the send ring, and the sender
// thread that drains the ring once (realtime) or under the window with go-back resend (reliable).
#include <eudptransport.h>

using Corvane::Utilities::Logging::eDebug;
using Corvane::Utilities::Logging::eError;

// The only resend delay: an acknowledgement wait that runs 500 ms without a give. sendTo is called from the
// sender, the receiver and application threads at once; sal::UdpSocket sends each datagram whole from any
// number of threads.
namespace {
const unsigned int ACK_WAIT_MS = 500;

// Raised while the sender thread's loop runs.
class ActiveFlag {
public:
    explicit ActiveFlag(std::atomic<bool>& flag) : m_flag(flag) { m_flag.store(true); }
    ~ActiveFlag() { m_flag.store(false); }
    ActiveFlag(const ActiveFlag&) = delete;
    ActiveFlag& operator=(const ActiveFlag&) = delete;

private:
    std::atomic<bool>& m_flag;
};
}  // namespace

bool EUDPTransport::sendPacket(EEUDPCommand command, std::uint32_t value, uint16 port) {
    if (port == 0) {
        port = m_peerPort.load();
    }
    if (port == 0) {
        logLine(eError) << "no remote port (internal error)";
        return false;
    }
    EUDPPacket packet(command);
    packet.setValue(value);
    sal::UdpSocket* pSocket = m_pSocket.load();
    if (pSocket == nullptr) {
        return false;
    }
    int sent = pSocket->sendTo(packet.m_pHeader, static_cast<int>(packet.m_length), m_peerAddress, port);
    if (sent != static_cast<int>(packet.m_length)) {
        return false;
    }
    m_counters.countSentControl(command);
    return true;
}

bool EUDPTransport::sendData(const uint8* data, uint length) {
    m_sendMutex.take();
    for (;;) {
        if (m_bClosed.load() || m_bDestroying.load()) {
            return refuseClosedLocked();
        }
        if (!m_sendBuffer.isFull()) {
            break;
        }
        // Never sleep on the lock: the sender thread and the ACK handling need it to free a slot.
        m_sendMutex.give();
        m_sendSpaceSem.take();
        m_sendMutex.take();
    }
    queueLocked(data, length);
    return true;
}

bool EUDPTransport::refuseClosedLocked() {
    logLine(eDebug) << "trying to send, but connection closed";
    if (m_bDestroying.load()) {
        m_sendSpaceSem.give();  // pass the destructor's wake-up on to the next waiter
    }
    m_sendMutex.give();
    return false;
}

void EUDPTransport::queueLocked(const uint8* data, uint length) {
    // The number is taken before the payload is set, so a refused payload still uses one up and
    // goes out empty.
    EUDPPacket packet(CMD);
    packet.setValue(static_cast<std::uint32_t>(m_sendSeq.getValue()));
    m_sendSeq.advance();
    packet.setData(data, length);

    // A realtime datagram that would be the only one in the ring, with the sender thread free to
    // send it at once, leaves from here: the sender thread sends everything it takes from the ring
    // under this lock (and m_wireLock, which a reliable datagram sent from here holds until it has
    // left), so nothing queued earlier can still be on its way, and the wire sees the same
    // datagrams in the same order without a hand-over to that thread. A zero window makes the
    // sender wait before each pass (when the unacknowledged count has reached the window), so then
    // the datagram takes the usual way and keeps that wait; so does one queued while no sender thread
    // runs (before a connection is made, or after a refused answer to CON), which stays queued.
    if (m_bSenderActive.load() && m_sendMode.load() == eRealtime && m_sendBuffer.isEmpty() &&
        m_unacked.load() != m_windowSize.load()) {
        sal::UdpSocket* pSocket = m_pSocket.load();
        if (pSocket != nullptr) {
            std::lock_guard<std::mutex> wire(m_wireLock);  // after a reliable datagram on its way
            pSocket->sendTo(packet.m_pHeader, static_cast<int>(packet.m_length), m_peerAddress,
                            m_peerPort.load());
            m_counters.countSentData(static_cast<std::int32_t>(packet.getValue()),
                                     packet.m_length - EUDPPacket::HEADER_LENGTH, false);
        }
        m_sendMutex.give();
        return;
    }

    const bool bOnlyOne = m_sendBuffer.isEmpty();
    m_sendBuffer.push(packet);
    // A reliable datagram that is now the only one in the ring, with room in the window, is the
    // one the sender thread would send first on being woken: it leaves from here, numbered and
    // counted as that thread would count it, and stays in the ring until acknowledged. The sender
    // then waits for the acknowledgement (resending after 500 ms) as if it had sent it itself; its
    // thread is woken for that only when it sleeps without a limit (giveDataLocked).
    bool bSend = false;
    if (bOnlyOne && m_bSenderActive.load() && m_sendMode.load() == eReliable &&
        static_cast<std::int32_t>(m_unacked.load()) < static_cast<std::int32_t>(m_windowSize.load())) {
        const std::int32_t word = static_cast<std::int32_t>(packet.getValue());
        if (ModuloValue::distance(word, m_lastSent.getValue()) > 0 && m_pSocket.load() != nullptr) {
            m_unacked.fetch_add(1);
            m_lastSent.setFromWord(word);
            bSend = true;
        }
    }
    if (bSend) {
        sendOutsideLock(packet);
        return;
    }
    // The lock goes first, so that a woken sender thread finds the ring free at once.
    const bool bWake = giveDataLocked();
    m_sendMutex.give();
    if (bWake) {
        m_sendWakeSem.give();
    }
}

// The reliable send of queueLocked, with m_sendMutex held: the datagram leaves after that lock is
// given back, so that the acknowledgement, which needs that lock and may come back before the
// send returns (the peer woken by it can run first and answer), never waits for this thread.
// m_wireLock, taken before the lock is given, keeps the datagrams in their order: every data
// datagram leaves under it.
void EUDPTransport::sendOutsideLock(const EUDPPacket& packet) {
    std::unique_lock<std::mutex> wire(m_wireLock);
    const bool bWake = giveDataLocked();
    m_sendMutex.give();
    sal::UdpSocket* pSocket = m_pSocket.load();
    if (pSocket != nullptr) {
        pSocket->sendTo(packet.m_pHeader, static_cast<int>(packet.m_length), m_peerAddress,
                        m_peerPort.load());
        m_counters.countSentData(static_cast<std::int32_t>(packet.getValue()),
                                 packet.m_length - EUDPPacket::HEADER_LENGTH, true);
    }
    wire.unlock();
    if (bWake) {
        m_sendWakeSem.give();
    }
}

namespace {

std::int32_t wordAt(RingBuffer<EUDPPacket>& ring, std::uint32_t offset) {
    return static_cast<std::int32_t>(ring.at((ring.readIndex() + offset) % ring.m_capacity).getValue());
}

// The offset from the front of the first queued datagram after `lastSent`, or `count` when there
// is none: the entry a walk from the front would stop at. The ring holds fewer than 1000 numbers in
// the order they were taken, and along such a short run "after lastSent" changes at most once:
// either it holds from some entry to the end (false before), or, when lastSent lies about half the
// number range away, from the front up to some entry. The front tells which; in the first case a
// binary search finds the change, so that a full window of datagrams still out is not walked
// through again for each datagram sent.
std::uint32_t firstAfter(RingBuffer<EUDPPacket>& ring, std::uint32_t count, std::int32_t lastSent) {
    if (count == 0 || ModuloValue::distance(wordAt(ring, 0), lastSent) > 0) {
        return 0;
    }
    std::uint32_t low = 1;
    std::uint32_t high = count;
    while (low < high) {
        std::uint32_t middle = low + (high - low) / 2;
        if (ModuloValue::distance(wordAt(ring, middle), lastSent) > 0) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return low;
}

}  // namespace

// The offset from the front of the first queued datagram after m_lastSent that the window lets
// out now, or the number queued when there is none (everything queued is out, or the window is
// full).
static std::uint32_t nextReliable(RingBuffer<EUDPPacket>& ring, const std::atomic<std::uint32_t>& unacked,
                                  const std::atomic<std::uint32_t>& windowSize, const ModuloValue& lastSent,
                                  std::uint32_t& count) {
    count = (ring.writeIndex() + ring.m_capacity - ring.readIndex()) % ring.m_capacity;
    if (static_cast<std::int32_t>(unacked.load()) >= static_cast<std::int32_t>(windowSize.load())) {
        return count;
    }
    return firstAfter(ring, count, lastSent.getValue());
}

// Sends the first queued datagram that is after m_lastSent, if the window allows. False when
// nothing was sent.
static bool sendNextReliable(RingBuffer<EUDPPacket>& ring, std::atomic<std::uint32_t>& unacked,
                             const std::atomic<std::uint32_t>& windowSize, ModuloValue& lastSent,
                             sal::UdpSocket* pSocket, const sal::HostAddress& address, uint16 port,
                             EUDPCounters& counters) {
    std::uint32_t count = 0;
    const std::uint32_t offset = nextReliable(ring, unacked, windowSize, lastSent, count);
    if (offset == count) {
        return false;
    }
    EUDPPacket& packet = ring.at((ring.readIndex() + offset) % ring.m_capacity);
    const std::int32_t word = static_cast<std::int32_t>(packet.getValue());
    pSocket->sendTo(packet.m_pHeader, static_cast<int>(packet.m_length), address, port);
    counters.countSentData(word, packet.m_length - EUDPPacket::HEADER_LENGTH, true);
    unacked.fetch_add(1);
    lastSent.setFromWord(word);
    return true;
}

void EUDPTransport::senderThread() {
    if (m_bClosed.load()) {
        return;
    }
    // Set by connect() or accept() before this thread was started; fixed while it runs.
    sal::UdpSocket* pSocket = m_pSocket.load();
    ActiveFlag active(m_bSenderActive);
    SenderStep step = SenderStep::eLoopHead;
    for (;;) {
        step = senderStep(step, false, pSocket);
        switch (step) {
            case SenderStep::eExit:
                return;
            case SenderStep::eWaitData:
            case SenderStep::eWaitAckBeforePass:
            case SenderStep::eWaitAckAfterPass:
                step = waitAs(step);
                break;
            default:
                break;
        }
    }
}

// One step of the loop. The window test comes before every pass, in both modes: a window of 0
// makes even the realtime sender wait 500 ms per pass. A datagram queued while the sender waits
// for an acknowledgement waits with it. `dry` is a giving thread's look ahead, with m_sendMutex
// held: it sends nothing, and a step that would send or end answers eNeedsThread (time-outs, and
// so the go-back, are only ever the thread's own).
EUDPTransport::SenderStep EUDPTransport::senderStep(SenderStep step, bool dry, sal::UdpSocket* pSocket) {
    switch (step) {
        case SenderStep::eLoopHead:
            return m_sendBuffer.isEmpty() ? SenderStep::eWaitData : SenderStep::eWindowCheck;
        case SenderStep::eWindowCheck:
            return m_unacked.load() == m_windowSize.load() ? SenderStep::eWaitAckBeforePass
                                                           : SenderStep::ePass;
        case SenderStep::eAckBeforePassTimedOut:
            if (!m_bClosed.load()) {
                m_unacked.store(0);
                m_lastSent = m_lastAcked;
            }
            return SenderStep::ePass;
        case SenderStep::eAckBeforePassGiven:
            return SenderStep::ePass;
        case SenderStep::ePass:
            break;
        case SenderStep::eAckAfterPassTimedOut:
            if (m_bClosed.load()) {
                return SenderStep::eExit;
            }
            // Go back: everything after the last acknowledgement goes out again.
            m_unacked.store(0);
            m_lastSent = m_lastAcked;
            return SenderStep::eLoopHead;
        default:  // after a pass, a given data wait or a given acknowledgement wait
            if (m_bClosed.load()) {
                return dry ? SenderStep::eNeedsThread : SenderStep::eExit;
            }
            return SenderStep::eLoopHead;
    }

    if (m_sendMode.load() == eReliable) {
        if (dry) {
            std::uint32_t count = 0;
            return nextReliable(m_sendBuffer, m_unacked, m_windowSize, m_lastSent, count) == count
                       ? SenderStep::eWaitAckAfterPass
                       : SenderStep::eNeedsThread;
        }
        m_sendMutex.take();
        std::unique_lock<std::mutex> wire(m_wireLock);  // after a datagram sent from sendData
        bool sent = sendNextReliable(m_sendBuffer, m_unacked, m_windowSize, m_lastSent, pSocket,
                                     m_peerAddress, m_peerPort.load(), m_counters);
        wire.unlock();
        m_sendMutex.give();
        return sent ? SenderStep::eAfterPass : SenderStep::eWaitAckAfterPass;
    }
    if (dry) {
        return m_sendBuffer.isEmpty() ? SenderStep::eAfterPass : SenderStep::eNeedsThread;
    }
    m_sendMutex.take();
    std::unique_lock<std::mutex> wire(m_wireLock);  // after a datagram sent from sendData
    while (!m_sendBuffer.isEmpty()) {
        EUDPPacket& packet = m_sendBuffer.front();
        m_sendSpaceSem.give();
        m_sendBuffer.pop();
        // The slot stays untouched while the lock is held.
        pSocket->sendTo(packet.m_pHeader, static_cast<int>(packet.m_length), m_peerAddress,
                        m_peerPort.load());
        m_counters.countSentData(static_cast<std::int32_t>(packet.getValue()),
                                 packet.m_length - EUDPPacket::HEADER_LENGTH, false);
    }
    wire.unlock();
    m_sendMutex.give();
    return SenderStep::eAfterPass;
}

namespace {

using SenderClock = std::chrono::steady_clock;

// The whole milliseconds to sleep so as to wake no earlier than `deadline`, at least one.
unsigned int msUntil(SenderClock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - SenderClock::now());
    const long long ms = (left.count() + 999) / 1000;
    return ms < 1 ? 1u : static_cast<unsigned int>(ms);
}

}  // namespace

// The thread waits in `wait` until a giver has it resume, its acknowledgement wait runs out
// (500 ms after it began, a beginning that givers move later without waking it), or, in a data
// wait, a plain give of m_sendWakeSem (the closing paths). A give that was pending when the wait
// began is taken at once, as a semaphore would.
EUDPTransport::SenderStep EUDPTransport::waitAs(SenderStep wait) {
    std::unique_lock<std::mutex> lock(m_senderLock);
    if (wait == SenderStep::eWaitData) {
        if (m_bWakePending || m_sendWakeSem.take(0) == 0) {
            m_bWakePending = false;
            return SenderStep::eWokenForData;
        }
    } else if (m_ackSem.take(0) == 0) {
        return wait == SenderStep::eWaitAckBeforePass ? SenderStep::eAckBeforePassGiven
                                                      : SenderStep::eAckAfterPassGiven;
    } else {
        m_ackWaitStart = SenderClock::now();
    }
    m_senderWait = wait;
    for (;;) {
        if (m_senderWait == SenderStep::eRunning) {
            return m_senderResume;
        }
        const bool bTimed = m_senderWait != SenderStep::eWaitData;
        const SenderClock::time_point deadline = m_ackWaitStart + std::chrono::milliseconds(ACK_WAIT_MS);
        if (bTimed && SenderClock::now() >= deadline) {
            const SenderStep next = m_senderWait == SenderStep::eWaitAckBeforePass
                                        ? SenderStep::eAckBeforePassTimedOut
                                        : SenderStep::eAckAfterPassTimedOut;
            m_senderWait = SenderStep::eRunning;
            return next;
        }
        m_bSleepsUntimed = !bTimed;
        lock.unlock();
        const int timedOut = m_sendWakeSem.take(bTimed ? msUntil(deadline) : sal::WAIT_FOREVER);
        m_senderWakeUps.fetch_add(1, std::memory_order_relaxed);
        lock.lock();
        m_bSleepsUntimed = false;
        if (timedOut == 0 && m_senderWait != SenderStep::eRunning) {
            // A plain give: it ends a data wait; during an acknowledgement wait it stays pending
            // for the next data wait, as m_sendWakeSem's give would.
            if (m_senderWait == SenderStep::eWaitData) {
                m_senderWait = SenderStep::eRunning;
                return SenderStep::eWokenForData;
            }
            m_bWakePending = true;
        }
    }
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
            m_ackWaitStart = SenderClock::now();
            return m_bSleepsUntimed;
        }
        step = next;
    }
    m_senderResume = step;
    m_senderWait = SenderStep::eRunning;
    return true;
}
