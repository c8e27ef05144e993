#include "tcptestutil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

namespace tcptest {

void Events::add(const std::string& event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(event);
    m_threads.push_back(std::this_thread::get_id());
    m_changed.notify_all();
}

std::vector<std::string> Events::list() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

std::vector<std::thread::id> Events::threads() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_threads;
}

int Events::count(const std::string& event) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const auto& e : m_events) {
        n += e == event ? 1 : 0;
    }
    return n;
}

std::size_t Events::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events.size();
}

bool Events::waitSize(std::size_t n, int timeoutMs) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return m_events.size() >= n; });
}

bool Events::waitFor(const std::string& event, int timeoutMs) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        for (const auto& e : m_events) {
            if (e == event) {
                return true;
            }
        }
        return false;
    });
}

std::string describe(const ParameterValue& value) {
    std::string out(1, static_cast<char>(value.getType()));
    return out + ":" + value.getAsString();
}

std::string describe(const ParameterList& list) {
    std::string out;
    std::string name;
    std::string text;
    for (unsigned int i = 0; list.getParam(i, name, text); ++i) {
        out += name + "=" + text + ";";
    }
    return out;
}

namespace {
const char* statusName(EConnStatus status) {
    return status == eConnected ? "connected" : "disconnected";
}
}  // namespace

void RecordingClient::onTrigger(const std::string& name, const ParameterValue& value) {
    m_events.add(m_prefix + ":trigger " + name + " " + describe(value));
}

void RecordingClient::onUpdateState(const std::string& name, const ParameterValue& value) {
    m_events.add(m_prefix + ":state " + name + " " + describe(value));
}

void RecordingClient::onStatusChanged(EConnStatus status) {
    m_events.add(m_prefix + ":" + statusName(status));
}

void RecordingServer::onSubscribe(const std::string& name) {
    m_events.add(m_prefix + ":subscribe " + name);
}

void RecordingServer::onUnsubscribe(const std::string& name) {
    m_events.add(m_prefix + ":unsubscribe " + name);
}

void RecordingServer::onCallFunctionId(const std::string& name, const ParameterList& params) {
    m_events.add(m_prefix + ":call " + name + " " + describe(params));
}

void RecordingServer::onStatusChanged(EConnStatus status) {
    m_events.add(m_prefix + ":" + statusName(status));
}

Bytes packet(std::uint8_t command, const Bytes& body) {
    Bytes out{1, command, static_cast<std::uint8_t>(body.size() & 0xFF),
              static_cast<std::uint8_t>((body.size() >> 8) & 0xFF)};
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes cstr(const std::string& text) {
    Bytes out(text.begin(), text.end());
    out.push_back(0);
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

Bytes intValue(std::int32_t value) {
    const auto u = static_cast<std::uint32_t>(value);
    return Bytes{'I', static_cast<std::uint8_t>(u & 0xFF), static_cast<std::uint8_t>((u >> 8) & 0xFF),
                 static_cast<std::uint8_t>((u >> 16) & 0xFF), static_cast<std::uint8_t>(u >> 24)};
}

namespace {

// The platform's sockets are IPv6 sockets that carry IPv4 too where the system has IPv6.
std::uint16_t portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    }
    if (address.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    }
    return 0;
}

}  // namespace

std::uint16_t localPortOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return portOf(address);
}

std::uint16_t peerPortOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return portOf(address);
}

int findSocket(std::uint16_t localPort, std::uint16_t peerPort) {
    for (int fd = 0; fd < 4096; ++fd) {
        int type = 0;
        socklen_t length = sizeof(type);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_STREAM) {
            continue;
        }
        if (localPortOf(fd) == localPort && peerPortOf(fd) == peerPort) {
            return fd;
        }
    }
    return -1;
}

bool socketOption(int fd, int level, int option) {
    int value = 0;
    socklen_t length = sizeof(value);
    return getsockopt(fd, level, option, &value, &length) == 0 && value != 0;
}

bool quietFor(int fd, int ms) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, ms) == 0;
}

}  // namespace tcptest
