// The EUDP transport: TARN messages over UDP with the library's own datagram protocol.
//
// One object is one endpoint. A listening object binds the well-known port and only hands out new
// per-peer objects from accept(): each answers its client's CON from a port of its own. A connected
// object (client after connect(), server as returned by accept()) owns its socket, a sender thread,
// a receiver thread, two rings of 1000 packets (room reserved at construction, memory taken as
// slots are first used) and two liveness timers. While its link is quiet (no datagram for 200 ms)
// the socket is read by the process's one shared reading thread instead, and the link's own
// threads sleep.
//
// Data datagrams are numbered modulo 65535. Each direction runs realtime (sent once, gaps skipped)
// or reliable (window of unacknowledged datagrams, NAK and go-back resend after 500 ms); modes and
// the window are changed by asking the peer (setSendMode, setReceiveMode, setWindowSize). A quiet
// link sends keep-alives and closes itself 10 s after an unanswered one.
//
// Threads: one receiver (receiveData) and any number of senders (sendData) at once; disconnect()
// from any thread. The negotiation calls block up to 10 s and must not run concurrently with each
// other on one transport.
#ifndef TARN_EUDPTRANSPORT_H
#define TARN_EUDPTRANSPORT_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>

#include <eudpcounters.h>
#include <eudphardening.h>
#include <eudppacket.h>
#include <itarntransport.h>
#include <logging/logging.h>
#include <sal/semaphore.h>
#include <sal/thread.h>
#include <sal/timer.h>
#include <sal/udpsocket.h>
#include <tarn_export.h>
#include <tarnstatistics.h>

class EUDPAdmission;
class EUDPLink;
class EUDPDriver;

// A sequence number that wraps: 0 to 65534 with modulus 65535, signed arithmetic throughout, so a
// negative operand stays negative ((0 - 1) % 65535 is -1). Relaxed atomics: the sender and receiver
// threads share some of these without a lock.
class TARN_EXPORT ModuloValue {
public:
    static const std::int32_t MODULUS = 65535;

    explicit ModuloValue(std::int32_t value = 0, std::int32_t modulus = MODULUS);
    ModuloValue(const ModuloValue& other);
    ModuloValue& operator=(const ModuloValue& other);
    virtual ~ModuloValue();

    std::int32_t getValue() const { return m_value.load(std::memory_order_relaxed); }
    std::int32_t getModulus() const { return m_modulus.load(std::memory_order_relaxed); }

    // Sets the value to `value` % 65535 (signed remainder) and the modulus back to 65535: how a
    // 32-bit header word becomes a sequence number.
    void setFromWord(std::int32_t value);
    // m_value = (m_value + 1) % m_modulus.
    void advance();

    // Signed windowed difference a - b: > 0 when a comes after b, 0 when equal, < 0 when older.
    // The one comparison used wherever sequence numbers meet.
    static std::int32_t distance(std::int32_t a, std::int32_t b);

private:
    std::atomic<std::int32_t> m_value;
    std::atomic<std::int32_t> m_modulus;
};

// Raw storage for a ring's slots: zero-filled pages that the system hands out only when they are
// first touched, so that a slot that was never written costs no memory. Null when the system
// refuses the mapping.
class TARN_EXPORT RingStorage {
public:
    static void* allocate(std::size_t bytes);
    static void release(void* pStorage, std::size_t bytes);
};

class EUDPTransportTest;  // white-box access for the test suite

