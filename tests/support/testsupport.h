// Shared helpers for the test suites: log capture, waiting on conditions with a deadline, and raw
// POSIX sockets on 127.0.0.1 that play the peer byte for byte.
#ifndef TARN_TESTS_TESTSUPPORT_H
#define TARN_TESTS_TESTSUPPORT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <logging/logging.h>

namespace testsupport {

using Bytes = std::vector<std::uint8_t>;
using Level = Corvane::Utilities::Logging::ELogLevel;

// Polls `condition` every millisecond until it holds or `timeoutMs` passed; returns its last value.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs);

// Milliseconds since an arbitrary fixed point of the monotonic clock.
std::int64_t nowMs();

// The kernel's id of the calling thread.
int currentThreadId();

// Waits until thread `threadId` of this process sleeps in the kernel, that is, is blocked in a
// call; for a test that must act only once another thread waits inside a blocking call.
bool waitUntilBlocked(int threadId, int timeoutMs);

// Installs a sink that records every line (and raises the level to `level`) for its lifetime;
// restores the default output and level when destroyed.
class LogCapture {
public:
    struct Line {
        Level level;
        std::string category;
        std::string text;
    };

    explicit LogCapture(Level level = Corvane::Utilities::Logging::eDebug);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines() const;
    // Lines with exactly this text (and level), in the "TARN" category or any other.
    int count(Level level, const std::string& text) const;
    int count(const std::string& text) const;
    bool contains(Level level, const std::string& text) const { return count(level, text) > 0; }
    // Waits until a line with this level and text has been seen.
    bool waitFor(Level level, const std::string& text, int timeoutMs) const;
    void clear();
    std::string dump() const;  // all lines, for failure messages

private:
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
    Level m_previousLevel;
};

// A raw UDP socket bound to 127.0.0.1 on an ephemeral port.
class RawUdp {
public:
    RawUdp();
    ~RawUdp();
    RawUdp(const RawUdp&) = delete;
    RawUdp& operator=(const RawUdp&) = delete;

    std::uint16_t port() const { return m_port; }
    bool sendTo(const Bytes& datagram, std::uint16_t port);
    // Waits up to timeoutMs for one datagram; false on time-out.
    bool receive(Bytes& datagram, std::uint16_t& fromPort, int timeoutMs);
    // True when no datagram arrives within `ms`.
    bool quietFor(int ms);
    int fd() const { return m_fd; }

private:
    int m_fd;
    std::uint16_t m_port;
};

// A raw TCP listener on 127.0.0.1 (ephemeral port) and connected raw TCP streams.
class RawTcpListener {
public:
    RawTcpListener();
    ~RawTcpListener();
    RawTcpListener(const RawTcpListener&) = delete;
    RawTcpListener& operator=(const RawTcpListener&) = delete;
    std::uint16_t port() const { return m_port; }
    // Accepts one connection within timeoutMs; returns its descriptor or -1.
    int accept(int timeoutMs);

private:
    int m_fd;
    std::uint16_t m_port;
};

// A TCP port on 127.0.0.1 held by a bound socket that does not listen: connections to it are
// refused for the holder's lifetime, and no other socket can take the port meanwhile. The second
// form holds a given port on 127.0.0.1 or ::1; port() is 0 when that port is taken already.
class ClosedTcpPort {
public:
    ClosedTcpPort();
    ClosedTcpPort(bool ipv6, std::uint16_t port);
    ~ClosedTcpPort();
    ClosedTcpPort(const ClosedTcpPort&) = delete;
    ClosedTcpPort& operator=(const ClosedTcpPort&) = delete;
    std::uint16_t port() const { return m_port; }

private:
    int m_fd;
    std::uint16_t m_port;
};

// A free TCP port on 127.0.0.1 kept for a program that binds and listens on it itself with
// SO_REUSEADDR (mosquitto and openssl s_server do): a bound socket with SO_REUSEADDR that never
// listens. The kernel hands the port to no other socket for the holder's lifetime, also between a
// stop and a restart of that program, while the program's own bind succeeds.
// The second form holds a given port (port() is 0 when another socket has it without
// SO_REUSEADDR), for a program started again on the port it had.
class ReservedTcpPort {
public:
    ReservedTcpPort();
    explicit ReservedTcpPort(std::uint16_t port);
    ~ReservedTcpPort();
    ReservedTcpPort(const ReservedTcpPort&) = delete;
    ReservedTcpPort& operator=(const ReservedTcpPort&) = delete;
    std::uint16_t port() const { return m_port; }

private:
    int m_fd;
    std::uint16_t m_port;
};

// A UDP port on 127.0.0.1 (a given one, or an ephemeral one with the first form) held by a bound
// socket that nobody reads, until release() or the end of the holder: no other socket can take the
// port meanwhile, and a sender's unconnected socket sees no difference from a port nothing is bound
// to. held() is false when another socket had the port already. For a program started on the port
// later: held until just before it binds.
class HeldUdpPort {
public:
    HeldUdpPort() : HeldUdpPort(0) {}
    explicit HeldUdpPort(std::uint16_t port);
    ~HeldUdpPort() { release(); }
    HeldUdpPort(const HeldUdpPort&) = delete;
    HeldUdpPort& operator=(const HeldUdpPort&) = delete;
    std::uint16_t port() const { return m_port; }  // kept after release()
    bool held() const { return m_fd >= 0; }
    void release();

private:
    int m_fd;
    std::uint16_t m_port;
};

class RawTcp {
public:
    explicit RawTcp(int fd = -1) : m_fd(fd) {}
    ~RawTcp();
    RawTcp(RawTcp&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    RawTcp(const RawTcp&) = delete;
    RawTcp& operator=(const RawTcp&) = delete;

    static RawTcp connectTo(std::uint16_t port);  // fd -1 on failure
    bool valid() const { return m_fd >= 0; }
    bool sendAll(const Bytes& bytes);
    // Reads exactly `count` bytes within timeoutMs.
    bool receiveExactly(Bytes& bytes, std::size_t count, int timeoutMs);
    // Reads one 2-byte-length frame within timeoutMs.
    bool receiveFrame(Bytes& body, int timeoutMs);
    // True when the peer closed the stream (read returns 0) within timeoutMs.
    bool waitClosed(int timeoutMs);
    void close();
    int fd() const { return m_fd; }

private:
    int m_fd;
};

// Little-endian framing and datagram building helpers.
Bytes frame(const Bytes& body);  // 2-byte little-endian length + body
Bytes eudpDatagram(const char* command, std::uint32_t value, const Bytes& payload = Bytes());
std::uint32_t le32(const Bytes& bytes, std::size_t offset);
std::string hex(const Bytes& bytes);
Bytes bytesOf(const std::string& text);
// Whether `text` begins with `prefix`.
inline bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace testsupport

#endif  // TARN_TESTS_TESTSUPPORT_H
