#include "recording.h"

#include <chrono>

namespace testsupport {

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

}  // namespace testsupport
