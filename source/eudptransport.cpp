// EUDP transport: sequence numbers, construction and destruction, the socket and the peer's
// address (m_pSocket, m_peerAddress, m_peerPort), the CON/ACK handshake from both sides, DIS, the
// header-only control datagrams (sendPacket) and the peer accessors. The send window lives in
// eudpsender.cpp (its waits in eudpsenderwait.cpp), the receive side in eudpreceiver.cpp,
// negotiation in eudpnegotiation.cpp, supervision in eudptimers.cpp.
#include <eudptransport.h>

#include <sys/mman.h>

#include <chrono>
#include <new>

#include "eudpadmission.h"
#include "eudplink.h"

using Corvane::Utilities::Logging::eError;
using Corvane::Utilities::Logging::ELogLevel;
using Corvane::Utilities::Logging::LogManager;
using Corvane::Utilities::Logging::LogStream;

// Semaphore waits count milliseconds and timer periods microseconds: 5 s for the answer to CON,
// a quiet spell of 0.5 s on the server side and 1 s on the client side.
namespace {
const unsigned int CONNECT_WAIT_MS = 5000;
const unsigned int SERVER_ALIVE_TIMEOUT_US = 500000;
const unsigned int CLIENT_ALIVE_TIMEOUT_US = 1000000;
}  // namespace

// ---- the system's link ---------------------------------------------------------------------------

namespace {

class SystemLink : public EUDPLink {
public:
    int sendTo(sal::UdpSocket& socket, const void* data, int length, const sal::HostAddress& address,
               uint16 port) override {
        return socket.sendTo(data, length, address, port);
    }
    int sendBatchTo(sal::UdpSocket& socket, const sal::UdpSocket::OutgoingDatagram* datagrams, int count,
                    const sal::HostAddress& address, uint16 port) override {
        return socket.sendBatchTo(datagrams, count, address, port);
    }
    Clock::time_point now() override { return Clock::now(); }
    bool startTimer(sal::Timer& timer, unsigned int periodUs) override { return timer.start(periodUs, true); }
    void stopTimer(sal::Timer& timer) override { timer.stop(); }
    bool isTimerRunning(const sal::Timer& timer) override { return timer.isRunning(); }
};

}  // namespace

EUDPLink::~EUDPLink() {}

// Never destroyed: transports that outlive static destruction (one a listener leaves behind, with
// its threads still running at exit) keep sending through it.
EUDPLink& EUDPLink::system() {
    static EUDPLink* const pLink = new SystemLink;
    return *pLink;
}

// ---- ModuloValue --------------------------------------------------------------------------------

const std::int32_t ModuloValue::MODULUS;
const std::uint32_t EUDPTransport::RING_CAPACITY;

ModuloValue::ModuloValue(std::int32_t value, std::int32_t modulus) : m_value(value), m_modulus(modulus) {}

ModuloValue::ModuloValue(const ModuloValue& other)
    : m_value(other.getValue()), m_modulus(other.getModulus()) {}

ModuloValue& ModuloValue::operator=(const ModuloValue& other) {
    m_value.store(other.getValue(), std::memory_order_relaxed);
    m_modulus.store(other.getModulus(), std::memory_order_relaxed);
    return *this;
}

ModuloValue::~ModuloValue() {}

void ModuloValue::setFromWord(std::int32_t value) {
    // Truncating division: a negative word stays negative, and peers see exactly that.
    m_value.store(value % MODULUS, std::memory_order_relaxed);
    m_modulus.store(MODULUS, std::memory_order_relaxed);
}

void ModuloValue::advance() {
    m_value.store((getValue() + 1) % getModulus(), std::memory_order_relaxed);
}

std::int32_t ModuloValue::distance(std::int32_t a, std::int32_t b) {
    // Computed in unsigned arithmetic so that words of 2^31 and more cannot overflow; the result
    // is the two's-complement difference the comparison has always used.
    std::int32_t d = static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
    if (d < -32767) {
        d += 65535;
    } else if (d > 32767) {
        d -= 65535;
    }
    return d;
}

