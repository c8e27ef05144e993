// EUDP receive side. Owns the receive ring (m_receiveBuffer) with its lock and count
// (m_receiveMutex, m_receiveSem), the next number expected (m_receiveSeq), and the reading turn
// (m_readLock, m_pReadSocket, m_bReaderWaiting). Here: the reader loop that reads every datagram of
// the connection and hands each to its handler (ACK and NAK go to the send window, eudpsender.cpp);
// ordering and delivery of data with its gaps, duplicates and answers (ACK, NAK, NOP); the answers
// to the peer's mode and window requests; the end of the connection on DIS or a failed receive; and
// receiveData, through which the application takes delivered data.
#include <eudptransport.h>

#include <cstring>

#include "eudpmodeword.h"

using Corvane::Utilities::Logging::eDebug;
using Corvane::Utilities::Logging::eError;
using Corvane::Utilities::Logging::eWarning;

namespace {

// How long a link goes without a datagram before its reading passes to the process's shared
// watch: well below the shortest keep-alive period (500 ms), so that a link carrying keep-alives
// only is read there, and long enough that traffic at a few messages a second stays with its own
// reader.
const int QUIET_MS = 200;

// How the answering side takes one requested letter: true when accepted ('D' leaves it as it is).
bool applyModeRequest(std::uint8_t requested, const std::atomic<bool>& allowRealtime,
                      const std::atomic<bool>& allowReliable, std::atomic<EConnMode>& mode) {
    switch (requested) {
        case 'T':
            if (!allowRealtime.load()) {
                return false;
            }
            mode.store(eRealtime);
            return true;
        case 'R':
            if (!allowReliable.load()) {
                return false;
            }
            mode.store(eReliable);
            return true;
        case 'D':
            return true;
        default:
            return false;
    }
}

}  // namespace

void EUDPTransport::receiverThread() {
    EUDPPacket packet;
    // Set by connect() or accept() before this thread was started; fixed while it runs.
    sal::UdpSocket* pSocket = m_pSocket.load();

    bool bWatched = false;
    if (!m_bClosed.load()) {
        std::lock_guard<std::mutex> lock(m_readLock);
        bWatched = pSocket->armWatch();
        m_pReadSocket = bWatched ? pSocket : nullptr;
        m_bSharedWatch.store(false);
        m_bSharedUsable.store(bWatched && pSocket->watchShared(&m_sharedReader) &&
                              pSocket->setReceiveTimeout(QUIET_MS));
    }
    if (bWatched) {
        receiveInTurn(pSocket, packet);
    } else {
        // Without a watch this thread is the only reader and blocks in the receive itself.
        bool bNothing = false;
        while (!m_bClosed.load()) {
            if (!readAndHandle(pSocket, packet, true, bNothing)) {
                break;
            }
        }
    }
    // From here on the shared watch calls nobody for this socket.
    pSocket->unwatchShared();
    m_bSharedUsable.store(false);

    leaveAdmission();
    m_sendWakeSem.give();
    m_receiveSem.give();
}

// Woken by the watch, the thread takes the turn and handles everything waiting, in order, then
// arms the watch again. It hands the turn over early when a receiveData caller asks for it; that
// caller disarms the watch and arms it again as it leaves, so whatever arrives while nobody waits
// in receiveData still wakes this thread.
//
// A link whose datagrams stop for QUIET_MS is handed to the process's shared watch, whose one
// thread then reads it (readShared) while this thread sleeps: keep-alives of quiet links wake one
// thread for all of them. A run of datagrams (a read that fills its room) hands it back, and a
// closed connection wakes this thread to end.
void EUDPTransport::receiveInTurn(sal::UdpSocket* pSocket, EUDPPacket& packet) {
    const sal::HostAddress noAddress;
    bool bOpen = true;
    // Set when a quiet spell found a receiveData caller holding the turn: the caller decides what
    // watches the socket as it leaves, and this thread sleeps without a limit until its watch reports.
    bool bCallerReads = false;
    while (bOpen) {
        const bool bTimed = m_bSharedUsable.load() && !m_bSharedWatch.load() && !bCallerReads;
        const int woken = pSocket->waitReadableFor(bTimed ? QUIET_MS : -1);
        m_receiverWakeUps.fetch_add(1, std::memory_order_relaxed);
        if (woken == 0) {
            bCallerReads = !handToSharedWatch(pSocket);
            continue;
        }
        bCallerReads = false;
        std::unique_lock<std::mutex> lock(m_readLock);
        if (woken < 0) {
            // A failed wait ends it like a failed receive.
            bOpen = handleDatagram(packet, -1, noAddress, 0);
        }
        while (bOpen) {
            if (m_bClosed.load()) {
                bOpen = false;
                break;
            }
            bool bNothing = false;
            bOpen = readAndHandle(pSocket, packet, false, bNothing);
            // A waiting receiveData caller takes the turn after the datagrams in hand.
            if (bNothing || m_bReaderWaiting.load()) {
                break;
            }
        }
        if (bOpen) {
            leaveTurn(lock, pSocket);
        } else {
            m_pReadSocket = nullptr;
        }
    }
}

