// An in-process UDP relay between EUDP clients and an EUDP server that drops, duplicates and
// reorders datagrams with a seeded generator, so that runs can be repeated exactly. A thin face
// over the impairment relay that `tarn impair` runs (tools/impair/relay.h).
//
// Clients connect to port(). For each client the relay opens a socket of its own towards the
// server and follows the server's per-connection port: the CON goes to the listening port, and
// once the server answers from its new port, the client's later datagrams go there. The client
// itself only ever sees the relay's port.
//
// Only the data path is disturbed (CMD, ACK, NAK, NOP): the handshake, DIS and the negotiation
// datagrams are never resent by the protocol, so losing them would only test time-outs.
//
// Threads: one relay thread; the statistics may be read from any thread.
#ifndef TARN_TESTS_EUDP_LOSSYLINK_H
#define TARN_TESTS_EUDP_LOSSYLINK_H

#include <cstdint>

#include "relay.h"

namespace eudptest {

class LossyLink {
public:
    struct Options {
        std::uint32_t seed = 1;
        double drop = 0.0;       // probability that a datagram is lost
        double duplicate = 0.0;  // probability that it is delivered twice
        double reorder = 0.0;    // probability that it is held back behind the next one
    };

    LossyLink(std::uint16_t serverPort, const Options& options);
    ~LossyLink() = default;
    LossyLink(const LossyLink&) = delete;
    LossyLink& operator=(const LossyLink&) = delete;

    std::uint16_t port() const { return m_relay.port(); }

    std::uint64_t forwarded() const { return m_relay.counts().forwarded; }
    std::uint64_t dropped() const { return m_relay.counts().dropped; }
    std::uint64_t duplicated() const { return m_relay.counts().duplicated; }
    std::uint64_t reordered() const { return m_relay.counts().reordered; }

private:
    static tarnrelay::ImpairOptions impairOptions(const Options& options);

    tarnrelay::Relay m_relay;
};

}  // namespace eudptest

#endif  // TARN_TESTS_EUDP_LOSSYLINK_H