// Fixed-capacity circular queue of values; capacity N holds N - 1 entries. Takes no lock: its owner
// guards it. The two indices are relaxed atomics because the sender thread asks isEmpty() without
// the owner's lock; everything else about them goes through the owner's mutex.
//
// m_pBuffer holds room for all N elements from construction on, but an element is default-
// constructed only when its slot is first reached: written by push(), or read by front() or at()
// before anything was written there (it reads as a default value then). Slots are reached in index
// order from 0, so the constructed ones are always the first m_constructed; once the write index
// has gone round, all of them are. A queue of idle connections therefore holds no pages for its
// unused slots.
template <class T>
class RingBuffer {
public:
    explicit RingBuffer(std::uint32_t capacity)
        : m_capacity(capacity),
          m_read(0),
          m_write(0),
          m_pBuffer(static_cast<T*>(RingStorage::allocate(sizeof(T) * capacity))),
          m_constructed(0) {}
    virtual ~RingBuffer() {
        for (std::uint32_t i = 0; i < m_constructed; ++i) {
            m_pBuffer[i].~T();
        }
        RingStorage::release(m_pBuffer, sizeof(T) * m_capacity);
    }
    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    bool push(const T& item);
    bool isEmpty() const { return readIndex() == writeIndex(); }
    bool isFull() const { return (writeIndex() + 1) % m_capacity == readIndex(); }
    T& front() { return at(readIndex()); }
    // The slot at `index`, as it stands (a default value if it was never written).
    T& at(std::uint32_t index) {
        while (m_constructed <= index) {
            new (static_cast<void*>(m_pBuffer + m_constructed)) T();
            ++m_constructed;
        }
        return m_pBuffer[index];
    }
    void pop() {
        if (!isEmpty()) {
            m_read.store((readIndex() + 1) % m_capacity, std::memory_order_relaxed);
        }
    }
    std::uint32_t next(std::uint32_t index) const { return (index + 1) % m_capacity; }
    std::uint32_t readIndex() const { return m_read.load(std::memory_order_relaxed); }
    std::uint32_t writeIndex() const { return m_write.load(std::memory_order_relaxed); }
    std::uint32_t capacity() const { return m_capacity; }
    // How many slots, from index 0 on, hold a constructed element.
    std::uint32_t constructedCount() const { return m_constructed; }

private:
    friend class EUDPTransportTest;

    std::uint32_t m_capacity;
    std::atomic<std::uint32_t> m_read;   // oldest entry
    std::atomic<std::uint32_t> m_write;  // next free slot
    T* m_pBuffer;
    std::uint32_t m_constructed;  // guarded like the slots, by the owner's lock
};

template <class T>
bool RingBuffer<T>::push(const T& item) {
    if (isFull()) {
        return false;
    }
    at(writeIndex()) = item;
    m_write.store((writeIndex() + 1) % m_capacity, std::memory_order_relaxed);
    return true;
}

// One EUDP endpoint (see the top of this file). An application creates one itself, and hands it to
// TARNConnection(ITARNTransport*), when it wants to set allowSendMode/allowReceiveMode before
// connecting or to read the modes and window agreed; otherwise TARNConnection(eTransportEUDP) does.
class TARN_EXPORT EUDPTransport : public ITARNTransport {
public:
    static const std::uint32_t RING_CAPACITY = 1000;

    EUDPTransport();                                                      // listening or client object
    EUDPTransport(const sal::HostAddress& address, unsigned short port);  // per-peer, from accept()
    ~EUDPTransport() override;
    EUDPTransport(const EUDPTransport&) = delete;
    EUDPTransport& operator=(const EUDPTransport&) = delete;

    bool setWindowSize(uint windowSize) override;
    bool listen(const sal::HostAddress& address, uint16 port) override;
    ITARNTransport* accept() override;
    void allowSendMode(bool realtime, bool reliable) override;
    void allowReceiveMode(bool realtime, bool reliable) override;
    bool setSendMode(EConnMode mode) override;
    bool setReceiveMode(EConnMode mode) override;
    bool connect(const sal::HostAddress& address, uint16 port) override;
    void disconnect() override;
    bool sendData(const uint8* data, uint length) override;
    int receiveData(uint8* buffer, uint bufferSize) override;
    sal::HostAddress getPeerAddress() const override;
    uint16 getPeerPort() const override;
    uint16 getLocalPort() const override;

    // Current state, for applications and tools.
    EConnMode getSendMode() const { return m_sendMode.load(std::memory_order_relaxed); }
    EConnMode getReceiveMode() const { return m_receiveMode.load(std::memory_order_relaxed); }
    std::uint32_t getWindowSize() const { return m_windowSize.load(std::memory_order_relaxed); }
    bool isClosed() const { return m_bClosed.load(std::memory_order_relaxed); }
    // True once the liveness supervision gave the link up because a keep-alive went unanswered for
    // 10 s (onAliveTimer), which tells that end apart from a DIS of the peer; cleared by connect().
    bool hasTimedOut() const { return m_bTimedOut.load(); }
    // Waits up to `timeoutMs` until the send ring is empty: every message queued so far has been
    // sent (realtime) or acknowledged (reliable). False on time-out, and at once when the link is
    // closed.
    bool waitUntilSent(int timeoutMs) const;

    // What this end has done so far (tarnstatistics.h); any thread, any time.
    EUDPStatistics getStatistics() const;