// A caller holding the turn reads the socket and arms the watch as it leaves; a datagram that
// came between the time-out and the hand-over is not lost, since arming the shared watch reports a
// datagram already waiting.
bool EUDPTransport::handToSharedWatch(sal::UdpSocket* pSocket) {
    std::unique_lock<std::mutex> lock(m_readLock, std::try_to_lock);
    if (!lock.owns_lock()) {
        return false;
    }
    // Like every holder of the turn, it leaves the watch that is in charge armed; a closed
    // connection stays with this thread, whose watch reports the closed socket at once.
    if (!m_bSharedWatch.load() && !m_bClosed.load()) {
        pSocket->disarmWatch();
        m_bSharedWatch.store(true);
    }
    leaveTurn(lock, pSocket);
    return true;
}

void EUDPTransport::SharedReader::onReadable() {
    m_pTransport->readShared();
}

// Runs on the shared watch's thread, which serves every quiet link of the process: it never waits
// for the turn (its holder arms the watch again as it leaves) and reads once. A read that fills its
// room hands the link back to its receiver thread; the end of the connection wakes that thread.
void EUDPTransport::readShared() {
    std::unique_lock<std::mutex> lock(m_readLock, std::try_to_lock);
    if (!lock.owns_lock() || !m_bSharedWatch.load() || m_pReadSocket == nullptr) {
        return;
    }
    sal::UdpSocket* pSocket = m_pReadSocket;
    EUDPPacket packet;
    bool bNothing = false;
    const std::uint64_t failuresBefore = m_counters.hardened(eHardenedReceiveError);
    if (m_bClosed.load() || !readAndHandle(pSocket, packet, false, bNothing)) {
        m_bSharedWatch.store(false);
        pSocket->wakeWatcher();
        return;
    }
    // A failed receive that hardened mode survives is likely to fail again at once, and its pause
    // belongs on the link's own thread rather than on the one that serves every quiet link.
    if (m_readRoom.load(std::memory_order_relaxed) > sal::UdpSocket::SMALL_BATCH ||
        m_counters.hardened(eHardenedReceiveError) != failuresBefore) {
        m_bSharedWatch.store(false);
    }
    leaveTurn(lock, pSocket);
}

// The watch is armed only once the turn is free: the shared watch never waits for the turn, and a
// report that found it still held would be lost. A report that finds a new holder is not: that one
// arms the watch again as it leaves. m_armLock, taken before the turn is given back, keeps the arm
// inside what the destructor waits for.
void EUDPTransport::leaveTurn(std::unique_lock<std::mutex>& turn, sal::UdpSocket* pSocket) {
    std::lock_guard<std::mutex> arming(m_armLock);
    turn.unlock();
    armWatcher(pSocket);
}

void EUDPTransport::armWatcher(sal::UdpSocket* pSocket) {
    if (m_bSharedWatch.load()) {
        pSocket->armShared();
    } else {
        pSocket->armWatch();
    }
}

void EUDPTransport::disarmWatcher(sal::UdpSocket* pSocket) {
    if (m_bSharedWatch.load()) {
        pSocket->disarmShared();
    } else {
        pSocket->disarmWatch();
    }
}

