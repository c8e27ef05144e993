// EUDP transport: first compiling cut; the real bodies follow.
#include <eudptransport.h>

using Corvane::Utilities::Logging::LogManager;

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
    m_value.store(value % MODULUS, std::memory_order_relaxed);
    m_modulus.store(MODULUS, std::memory_order_relaxed);
}
void ModuloValue::advance() {
    m_value.store((getValue() + 1) % getModulus(), std::memory_order_relaxed);
}
std::int32_t ModuloValue::distance(std::int32_t a, std::int32_t b) {
    std::int32_t d = a - b;
    if (d < -32767) {
        d += 65535;
    } else if (d > 32767) {
        d -= 65535;
    }
    return d;
}

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

EUDPTransport::EUDPTransport()
    : m_pSocket(nullptr),
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
      m_log(LogManager::getInstance().getCategory("TARN")) {
    m_pSocket = new sal::UdpSocket;
    m_sender.m_pTransport = this;
    m_receiver.m_pTransport = this;
}

EUDPTransport::EUDPTransport(const sal::HostAddress& address, unsigned short port) : EUDPTransport() {
    m_peerAddress = address;
    m_peerPort = port;
    m_logId = port;
}

EUDPTransport::~EUDPTransport() {
    sal::UdpSocket* pSocket = m_pSocket.load();
    if (pSocket != nullptr && !m_bClosed) {
        pSocket->close();
    }
    m_sender.shutdown(-1);
    m_receiver.shutdown(-1);
    delete pSocket;
}

bool EUDPTransport::setWindowSize(uint) {
    return false;
}
bool EUDPTransport::listen(const sal::HostAddress& address, uint16 port) {
    return m_pSocket.load()->bind(address, port);
}
ITARNTransport* EUDPTransport::accept() {
    return nullptr;
}
void EUDPTransport::allowSendMode(bool, bool) {}
void EUDPTransport::allowReceiveMode(bool, bool) {}
bool EUDPTransport::setSendMode(EConnMode) {
    return false;
}
bool EUDPTransport::setReceiveMode(EConnMode) {
    return false;
}
bool EUDPTransport::connect(const sal::HostAddress&, uint16) {
    return false;
}
void EUDPTransport::disconnect() {
    if (!m_bClosed) {
        m_pSocket.load()->close();
        m_bClosed = true;
    }
}
bool EUDPTransport::sendData(const uint8*, uint) {
    return false;
}
int EUDPTransport::receiveData(uint8*, uint) {
    return 0;
}
sal::HostAddress EUDPTransport::getPeerAddress() const {
    return m_peerAddress;
}
uint16 EUDPTransport::getPeerPort() const {
    return m_peerPort;
}
uint16 EUDPTransport::getLocalPort() const {
    sal::UdpSocket* pSocket = m_pSocket.load();
    return pSocket != nullptr ? pSocket->getLocalPort() : 0;
}
bool EUDPTransport::sendPacket(EEUDPCommand, std::uint32_t, uint16) {
    return false;
}
void EUDPTransport::initTimers(unsigned int) {}
void EUDPTransport::resetTimers() {}
void EUDPTransport::onSendAliveTimer() {}
void EUDPTransport::onAliveTimer() {}
void EUDPTransport::senderThread() {}
void EUDPTransport::receiverThread() {}
