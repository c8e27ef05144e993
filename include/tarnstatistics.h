// What a link and a listener have done so far, for operators: plain values, copied out of the
// library by the getStatistics() accessors of EUDPTransport, TCPTransport, TARNConnection and
// TARNListener.
//
// Counters start at 0 when the object is created and only grow; the "now" fields are read at the
// moment of the call. A snapshot is taken from relaxed atomic counters without stopping the link,
// so figures that move together (a datagram and its bytes) may be one apart in a snapshot taken
// while traffic flows. Any thread may ask at any time; asking costs no lock on the data path.
#ifndef TARN_TARNSTATISTICS_H
#define TARN_TARNSTATISTICS_H

#include <cstdint>

#include <itarntransport.h>

// Datagram kinds of EUDP, indexed by EEUDPCommand (NOP 0 ... WAK 9).
const unsigned int EUDP_COMMAND_KINDS = 10;

// Why a hardened EUDP connection dropped or changed what it received (EUDPStatistics::hardened).
enum EEUDPHardenedCause {
    eHardenedForeignSource = 0,  // from another address or port than the peer's
    eHardenedEmptyDatagram = 1,  // an empty datagram, which would have closed the connection
    eHardenedReceiveError = 2,   // a receive error on a socket that is still open
    eHardenedWindowClamped = 3,  // a WIN outside 1 to 999, answered with the nearest bound
    EUDP_HARDENED_CAUSES = 4
};

struct EUDPStatistics {
    bool hardened = false;

    // Datagrams and payload bytes (after the 8-byte header) by command, as handed to the socket
    // and as received valid from it. Resends are counted again; keep-alives are empty CMDs.
    std::uint64_t sentDatagrams[EUDP_COMMAND_KINDS] = {};
    std::uint64_t sentPayloadBytes[EUDP_COMMAND_KINDS] = {};
    std::uint64_t receivedDatagrams[EUDP_COMMAND_KINDS] = {};
    std::uint64_t receivedPayloadBytes[EUDP_COMMAND_KINDS] = {};
    std::uint64_t invalidReceived = 0;  // failed validation, dropped

    std::uint64_t dataResent = 0;    // CMDs sent again after a NAK or a time-out (go-back)
    std::uint64_t naksSent = 0;      // sentDatagrams[NAK], for convenience
    std::uint64_t naksReceived = 0;  // receivedDatagrams[NAK], for convenience

    // Realtime receiving skips gaps: how often, and how many numbers were passed over.
    std::uint64_t realtimeGapsSkipped = 0;
    std::uint64_t realtimeDatagramsSkipped = 0;
    // A CMD older than the one expected is dropped (and acknowledged): "late" in realtime receive
    // mode, where it is one that a skipped gap left behind, "duplicate" in reliable mode.
    std::uint64_t lateDropped = 0;
    std::uint64_t duplicatesDropped = 0;
    std::uint64_t receiveRingFullDropped = 0;  // the application did not read fast enough

    // Hardened mode only, by EEUDPHardenedCause.
    std::uint64_t hardenedDropped[EUDP_HARDENED_CAUSES] = {};

    // Now.
    std::uint32_t sendRingOccupancy = 0;  // data datagrams queued or waiting for their ACK
    std::uint32_t unacknowledged = 0;     // sent in reliable mode, not yet acknowledged
    EConnMode sendMode = eRealtime;
    EConnMode receiveMode = eRealtime;
    std::uint32_t windowSize = 0;
    // Smoothed round trip (1/8 weight per sample) from a reliable CMD's first sending to the ACK
    // that covers it, in microseconds; -1 before the first sample. Resent datagrams give none.
    std::int64_t smoothedRttMicros = -1;
    // Milliseconds since the last valid datagram from the peer (within a few milliseconds); -1
    // when none has come yet.
    std::int64_t millisSincePeerHeard = -1;
};

struct TCPStatistics {
    std::uint64_t framesSent = 0;
    std::uint64_t bytesSent = 0;  // framing included (2 bytes per frame)
    std::uint64_t framesReceived = 0;
    std::uint64_t bytesReceived = 0;    // framing included
    std::uint64_t oversizeRefused = 0;  // frames longer than the receiver's buffer (left unread)
};

// A TARNConnection's transport, whichever kind it is: `transport` tells which of the two parts is
// filled; the other stays all zero.
struct TARNConnectionStatistics {
    ETransport transport = eTransportTCP;
    EUDPStatistics eudp;
    TCPStatistics tcp;
};

// Why a listener refused a connection request (TARNListenerStatistics::refused).
enum EListenerRefusal {
    eRefusedTotalLimit = 0,      // the listener already has its maximum of live connections
    eRefusedPerSourceLimit = 1,  // the source address already has its maximum
    eRefusedRateLimit = 2,       // the source address opened its maximum within the last second
    LISTENER_REFUSAL_CAUSES = 3
};

struct TARNListenerStatistics {
    bool hardened = false;
    std::uint64_t accepted = 0;  // connections handed to the application
    // EUDP: accepted connections whose link has not ended yet (TCP: 0, not tracked).
    std::uint32_t live = 0;
    std::uint64_t refused[LISTENER_REFUSAL_CAUSES] = {};  // hardened EUDP only
    // What the EUDP listening socket received besides CONs.
    std::uint64_t invalidReceived = 0;
    std::uint64_t nonConReceived = 0;
    std::uint64_t emptyReceived = 0;  // hardened: survived; otherwise the listener stopped
    std::uint64_t receiveErrors = 0;  // hardened: survived; otherwise the listener stopped
};

#endif  // TARN_TARNSTATISTICS_H