// ---- ring storage -------------------------------------------------------------------------------

// An anonymous private mapping: its pages are zero and cost nothing until first touched, whatever
// the allocator did with the memory of rings freed before (a heap block would hand back pages an
// earlier ring had already filled).
void* RingStorage::allocate(std::size_t bytes) {
    void* pStorage = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return pStorage == MAP_FAILED ? nullptr : pStorage;
}

void RingStorage::release(void* pStorage, std::size_t bytes) {
    if (pStorage != nullptr) {
        ::munmap(pStorage, bytes);
    }
}

// ---- threads ------------------------------------------------------------------------------------

EUDPTransport::EUDPSender::EUDPSender() : m_pTransport(nullptr) {}

EUDPTransport::EUDPSender::~EUDPSender() {}

void EUDPTransport::EUDPSender::run() {
    if (m_pTransport != nullptr) {
        m_pTransport->senderThread();
    }
}

EUDPTransport::EUDPReceiver::EUDPReceiver() : m_pTransport(nullptr) {}

EUDPTransport::EUDPReceiver::~EUDPReceiver() {}

void EUDPTransport::EUDPReceiver::run() {
    if (m_pTransport != nullptr) {
        m_pTransport->receiverThread();
    }
}

// ---- construction -------------------------------------------------------------------------------

// Every EUDP socket asks for a large receive buffer: a reliable peer sending a whole window at
// once, or a burst of connection requests, would otherwise overflow the system's default buffer,
// and every datagram lost there costs a NAK and a go-back resend.
sal::UdpSocket* EUDPTransport::newSocket() {
    sal::UdpSocket* pSocket = new sal::UdpSocket;
    pSocket->setReceiveBufferSize(kSocketReceiveBuffer);
    return pSocket;
}

EUDPTransport::EUDPTransport()
    : m_pSocket(nullptr),
      // The listening object never sends; the any-address stands for "no peer".
      m_peerAddress(sal::HostAddress::eAnyAddress),
      m_peerPort(0),
      m_logId(0),
      m_sendSeq(0),
      m_lastSent(-1),
      m_lastAcked(-1),
      m_receiveSeq(0),
      m_unacked(0),
      m_reserved(0),
      m_windowAck(0),
      m_modeAck(0),
      m_connectSem(false),
      m_ackSem(false),
      m_windowSem(false),
      m_modeSem(false),
      m_sendSpaceSem(false),
      m_sendWakeSem(false),
      m_receiveSem(0),
      m_bAllowSendRealtime(true),
      m_bAllowSendReliable(true),
      m_bAllowReceiveRealtime(true),
      m_bAllowReceiveReliable(true),
      m_sendMode(eRealtime),
      m_receiveMode(eRealtime),
      m_windowSize(10),
      m_bClosed(false),
      m_receiveBuffer(RING_CAPACITY),
      m_sendBuffer(RING_CAPACITY),
      m_aliveTimeout(0),
      m_bTimersInitialised(false),
      m_log(LogManager::getInstance().getCategory("TARN")),
      m_bDestroying(false),
      m_bSenderActive(false),
      m_bHardened(false),
      m_pAdmission(std::make_shared<EUDPAdmission>()),
      m_bAdmitted(false),
      m_pLink(&EUDPLink::system()) {
    for (std::atomic<std::int64_t>& last : m_lastHardenedLog) {
        last.store(-1000, std::memory_order_relaxed);
    }
    m_pSocket.store(newSocket());
    m_sender.m_pTransport = this;
    m_receiver.m_pTransport = this;
    m_sharedReader.m_pTransport = this;
}

EUDPTransport::EUDPTransport(const sal::HostAddress& address, unsigned short port) : EUDPTransport() {
    m_peerAddress = address;
    m_peerPort.store(port);
    m_logId.store(port);
}

