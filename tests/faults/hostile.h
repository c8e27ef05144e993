// Hostile input against a live TCP server and a live EUDP listener with an established connection:
// seeded random and mutated frames and datagrams (short frames, wrong lengths, unknown commands,
// unterminated names, bad value tags, huge counts, DIS, NAK, WIN 0 and empty datagrams from
// strangers), aimed at the listening ports and at both ends of the established EUDP connection,
// while well-behaved clients keep working. An EUDP connection that a stranger closed or stalled
// (DIS, an empty datagram, WIN 0: all part of the protocol) is reconnected, as an application would.
//
// Threads: two attacker threads, two well-behaved client threads, and the caller's, which reaps
// ended server connections and samples memory.
#ifndef TARN_TESTS_FAULTS_HOSTILE_H
#define TARN_TESTS_FAULTS_HOSTILE_H

#include <cstdint>
#include <string>
#include <vector>

#include <tarnstatistics.h>

namespace faults {

struct HostileReport {
    std::uint64_t datagramsSent = 0;        // hostile EUDP datagrams
    std::uint64_t framesSent = 0;           // hostile TCP frames
    std::uint64_t tcpStreams = 0;           // raw TCP connections opened by the attacker
    int tcpCalls = 0;                       // well-behaved TCP calls sent
    std::vector<int> tcpReceived;           // what the TCP server got from the well-behaved client
    int tcpDisconnects = 0;                 // of the well-behaved TCP client
    int eudpDelivered = 0;                  // well-behaved EUDP calls that reached the server
    int eudpGenerations = 0;                // EUDP connections the well-behaved client made
    int eudpClosedByStrangers = 0;          // generations that ended with eDisconnected
    int eudpStalls = 0;                     // generations given up after 3 s without progress
    std::string eudpOrderError;             // first generation whose stream was not increasing
    std::vector<long> residentKb;           // sampled every half second
    std::size_t mostServerConnections = 0;  // live accepted connections, largest seen
    std::uint64_t warnings = 0;             // log lines the library wrote (counted, not kept)
    std::uint64_t errors = 0;
    bool servingAfterwards = false;       // a fresh EUDP client connected once the run was over
    TARNListenerStatistics eudpListener;  // the EUDP listener's figures at the end
};

// With `hardened`, the EUDP server and the well-behaved EUDP client run in hardened mode, and empty
// datagrams go to the listening port too.
HostileReport runHostile(int seconds, std::uint32_t seed, bool hardened = false);

std::string describe(const HostileReport& report);

}  // namespace faults

#endif  // TARN_TESTS_FAULTS_HOSTILE_H
