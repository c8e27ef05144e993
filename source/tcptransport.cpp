// The TCP transport: 2-byte little-endian length framing over one sal::TcpSocket.
//
// The receive path relies on sal::TcpSocket::receive returning the full count it was asked for
// whenever the data is there (it waits for exactly that many bytes); a body that does not arrive in
// one receive call is dropped and the next frame is looked for.
#include <tcptransport.h>

#include <sal/assert.h>

#include "byteorder.h"

namespace {

// Assertion lines name this unit by this fixed path, and the functions by these signatures.
const char* const kUnit = "source/tcptransport.cpp";

// Holds a sal mutex for the life of a scope.
class MutexHold {
public:
    explicit MutexHold(sal::MutexSemaphore& mutex) : m_mutex(mutex) { m_mutex.take(); }
    ~MutexHold() { m_mutex.give(); }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;

private:
    sal::MutexSemaphore& m_mutex;
};

}  // namespace

TCPTransport::TCPTransport() : m_pSocket(new sal::TcpSocket()), m_bClosed(false) {
    m_pSocket->setNoDelay(true);
    m_pSocket->setKeepAlive();
}

// Keep-alive stays off for adopted sockets: only sockets this transport opens itself ask for it.
TCPTransport::TCPTransport(sal::TcpSocket* socket) : m_pSocket(socket), m_bClosed(false) {
    if (m_pSocket != nullptr) {
        m_pSocket->setNoDelay(true);
    }
}

TCPTransport::~TCPTransport() {
    if (m_pSocket != nullptr && !m_bClosed.load()) {
        m_pSocket->close();
    }
    // Closing wakes a receive or send still blocked on the socket. Passing through both mutexes once
    // waits until such a call has left the transport, so the socket is never deleted under it.
    m_receiveMutex.take();
    m_receiveMutex.give();
    m_sendMutex.take();
    m_sendMutex.give();
    delete m_pSocket;
    m_pSocket = nullptr;
}

bool TCPTransport::setWindowSize(uint /*windowSize*/) {
    return false;
}

bool TCPTransport::listen(const sal::HostAddress& address, uint16 port) {
    SAL_ASSERT_AT(m_pSocket, kUnit, 44, "virtual bool TCPTransport::listen(const sal::HostAddress&, uint16)");
    if (!m_pSocket->bind(address, port)) {
        return false;
    }
    return m_pSocket->listen(5);
}

ITARNTransport* TCPTransport::accept() {
    if (m_bClosed.load()) {
        return nullptr;
    }
    // A transport without a socket (itself the product of a failed accept) has nothing to accept
    // on; it answers like a failed accept, with another transport without a socket.
    sal::TcpSocket* accepted = (m_pSocket != nullptr) ? m_pSocket->accept() : nullptr;
    return new TCPTransport(accepted);
}

void TCPTransport::allowSendMode(bool /*realtime*/, bool /*reliable*/) {}

void TCPTransport::allowReceiveMode(bool /*realtime*/, bool /*reliable*/) {}

bool TCPTransport::setSendMode(EConnMode mode) {
    return mode == eReliable;
}

bool TCPTransport::setReceiveMode(EConnMode mode) {
    return mode == eReliable;
}

bool TCPTransport::connect(const sal::HostAddress& address, uint16 port) {
    SAL_ASSERT_AT(m_pSocket, kUnit, 69,
                  "virtual bool TCPTransport::connect(const sal::HostAddress&, uint16)");
    if (m_bClosed.load()) {
        // A reconnected socket gets no-delay only, no keep-alive.
        delete m_pSocket;
        m_pSocket = new sal::TcpSocket();
        m_pSocket->setNoDelay(true);
        m_bClosed.store(false);
    }
    return m_pSocket->connect(address, port);
}

void TCPTransport::disconnect() {
    SAL_ASSERT_AT(m_pSocket, kUnit, 85, "virtual void TCPTransport::disconnect()");
    // The flag goes up before the close, so a receiver woken by the close already sees it.
    if (!m_bClosed.exchange(true)) {
        m_pSocket->close();
    }
}

bool TCPTransport::sendData(const uint8* data, uint length) {
    SAL_ASSERT_AT(m_pSocket, kUnit, 99, "virtual bool TCPTransport::sendData(const uint8*, uint)");
    // The length field is 16 bits wide: a longer message goes out cut to its low 16 bits' worth.
    const uint16 length16 = static_cast<uint16>(length);
    uint8 header[2];
    tarn::storeLe16(header, length16);

    MutexHold hold(m_sendMutex);
    if (m_pSocket->send(header, 2) != 2) {
        return false;
    }
    if (m_pSocket->send(data, length16) != static_cast<int>(length16)) {
        return false;
    }
    m_framesSent.fetch_add(1, std::memory_order_relaxed);
    m_bytesSent.fetch_add(2u + length16, std::memory_order_relaxed);
    return true;
}

int TCPTransport::receiveData(uint8* buffer, uint bufferSize) {
    SAL_ASSERT_AT(m_pSocket, kUnit, 118, "virtual int TCPTransport::receiveData(uint8*, uint)");
    // The length bytes live across frames: a 1-byte length read keeps the other byte as it was.
    uint8 lengthBytes[2] = {0, 0};

    MutexHold hold(m_receiveMutex);
    if (m_bClosed.load()) {
        return 0;
    }
    for (;;) {
        const int lengthRead = m_pSocket->receive(lengthBytes, 2);
        if (lengthRead <= 0) {
            return lengthRead;
        }
        // A read of 1 byte is taken as a whole length; no second read is made for the other byte.
        const uint16 length = tarn::loadLe16(lengthBytes);
        if (length > bufferSize) {
            m_oversizeRefused.fetch_add(1, std::memory_order_relaxed);
            return -1;  // the frame stays unread on the stream
        }

        int received = 0;
        int r = 0;
        for (;;) {
            r = m_pSocket->receive(buffer + received, static_cast<int>(length) - received);
            if (r <= 0 || static_cast<int>(length) == received) {
                break;
            }
            received += r;
            // Only a body that one receive call delivered whole counts as a message.
            if (r == static_cast<int>(length)) {
                m_framesReceived.fetch_add(1, std::memory_order_relaxed);
                m_bytesReceived.fetch_add(2u + length, std::memory_order_relaxed);
                return static_cast<int>(length);
            }
        }
        // The body failed or came in pieces: it is dropped. Closed, the last read is the answer;
        // open, the next frame is looked for.
        if (m_bClosed.load()) {
            return r;
        }
    }
}

TCPStatistics TCPTransport::getStatistics() const {
    TCPStatistics out;
    out.framesSent = m_framesSent.load(std::memory_order_relaxed);
    out.bytesSent = m_bytesSent.load(std::memory_order_relaxed);
    out.framesReceived = m_framesReceived.load(std::memory_order_relaxed);
    out.bytesReceived = m_bytesReceived.load(std::memory_order_relaxed);
    out.oversizeRefused = m_oversizeRefused.load(std::memory_order_relaxed);
    return out;
}

sal::HostAddress TCPTransport::getPeerAddress() const {
    sal::HostAddress address;
    if (m_pSocket != nullptr) {
        uint16 port = 0;
        m_pSocket->getPeerName(address, port);
    }
    return address;
}

uint16 TCPTransport::getPeerPort() const {
    uint16 port = 0;
    if (m_pSocket != nullptr) {
        sal::HostAddress scratch;
        m_pSocket->getPeerName(scratch, port);
    }
    return port;
}

uint16 TCPTransport::getLocalPort() const {
    return (m_pSocket != nullptr) ? m_pSocket->getLocalPort() : 0;
}
