// The floor for idle keep-alives: raw UDP socket pairs exchanging what the idle EUDP ends
// exchanged, with the least work a process can do for it. One thread sends each end's keep-alive
// when it is due (grouping those due within 1 ms, as the library's timers do) and one thread waits
// on an epoll set of every socket, reads each datagram and answers each keep-alive with an
// acknowledgement from the socket that received it. No ring, no lock, no protocol state: what the
// exchange costs in system calls and wake-ups alone.
//
// Everything runs on the calling thread and two threads of its own, which end before it returns.
#ifndef TARN_BENCH_IDLEFLOOR_H
#define TARN_BENCH_IDLEFLOOR_H

namespace bench {

struct IdleFloor {
    bool ran = false;
    int ends = 0;
    double keepAlivesPerSecond = 0;  // asked for, over all ends
    double datagramsPerSecond = 0;   // sent, keep-alives and acknowledgements
    double seconds = 0;
    double cpuPercent = 0;  // of one core, the whole process over the spell
};

// `pairs` socket pairs on 127.0.0.1; the keep-alives are spread evenly over the ends and the
// spell; CPU is measured over `seconds` after one second of warming up.
IdleFloor measureIdleFloor(int pairs, double keepAlivesPerSecond, double seconds);

}  // namespace bench

#endif  // TARN_BENCH_IDLEFLOOR_H
