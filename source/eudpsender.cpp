// EUDP sending path: control datagrams sent at once, data queued in the send ring, and the sender
// thread that drains the ring once (realtime) or under the window with go-back resend (reliable).
#include <eudptransport.h>

using Corvane::Utilities::Logging::eDebug;
using Corvane::Utilities::Logging::eError;

// The only resend delay: a take of m_ackSem limited to 500 ms (take() answers 0 when given, 1 when
// the time ran out). sendTo is called from the sender, the receiver and application threads at
// once; sal::UdpSocket sends each datagram whole from any number of threads.
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
    // under this lock, so nothing queued earlier can still be on its way, and the wire sees the
    // same datagrams in the same order without a hand-over to that thread. A zero window makes the
    // sender wait before each pass (when the unacknowledged count has reached the window), so then
    // the datagram takes the usual way and keeps that wait; so does one queued while no sender thread
    // runs (before a connection is made, or after a refused answer to CON), which stays queued.
    if (m_bSenderActive.load() && m_sendMode.load() == eRealtime && m_sendBuffer.isEmpty() &&
        m_unacked.load() != m_windowSize.load()) {
        sal::UdpSocket* pSocket = m_pSocket.load();
        if (pSocket != nullptr) {
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
    // counted as that thread would count it, and stays in the ring until acknowledged. The thread
    // is still woken, finds it sent, and waits for the acknowledgement (resending after 500 ms) as
    // if it had sent it itself.
    if (bOnlyOne && m_bSenderActive.load() && m_sendMode.load() == eReliable &&
        static_cast<std::int32_t>(m_unacked.load()) < static_cast<std::int32_t>(m_windowSize.load())) {
        const std::int32_t word = static_cast<std::int32_t>(packet.getValue());
        sal::UdpSocket* pSocket = m_pSocket.load();
        if (ModuloValue::distance(word, m_lastSent.getValue()) > 0 && pSocket != nullptr) {
            pSocket->sendTo(packet.m_pHeader, static_cast<int>(packet.m_length), m_peerAddress,
                            m_peerPort.load());
            m_counters.countSentData(word, packet.m_length - EUDPPacket::HEADER_LENGTH, true);
            m_unacked.fetch_add(1);
            m_lastSent.setFromWord(word);
        }
    }
    // The lock goes first, so that the woken sender thread finds the ring free at once.
    m_sendMutex.give();
    m_sendWakeSem.give();
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

// Sends the first queued datagram that is after m_lastSent, if the window allows. False when
// nothing was sent (everything queued is out, or the window is full).
static bool sendNextReliable(RingBuffer<EUDPPacket>& ring, std::atomic<std::uint32_t>& unacked,
                             const std::atomic<std::uint32_t>& windowSize, ModuloValue& lastSent,
                             sal::UdpSocket* pSocket, const sal::HostAddress& address, uint16 port,
                             EUDPCounters& counters) {
    if (static_cast<std::int32_t>(unacked.load()) >= static_cast<std::int32_t>(windowSize.load())) {
        return false;
    }
    const std::uint32_t count = (ring.writeIndex() + ring.m_capacity - ring.readIndex()) % ring.m_capacity;
    const std::uint32_t offset = firstAfter(ring, count, lastSent.getValue());
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
    for (;;) {
        while (m_sendBuffer.isEmpty()) {
            m_sendWakeSem.take();
            if (m_bClosed.load()) {
                return;
            }
        }

        // The window test comes before every pass, in both modes: a window of 0 makes even the
        // realtime sender wait 500 ms per pass.
        if (m_unacked.load() == m_windowSize.load()) {
            if (m_ackSem.take(ACK_WAIT_MS) != 0 && !m_bClosed.load()) {
                m_unacked.store(0);
                m_lastSent = m_lastAcked;
            }
        }

        if (m_sendMode.load() == eReliable) {
            m_sendMutex.take();
            bool sent = sendNextReliable(m_sendBuffer, m_unacked, m_windowSize, m_lastSent, pSocket,
                                         m_peerAddress, m_peerPort.load(), m_counters);
            m_sendMutex.give();
            if (!sent) {
                int timedOut = m_ackSem.take(ACK_WAIT_MS);
                if (m_bClosed.load()) {
                    return;
                }
                if (timedOut != 0) {
                    // Go back: everything after the last acknowledgement goes out again.
                    m_unacked.store(0);
                    m_lastSent = m_lastAcked;
                }
                continue;
            }
        } else {
            m_sendMutex.take();
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
            m_sendMutex.give();
        }

        if (m_bClosed.load()) {
            return;
        }
    }
}
