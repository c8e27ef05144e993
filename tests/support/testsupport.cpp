#include "testsupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>

namespace testsupport {

namespace Log = Corvane::Utilities::Logging;

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int currentThreadId() {
    return static_cast<int>(::syscall(SYS_gettid));
}

namespace {

// The state letter of /proc/self/task/<id>/stat: after the name in parentheses, which may itself
// hold spaces or parentheses.
char threadState(int threadId) {
    std::ifstream in("/proc/self/task/" + std::to_string(threadId) + "/stat");
    std::string line;
    std::getline(in, line);
    const std::size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() ? line[close + 2] : '?';
}

}  // namespace

bool waitUntilBlocked(int threadId, int timeoutMs) {
    return waitUntil([threadId] { return threadState(threadId) == 'S'; }, timeoutMs);
}

LogCapture::LogCapture(Level level) : m_previousLevel(Log::LogManager::getInstance().getLevel()) {
    Log::LogManager::getInstance().setSink(
        [this](Level lineLevel, const std::string& category, const std::string& text) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(Line{lineLevel, category, text});
        });
    Log::LogManager::getInstance().setLevel(level);
}

LogCapture::~LogCapture() {
    Log::LogManager::getInstance().setSink(Log::LogSink());
    Log::LogManager::getInstance().setLevel(m_previousLevel);
}

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

int LogCapture::count(Level level, const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const auto& line : m_lines) {
        if (line.level == level && line.text == text) {
            ++n;
        }
    }
    return n;
}

int LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const auto& line : m_lines) {
        if (line.text == text) {
            ++n;
        }
    }
    return n;
}

bool LogCapture::waitFor(Level level, const std::string& text, int timeoutMs) const {
    return waitUntil([&] { return count(level, text) > 0; }, timeoutMs);
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

std::string LogCapture::dump() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string out;
    for (const auto& line : m_lines) {
        out += Log::levelName(line.level);
        out += " ";
        out += line.category;
        out += ": ";
        out += line.text;
        out += "\n";
    }
    return out;
}

namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address;
    std::memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::uint16_t boundPort(int fd) {
    sockaddr_in address;
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

bool readable(int fd, int timeoutMs) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, timeoutMs) > 0;
}

}  // namespace

RawUdp::RawUdp() : m_fd(::socket(AF_INET, SOCK_DGRAM, 0)), m_port(0) {
    sockaddr_in address = loopback(0);
    if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        m_port = boundPort(m_fd);
    }
}

RawUdp::~RawUdp() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool RawUdp::sendTo(const Bytes& datagram, std::uint16_t port) {
    sockaddr_in address = loopback(port);
    const ssize_t n = ::sendto(m_fd, datagram.data(), datagram.size(), 0,
                               reinterpret_cast<sockaddr*>(&address), sizeof(address));
    return n == static_cast<ssize_t>(datagram.size());
}

bool RawUdp::receive(Bytes& datagram, std::uint16_t& fromPort, int timeoutMs) {
    if (!readable(m_fd, timeoutMs)) {
        return false;
    }
    datagram.assign(65536, 0);
    sockaddr_in from;
    socklen_t length = sizeof(from);
    const ssize_t n =
        ::recvfrom(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (n < 0) {
        return false;
    }
    datagram.resize(static_cast<std::size_t>(n));
    fromPort = ntohs(from.sin_port);
    return true;
}

bool RawUdp::quietFor(int ms) {
    return !readable(m_fd, ms);
}

RawTcpListener::RawTcpListener() : m_fd(::socket(AF_INET, SOCK_STREAM, 0)), m_port(0) {
    int on = 1;
    ::setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = loopback(0);
    if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::listen(m_fd, 16) == 0) {
        m_port = boundPort(m_fd);
    }
}

RawTcpListener::~RawTcpListener() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

int RawTcpListener::accept(int timeoutMs) {
    if (!readable(m_fd, timeoutMs)) {
        return -1;
    }
    return ::accept(m_fd, nullptr, nullptr);
}

ClosedTcpPort::ClosedTcpPort() : m_fd(::socket(AF_INET, SOCK_STREAM, 0)), m_port(0) {
    sockaddr_in address = loopback(0);
    if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        m_port = boundPort(m_fd);
    }
}

