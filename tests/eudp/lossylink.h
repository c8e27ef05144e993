// An in-process UDP relay between EUDP clients and an EUDP server that drops, duplicates and
// reorders datagrams with a seeded generator, so that runs can be repeated exactly.
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

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

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
    ~LossyLink();
    LossyLink(const LossyLink&) = delete;
    LossyLink& operator=(const LossyLink&) = delete;

    std::uint16_t port() const { return m_port; }

    std::uint64_t forwarded() const { return m_forwarded.load(); }
    std::uint64_t dropped() const { return m_dropped.load(); }
    std::uint64_t duplicated() const { return m_duplicated.load(); }
    std::uint64_t reordered() const { return m_reordered.load(); }

private:
    struct State;
    void run();

    std::uint16_t m_port;
    std::unique_ptr<State> m_pState;
    std::atomic<bool> m_bStop;
    std::atomic<std::uint64_t> m_forwarded;
    std::atomic<std::uint64_t> m_dropped;
    std::atomic<std::uint64_t> m_duplicated;
    std::atomic<std::uint64_t> m_reordered;
    std::thread m_thread;
};

}  // namespace eudptest

#endif  // TARN_TESTS_EUDP_LOSSYLINK_H