EUDPTransport::~EUDPTransport() {
    m_sendAliveTimer.stop();
    m_aliveTimer.stop();

    // A keep-alive callback (or an application thread) may wait in sendData for ring space that
    // will never come; let it out before the threads and the socket go.
    m_bDestroying.store(true);
    m_sendSpaceSem.give();

    sal::UdpSocket* pSocket = m_pSocket.load();
    if (pSocket != nullptr && !m_bClosed.load()) {
        pSocket->close();  // no DIS: the peer finds out through its own keep-alive
    }
    // Closing ends the receiver's blocked receive; the receiver's exit wakes the sender.
    m_sender.shutdown(-1);
    m_receiver.shutdown(-1);

    // With the receiver gone nothing re-arms the keep-alive timer, and once its callback is idle
    // nothing re-arms the final one: after these waits no callback can touch this object.
    m_sendAliveTimer.stop();
    m_sendAliveTimer.waitUntilIdle();
    m_aliveTimer.stop();
    m_aliveTimer.waitUntilIdle();

    // A reader that has just come back from receiveData (a TARN connection's receive thread ends
    // that way, and its owner deletes the transport a little later without joining it) touched
    // this object last under m_receiveMutex; a sender leaving sendData, under m_sendMutex. Taking
    // each once orders those last touches before the memory goes.
    m_receiveMutex.take();
    m_receiveMutex.give();
    m_sendMutex.take();
    m_sendMutex.give();
    // A datagram that sendData sends after giving m_sendMutex back leaves under m_wireLock.
    m_wireLock.lock();
    m_wireLock.unlock();
    // A reader that waited in receiveData last touched the socket (its watch) under m_readLock,
    // or, arming the watch as it left, under m_armLock, which it took before giving m_readLock back.
    m_readLock.lock();
    m_readLock.unlock();
    m_armLock.lock();
    m_armLock.unlock();

    delete pSocket;
    m_pSocket.store(nullptr);
    RingStorage::release(m_pReadBatch, (READ_BATCH - 1) * std::size_t{EUDPPacket::MAX_LENGTH});
    leaveAdmission();
}

LogStream EUDPTransport::logLine(ELogLevel level) const {
    LogStream line = m_log.stream(level);
    line << "TARN/EUDP[" << static_cast<unsigned int>(m_logId.load()) << "]: ";
    return line;
}

// ---- listening side -----------------------------------------------------------------------------

bool EUDPTransport::listen(const sal::HostAddress& address, uint16 port) {
    sal::UdpSocket* pSocket = m_pSocket.load();
    return pSocket != nullptr && pSocket->bind(address, port);
}

ITARNTransport* EUDPTransport::accept() {
    EUDPPacket packet;
    sal::HostAddress fromAddress;
    uint16 fromPort = 0;
    for (;;) {
        sal::UdpSocket* pSocket = m_pSocket.load();
        if (pSocket == nullptr) {
            return nullptr;
        }
        int received = pSocket->receiveFrom(packet.m_pHeader, EUDPPacket::MAX_LENGTH, fromAddress, fromPort);
        if (received <= 0) {
            if (listenerSurvives(pSocket, received)) {
                continue;
            }
            return nullptr;
        }
        if (!packet.validatePacket(static_cast<std::uint32_t>(received))) {
            countListenerDrop(EUDPAdmission::eDropInvalid);
            logLine(Corvane::Utilities::Logging::eWarning) << "discarding invalid packet";
            continue;
        }
        if (packet.getCommand() != CON) {
            countListenerDrop(EUDPAdmission::eDropNonCon);
            logLine(Corvane::Utilities::Logging::eWarning)
                << "received a non-CON packet without a connection (ignoring)";
            continue;
        }
        if (!admitConnection(fromAddress, fromPort)) {
            continue;  // no ACK, nothing created
        }

        std::uint32_t value = packet.getValue();
        EUDPTransport* pPeer = new (std::nothrow) EUDPTransport(fromAddress, fromPort);
        if (pPeer == nullptr) {
            return nullptr;
        }
        handOnAdmission(pPeer, fromAddress);
        handOnAllowedModes(pPeer);
        pPeer->m_receiveSeq.setFromWord(static_cast<std::int32_t>(value + 1u));
        pPeer->m_reserved = 0;
        // The new object's socket is unbound: this first send gives it the ephemeral port that
        // becomes the connection's server-side port.
        pPeer->sendPacket(ACK, value, 0);
        pPeer->m_receiver.start();
        pPeer->m_sender.start();
        pPeer->initTimers(SERVER_ALIVE_TIMEOUT_US);
        return pPeer;
    }
}

