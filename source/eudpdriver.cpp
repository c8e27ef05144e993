// A driven EUDP transport (eudpdriver.h): the driver stands in for the transport's threads, its
// socket's sends, the clock and the timer service, and calls the transport's own handling.
#include "eudpdriver.h"

#include <algorithm>
#include <cstring>

#include "eudplink.h"

namespace {

// The periods accept() and connect() give the keep-alive timer.
const unsigned int SERVER_ALIVE_TIMEOUT_US = 500000;
const unsigned int CLIENT_ALIVE_TIMEOUT_US = 1000000;
// Bounds on the steps one event may take; far above what the ring and the timers allow.
const int MAX_SENDER_STEPS = 100000;
const int MAX_EXPIRIES = 1000000;

}  // namespace

const char* const EUDPDriver::PEER_ADDRESS = "127.0.0.1";
const std::int64_t EUDPDriver::START_US;
const std::int64_t EUDPDriver::ACK_WAIT_US;

class EUDPDriver::Link : public EUDPLink {
public:
    explicit Link(EUDPDriver& driver) : m_driver(driver) {}

    int sendTo(sal::UdpSocket& socket, const void* data, int length, const sal::HostAddress& address,
               uint16 port) override {
        return m_driver.record(socket, data, length, address, port);
    }
    int sendBatchTo(sal::UdpSocket& socket, const sal::UdpSocket::OutgoingDatagram* datagrams, int count,
                    const sal::HostAddress& address, uint16 port) override {
        int sent = 0;
        for (int i = 0; i < count; ++i) {
            if (m_driver.record(socket, datagrams[i].data, datagrams[i].length, address, port) < 0) {
                return sent > 0 ? sent : -1;
            }
            ++sent;
        }
        return sent;
    }
    Clock::time_point now() override {
        return Clock::time_point(std::chrono::microseconds(m_driver.m_nowUs));
    }
    bool startTimer(sal::Timer& timer, unsigned int periodUs) override {
        return m_driver.startTimer(timer, periodUs);
    }
    void stopTimer(sal::Timer& timer) override {
        const int index = m_driver.timerIndex(timer);
        if (index >= 0) {
            m_driver.m_timers[index].bRunning = false;
        }
    }
    bool isTimerRunning(const sal::Timer& timer) override {
        const int index = m_driver.timerIndex(timer);
        return index >= 0 && m_driver.m_timers[index].bRunning;
    }

private:
    EUDPDriver& m_driver;
};

EUDPDriver::EUDPDriver()
    : m_pLink(new Link(*this)),
      m_pTransport(new EUDPTransport),
      m_pPacket(new EUDPPacket),
      m_nowUs(START_US),
      m_senderStep(static_cast<int>(SenderStep::eLoopHead)),
      m_bSenderStarted(false),
      m_bSenderEnded(false),
      m_bReceiverStarted(false),
      m_bReceiverEnded(false),
      m_bKeepAliveBlocked(false) {
    m_pTransport->m_pLink = m_pLink.get();
}

// The transport goes first: nothing of it may reach the link afterwards.
EUDPDriver::~EUDPDriver() {
    m_pTransport.reset();
}

// ---- the link's side ----------------------------------------------------------------------------

// As the socket would: nothing leaves a closed socket, nor for port 0.
int EUDPDriver::record(sal::UdpSocket& socket, const void* data, int length, const sal::HostAddress& address,
                       std::uint16_t port) {
    if (socket.isClosed() || port == 0 || length < 0) {
        return -1;
    }
    const std::uint8_t* bytes = static_cast<const std::uint8_t*>(data);
    m_sent.push_back(Datagram{std::vector<std::uint8_t>(bytes, bytes + length), address, port});
    return length;
}

int EUDPDriver::timerIndex(const sal::Timer& timer) const {
    if (&timer == &m_pTransport->m_sendAliveTimer) {
        return eSendAliveTimer;
    }
    if (&timer == &m_pTransport->m_aliveTimer) {
        return eAliveTimer;
    }
    return -1;
}