    // Hardened mode (eudphardening.h): set before listen(), accept() or connect(). A listening
    // transport hands its setting on to every transport it accepts. Off by default.
    void setHardening(const EUDPHardening& hardening);
    EUDPHardening getHardening() const;
    bool isHardened() const { return m_bHardened.load(std::memory_order_relaxed); }
    // A listening transport: the modes every transport it accepts allows, as allowSendMode and
    // allowReceiveMode would set them, in force before that transport's receiver starts, so that a
    // mode request right after the handshake already meets them. Set before accept(); neither
    // realtime nor reliable is refused as allowSendMode refuses it. Every mode unless set.
    void allowAcceptedSendMode(bool realtime, bool reliable);
    void allowAcceptedReceiveMode(bool realtime, bool reliable);
    // A listening transport's record of what it accepted and refused (all zero on another).
    TARNListenerStatistics getListenerStatistics() const;

private:
    friend class EUDPTransportTest;
    friend class EUDPDriver;  // runs a transport without threads, sockets or real time (tests, fuzzing)

    // The sender thread: runs senderThread() on its transport.
    class TARN_NO_EXPORT EUDPSender : public sal::Thread {
    public:
        EUDPSender();
        ~EUDPSender() override;
        void run() override;
        EUDPTransport* m_pTransport;
    };

    // The receiver thread: runs receiverThread() on its transport.
    class TARN_NO_EXPORT EUDPReceiver : public sal::Thread {
    public:
        EUDPReceiver();
        ~EUDPReceiver() override;
        void run() override;
        EUDPTransport* m_pTransport;
    };

    // The shared watch's reader (sal::UdpSocket::watchShared): reads the socket on the shared
    // watch's thread while the link is quiet (readShared).
    class TARN_NO_EXPORT SharedReader : public sal::UdpSocket::IReader {
    public:
        void onReadable() override;
        EUDPTransport* m_pTransport{nullptr};
    };

    // Sends one header-only datagram now from the calling thread; port 0 means m_peerPort.
    bool sendPacket(EEUDPCommand command, std::uint32_t value, uint16 port);
    // Liveness supervision (periods in microseconds).
    void initTimers(unsigned int aliveTimeout);
    TARN_NO_EXPORT void resetTimers();
    TARN_NO_EXPORT void onSendAliveTimer();
    TARN_NO_EXPORT void onAliveTimer();
    // Thread bodies.
    TARN_NO_EXPORT void senderThread();
    TARN_NO_EXPORT void receiverThread();

    static const int kSocketReceiveBuffer = 4 * 1024 * 1024;
    static TARN_NO_EXPORT sal::UdpSocket* newSocket();

    // A line on `level` that already carries the "TARN/EUDP[<id>]: " prefix.
    TARN_NO_EXPORT Corvane::Utilities::Logging::LogStream logLine(
        Corvane::Utilities::Logging::ELogLevel level) const;

    // The timers' inline attempts (sal::ICallback::callInline): the same work as onSendAliveTimer
    // and onAliveTimer, done on the timer service's thread when it need not wait.
    TARN_NO_EXPORT bool sendAliveWithoutWaiting();
    TARN_NO_EXPORT bool closeOnSilence();

    // sendData's parts, with m_sendMutex held; all give it back. refuseClosedLocked logs the
    // refusal and answers false; queueLocked numbers the message and sends or queues it;
    // sendOutsideLock sends queueLocked's reliable datagram once the lock is given back.
    TARN_NO_EXPORT bool refuseClosedLocked();
    TARN_NO_EXPORT void queueLocked(const uint8* data, uint length);
    TARN_NO_EXPORT void sendOutsideLock(const EUDPPacket& packet);

