// What an EUDP transport's decisions need of the world outside it: datagrams out, the time, and its
// two liveness timers. Every transport reaches them through one EUDPLink; by default the system's
// (the transport's own socket, the monotonic clock, sal::Timer). A driven transport (eudpdriver.h)
// gets another, which records the datagrams and keeps a clock and timers of its own.
//
// Threads: the system's link keeps nothing and may be called from every thread at once, as the
// socket and the timers may. Another link serves a transport whose threads it runs itself.
#ifndef TARN_EUDPLINK_H
#define TARN_EUDPLINK_H

#include <chrono>

#include <sal/hostaddress.h>
#include <sal/timer.h>
#include <sal/types.h>
#include <sal/udpsocket.h>

class EUDPLink {
public:
    using Clock = std::chrono::steady_clock;

    virtual ~EUDPLink();

    // One datagram to address:port from `socket`, as sal::UdpSocket::sendTo sends it; the same
    // result.
    virtual int sendTo(sal::UdpSocket& socket, const void* data, int length, const sal::HostAddress& address,
                       uint16 port) = 0;
    // Several datagrams to one destination in order, as sal::UdpSocket::sendBatchTo sends them.
    virtual int sendBatchTo(sal::UdpSocket& socket, const sal::UdpSocket::OutgoingDatagram* datagrams,
                            int count, const sal::HostAddress& address, uint16 port) = 0;

    virtual Clock::time_point now() = 0;

    // One of the transport's two timers, started one-shot, stopped, and asked whether it runs, as
    // sal::Timer does it: a start while it runs changes nothing.
    virtual bool startTimer(sal::Timer& timer, unsigned int periodUs) = 0;
    virtual void stopTimer(sal::Timer& timer) = 0;
    virtual bool isTimerRunning(const sal::Timer& timer) = 0;

    // The system's link: every transport's unless it is driven.
    static EUDPLink& system();
};

#endif  // TARN_EUDPLINK_H