// One-shot, and a start while it runs changes nothing, as with sal::Timer.
bool EUDPDriver::startTimer(const sal::Timer& timer, unsigned int periodUs) {
    const int index = timerIndex(timer);
    if (index < 0 || m_timers[index].bRunning) {
        return false;
    }
    m_timers[index].bRunning = true;
    m_timers[index].dueUs = m_nowUs + periodUs;
    return true;
}

// ---- set-up -------------------------------------------------------------------------------------

void EUDPDriver::accept(std::uint16_t clientPort, std::uint32_t conValue) {
    EUDPTransport& t = *m_pTransport;
    t.m_peerAddress = sal::HostAddress(PEER_ADDRESS);
    t.m_peerPort.store(clientPort);
    t.m_logId.store(clientPort);
    t.m_receiveSeq.setFromWord(static_cast<std::int32_t>(conValue + 1u));
    t.m_reserved = 0;
    t.sendPacket(ACK, conValue, 0);
    m_bReceiverStarted = true;
    startSender();
    t.initTimers(SERVER_ALIVE_TIMEOUT_US);
    afterEvent();
}

void EUDPDriver::beginConnect(std::uint16_t localPort, std::uint16_t serverPort) {
    EUDPTransport& t = *m_pTransport;
    t.m_peerAddress = sal::HostAddress(PEER_ADDRESS);
    t.m_peerPort.store(0);
    t.m_receiveSeq = ModuloValue(0);
    t.sendPacket(CON, static_cast<std::uint32_t>(t.m_sendSeq.getValue()), serverPort);
    t.m_logId.store(localPort);
    m_bReceiverStarted = true;
}

bool EUDPDriver::finishConnect() {
    EUDPTransport& t = *m_pTransport;
    if (m_bSenderStarted || t.m_connectSem.take(0) != 0 ||
        t.m_lastAcked.getValue() != t.m_sendSeq.getValue()) {
        return false;
    }
    t.m_sendSeq.advance();
    startSender();
    t.initTimers(CLIENT_ALIVE_TIMEOUT_US);
    return afterEvent();
}

void EUDPDriver::startNumbersAt(std::int32_t next) {
    EUDPTransport& t = *m_pTransport;
    const std::int32_t number = ((next % ModuloValue::MODULUS) + ModuloValue::MODULUS) % ModuloValue::MODULUS;
    t.m_sendSeq = ModuloValue(number);
    const std::int32_t before = number - 1;  // -1 before 0, as on a fresh transport
    t.m_lastSent = ModuloValue(before);
    t.m_lastAcked = ModuloValue(before);
}

void EUDPDriver::quietTimers() {
    m_pTransport->m_aliveTimeout.store(0);
    m_timers[eSendAliveTimer].bRunning = false;
    m_timers[eAliveTimer].bRunning = false;
}

// As the sender thread starts: its loop from the top, allowed from now on to let sendData send.
void EUDPDriver::startSender() {
    if (m_pTransport->m_bClosed.load()) {
        m_bSenderStarted = true;
        m_bSenderEnded = true;  // senderThread returns at once on a closed transport
        return;
    }
    m_bSenderStarted = true;
    m_pTransport->m_bSenderActive.store(true);
    m_senderStep = static_cast<int>(SenderStep::eLoopHead);
}

// ---- events -------------------------------------------------------------------------------------

bool EUDPDriver::receive(const std::uint8_t* data, std::size_t length, std::uint16_t fromPort) {
    const std::uint16_t port = fromPort != 0 ? fromPort : m_pTransport->m_peerPort.load();
    return receiveFrom(data, length, m_pTransport->m_peerAddress, port);
}

