// EUDP send window. Owns the send ring (m_sendBuffer) and the window's counters: the next number
// to give (m_sendSeq), the last datagram sent (m_lastSent) and acknowledged (m_lastAcked), the count
// still unacknowledged (m_unacked), and the locks that guard them (m_sendMutex, and m_wireLock
// around every data datagram on its way). Here: sendData queueing a message (or sending it at once),
// the sender thread's loop that drains the ring once (realtime) or under the window (reliable), the
// ACK and NAK that the receiver thread hands over, which free ring slots and move the window, and
// rewind, the one go-back to a number. Where the sender's loop waits, and who wakes it, lives in
// eudpsenderwait.cpp.
#include <eudptransport.h>

#include "eudplink.h"

using Corvane::Utilities::Logging::eDebug;
using Corvane::Utilities::Logging::eWarning;

namespace {

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
            m_pLink->sendTo(*pSocket, packet.m_pHeader, static_cast<int>(packet.m_length), m_peerAddress,
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
        m_pLink->sendTo(*pSocket, packet.m_pHeader, static_cast<int>(packet.m_length), m_peerAddress,
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
    return static_cast<std::int32_t>(ring.at((ring.readIndex() + offset) % ring.capacity()).getValue());
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
    count = (ring.writeIndex() + ring.capacity() - ring.readIndex()) % ring.capacity();
    if (static_cast<std::int32_t>(unacked.load()) >= static_cast<std::int32_t>(windowSize.load())) {
        return count;
    }
    return firstAfter(ring, count, lastSent.getValue());
}

namespace {
// The most data datagrams one pass hands to the system in one call.
const int SEND_BATCH = 32;
// Up to this window the acknowledgements pace the reliable sender, and a pass sends everything the
// window lets out in one call. Above it the sender's own pace is what keeps it from running ahead of
// the peer's application, whose receive ring then overflows (each overflow costs a go-back): there
// a pass sends one datagram per call, as it always did (window 999, 1400 B: two to three times as
// many datagrams resent when they went out together).
const std::uint32_t PACED_WINDOW = 64;
}  // namespace

// Hands `count` datagrams to the system in order, one call for the lot, and counts each as sent.
static void sendInOrder(EUDPLink& link, sal::UdpSocket* pSocket, const EUDPPacket* const* packets, int count,
                        const sal::HostAddress& address, uint16 port, EUDPCounters& counters, bool reliable) {
    if (count == 1) {
        link.sendTo(*pSocket, packets[0]->m_pHeader, static_cast<int>(packets[0]->m_length), address, port);
    } else {
        sal::UdpSocket::OutgoingDatagram batch[SEND_BATCH] = {};
        for (int i = 0; i < count; ++i) {
            batch[i].data = packets[i]->m_pHeader;
            batch[i].length = static_cast<int>(packets[i]->m_length);
        }
        link.sendBatchTo(*pSocket, batch, count, address, port);
    }
    for (int i = 0; i < count; ++i) {
        counters.countSentData(static_cast<std::int32_t>(packets[i]->getValue()),
                               packets[i]->m_length - EUDPPacket::HEADER_LENGTH, reliable);
    }
}

// Sends the queued datagrams after m_lastSent that the window lets out, in order, as passes of one
// datagram each would send them back to back, handed to the system together (up to SEND_BATCH at a
// time). Each moves the window (the unacknowledged count, the last number sent) as it is taken,
// exactly as a pass of its own would, and is counted once the lot has been handed over. False when
// nothing was sent.
static bool sendNextReliable(RingBuffer<EUDPPacket>& ring, std::atomic<std::uint32_t>& unacked,
                             const std::atomic<std::uint32_t>& windowSize, ModuloValue& lastSent,
                             EUDPLink& link, sal::UdpSocket* pSocket, const sal::HostAddress& address,
                             uint16 port, EUDPCounters& counters) {
    const EUDPPacket* packets[SEND_BATCH];
    int taken = 0;
    const int limit = windowSize.load() <= PACED_WINDOW ? SEND_BATCH : 1;
    while (taken < limit) {
        std::uint32_t count = 0;
        const std::uint32_t offset = nextReliable(ring, unacked, windowSize, lastSent, count);
        if (offset == count) {
            break;
        }
        const EUDPPacket& packet = ring.at((ring.readIndex() + offset) % ring.capacity());
        packets[taken++] = &packet;
        unacked.fetch_add(1);
        lastSent.setFromWord(static_cast<std::int32_t>(packet.getValue()));
    }
    if (taken == 0) {
        return false;
    }
    sendInOrder(link, pSocket, packets, taken, address, port, counters, true);
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
                rewind(m_lastAcked.getValue());
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
            rewind(m_lastAcked.getValue());
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
        bool sent = sendNextReliable(m_sendBuffer, m_unacked, m_windowSize, m_lastSent, *m_pLink, pSocket,
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
    // The whole queue leaves in ring order, handed to the system SEND_BATCH datagrams at a time;
    // the slots stay untouched while the lock is held.
    while (!m_sendBuffer.isEmpty()) {
        const EUDPPacket* packets[SEND_BATCH];
        int taken = 0;
        while (taken < SEND_BATCH && !m_sendBuffer.isEmpty()) {
            packets[taken++] = &m_sendBuffer.front();
            m_sendSpaceSem.give();
            m_sendBuffer.pop();
        }
        sendInOrder(*m_pLink, pSocket, packets, taken, m_peerAddress, m_peerPort.load(), m_counters, false);
    }
    wire.unlock();
    m_sendMutex.give();
    return SenderStep::eAfterPass;
}

void EUDPTransport::handleAck(std::int32_t seq, uint16 fromPort) {
    if (m_peerPort.load() == 0) {
        // The answer to our CON: its source is the port the server gave this connection.
        m_peerPort.store(fromPort);
        m_lastAcked.setFromWord(seq);
        m_connectSem.give();
        return;
    }
    if (ModuloValue::distance(seq, m_lastAcked.getValue()) <= 0) {
        return;  // old or repeated
    }
    m_sendMutex.take();
    m_lastAcked.setFromWord(seq);
    m_counters.countAcknowledged(seq);
    // Cumulative: everything up to the acknowledged number leaves the ring, sent or not.
    while (!m_sendBuffer.isEmpty()) {
        std::int32_t front =
            static_cast<std::int32_t>(m_sendBuffer.front().getValue()) % ModuloValue::MODULUS;
        if (ModuloValue::distance(front, m_lastAcked.getValue()) > 0) {
            break;
        }
        m_sendSpaceSem.give();
        m_sendBuffer.pop();
        m_unacked.fetch_sub(1);
    }
    // The acknowledgement wait is given with the ring in view, so that a sender with nothing to
    // send after it is left asleep (eudpsenderwait.cpp).
    const bool bWake = giveAckLocked();
    m_sendMutex.give();
    if (bWake) {
        m_sendWakeSem.give();
    }
}

void EUDPTransport::handleNak(std::int32_t seq) {
    // A plain unsigned comparison, not distance(): before the first acknowledgement (-1, the
    // largest unsigned value) and across the wrap every NAK is refused.
    if (static_cast<std::uint32_t>(m_lastAcked.getValue()) < static_cast<std::uint32_t>(seq)) {
        rewind(seq - 1);
        giveAckForResend();
    } else {
        logLine(eWarning) << "Received a NAK for a packet that had already been ACKed (ignoring)";
    }
}

// Go back: everything after `lastSent` goes out again, and the window counts nothing as out. The
// two timed-out acknowledgement waits go back to the last acknowledgement, an accepted NAK to the
// number before the one it names.
void EUDPTransport::rewind(std::int32_t lastSent) {
    m_unacked.store(0);
    m_lastSent.setFromWord(lastSent);
}