bool EUDPTransport::handleDatagram(EUDPPacket& packet, int received, const sal::HostAddress& fromAddress,
                                   uint16 fromPort) {
    // sal answers -1 once the socket is closed from another thread (disconnect, the final
    // timer, the destructor) and 0 for an empty datagram: both end the connection here.
    if (received <= 0) {
        if (survivesEmptyOrError(received, fromAddress, fromPort)) {
            return true;
        }
        if (!m_bClosed.load()) {
            m_bClosed.store(true);
            stopTimers();
        }
        return false;
    }
    if (!takeFrom(fromAddress, fromPort)) {
        return !m_bClosed.load();
    }
    if (!packet.validatePacket(static_cast<std::uint32_t>(received))) {
        m_counters.countInvalid();
        logLine(eWarning) << "dropping invalid packet";
        return !m_bClosed.load();
    }

    // Any valid datagram, whatever it says, shows that the peer is alive.
    resetTimers();
    std::uint32_t word = packet.getValue();
    std::int32_t seq = static_cast<std::int32_t>(word) % ModuloValue::MODULUS;
    const EEUDPCommand command = packet.getCommand();
    if (static_cast<unsigned int>(command) < EUDP_COMMAND_KINDS) {
        m_counters.countReceived(command, static_cast<std::uint32_t>(received) - EUDPPacket::HEADER_LENGTH);
    }

    switch (command) {
        case NOP:
            break;
        case ACK:
            handleAck(seq, fromPort);
            break;
        case NAK:
            handleNak(seq);
            break;
        case DIS:
            handlePeerDisconnect();
            break;
        case CMD:
            handleData(packet, seq);
            break;
        case MOD:
            handleModeRequest(word);
            break;
        case MAK:
            m_modeAck.store(word);
            m_modeSem.give();
            break;
        case WIN:
            // Taken as it stands: 0 stops reliable sending, and nothing caps it at the ring
            // (unless hardened, which keeps it within 1 to 999).
            word = boundWindowRequest(word);
            m_windowSize.store(word);
            sendPacket(WAK, word, 0);
            break;
        case WAK:
            m_windowAck.store(word);
            m_windowSem.give();
            break;
        default:  // CON, which accept() answers, never this thread
            logLine(eWarning) << "unknown/unexpected command (ignoring)";
            break;
    }
    return !m_bClosed.load();
}

void EUDPTransport::handlePeerDisconnect() {
    closeLocally();
}

void EUDPTransport::handleData(const EUDPPacket& packet, std::int32_t seq) {
    std::int32_t expected = m_receiveSeq.getValue();
    if (ModuloValue::distance(seq, expected) < 0) {
        if (m_receiveMode.load() == eReliable) {
            m_counters.countDuplicate();
        } else {
            m_counters.countLate();
        }
        logLine(eDebug) << "received a duplicate packet - ACK and ignore";
        sendPacket(ACK, packet.getValue(), 0);
        return;
    }

    m_receiveMutex.take();
    if (m_receiveBuffer.isFull()) {
        m_counters.countRingFull();
        logLine(eDebug) << "receive buffer is full (dropping packet)";
        m_receiveMutex.give();
        return;
    }
    if (m_receiveMode.load() == eReliable) {
        expected = m_receiveSeq.getValue();
        if (ModuloValue::distance(seq, expected) <= 0) {
            sendPacket(ACK, static_cast<std::uint32_t>(seq), 0);
        } else {
            // The count printed is not the size of the gap: it is the number received less the
            // parity of the one expected.
            std::int32_t count = (seq - (expected % 2)) % ModuloValue::MODULUS;
            logLine(eWarning) << count << " packets lost";
            sendPacket(NAK, static_cast<std::uint32_t>(expected), 0);
            m_receiveMutex.give();
            return;
        }
    }
    // In realtime mode a gap is simply skipped: no line, no NAK, no acknowledgement.
    const std::int32_t skipped = ModuloValue::distance(seq, m_receiveSeq.getValue());
    if (skipped > 0) {
        m_counters.countRealtimeGap(skipped);
    }
    m_receiveSeq.setFromWord(seq + 1);

    const bool delivered = packet.m_length != EUDPPacket::HEADER_LENGTH;
    if (delivered) {
        if (!m_receiveBuffer.push(packet)) {
            logLine(eError) << "push failed (internal error)";
        }
    } else if (m_receiveMode.load() == eRealtime) {
        // An empty datagram is the peer's keep-alive; in reliable mode the ACK above answered it.
        sendPacket(NOP, 0, 0);
    }
    m_receiveMutex.give();
    // The count follows the lock's release, so that a woken reader finds the ring free at once.
    if (delivered) {
        m_receiveSem.give();
    }
}

