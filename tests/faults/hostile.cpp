#include "hostile.h"

#include <atomic>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include <logging/logging.h>
#include <sal/thread.h>

#include "faultsupport.h"
#include "testsupport.h"

namespace faults {

using testsupport::Bytes;
using testsupport::nowMs;
using testsupport::waitUntil;
namespace Log = Corvane::Utilities::Logging;

namespace {

const char* const kCommands[] = {"NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK"};

class Generator {
public:
    explicit Generator(std::uint32_t seed) : m_random(seed) {}

    int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(m_random); }
    bool chance(int percent) { return below(100) < percent; }
    std::uint8_t byte() { return static_cast<std::uint8_t>(below(256)); }
    std::uint32_t word() { return static_cast<std::uint32_t>(m_random()); }

    Bytes junk(int most) {
        Bytes bytes(static_cast<std::size_t>(below(most + 1)));
        for (std::uint8_t& b : bytes) {
            b = byte();
        }
        return bytes;
    }

    // A TARN packet, well formed or broken in one of the ways a hostile peer would try.
    Bytes tarnPacket() {
        static const char kLetters[] = {'F', 'S', 'T', 'U', 'X', 'A', 'G', 'V', 0};
        Bytes body;
        const std::string name = chance(50) ? "zz" : std::string(static_cast<std::size_t>(below(40)), 'n');
        body.insert(body.end(), name.begin(), name.end());
        if (!chance(10)) {
            body.push_back(0);  // else: an unterminated name
        }
        switch (below(5)) {
            case 0:  // a value with a good or a bad tag
                body.push_back(chance(70) ? static_cast<std::uint8_t>("SIBFN"[below(5)]) : byte());
                for (int i = 0; i < 4; ++i) {
                    body.push_back(byte());
                }
                break;
            case 1:  // a parameter list with a huge (negative when signed) or an honest count
                body.push_back(chance(50) ? static_cast<std::uint8_t>(0x80 + below(128)) : byte());
                for (int i = below(6); i > 0; --i) {
                    body.push_back('p');
                    body.push_back(0);
                    body.push_back('I');
                    for (int j = 0; j < 4; ++j) {
                        body.push_back(byte());
                    }
                }
                break;
            case 2: {
                const Bytes tail = junk(64);
                body.insert(body.end(), tail.begin(), tail.end());
                break;
            }
            default:
                break;
        }
        Bytes packet{1, static_cast<std::uint8_t>(kLetters[below(9)]), 0, 0};
        std::uint16_t length = static_cast<std::uint16_t>(body.size());
        if (chance(20)) {
            length = static_cast<std::uint16_t>(word());  // a length that disagrees
        }
        packet[2] = static_cast<std::uint8_t>(length & 0xFF);
        packet[3] = static_cast<std::uint8_t>(length >> 8);
        if (chance(5)) {
            packet[0] = byte();  // wrong version
        }
        packet.insert(packet.end(), body.begin(), body.end());
        if (chance(15)) {
            packet.resize(static_cast<std::size_t>(below(static_cast<int>(packet.size()) + 1)));  // cut short
        }
        for (int flips = chance(30) ? below(4) : 0; flips > 0 && !packet.empty(); --flips) {
            packet[static_cast<std::size_t>(below(static_cast<int>(packet.size())))] = byte();
        }
        return packet;
    }

    // A TCP stream chunk: usually framed packets, sometimes frames that lie about their size.
    Bytes tcpChunk() {
        const int kind = below(10);
        if (kind == 0) {
            return junk(40);  // unframed bytes
        }
        Bytes packet = kind == 1 ? junk(8) : tarnPacket();
        std::uint16_t length = static_cast<std::uint16_t>(packet.size());
        if (kind == 2) {
            length = static_cast<std::uint16_t>(1493 + below(64000));  // longer than the receive buffer
        }
        Bytes frame{static_cast<std::uint8_t>(length & 0xFF), static_cast<std::uint8_t>(length >> 8)};
        frame.insert(frame.end(), packet.begin(), packet.end());
        return frame;
    }