ClosedTcpPort::ClosedTcpPort(bool ipv6, std::uint16_t port)
    : m_fd(::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0)), m_port(0) {
    sockaddr_in four = loopback(port);
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_addr = in6addr_loopback;
    six.sin6_port = htons(port);
    const sockaddr* address =
        ipv6 ? reinterpret_cast<const sockaddr*>(&six) : reinterpret_cast<const sockaddr*>(&four);
    const socklen_t length = ipv6 ? sizeof(six) : sizeof(four);
    if (m_fd >= 0 && ::bind(m_fd, address, length) == 0) {
        m_port = port;
    }
}

ClosedTcpPort::~ClosedTcpPort() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

ReservedTcpPort::ReservedTcpPort() : m_fd(::socket(AF_INET, SOCK_STREAM, 0)), m_port(0) {
    int on = 1;
    sockaddr_in address = loopback(0);
    if (m_fd >= 0 && ::setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
        ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        m_port = boundPort(m_fd);
    }
}

ReservedTcpPort::ReservedTcpPort(std::uint16_t port) : m_fd(::socket(AF_INET, SOCK_STREAM, 0)), m_port(0) {
    int on = 1;
    sockaddr_in address = loopback(port);
    if (m_fd >= 0 && ::setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
        ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        m_port = port;
    }
}

ReservedTcpPort::~ReservedTcpPort() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

// Not inherited by the programs a test starts, which would keep the port after release().
HeldUdpPort::HeldUdpPort(std::uint16_t port)
    : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), m_port(0) {
    sockaddr_in address = loopback(port);
    if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        m_port = boundPort(m_fd);
    } else {
        release();
    }
}

void HeldUdpPort::release() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

RawTcp::~RawTcp() {
    close();
}

void RawTcp::close() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

RawTcp RawTcp::connectTo(std::uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(port);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        fd = -1;
    }
    if (fd >= 0) {
        int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    return RawTcp(fd);
}

bool RawTcp::sendAll(const Bytes& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

bool RawTcp::receiveExactly(Bytes& bytes, std::size_t count, int timeoutMs) {
    bytes.assign(count, 0);
    std::size_t got = 0;
    const std::int64_t deadline = nowMs() + timeoutMs;
    while (got < count) {
        const std::int64_t left = deadline - nowMs();
        if (left <= 0 || !readable(m_fd, static_cast<int>(left))) {
            return false;
        }
        const ssize_t n = ::recv(m_fd, bytes.data() + got, count - got, 0);
        if (n <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(n);
    }
    return true;
}

bool RawTcp::receiveFrame(Bytes& body, int timeoutMs) {
    Bytes header;
    if (!receiveExactly(header, 2, timeoutMs)) {
        return false;
    }
    const std::size_t length =
        static_cast<std::size_t>(header[0]) | (static_cast<std::size_t>(header[1]) << 8);
    return receiveExactly(body, length, timeoutMs);
}

bool RawTcp::waitClosed(int timeoutMs) {
    const std::int64_t deadline = nowMs() + timeoutMs;
    std::uint8_t scratch[512];
    while (true) {
        const std::int64_t left = deadline - nowMs();
        if (left <= 0 || !readable(m_fd, static_cast<int>(left))) {
            return false;
        }
        const ssize_t n = ::recv(m_fd, scratch, sizeof(scratch), 0);
        if (n <= 0) {
            return true;
        }
    }
}

Bytes frame(const Bytes& body) {
    Bytes out(body.size() + 2);
    out[0] = static_cast<std::uint8_t>(body.size() & 0xFF);
    out[1] = static_cast<std::uint8_t>((body.size() >> 8) & 0xFF);
    if (!body.empty()) {
        std::memcpy(out.data() + 2, body.data(), body.size());
    }
    return out;
}

Bytes eudpDatagram(const char* command, std::uint32_t value, const Bytes& payload) {
    Bytes out;
    out.push_back(1);
    for (int i = 0; i < 3; ++i) {
        out.push_back(static_cast<std::uint8_t>(command[i]));
    }
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<std::uint8_t>((value >> (8 * i)) & 0xFF));
    }
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

std::uint32_t le32(const Bytes& bytes, std::size_t offset) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = (value << 8) | bytes.at(offset + static_cast<std::size_t>(i));
    }
    return value;
}

std::string hex(const Bytes& bytes) {
    std::string out;
    char buffer[4];
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(buffer, sizeof(buffer), i == 0 ? "%02x" : " %02x", bytes[i]);
        out += buffer;
    }
    return out;
}

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

}  // namespace testsupport