void EUDPTransport::handleModeRequest(std::uint32_t word) {
    tarn::EUDPModeBytes bytes = tarn::unpackModeWord(word);
    // Byte 0 asks for our send direction, byte 2 for our receive direction; bytes 1 and 3 carry
    // the answer. A refusal of byte 2 leaves a change made for byte 0 in force.
    if (!applyModeRequest(bytes[0], m_bAllowSendRealtime, m_bAllowSendReliable, m_sendMode)) {
        logLine(eWarning) << "unknown mode request (ignoring)";
        return;
    }
    bytes[1] = static_cast<std::uint8_t>(m_sendMode.load() & 0xFF);
    if (!applyModeRequest(bytes[2], m_bAllowReceiveRealtime, m_bAllowReceiveReliable, m_receiveMode)) {
        logLine(eWarning) << "unknown mode request (ignoring)";
        return;
    }
    bytes[3] = static_cast<std::uint8_t>(m_receiveMode.load() & 0xFF);
    sendPacket(MAK, tarn::packModeWord(bytes), 0);
}

int EUDPTransport::receiveData(uint8* buffer, uint bufferSize) {
    if (m_receiveSem.take(0) != 0) {
        readWhileWaiting();
        m_receiveSem.take();
    }
    m_receiveMutex.take();
    bool consume = true;
    if (m_receiveBuffer.isEmpty()) {
        if (m_bClosed.load()) {
            m_receiveMutex.give();
            return 0;
        }
        // A count without a packet (only a failed push leaves one): the slot at the read index is
        // taken as it stands, the last message consumed or an empty packet, and not consumed.
        consume = false;
    }
    EUDPPacket& packet = m_receiveBuffer.front();
    std::uint32_t length = packet.m_length - EUDPPacket::HEADER_LENGTH;
    if (bufferSize < length) {
        logLine(eError) << "receive failed, provided buffer too small";
        m_receiveMutex.give();
        return -1;
    }
    if (consume) {
        m_receiveBuffer.pop();
    }
    if (length > 0) {
        std::memcpy(buffer, packet.m_pHeader + EUDPPacket::HEADER_LENGTH, length);
    }
    m_receiveMutex.give();
    return static_cast<int>(length);
}

// Instead of sleeping until the receiver thread has read and handled a message for it, the caller
// reads the socket itself and handles each datagram exactly as that thread would (answers, window,
// timers, delivery), until a message is delivered or the connection ends: one thread less is woken
// per message. It waits for the turn if the receiver thread holds it, which hands it over after
// the datagram in hand. Without a receiver thread watching the socket (not connected, ended, or no
// watch to be had) the caller only waits, as before.
void EUDPTransport::readWhileWaiting() {
    std::unique_lock<std::mutex> lock(m_readLock, std::try_to_lock);
    if (!lock.owns_lock()) {
        m_bReaderWaiting.store(true);
        lock.lock();
        m_bReaderWaiting.store(false);
    }
    sal::UdpSocket* pSocket = m_pReadSocket;
    if (pSocket == nullptr) {
        return;
    }
    disarmWatcher(pSocket);
    EUDPPacket packet;
    bool bNothing = false;
    while (!m_bClosed.load() && m_receiveSem.getCount() == 0) {
        if (!readAndHandle(pSocket, packet, true, bNothing)) {
            break;
        }
        // A receive that gave up after QUIET_MS (only when the link may go to the shared watch):
        // the link is quiet, the shared watch takes it, and the caller sleeps until a delivery.
        if (bNothing) {
            m_bSharedWatch.store(true);
            break;
        }
    }
    // When the connection is over the receiver thread is woken at once, datagram or not, and ends
    // as it always does (giving the count that this caller's take then finds).
    if (m_bClosed.load()) {
        m_bSharedWatch.store(false);
        pSocket->wakeWatcher();
    } else {
        leaveTurn(lock, pSocket);
    }
}