    // An EUDP datagram. `fatal` allows the ones that end or stall a connection by design.
    Bytes datagram(bool fatal, bool connectRequest) {
        if (connectRequest) {
            return testsupport::eudpDatagram("CON", word());
        }
        const int kind = below(20);
        if (kind == 0) {
            return junk(7);  // too short, wrong version, or (when fatal is allowed) empty
        }
        if (kind == 1) {
            Bytes bytes = junk(30);
            if (!bytes.empty()) {
                bytes[0] = 1;  // the right version, unknown letters
            }
            return bytes;
        }
        const char* command = kCommands[below(10)];
        while (!fatal && (std::string(command) == "DIS" || std::string(command) == "WIN" ||
                          std::string(command) == "CON")) {
            command = kCommands[below(10)];
        }
        std::uint32_t value = word();
        if (chance(50)) {
            value = static_cast<std::uint32_t>(below(64));  // near a fresh connection's numbers
        }
        if (std::string(command) == "WIN" && chance(50)) {
            value = 0;
        }
        Bytes payload;
        if (std::string(command) == "CMD" && chance(80)) {
            payload = tarnPacket();
        }
        return testsupport::eudpDatagram(command, value, payload);
    }

private:
    std::mt19937 m_random;
};

// The well-behaved EUDP client of one generation.
struct Generation {
    SeqClient client;
    std::unique_ptr<TARNConnection> connection;
    SeqServer* recorder = nullptr;
};

bool establish(TestServer& server, Generation& generation, const EUDPHardening* hardening) {
    generation.connection =
        connectWithRetry(eTransportEUDP, server.port(), &generation.client, 3, nullptr, hardening);
    if (!generation.connection) {
        return false;
    }
    TARNConnection* connection = generation.connection.get();
    // One try: after a timed-out request a direction may stall for good (see runStream).
    if (!connection->setReceiveMode(eReliable) || !connection->setSendMode(eReliable)) {
        return false;
    }
    const uint16 port = connection->getLocalPort();
    const bool found = waitUntil([&] { return server.accepted().findByPeerPort(port) >= 0; }, 5000);
    if (!found) {
        return false;
    }
    generation.recorder =
        server.accepted().server(static_cast<std::size_t>(server.accepted().findByPeerPort(port)));
    return true;
}

// Counts the library's warning and error lines (and keeps none) for its lifetime.
class CountingLog {
public:
    CountingLog() : m_previousLevel(Log::LogManager::getInstance().getLevel()) {
        Log::LogManager::getInstance().setLevel(Log::eWarning);
        Log::LogManager::getInstance().setSink(
            [this](Log::ELogLevel level, const std::string&, const std::string&) {
                ++(level == Log::eError ? m_errors : m_warnings);
            });
    }
    ~CountingLog() {
        Log::LogManager::getInstance().setSink(Log::LogSink());
        Log::LogManager::getInstance().setLevel(m_previousLevel);
    }
    CountingLog(const CountingLog&) = delete;
    CountingLog& operator=(const CountingLog&) = delete;
    std::uint64_t warnings() const { return m_warnings; }
    std::uint64_t errors() const { return m_errors; }

private:
    Log::ELogLevel m_previousLevel;
    std::atomic<std::uint64_t> m_warnings{0};
    std::atomic<std::uint64_t> m_errors{0};
};

// One hostile run: the two servers, the well-behaved clients' and the attackers' bodies (each on
// a thread of its own), and what they share while the run lasts.
class HostileRun {
public:
    HostileRun(std::uint32_t seed, bool hardened)
        : m_seed(seed), m_hardened(hardened), m_tcpServer(eTransportTCP), m_eudpServer(eTransportEUDP) {
        if (hardened) {
            m_eudpServer.hardening = m_hardening;
        }
    }
    bool start() { return m_tcpServer.start() != 0 && m_eudpServer.start() != 0; }
    void run(int seconds);
    void finish();

    HostileReport report;

private:
    const EUDPHardening* hardening() const { return m_hardened ? &m_hardening : nullptr; }
    void tcpGood();
    void eudpGood();
    void eudpGeneration(Generation& generation);
    void udpAttack();
    void tcpAttack();