    // The sender thread's loop, cut at the places where it waits (eudpsender.cpp, eudpsenderwait.cpp). A wait
    // for data (m_sendWakeSem's role) or for an acknowledgement within 500 ms (m_ackSem's role), before the
    // pass when the window is full or after a pass that sent nothing, is given by the thread that makes the
    // event; when what the sender would do next sends nothing, that thread takes the sender's steps itself up
    // to its next wait and leaves the sender thread asleep.
    enum class SenderStep : std::uint8_t {
        eLoopHead,
        eWindowCheck,
        ePass,
        eAfterPass,
        eWokenForData,
        eAckBeforePassGiven,
        eAckBeforePassTimedOut,
        eAckAfterPassGiven,
        eAckAfterPassTimedOut,
        eWaitData,
        eWaitAckBeforePass,
        eWaitAckAfterPass,
        eExit,
        eNeedsThread,
        eRunning
    };
    TARN_NO_EXPORT SenderStep senderStep(SenderStep step, bool dry, sal::UdpSocket* pSocket);
    TARN_NO_EXPORT SenderStep waitAs(SenderStep wait);
    // waitAs's parts, with m_senderLock held: the wait begins (the step a pending give leads to, or
    // `wait` itself while it waits), and where a waiting sender stands now (`bGiven`: it has just
    // taken a plain give of m_sendWakeSem): the step it resumes at, or the wait it is in.
    TARN_NO_EXPORT SenderStep beginWaitLocked(SenderStep wait);
    TARN_NO_EXPORT SenderStep checkWaitLocked(bool bGiven);
    static TARN_NO_EXPORT bool isSenderWait(SenderStep step);
    // With m_sendMutex held: new data (queueLocked), a new acknowledgement (handleAck). True when
    // the sender thread must be woken (m_sendWakeSem given) once both locks are released.
    TARN_NO_EXPORT bool giveDataLocked();
    TARN_NO_EXPORT bool giveAckLocked();
    // An accepted NAK: its give always has the sender resend, so it wakes the thread.
    TARN_NO_EXPORT void giveAckForResend();
    // Takes the steps that follow a given wait up to the next wait, holding m_senderLock.
    TARN_NO_EXPORT bool advanceLocked(SenderStep from);
    // The receiver thread's handling of one valid datagram, by command. ACK and NAK move the send
    // window (eudpsender.cpp); rewind is its one go-back: everything after `lastSent` goes out again.
    TARN_NO_EXPORT void handleAck(std::int32_t seq, uint16 fromPort);
    TARN_NO_EXPORT void handleNak(std::int32_t seq);
    TARN_NO_EXPORT void rewind(std::int32_t lastSent);
    TARN_NO_EXPORT void handleData(const EUDPPacket& packet, std::int32_t seq);
    TARN_NO_EXPORT void handleModeRequest(std::uint32_t word);
    TARN_NO_EXPORT void handlePeerDisconnect();
    // Stops whichever of the two liveness timers runs, the keep-alive one first (eudptimers.cpp).
    TARN_NO_EXPORT void stopTimers();
    // Ends the link on this side without a word to the peer: closed, timers stopped, socket closed.
    TARN_NO_EXPORT void closeLocally();

