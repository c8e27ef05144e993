// Runs one EUDPTransport without threads, sockets or real time, for tests and fuzzing. What the
// transport sends is recorded instead of sent; the time is a clock that only advance() moves; its
// two liveness timers are the driver's and fire as advance() passes their expiry; and its sender's
// loop runs in the caller's thread after every event, as far as that thread would run before it
// waits. The decisions are the transport's own: the same datagram handling, send window, resend and
// keep-alive code runs as with threads.
//
// Where the real thing would block, the driver does not: sendData on a full ring and receiveData
// with nothing to take are refused instead, and a keep-alive that would wait for room in a full
// ring waits until room is given. The negotiation requests only take an answer that is already
// there (their 10 s wait is not driven).
//
// Internal to the library and its tests; one thread at a time, the caller's.
#ifndef TARN_EUDPDRIVER_H
#define TARN_EUDPDRIVER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <eudppacket.h>
#include <eudptransport.h>
#include <tarn_export.h>

class TARN_EXPORT EUDPDriver {
public:
    struct Datagram {
        std::vector<std::uint8_t> bytes;
        sal::HostAddress address;
        std::uint16_t port;
    };
    enum ETimer { eSendAliveTimer, eAliveTimer };

    // The peer of every driven transport.
    static const char* const PEER_ADDRESS;  // "127.0.0.1"

    EUDPDriver();
    ~EUDPDriver();
    EUDPDriver(const EUDPDriver&) = delete;
    EUDPDriver& operator=(const EUDPDriver&) = delete;

    EUDPTransport& transport() { return *m_pTransport; }

    // Set-up, one of the two, before any event (the transport's allow...Mode and setHardening
    // before it). As accept() makes a transport for a CON carrying `conValue` from the peer's
    // `clientPort`: the ACK goes out, the receiver and the sender run, a keep-alive follows a quiet
    // 0.5 s.
    void accept(std::uint16_t clientPort, std::uint32_t conValue);
    // As connect() begins from local port `localPort` (the log id): CON to the peer's `serverPort`,
    // and the receiver runs. finishConnect() is connect()'s end once the answer has come: false
    // (nothing more done) when no ACK came or it carried another number than the CON's; otherwise
    // the sender runs and a keep-alive follows a quiet second.
    void beginConnect(std::uint16_t localPort, std::uint16_t serverPort);
    bool finishConnect();
    // Before the set-up: the transport numbers its next data datagram `next`, as if every number
    // before it had been sent and acknowledged.
    void startNumbersAt(std::int32_t next);
    // Switches keep-alive supervision off, so that no keep-alive takes a number in the middle of
    // what a test counts: both timers stop, and with a period of 0 nothing arms them again.
    void quietTimers();

    // Events. After each the sender runs as far as it goes without waiting, and once the link is
    // over the receiver ends. Each answers whether the link is still open.
    // A datagram from the peer's address and `fromPort` (0: the peer's port; the answer to CON
    // names the port it comes from), as one receive of at most 1500 bytes hands it over.
    bool receive(const std::uint8_t* data, std::size_t length, std::uint16_t fromPort = 0);
    bool receiveFrom(const std::uint8_t* data, std::size_t length, const sal::HostAddress& from,
                     std::uint16_t fromPort);
    // A receive that failed (-1) or took an empty datagram (0) from the peer.
    bool receiveFailure(int received);
    // sendData; false without calling it when the ring is full.
    bool sendData(const std::uint8_t* data, std::uint32_t length);
    // receiveData; -2 without calling it when it would wait.
    int receiveData(std::uint8_t* buffer, std::uint32_t size);
    // The requests of the negotiation, made only when the answer is there already (false
    // otherwise, nothing sent).
    bool setSendMode(EConnMode mode);
    bool setReceiveMode(EConnMode mode);
    bool setWindowSize(std::uint32_t windowSize);
    bool disconnect();
    // Moves the clock on by `us`, firing the timers and ending the sender's acknowledgement waits in
    // the order they come due.
    bool advance(std::int64_t us);
    bool advanceMs(std::int64_t ms) { return advance(ms * 1000); }

    // What was sent since the last call, in order.
    std::vector<Datagram> takeSent();
    std::size_t sentCount() const { return m_sent.size(); }
    // Microseconds since the driver was made.
    std::int64_t elapsedUs() const { return m_nowUs - START_US; }
    bool isTimerRunning(ETimer timer) const { return m_timers[timer].bRunning; }
    // When the timer comes due, in microseconds since the driver was made (running timers only).
    std::int64_t timerDueUs(ETimer timer) const { return m_timers[timer].dueUs - START_US; }
    // Whether the sender waits for an acknowledgement, and until when (as timerDueUs).
    bool senderWaitsForAck() const;
    std::int64_t senderAckDeadlineUs() const;
    bool senderEnded() const { return m_bSenderEnded; }
    bool receiverEnded() const { return m_bReceiverEnded; }
    bool keepAliveWaitsForRoom() const { return m_bKeepAliveBlocked; }

private:
    class Link;
    using SenderStep = EUDPTransport::SenderStep;
    struct FakeTimer {
        bool bRunning = false;
        std::int64_t dueUs = 0;
    };
    static const std::int64_t START_US = 1000000000;  // a clock that starts far from its epoch
    static const std::int64_t ACK_WAIT_US = 500000;

    // The link's side (Link forwards to these).
    int record(sal::UdpSocket& socket, const void* data, int length, const sal::HostAddress& address,
               std::uint16_t port);
    int timerIndex(const sal::Timer& timer) const;
    bool startTimer(const sal::Timer& timer, unsigned int periodUs);

    void startSender();
    void runSender();
    void fire(int timer);
    bool afterEvent();
    bool answerGiven(sal::BinarySemaphore& semaphore);

    std::unique_ptr<Link> m_pLink;
    std::unique_ptr<EUDPTransport> m_pTransport;
    std::unique_ptr<EUDPPacket> m_pPacket;  // reused for every datagram, as the receiver's own
    std::vector<Datagram> m_sent;
    std::int64_t m_nowUs;
    FakeTimer m_timers[2];
    int m_senderStep;  // EUDPTransport::SenderStep where the sender's loop stands
    bool m_bSenderStarted;
    bool m_bSenderEnded;
    bool m_bReceiverStarted;
    bool m_bReceiverEnded;
    bool m_bKeepAliveBlocked;
};

#endif  // TARN_EUDPDRIVER_H
