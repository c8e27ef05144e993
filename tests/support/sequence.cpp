#include "sequence.h"

#include <cstdlib>

#include <sal/thread.h>

#include "testsupport.h"

namespace testsupport {

void Sequence::add(int value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_values.push_back(value);
}

std::vector<int> Sequence::values() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_values;
}

std::size_t Sequence::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_values.size();
}

void StatusCounter::report(EConnStatus status) {
    if (status == eDisconnected) {
        std::int64_t none = -1;
        m_disconnectedAt.compare_exchange_strong(none, nowMs());
        ++m_disconnects;
    } else {
        ++m_connects;
    }
}

void SeqClient::onTrigger(const std::string& name, const ParameterValue& value) {
    int i = 0;
    if (name == "seq" && value.getIntValue(i)) {
        triggers.add(i);
    } else {
        ++others;
    }
}

void SeqClient::onUpdateState(const std::string&, const ParameterValue&) {
    ++others;
}

SeqServer::~SeqServer() {
    stopStreaming();
}

void SeqServer::stopStreaming() {
    m_bStop = true;
    if (m_pStream && m_pStream->joinable()) {
        m_pStream->join();
    }
}

void SeqServer::onSubscribe(const std::string& name) {
    ++subscribes;
    if (name != "stream" || m_bStreaming.exchange(true)) {
        return;
    }
    // Paced so that a realtime send ring never fills: a sender blocked on a full ring is not woken
    // when the connection closes.
    m_pStream.reset(new std::thread([this] {
        for (int i = 0; !m_bStop.load(); ++i) {
            if (!m_pConnection->trigger("seq", ParameterValue(i))) {
                return;
            }
            if (i % 10 == 9) {
                sal::Thread::mssleep(2);
            }
        }
    }));
}

void SeqServer::onUnsubscribe(const std::string&) {
    ++others;
}

void SeqServer::onCallFunctionId(const std::string& name, const ParameterList& params) {
    std::string param;
    std::string value;
    if (name == "seq" && params.getParam(0u, param, value)) {
        calls.add(std::atoi(value.c_str()));
    } else {
        ++others;
    }
}

ParameterList seqParams(int i) {
    ParameterList params;
    params.addNumeric("i", i);
    return params;
}

}  // namespace testsupport
