// An impairment relay for EUDP: a UDP relay between EUDP clients and one EUDP server that drops,
// duplicates, reorders and delays datagrams with a seeded generator, so that a run can be repeated.
//
// Clients send to port(). For each client (told apart by address and port) the relay opens a
// socket of its own towards the server and follows the server's per-connection port: the CON goes
// to the server's listening port, the server answers from a port of its own, and from the first
// datagram that comes back from another port on, the client's datagrams go there. The client only
// ever sees the relay's port. Everything the server side sends back to a client's relay socket
// goes to that client.
//
// A mapping that carries nothing for `idleMs` is closed (EUDP keep-alives keep a live one busy);
// at most `maxClients` mappings exist at once, a datagram from a further client is dropped and
// counted as refused.
//
// Ownership and threads: start() runs one relay thread that owns every socket and all relay state;
// stop() (or the destructor) ends and joins it. counts() may be called from any thread.
#ifndef TARN_TOOLS_IMPAIR_RELAY_H
#define TARN_TOOLS_IMPAIR_RELAY_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace tarnrelay {

struct ImpairOptions {
    double loss = 0.0;          // probability, 0..1, that a datagram is dropped
    double duplicate = 0.0;     // probability that a forwarded datagram is sent twice
    double reorder = 0.0;       // probability that a datagram is held back behind the next one
    unsigned int delayMs = 0;   // every datagram is delayed this long ...
    unsigned int jitterMs = 0;  // ... plus or minus up to this much (never below 0)
    std::uint32_t seed = 1;
    // Disturb only the data path (CMD, ACK, NAK, NOP) of a connection whose server port is known;
    // the handshake, DIS and the negotiation pass untouched. Off: every datagram takes its chance.
    bool dataOnly = false;
    unsigned int reorderHoldMs = 20;  // a held datagram goes out after this even without a successor
    unsigned int idleMs = 60000;
    unsigned int maxClients = 4096;
};

struct RelayCounts {
    std::uint64_t received = 0;    // datagrams read from either side
    std::uint64_t forwarded = 0;   // datagrams sent on, extra copies and released held ones included
    std::uint64_t dropped = 0;     // lost on purpose
    std::uint64_t duplicated = 0;  // extra copies sent
    std::uint64_t reordered = 0;   // held back behind a later datagram
    std::uint64_t delayed = 0;     // sent later than they arrived (delay or jitter)
    std::uint64_t clients = 0;     // client mappings opened
    std::uint64_t refused = 0;     // datagrams of clients beyond maxClients
};

// "received 10, forwarded 9, dropped 1, ..." in the order of RelayCounts.
std::string describe(const RelayCounts& counts);

class Relay {
public:
    explicit Relay(const ImpairOptions& options);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Binds the client-facing socket (port 0: an ephemeral one) and resolves the server (IPv4
    // dotted address or host name). False with a reason in `error`.
    bool open(const std::string& listenAddress, std::uint16_t listenPort, const std::string& serverHost,
              std::uint16_t serverPort, std::string& error);
    std::uint16_t port() const { return m_port; }

    // Whether `host` resolves to an IPv4 address, as open() resolves both of its hosts.
    static bool resolves(const std::string& host);

    void start();
    void stop();
    RelayCounts counts() const;

private:
    struct State;
    void run();

    std::uint16_t m_port;
    std::unique_ptr<State> m_pState;
    std::atomic<bool> m_bStop;
    std::thread m_thread;
};

}  // namespace tarnrelay

#endif  // TARN_TOOLS_IMPAIR_RELAY_H