    const std::uint32_t m_seed;
    const bool m_hardened;
    const EUDPHardening m_hardening = EUDPHardening::on();
    TestServer m_tcpServer;
    TestServer m_eudpServer;
    std::atomic<bool> m_stop{false};
    std::atomic<uint16> m_clientPort{0};
    std::atomic<uint16> m_serverConnectionPort{0};
    SeqClient m_tcpClient;
    std::unique_ptr<TARNConnection> m_tcpConnection;
};

void HostileRun::run(int seconds) {
    const std::int64_t deadline = nowMs() + seconds * 1000;
    m_tcpConnection = connectWithRetry(eTransportTCP, m_tcpServer.port(), &m_tcpClient, 3);
    std::thread tcpGoodThread([this] { tcpGood(); });
    std::thread eudpGoodThread([this] { eudpGood(); });
    std::thread udpAttacker([this] { udpAttack(); });
    std::thread tcpAttacker([this] { tcpAttack(); });
    while (nowMs() < deadline) {
        sal::Thread::mssleep(500);
        const std::size_t live = m_tcpServer.accepted().reap() + m_eudpServer.accepted().reap();
        if (live > report.mostServerConnections) {
            report.mostServerConnections = live;
        }
        report.residentKb.push_back(residentKb());
    }
    m_stop = true;
    udpAttacker.join();
    tcpAttacker.join();
    eudpGoodThread.join();
    tcpGoodThread.join();
}

// Well-behaved TCP client: a call every 2 ms, all of which must arrive in order.
void HostileRun::tcpGood() {
    for (int i = 0; m_tcpConnection && !m_stop; ++i) {
        if (m_tcpConnection->callFunctionId("seq", seqParams(i))) {
            report.tcpCalls = i + 1;
        }
        sal::Thread::mssleep(2);
    }
}

// Well-behaved EUDP client: reconnects when a stranger ends or stalls its connection.
void HostileRun::eudpGood() {
    while (!m_stop) {
        Generation generation;
        if (!establish(m_eudpServer, generation, hardening())) {
            if (generation.connection) {
                closeClient(generation.connection, generation.client);
            }
            continue;
        }
        ++report.eudpGenerations;
        eudpGeneration(generation);
        const std::vector<int> values = generation.recorder->calls.values();
        report.eudpDelivered += static_cast<int>(values.size());
        const std::string order = checkIncreasing(values);
        if (report.eudpOrderError.empty() && !order.empty()) {
            report.eudpOrderError = "generation " + std::to_string(report.eudpGenerations) + ": " + order;
        }
        m_clientPort = 0;
        m_serverConnectionPort = 0;
        closeClient(generation.connection, generation.client);
    }
}

// Calls every 2 ms over one established connection until the run ends, a stranger closed the
// connection, or 3 s pass without a call arriving.
void HostileRun::eudpGeneration(Generation& generation) {
    m_clientPort = generation.connection->getLocalPort();
    TARNConnection* serverSide = m_eudpServer.accepted().connection(
        static_cast<std::size_t>(m_eudpServer.accepted().findByPeerPort(m_clientPort)));
    m_serverConnectionPort = serverSide != nullptr ? serverSide->getLocalPort() : 0;
    std::size_t seen = 0;
    std::int64_t progress = nowMs();
    for (int i = 0; !m_stop; ++i) {
        if (generation.client.disconnects() > 0) {
            ++report.eudpClosedByStrangers;
            return;
        }
        generation.connection->callFunctionId("seq", seqParams(i));
        const std::size_t now = generation.recorder->calls.size();
        if (now != seen) {
            seen = now;
            progress = nowMs();
        } else if (nowMs() - progress > 3000) {
            ++report.eudpStalls;
            return;
        }
        sal::Thread::mssleep(2);
    }
}

// Hostile datagrams: about 500 a second; a connection request about once a second and a closing
// or stalling datagram (DIS, WIN, an empty datagram) about once a second, so that the well-behaved
// client gets work done between them.
void HostileRun::udpAttack() {
    Generator generator(m_seed);
    testsupport::RawUdp socket;
    for (std::uint64_t n = 0; !m_stop; ++n) {
        const int aim = generator.below(3);
        uint16 port = aim == 0   ? m_eudpServer.port()
                      : aim == 1 ? m_clientPort.load()
                                 : m_serverConnectionPort.load();
        if (port == 0) {
            port = m_eudpServer.port();
        }
        const bool fatal = generator.below(1000) < 2;
        const bool connectRequest = aim == 0 && generator.below(1000) < 6;
        Bytes datagram = fatal && generator.chance(30) ? Bytes() : generator.datagram(fatal, connectRequest);
        if (datagram.empty() && port == m_eudpServer.port() && !m_hardened) {
            // An empty datagram on the listening port ends the listener for good (its accept
            // fails, and the leaked listening transport keeps the port): a test of its own.
            datagram.push_back(2);
        }
        socket.sendTo(datagram, port);
        ++report.datagramsSent;
        if (n % 2 == 1) {
            sal::Thread::mssleep(4);
        }
    }
}

// Hostile TCP streams: each a handful of chunks, then closed.
void HostileRun::tcpAttack() {
    Generator generator(m_seed ^ 0x5A5A5A5Au);
    while (!m_stop) {
        testsupport::RawTcp stream = testsupport::RawTcp::connectTo(m_tcpServer.port());
        if (!stream.valid()) {
            sal::Thread::mssleep(10);
            continue;
        }
        ++report.tcpStreams;
        for (int i = generator.below(20); i >= 0 && !m_stop; --i) {
            if (!stream.sendAll(generator.tcpChunk())) {
                break;
            }
            ++report.framesSent;
            sal::Thread::mssleep(1);
        }
        stream.close();
        sal::Thread::mssleep(5);
    }
}

// What the TCP server got from the well-behaved client once its last call arrived, whether a fresh
// EUDP client still gets in, and the listener's figures; then both servers stop.
void HostileRun::finish() {
    const int tcpIndex =
        m_tcpConnection ? m_tcpServer.accepted().findByPeerPort(m_tcpConnection->getLocalPort()) : -1;
    if (tcpIndex >= 0) {
        SeqServer* recorder = m_tcpServer.accepted().server(static_cast<std::size_t>(tcpIndex));
        waitUntil([&] { return static_cast<int>(recorder->calls.size()) >= report.tcpCalls; }, 10000);
        report.tcpReceived = recorder->calls.values();
    }
    closeClient(m_tcpConnection, m_tcpClient);
    report.tcpDisconnects = m_tcpClient.disconnects() - 1;  // the one of our own disconnect
    {
        SeqClient fresh;
        std::unique_ptr<TARNConnection> after =
            connectWithRetry(eTransportEUDP, m_eudpServer.port(), &fresh, 1, nullptr, hardening());
        report.servingAfterwards = after != nullptr;
        if (after) {
            closeClient(after, fresh);
        }
    }
    report.eudpListener = m_eudpServer.listener()->getStatistics();
    m_tcpServer.stop();
    m_eudpServer.stop();
    m_tcpServer.accepted().closeAll();
    m_eudpServer.accepted().closeAll();
}

}  // namespace

