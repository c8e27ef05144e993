// The TCP transport: each message is framed on the stream as a 2-byte little-endian length
// followed by that many bytes. One delivery mode (reliable), no window.
//
// Owns its sal::TcpSocket. Threads: one receiver and any number of senders at once (each message
// is written whole under the send mutex; receives hold the receive mutex); disconnect() from any
// thread wakes a blocked receive or accept.
#ifndef TARN_TCPTRANSPORT_H
#define TARN_TCPTRANSPORT_H

#include <atomic>
#include <cstdint>

#include <itarntransport.h>
#include <sal/semaphore.h>
#include <sal/tcpsocket.h>
#include <tarn_export.h>
#include <tarnstatistics.h>

// The TCP transport (see the top of this file). TARNConnection(eTransportTCP) and the listener create
// it; applications rarely need it by name.
class TARN_EXPORT TCPTransport : public ITARNTransport {
public:
    TCPTransport();  // a new socket with no-delay and keep-alive
    ~TCPTransport() override;
    TCPTransport(const TCPTransport&) = delete;
    TCPTransport& operator=(const TCPTransport&) = delete;

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

    // Frames and bytes each way and oversize frames refused (tarnstatistics.h); any thread.
    TCPStatistics getStatistics() const;

private:
    friend class TCPTransportTest;

    // Adopts a socket that accept() got (may be null), with no-delay.
    explicit TCPTransport(sal::TcpSocket* socket);

    sal::TcpSocket* m_pSocket;
    std::atomic<bool> m_bClosed;  // set by disconnect() on any thread, polled by the receiver
    sal::MutexSemaphore m_receiveMutex;
    sal::MutexSemaphore m_sendMutex;

    // Statistics: the send side is written under m_sendMutex, the receive side under
    // m_receiveMutex; relaxed atomics so that any thread may read them.
    std::atomic<std::uint64_t> m_framesSent{0};
    std::atomic<std::uint64_t> m_bytesSent{0};
    std::atomic<std::uint64_t> m_framesReceived{0};
    std::atomic<std::uint64_t> m_bytesReceived{0};
    std::atomic<std::uint64_t> m_oversizeRefused{0};
};

#endif  // TARN_TCPTRANSPORT_H