bool EUDPDriver::receiveFrom(const std::uint8_t* data, std::size_t length, const sal::HostAddress& from,
                             std::uint16_t fromPort) {
    if (m_bReceiverEnded) {
        return false;
    }
    const std::size_t taken = std::min<std::size_t>(length, EUDPPacket::MAX_LENGTH);
    if (taken > 0) {
        std::memcpy(m_pPacket->m_pHeader, data, taken);
    }
    // False only once the link is over, which afterEvent() sees as the receiver does.
    m_pTransport->handleDatagram(*m_pPacket, static_cast<int>(taken), from, fromPort);
    return afterEvent();
}

bool EUDPDriver::receiveFailure(int received) {
    if (m_bReceiverEnded) {
        return false;
    }
    const sal::HostAddress from(PEER_ADDRESS);
    m_pTransport->handleDatagram(*m_pPacket, received, from, m_pTransport->m_peerPort.load());
    return afterEvent();
}

bool EUDPDriver::sendData(const std::uint8_t* data, std::uint32_t length) {
    if (m_pTransport->m_sendBuffer.isFull()) {
        return false;
    }
    const bool queued = m_pTransport->sendData(data, length);
    afterEvent();
    return queued;
}

int EUDPDriver::receiveData(std::uint8_t* buffer, std::uint32_t size) {
    if (m_pTransport->m_receiveSem.getCount() == 0) {
        return -2;
    }
    const int received = m_pTransport->receiveData(buffer, size);
    afterEvent();
    return received;
}

// A binary semaphore is looked at by taking it and giving it back.
bool EUDPDriver::answerGiven(sal::BinarySemaphore& semaphore) {
    if (semaphore.take(0) != 0) {
        return false;
    }
    semaphore.give();
    return true;
}

bool EUDPDriver::setSendMode(EConnMode mode) {
    if (!answerGiven(m_pTransport->m_modeSem)) {
        return false;
    }
    const bool done = m_pTransport->setSendMode(mode);
    afterEvent();
    return done;
}

bool EUDPDriver::setReceiveMode(EConnMode mode) {
    if (!answerGiven(m_pTransport->m_modeSem)) {
        return false;
    }
    const bool done = m_pTransport->setReceiveMode(mode);
    afterEvent();
    return done;
}

bool EUDPDriver::setWindowSize(std::uint32_t windowSize) {
    if (!answerGiven(m_pTransport->m_windowSem)) {
        return false;
    }
    const bool done = m_pTransport->setWindowSize(windowSize);
    afterEvent();
    return done;
}

bool EUDPDriver::disconnect() {
    m_pTransport->disconnect();
    return afterEvent();
}

bool EUDPDriver::advance(std::int64_t us) {
    const std::int64_t target = m_nowUs + std::max<std::int64_t>(us, 0);
    for (int expiry = 0; expiry < MAX_EXPIRIES; ++expiry) {
        // The earliest of the two timers and the sender's acknowledgement wait; a timer before the
        // sender at the same instant, the keep-alive timer before the final one.
        std::int64_t next = target + 1;
        int timer = -1;
        for (int i = 0; i < 2; ++i) {
            if (m_timers[i].bRunning && m_timers[i].dueUs < next) {
                next = m_timers[i].dueUs;
                timer = i;
            }
        }
        if (senderWaitsForAck() && senderAckDeadlineUs() + START_US < next) {
            next = senderAckDeadlineUs() + START_US;
            timer = -1;
        }
        if (next > target) {
            break;
        }
        m_nowUs = std::max(m_nowUs, next);
        if (timer >= 0) {
            fire(timer);
        }
        afterEvent();
    }
    m_nowUs = target;
    return afterEvent();
}

// As the timer service runs an expiry: the inline attempt first, then the callback itself.
void EUDPDriver::fire(int timer) {
    EUDPTransport& t = *m_pTransport;
    m_timers[timer].bRunning = false;
    if (timer == eAliveTimer) {
        t.closeOnSilence();
        return;
    }
    if (t.sendAliveWithoutWaiting()) {
        return;
    }
    // Declined: the ring is full, where onSendAliveTimer's sendData would wait for room.
    if (t.m_sendBuffer.isFull()) {
        m_bKeepAliveBlocked = true;
    } else {
        t.onSendAliveTimer();
    }
}

