// White-box access to EUDPTransport for the EUDP suites, plus the raw-peer fixtures they share.
#ifndef TARN_TESTS_EUDP_EUDPTESTACCESS_H
#define TARN_TESTS_EUDP_EUDPTESTACCESS_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <eudptransport.h>
#include <testsupport.h>

class EUDPTransportTest {
public:
    static ModuloValue& sendSeq(EUDPTransport& t) { return t.m_sendSeq; }
    static ModuloValue& lastSent(EUDPTransport& t) { return t.m_lastSent; }
    static ModuloValue& lastAcked(EUDPTransport& t) { return t.m_lastAcked; }
    static ModuloValue& receiveSeq(EUDPTransport& t) { return t.m_receiveSeq; }
    static std::atomic<std::uint32_t>& unacked(EUDPTransport& t) { return t.m_unacked; }
    static std::uint32_t reserved(EUDPTransport& t) { return t.m_reserved; }
    static std::atomic<std::uint32_t>& windowSize(EUDPTransport& t) { return t.m_windowSize; }
    static std::atomic<std::uint32_t>& modeAck(EUDPTransport& t) { return t.m_modeAck; }
    static std::atomic<std::uint32_t>& windowAck(EUDPTransport& t) { return t.m_windowAck; }
    static std::atomic<EConnMode>& sendMode(EUDPTransport& t) { return t.m_sendMode; }
    static std::atomic<EConnMode>& receiveMode(EUDPTransport& t) { return t.m_receiveMode; }
    static std::atomic<uint16>& peerPort(EUDPTransport& t) { return t.m_peerPort; }
    static uint16 logId(EUDPTransport& t) { return t.m_logId.load(); }
    static RingBuffer<EUDPPacket>& sendBuffer(EUDPTransport& t) { return t.m_sendBuffer; }
    static RingBuffer<EUDPPacket>& receiveBuffer(EUDPTransport& t) { return t.m_receiveBuffer; }
    static sal::MutexSemaphore& sendMutex(EUDPTransport& t) { return t.m_sendMutex; }
    static std::mutex& wireLock(EUDPTransport& t) { return t.m_wireLock; }
    // The reading turn, held as a reader holds it: while a test holds it, datagrams stay queued in
    // the socket; given back, it leaves whatever watches the socket armed, as every holder does.
    class HeldTurn {
    public:
        explicit HeldTurn(EUDPTransport& t) : m_t(t), m_lock(t.m_readLock) {}
        ~HeldTurn() {
            if (m_t.m_pReadSocket != nullptr) {
                m_t.leaveTurn(m_lock, m_t.m_pReadSocket);
            }
        }
        HeldTurn(const HeldTurn&) = delete;
        HeldTurn& operator=(const HeldTurn&) = delete;

    private:
        EUDPTransport& m_t;
        std::unique_lock<std::mutex> m_lock;
    };
    // Whether a quiet link may pass to the process's shared watch, and whether it is there now.
    static bool sharedUsable(const EUDPTransport& t) { return t.m_bSharedUsable.load(); }
    static bool sharedWatch(const EUDPTransport& t) { return t.m_bSharedWatch.load(); }
    // How many datagrams the next read of the socket asks for.
    static int readRoom(const EUDPTransport& t) { return t.m_readRoom.load(); }
    // Whether the sender waits for an acknowledgement (its thread sending nothing until then).
    static bool senderWaitsForAck(EUDPTransport& t) {
        std::lock_guard<std::mutex> lock(t.m_senderLock);
        return t.m_senderWait == EUDPTransport::SenderStep::eWaitAckAfterPass ||
               t.m_senderWait == EUDPTransport::SenderStep::eWaitAckBeforePass;
    }
    static sal::BinarySemaphore& sendSpaceSem(EUDPTransport& t) { return t.m_sendSpaceSem; }
    static sal::BinarySemaphore& ackSem(EUDPTransport& t) { return t.m_ackSem; }
    static sal::BinarySemaphore& modeSem(EUDPTransport& t) { return t.m_modeSem; }
    static sal::CountingSemaphore& receiveSem(EUDPTransport& t) { return t.m_receiveSem; }
    static sal::Timer& sendAliveTimer(EUDPTransport& t) { return t.m_sendAliveTimer; }
    static sal::Timer& aliveTimer(EUDPTransport& t) { return t.m_aliveTimer; }
    static std::uint32_t aliveTimeout(EUDPTransport& t) { return t.m_aliveTimeout.load(); }
    static bool timersInitialised(EUDPTransport& t) { return t.m_bTimersInitialised; }
    static bool receiverRunning(EUDPTransport& t) { return t.m_receiver.isRunning(); }
    static bool senderRunning(EUDPTransport& t) { return t.m_sender.isRunning(); }
    static bool allowSendRealtime(EUDPTransport& t) { return t.m_bAllowSendRealtime.load(); }
    static bool allowSendReliable(EUDPTransport& t) { return t.m_bAllowSendReliable.load(); }
    static bool allowReceiveRealtime(EUDPTransport& t) { return t.m_bAllowReceiveRealtime.load(); }
    static bool allowReceiveReliable(EUDPTransport& t) { return t.m_bAllowReceiveReliable.load(); }
    static sal::UdpSocket* socket(EUDPTransport& t) { return t.m_pSocket.load(); }
    // Internal operations a test drives directly.
    static bool sendPacket(EUDPTransport& t, EEUDPCommand command, std::uint32_t value, uint16 port) {
        return t.sendPacket(command, value, port);
    }
    static void initTimers(EUDPTransport& t, unsigned int aliveTimeout) { t.initTimers(aliveTimeout); }
    // A ring's slot storage, where its first slot lies.
    template <class T>
    static T* slots(const RingBuffer<T>& ring) {
        return ring.m_pBuffer;
    }
    // How often the sender thread has come back from sleeping (woken or at the end of a wait).
    static std::uint64_t senderWakeUps(EUDPTransport& t) { return t.m_senderWakeUps.load(); }
    // How often the receiver thread has come back from waiting on its socket (a report or the end
    // of a quiet spell).
    static std::uint64_t receiverWakeUps(EUDPTransport& t) { return t.m_receiverWakeUps.load(); }