// ---- client side --------------------------------------------------------------------------------

bool EUDPTransport::connect(const sal::HostAddress& address, uint16 port) {
    m_bTimedOut.store(false);
    if (m_bClosed.load()) {
        // The old runs end promptly on a closed transport; wait for them so that the socket is
        // never freed under a running thread and the threads can be started again. The final
        // timer's callback never blocks, so waiting for it is safe too; it may still be closing
        // the old socket.
        m_sender.shutdown(-1);
        m_receiver.shutdown(-1);
        // A keep-alive that was on its way while the old connection closed may have armed the
        // final timer again; the new connection's timers stay stopped until its first datagram.
        m_sendAliveTimer.stop();
        m_aliveTimer.stop();
        m_aliveTimer.waitUntilIdle();
        delete m_pSocket.load();
        m_pSocket.store(newSocket());
        m_bClosed.store(false);
    }

    m_peerAddress = address;
    m_peerPort.store(0);
    m_receiveSeq = ModuloValue(0);

    sendPacket(CON, static_cast<std::uint32_t>(m_sendSeq.getValue()), port);
    m_logId.store(getLocalPort());

    while (m_receiveSem.take(0) == 0) {
    }

    m_receiver.start();
    if (m_connectSem.take(CONNECT_WAIT_MS) != 0) {
        logLine(Corvane::Utilities::Logging::eError)
            << "failed to connect to " << address.getAddressString() << ":" << port << " (timeout)";
        return false;
    }
    if (m_lastAcked.getValue() != m_sendSeq.getValue()) {
        logLine(Corvane::Utilities::Logging::eError)
            << "failed to connect to " << address.getAddressString() << ":" << port << " (wrong ACK)";
        return false;
    }
    m_sendSeq.advance();  // the CON used up its number
    m_sender.start();
    initTimers(CLIENT_ALIVE_TIMEOUT_US);
    return true;
}

void EUDPTransport::disconnect() {
    if (m_bClosed.load()) {
        return;
    }
    if (m_peerPort.load() != 0) {
        stopTimers();
        sendPacket(DIS, static_cast<std::uint32_t>(m_sendSeq.getValue()), 0);
    }
    closeLocally();
}

// Every end of the link on this side: closed first (sendData refuses from here on), both timers
// stopped, then the socket closed, which ends the receiver's blocked read.
void EUDPTransport::closeLocally() {
    m_bClosed.store(true);
    stopTimers();
    sal::UdpSocket* pSocket = m_pSocket.load();
    if (pSocket != nullptr) {
        pSocket->close();
    }
}

// ---- control datagrams ---------------------------------------------------------------------------

// Called from the sender, the receiver, the timers and application threads at once: sal::UdpSocket
// sends each datagram whole from any number of threads.
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
    int sent =
        m_pLink->sendTo(*pSocket, packet.m_pHeader, static_cast<int>(packet.m_length), m_peerAddress, port);
    if (sent != static_cast<int>(packet.m_length)) {
        return false;
    }
    m_counters.countSentControl(command);
    return true;
}

// ---- accessors ----------------------------------------------------------------------------------

sal::HostAddress EUDPTransport::getPeerAddress() const {
    return m_peerAddress;
}

uint16 EUDPTransport::getPeerPort() const {
    return m_peerPort.load();
}

uint16 EUDPTransport::getLocalPort() const {
    sal::UdpSocket* pSocket = m_pSocket.load();
    return pSocket != nullptr ? pSocket->getLocalPort() : 0;
}

bool EUDPTransport::waitUntilSent(int timeoutMs) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!isClosed()) {
        if (m_sendBuffer.isEmpty()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        sal::Thread::mssleep(1);
    }
    return false;
}