    // One received datagram (`received` is what the receive returned), handled as the receiver
    // thread handles it, in whichever thread read it; false once the connection is over.
    TARN_NO_EXPORT bool handleDatagram(EUDPPacket& packet, int received, const sal::HostAddress& fromAddress,
                                       uint16 fromPort);
    // receiverThread's loop when the socket's readiness watch is there: the thread sleeps on the
    // watch, and reads whatever is waiting when it holds the reading turn.
    TARN_NO_EXPORT void receiveInTurn(sal::UdpSocket* pSocket, EUDPPacket& packet);
    // receiveData's wait while nothing is delivered: the caller takes the reading turn and reads
    // the socket itself.
    TARN_NO_EXPORT void readWhileWaiting();
    // The shared watch's report for a quiet link: one read, handled as the receiver thread would.
    TARN_NO_EXPORT void readShared();
    // The receiver thread's watch had no report for a quiet spell: the shared watch takes over.
    // False when a receiveData caller holds the turn (it decides as it leaves).
    TARN_NO_EXPORT bool handToSharedWatch(sal::UdpSocket* pSocket);
    // Arms or disarms whichever watch the socket is under now.
    TARN_NO_EXPORT void armWatcher(sal::UdpSocket* pSocket);
    TARN_NO_EXPORT void disarmWatcher(sal::UdpSocket* pSocket);
    // Gives the reading turn back, then arms the watch in charge (exported for the test suite,
    // which holds the turn as a reader does).
    void leaveTurn(std::unique_lock<std::mutex>& turn, sal::UdpSocket* pSocket);
    // One read of the socket, by whoever reads it: the first datagram into `packet` and whatever
    // else is already waiting behind it (up to two, or READ_BATCH while they come in runs) taken in the same
    // system call, then each handled in arrival order as if read alone. `bWait`: block for the first
    // datagram; otherwise `bNothing` tells that none was waiting. False once the connection is over.
    TARN_NO_EXPORT bool readAndHandle(sal::UdpSocket* pSocket, EUDPPacket& packet, bool bWait,
                                      bool& bNothing);
    TARN_NO_EXPORT bool readAndHandleMany(sal::UdpSocket* pSocket, EUDPPacket& packet, bool bWait,
                                          bool& bNothing);
    TARN_NO_EXPORT bool handleBatch(sal::UdpSocket* pSocket, EUDPPacket& packet,
                                    sal::UdpSocket::ReceivedDatagram* batch, int room, bool bWait,
                                    bool& bNothing);
    // Hardened mode's checks (eudphardening.cpp). Each answers whether the datagram goes on.
    // A connected transport: whether a datagram from address:port is its peer's (always, when not
    // hardened); whether the receiver goes on after a receive of `received` (0 or less) bytes
    // from address:port; the window that a WIN asking for `requested` sets.
    TARN_NO_EXPORT bool takeFrom(const sal::HostAddress& address, uint16 port);
    TARN_NO_EXPORT bool survivesEmptyOrError(int received, const sal::HostAddress& address, uint16 port);
    TARN_NO_EXPORT std::uint32_t boundWindowRequest(std::uint32_t requested);
    // The listening side: whether accept() goes on after a receive of 0 or less bytes; whether a
    // CON from address:port may have a transport; handing the admission on to the new transport.
    TARN_NO_EXPORT bool listenerSurvives(sal::UdpSocket* pSocket, int received);
    TARN_NO_EXPORT bool admitConnection(const sal::HostAddress& address, uint16 port);
    TARN_NO_EXPORT void handOnAdmission(EUDPTransport* pPeer, const sal::HostAddress& address);
    TARN_NO_EXPORT void handOnAllowedModes(EUDPTransport* pPeer) const;
    TARN_NO_EXPORT void storeAllowedPair(std::atomic<bool>& realtimeFlag, std::atomic<bool>& reliableFlag,
                                         bool realtime, bool reliable);
    TARN_NO_EXPORT void countListenerDrop(int kind);
    // An accepted transport gives its place in the listener's counts back as its link ends.
    TARN_NO_EXPORT void leaveAdmission();
    TARN_NO_EXPORT void logHardenedDrop(EEUDPHardenedCause cause, std::uint64_t total,
                                        const sal::HostAddress* pFrom, uint16 fromPort);