// The datagrams behind the first are copied into `packet` one after another as they are handled,
// so that each is handled exactly as a datagram read alone. A datagram that ends the connection
// (DIS) ends the handling too: what came behind it is dropped, as the closed socket would have
// given nothing more. Called only by the thread holding the reading turn (or the receiver thread,
// when it is the only reader).
bool EUDPTransport::readAndHandle(sal::UdpSocket* pSocket, EUDPPacket& packet, bool bWait, bool& bNothing) {
    const std::size_t batchBytes = (READ_BATCH - 1) * std::size_t{EUDPPacket::MAX_LENGTH};
    if (m_pReadBatch == nullptr) {
        m_pReadBatch = static_cast<std::uint8_t*>(RingStorage::allocate(batchBytes));
    }
    const int room = m_pReadBatch == nullptr ? 1 : m_readRoom.load(std::memory_order_relaxed);
    if (room > sal::UdpSocket::SMALL_BATCH) {
        return readAndHandleMany(pSocket, packet, bWait, bNothing);
    }
    sal::UdpSocket::ReceivedDatagram batch[sal::UdpSocket::SMALL_BATCH];
    return handleBatch(pSocket, packet, batch, room, bWait, bNothing);
}

// The whole batch's entries: a frame of its own (never inlined into the small read), on the stack
// only while datagrams come in runs.
[[gnu::noinline]] bool EUDPTransport::readAndHandleMany(sal::UdpSocket* pSocket, EUDPPacket& packet,
                                                        bool bWait, bool& bNothing) {
    sal::UdpSocket::ReceivedDatagram batch[READ_BATCH];
    return handleBatch(pSocket, packet, batch, READ_BATCH, bWait, bNothing);
}

// A read that fills its room asks for the whole batch next time, and one that takes a single
// datagram goes back to the small room: a link that is quiet or answered one datagram at a time
// (keep-alives, round trips) reads with a shallow stack, and a stream still takes up to READ_BATCH
// per call from its second read on.
bool EUDPTransport::handleBatch(sal::UdpSocket* pSocket, EUDPPacket& packet,
                                sal::UdpSocket::ReceivedDatagram* batch, int room, bool bWait,
                                bool& bNothing) {
    batch[0].buffer = packet.m_pHeader;
    batch[0].size = static_cast<int>(EUDPPacket::MAX_LENGTH);
    for (int i = 1; i < room; ++i) {
        batch[i].buffer = m_pReadBatch + (i - 1) * std::size_t{EUDPPacket::MAX_LENGTH};
        batch[i].size = static_cast<int>(EUDPPacket::MAX_LENGTH);
    }
    const int taken = bWait ? pSocket->receiveBatch(batch, room) : pSocket->tryReceiveBatch(batch, room);
    bNothing = taken == sal::UdpSocket::WOULD_BLOCK;
    if (bNothing) {
        return true;
    }
    if (taken <= 0) {
        return handleDatagram(packet, -1, batch[0].from, 0);
    }
    if (taken == room && room > 1) {
        m_readRoom.store(READ_BATCH, std::memory_order_relaxed);
    } else if (taken == 1) {
        m_readRoom.store(sal::UdpSocket::SMALL_BATCH, std::memory_order_relaxed);
    }
    for (int i = 0; i < taken; ++i) {
        if (i > 0 && batch[i].length > 0) {
            std::memcpy(packet.m_pHeader, batch[i].buffer, static_cast<std::size_t>(batch[i].length));
        }
        if (!handleDatagram(packet, batch[i].length, batch[i].from, batch[i].fromPort)) {
            return false;
        }
    }
    return true;
}
