// The test toolkit's recording callbacks: clients and servers that write every callback they get
// into an Events record as one line of text ("client:trigger name I:7", "server:subscribe name",
// "server:connected"), and the record itself, which any thread may add to and a test waits on;
// and a client that records nothing but a count of its triggers.
//
// Ownership: a recorder refers to its Events, which must outlive it. Threads: any.
#ifndef TARN_TESTS_SUPPORT_RECORDING_H
#define TARN_TESTS_SUPPORT_RECORDING_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <parameterlist.h>
#include <tarnconnection.h>

namespace testsupport {

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

// A client that keeps nothing but how many triggers it got.
class NullClient final : public ITARNClient {
public:
    void onTrigger(const std::string&, const ParameterValue&) override { ++triggers; }
    void onUpdateState(const std::string&, const ParameterValue&) override {}
    void onStatusChanged(EConnStatus) override {}
    std::atomic<int> triggers{0};
};

}  // namespace testsupport

#endif  // TARN_TESTS_SUPPORT_RECORDING_H