    // Switches keep-alive supervision off for a wire test, so that no keep-alive takes a sequence
    // number in the middle of what the test counts: with a period of 0 nothing re-arms.
    static void quietTimers(EUDPTransport& t) {
        t.m_aliveTimeout.store(0);
        t.m_sendAliveTimer.stop();
        t.m_aliveTimer.stop();
        t.m_sendAliveTimer.waitUntilIdle();
        t.m_aliveTimer.waitUntilIdle();
    }

    // Frees one slot of the send ring as an acknowledgement would.
    static void freeOneSendSlot(EUDPTransport& t) {
        t.m_sendMutex.take();
        t.m_sendBuffer.pop();
        t.m_sendMutex.give();
        t.m_sendSpaceSem.give();
    }

    static std::uint32_t sendQueued(EUDPTransport& t) { return queued(t.m_sendBuffer, t.m_sendMutex); }
    static std::uint32_t receiveQueued(EUDPTransport& t) {
        return queued(t.m_receiveBuffer, t.m_receiveMutex);
    }

private:
    // Packets between the read and the write index of a ring, counted under its mutex.
    static std::uint32_t queued(RingBuffer<EUDPPacket>& ring, sal::MutexSemaphore& mutex) {
        mutex.take();
        std::uint32_t n = (ring.writeIndex() + ring.capacity() - ring.readIndex()) % ring.capacity();
        mutex.give();
        return n;
    }
};

namespace eudptest {

using testsupport::Bytes;

// "TARN/EUDP[<id>]: <text>"
std::string line(unsigned int id, const std::string& text);

// A listening EUDP transport on 127.0.0.1 and a raw UDP peer that connects to it with CON; the
// accepted per-peer transport is `server`, and `serverPort` the port its ACK came from.
struct ServerWithRawPeer {
    EUDPTransport listener;
    testsupport::RawUdp raw;
    std::unique_ptr<EUDPTransport> server;
    std::uint16_t listenPort = 0;
    std::uint16_t serverPort = 0;

    // Sends CON `conValue`, accepts, and reads the ACK. With `quiet` the keep-alive supervision of
    // the accepted transport is switched off. False (with a gtest failure) when anything fails.
    bool open(std::uint32_t conValue = 0, bool quiet = true);
    bool sendToServer(const Bytes& datagram) { return raw.sendTo(datagram, serverPort); }
    // The next datagram from the server port within timeoutMs.
    bool next(Bytes& datagram, int timeoutMs = 2000);
};

// A client-side EUDP transport connected to a raw peer that answered its CON from `raw`.
struct ClientWithRawPeer {
    EUDPTransport client;
    testsupport::RawUdp raw;
    std::uint16_t clientPort = 0;

    bool open(bool quiet = true);
    bool sendToClient(const Bytes& datagram) { return raw.sendTo(datagram, clientPort); }
    bool next(Bytes& datagram, int timeoutMs = 2000);
};

// Two real transports on 127.0.0.1: `client` connected to `server`, accepted from `listener`.
struct TransportPair {
    EUDPTransport listener;
    EUDPTransport client;
    std::unique_ptr<EUDPTransport> server;
    bool open();
};

std::string commandOf(const Bytes& datagram);
Bytes payloadOf(const Bytes& datagram);

// A connected pair left idle for `idleMs`: both ends stay up, the server sent between `serverMin`
// and `serverMax` keep-alives and the client at most `clientMax`, and data still crosses after it.
void expectIdlePairStaysUp(int idleMs, int serverMin, int serverMax, int clientMax);
// `count` connections through one listener left idle for `idleMs`, the process's threads counted
// every `sampleMs`: every end stays up, and the timers add a small shared pool, not a thread each.
void expectIdleConnectionsShareTimerThreads(int count, int idleMs, int sampleMs);

}  // namespace eudptest

#endif  // TARN_TESTS_EUDP_EUDPTESTACCESS_H