HostileReport runHostile(int seconds, std::uint32_t seed, bool hardened) {
    const CountingLog log;
    HostileRun run(seed, hardened);
    if (!run.start()) {
        return run.report;
    }
    run.run(seconds);
    run.finish();
    run.report.warnings = log.warnings();
    run.report.errors = log.errors();
    return run.report;
}

std::string describe(const HostileReport& report) {
    std::ostringstream out;
    long first = report.residentKb.empty() ? 0 : report.residentKb.front();
    long most = 0;
    for (long kb : report.residentKb) {
        most = std::max(most, kb);
    }
    out << report.datagramsSent << " hostile datagrams, " << report.framesSent << " hostile TCP chunks on "
        << report.tcpStreams << " streams; TCP client " << report.tcpReceived.size() << "/" << report.tcpCalls
        << " calls delivered; EUDP client " << report.eudpDelivered << " calls delivered over "
        << report.eudpGenerations << " connections (" << report.eudpClosedByStrangers
        << " closed by strangers, " << report.eudpStalls << " stalled); at most "
        << report.mostServerConnections << " live server connections; resident " << first / 1024
        << " MiB at first, at most " << most / 1024 << " MiB; " << report.warnings << " warnings and "
        << report.errors << " errors logged; EUDP listener: " << report.eudpListener.accepted << " accepted, "
        << report.eudpListener.emptyReceived << " empty and " << report.eudpListener.invalidReceived
        << " invalid datagrams, " << report.eudpListener.refused[eRefusedRateLimit]
        << " refused by rate; a fresh client " << (report.servingAfterwards ? "connected" : "did not connect")
        << " afterwards";
    return out.str();
}

}  // namespace faults
