// Helpers for the TCP, connection, listener and start-up suites: callback objects that record what
// they are told (and on which thread), packet bytes built by hand, and socket option probes.
#ifndef TARN_TESTS_TCP_TCPTESTUTIL_H
#define TARN_TESTS_TCP_TCPTESTUTIL_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "testsupport.h"

namespace tcptest {

using testsupport::Bytes;

// An ordered record of events from any thread, with the thread each came from.
class Events {
public:
    void add(const std::string& event);
    std::vector<std::string> list() const;
    std::vector<std::thread::id> threads() const;
    int count(const std::string& event) const;
    std::size_t size() const;
    // Waits until at least `n` events have been recorded.
    bool waitSize(std::size_t n, int timeoutMs) const;
    // Waits until `event` has been recorded at least once.
    bool waitFor(const std::string& event, int timeoutMs) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_events;
    std::vector<std::thread::id> m_threads;
};

// "text(v)" for a value: the type letter and the text form, e.g. "I:7", "S:on", "N:INV".
std::string describe(const ParameterValue& value);
// "name=text;" for every entry in name order.
std::string describe(const ParameterList& list);

// Records every client callback into `events` with a prefix (default "client").
class RecordingClient final : public ITARNClient {
public:
    explicit RecordingClient(Events& events, std::string prefix = "client")
        : m_events(events), m_prefix(std::move(prefix)) {}
    void onTrigger(const std::string& name, const ParameterValue& value) override;
    void onUpdateState(const std::string& name, const ParameterValue& value) override;
    void onStatusChanged(EConnStatus status) override;

private:
    Events& m_events;
    std::string m_prefix;
};

// Records every server callback into `events` with a prefix (default "server").
class RecordingServer final : public ITARNServer {
public:
    explicit RecordingServer(Events& events, std::string prefix = "server")
        : m_events(events), m_prefix(std::move(prefix)) {}
    void onSubscribe(const std::string& name) override;
    void onUnsubscribe(const std::string& name) override;
    void onCallFunctionId(const std::string& name, const ParameterList& params) override;
    void onStatusChanged(EConnStatus status) override;

private:
    Events& m_events;
    std::string m_prefix;
};

// A TARN packet built by hand: version 1, the command byte, the little-endian body length, body.
Bytes packet(std::uint8_t command, const Bytes& body);
// A NUL-terminated name as it lies in a body.
Bytes cstr(const std::string& text);
Bytes concat(std::initializer_list<Bytes> parts);
Bytes intValue(std::int32_t value);  // 'I' + 4 bytes little-endian

// The descriptor of this process's TCP socket with that local and peer port, or -1.
int findSocket(std::uint16_t localPort, std::uint16_t peerPort);
bool socketOption(int fd, int level, int option);

// True when nothing is readable on `fd` for `ms` milliseconds.
bool quietFor(int fd, int ms);

// The local and remote port of a connected descriptor.
std::uint16_t localPortOf(int fd);
std::uint16_t peerPortOf(int fd);

}  // namespace tcptest

#endif  // TARN_TESTS_TCP_TCPTESTUTIL_H