    std::atomic<sal::UdpSocket*> m_pSocket;
    sal::HostAddress m_peerAddress;
    std::atomic<uint16> m_peerPort;
    std::atomic<uint16> m_logId;
    ModuloValue m_sendSeq;
    ModuloValue m_lastSent;
    ModuloValue m_lastAcked;
    ModuloValue m_receiveSeq;
    std::atomic<std::uint32_t> m_unacked;
    std::uint32_t m_reserved;
    std::atomic<std::uint32_t> m_windowAck;
    std::atomic<std::uint32_t> m_modeAck;
    EUDPSender m_sender;
    EUDPReceiver m_receiver;
    sal::BinarySemaphore m_connectSem;
    sal::BinarySemaphore m_ackSem;
    sal::BinarySemaphore m_windowSem;
    sal::BinarySemaphore m_modeSem;
    sal::BinarySemaphore m_sendSpaceSem;
    sal::BinarySemaphore m_sendWakeSem;
    sal::CountingSemaphore m_receiveSem;
    sal::MutexSemaphore m_receiveMutex;
    sal::MutexSemaphore m_sendMutex;
    std::atomic<bool> m_bAllowSendRealtime;
    std::atomic<bool> m_bAllowSendReliable;
    std::atomic<bool> m_bAllowReceiveRealtime;
    std::atomic<bool> m_bAllowReceiveReliable;
    // What accept() hands to each new transport (allowAcceptedSendMode, allowAcceptedReceiveMode).
    std::atomic<bool> m_bAcceptedSendRealtime{true};
    std::atomic<bool> m_bAcceptedSendReliable{true};
    std::atomic<bool> m_bAcceptedReceiveRealtime{true};
    std::atomic<bool> m_bAcceptedReceiveReliable{true};
    std::atomic<EConnMode> m_sendMode;
    std::atomic<EConnMode> m_receiveMode;
    std::atomic<std::uint32_t> m_windowSize;
    std::atomic<bool> m_bClosed;
    RingBuffer<EUDPPacket> m_receiveBuffer;
    RingBuffer<EUDPPacket> m_sendBuffer;
    std::atomic<std::uint32_t> m_aliveTimeout;  // written by initTimers, read by the receiver
    sal::Timer m_sendAliveTimer;
    sal::Timer m_aliveTimer;
    bool m_bTimersInitialised;
    Corvane::Utilities::Logging::LogCategory m_log;
    // Set by the destructor: a sendData blocked on a full ring gives up as if closed, so that the
    // keep-alive callback (or an application thread) waiting there cannot hold up the destruction.
    std::atomic<bool> m_bDestroying;
    // Raised while the sender thread runs its loop: only then may sendData send a realtime
    // datagram itself instead of queueing it for that thread.
    std::atomic<bool> m_bSenderActive;
    std::atomic<bool> m_bTimedOut{false};  // set by onAliveTimer, read by applications
    // Where the sender's loop stands, guarded by m_senderLock (taken after m_sendMutex, never the
    // other way round): the wait it is in (eRunning while it runs), the step a giver has it
    // resume at, when its acknowledgement wait began, whether a give of its data wait is pending,
    // and whether the thread sleeps without a limit. The thread itself sleeps on m_sendWakeSem,
    // until the end of its acknowledgement wait or a give.
    std::mutex m_senderLock;
    SenderStep m_senderWait{SenderStep::eRunning};
    SenderStep m_senderResume{SenderStep::eLoopHead};
    std::chrono::steady_clock::time_point m_ackWaitStart;
    bool m_bWakePending{false};
    bool m_bSleepsUntimed{false};
    std::atomic<std::uint64_t> m_senderWakeUps{0};  // the sender thread's returns from sleep
    // Held around every send of a data datagram, and taken only with m_sendMutex held (before it
    // is given back when the send follows it): the datagrams leave in the order in which they
    // were taken for sending, and whoever holds m_sendMutex and finds it free can take it
    // without waiting.
    std::mutex m_wireLock;
    // The reading turn: whoever holds m_readLock may read the socket and handle what it reads, so
    // datagrams are handled one at a time in arrival order whichever thread reads them. The
    // receiver thread holds it while it handles what woke it; a receiveData caller with nothing
    // to take holds it while it waits, and the receiver thread's watch is disarmed meanwhile.
    std::mutex m_readLock;
    // The socket the receiver thread watches, while it does (null before it starts, after it
    // ends, and when the system refused a watch): a waiting caller reads only this one.
    sal::UdpSocket* m_pReadSocket{nullptr};
    std::atomic<bool> m_bReaderWaiting{false};  // a receiveData caller waits for the turn
    std::mutex m_armLock;  // held by a leaving holder of the turn from before it gives the turn back until it
                           // has armed the watch
    // Whether a quiet link may be handed to the process's shared watch (the socket is registered
    // with it and its blocking receives give up when quiet), set as the receiver thread starts; and
    // whether the shared watch, rather than the receiver thread, watches the socket now. The turn's
    // holder changes the second; the receiver thread reads it before it sleeps.
    std::atomic<bool> m_bSharedUsable{false};
    std::atomic<bool> m_bSharedWatch{false};
    SharedReader m_sharedReader;
    std::atomic<std::uint64_t> m_receiverWakeUps{0};  // the receiver thread's returns from its watch
    // Room for the datagrams that one read takes behind its first: mapped by the first read, used
    // by whoever reads, its pages touched only as far as datagrams fill them.
    static const int READ_BATCH = 32;
    std::uint8_t* m_pReadBatch{nullptr};
    // How many datagrams the next read asks for: the small room, or READ_BATCH while they come in
    // runs. Changed only by the reader holding the turn; atomic because the turn passes between threads.
    std::atomic<int> m_readRoom{sal::UdpSocket::SMALL_BATCH};

    // Statistics and hardened mode. m_pAdmission: the record of accepted and refused connections
    // (every transport makes one; only a listening one fills it); an accepted transport shares its
    // listener's instead and holds a place in it (m_bAdmitted) until its link ends.
    EUDPCounters m_counters;
    EUDPHardening m_hardening;  // set before the threads start, read by them
    std::atomic<bool> m_bHardened;
    std::shared_ptr<EUDPAdmission> m_pAdmission;
    std::atomic<bool> m_bAdmitted;
    sal::HostAddress m_admittedAddress;
    std::atomic<std::int64_t> m_lastHardenedLog[EUDP_HARDENED_CAUSES];

    // Datagrams out, the time and the two timers (eudplink.h): the system's unless driven. Set
    // before any thread starts and fixed from then on.
    EUDPLink* m_pLink;
};

#endif  // TARN_EUDPTRANSPORT_H
