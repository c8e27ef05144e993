// Hardened EUDP: an opt-in mode for ends that face peers they do not trust. Off by default; when
// off nothing changes. When on:
//  - a listening transport survives empty datagrams and receive errors and keeps accepting;
//  - a connected transport takes datagrams only from its peer's address and port (during connect,
//    only from the address it connects to), and drops everything else before any state changes;
//  - a WIN outside 1 to 999 is answered with the nearest bound;
//  - a listener bounds what connection requests can cost (the limits below);
//  - every drop is counted (tarnstatistics.h) and logged at most once per second per cause.
// A hardened end talks to a default end exactly as a default end does: nothing on the wire
// changes for a well-behaved peer. There is no authentication: whoever can send from the peer's
// address and port is the peer.
//
// A plain value; set it on a transport or listener before it connects or listens.
#ifndef TARN_EUDPHARDENING_H
#define TARN_EUDPHARDENING_H

#include <cstdint>

struct EUDPHardening {
    bool enabled = false;
    // Listener limits; 0 means no limit. Live connections are those whose link has not ended
    // (a link of a silent client ends about 10.5 s after its last datagram).
    std::uint32_t maxConnections = 1024;          // live, in all
    std::uint32_t maxPerSource = 64;              // live, per source address
    std::uint32_t maxNewPerSecondPerSource = 20;  // accepted within any one second, per address

    static EUDPHardening on() {
        EUDPHardening hardening;
        hardening.enabled = true;
        return hardening;
    }
};

#endif  // TARN_EUDPHARDENING_H