std::vector<EUDPDriver::Datagram> EUDPDriver::takeSent() {
    std::vector<Datagram> sent;
    sent.swap(m_sent);
    return sent;
}

// The wait the sender is in is the transport's: a giver may have moved it on without waking it.
bool EUDPDriver::senderWaitsForAck() const {
    if (!m_bSenderStarted || m_bSenderEnded ||
        !EUDPTransport::isSenderWait(static_cast<SenderStep>(m_senderStep))) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_pTransport->m_senderLock);
    const SenderStep wait = m_pTransport->m_senderWait;
    return wait == SenderStep::eWaitAckBeforePass || wait == SenderStep::eWaitAckAfterPass;
}

std::int64_t EUDPDriver::senderAckDeadlineUs() const {
    const std::int64_t start =
        std::chrono::duration_cast<std::chrono::microseconds>(m_pTransport->m_ackWaitStart.time_since_epoch())
            .count();
    return start + ACK_WAIT_US - START_US;
}

// ---- the threads' part --------------------------------------------------------------------------

// What the threads would do next without being told: the receiver ends once the link is over
// (waking the sender and a reader as it goes), a keep-alive waiting for room takes the room once
// it is given, and the sender runs up to its next wait.
bool EUDPDriver::afterEvent() {
    EUDPTransport& t = *m_pTransport;
    if (m_bReceiverStarted && !m_bReceiverEnded && t.m_bClosed.load()) {
        m_bReceiverEnded = true;
        t.leaveAdmission();
        t.m_sendWakeSem.give();
        t.m_receiveSem.give();
    }
    runSender();
    // The keep-alive's sendData wakes on the give of a freed slot and looks again: closed, it
    // refuses; still full, it waits again.
    if (m_bKeepAliveBlocked && t.m_sendSpaceSem.take(0) == 0 &&
        (!t.m_sendBuffer.isFull() || t.m_bClosed.load())) {
        m_bKeepAliveBlocked = false;
        t.sendData(nullptr, 0);
        runSender();
    }
    return !t.m_bClosed.load();
}

// The sender thread's loop (senderThread, waitAs) run in this thread: steps until it waits in a
// wait nobody has ended yet, where it stays until the next call. A give of m_sendWakeSem made
// meanwhile is taken as the sleeping thread would take it, and an acknowledgement wait whose 500 ms
// have passed on the driver's clock times out.
void EUDPDriver::runSender() {
    if (!m_bSenderStarted || m_bSenderEnded) {
        return;
    }
    EUDPTransport& t = *m_pTransport;
    SenderStep step = static_cast<SenderStep>(m_senderStep);
    for (int steps = 0; steps < MAX_SENDER_STEPS; ++steps) {
        if (EUDPTransport::isSenderWait(step)) {
            std::lock_guard<std::mutex> lock(t.m_senderLock);
            t.m_bSleepsUntimed = false;
            const bool bGiven = t.m_sendWakeSem.take(0) == 0;
            const SenderStep next = t.checkWaitLocked(bGiven);
            if (EUDPTransport::isSenderWait(next)) {
                t.m_bSleepsUntimed = next == SenderStep::eWaitData;
                m_senderStep = static_cast<int>(next);
                return;
            }
            step = next;
        }
        step = t.senderStep(step, false, t.m_pSocket.load());
        if (step == SenderStep::eExit) {
            m_bSenderEnded = true;
            t.m_bSenderActive.store(false);
            m_senderStep = static_cast<int>(step);
            return;
        }
        if (EUDPTransport::isSenderWait(step)) {
            std::lock_guard<std::mutex> lock(t.m_senderLock);
            step = t.beginWaitLocked(step);
        }
    }
    m_senderStep = static_cast<int>(step);
}
