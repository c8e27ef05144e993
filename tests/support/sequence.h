// The test toolkit's sequence recorders, of the recording family (recording.h): a client and a
// server that number what they stream and keep the numbers they receive, for the suites that check
// a stream arrived complete, in order or strictly increasing; and the status counter they share
// with other recorders.
//
// Ownership: a SeqServer streams on the connection it was made for, which must outlive the stream
// (stopStreaming, or the server's destruction, ends it). Threads: the callbacks run on
// connections' receive threads; everything may be read from any thread.
#ifndef TARN_TESTS_SUPPORT_SEQUENCE_H
#define TARN_TESTS_SUPPORT_SEQUENCE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <parameterlist.h>
#include <tarnconnection.h>

namespace testsupport {

// The integers of one numbered stream, in arrival order.
class Sequence {
public:
    void add(int value);
    std::vector<int> values() const;
    std::size_t size() const;

private:
    mutable std::mutex m_mutex;
    std::vector<int> m_values;
};

// Counts of status reports, with the time (nowMs) of the first eDisconnected.
class StatusCounter {
public:
    void report(EConnStatus status);
    int connects() const { return m_connects.load(); }
    int disconnects() const { return m_disconnects.load(); }
    std::int64_t disconnectedAtMs() const { return m_disconnectedAt.load(); }
    // Starts counting afresh; only once the connection that reported here is deleted.
    void resetStatus() {
        m_connects = 0;
        m_disconnects = 0;
        m_disconnectedAt = -1;
    }

private:
    std::atomic<int> m_connects{0};
    std::atomic<int> m_disconnects{0};
    std::atomic<std::int64_t> m_disconnectedAt{-1};
};

// Records triggers named "seq" (integer values); other triggers and updates are counted.
class SeqClient : public ITARNClient, public StatusCounter {
public:
    void onTrigger(const std::string& name, const ParameterValue& value) override;
    void onUpdateState(const std::string& name, const ParameterValue& value) override;
    void onStatusChanged(EConnStatus status) override { report(status); }
    Sequence triggers;
    std::atomic<int> others{0};
};

// Records calls of "seq" (their first parameter, an integer) and counts subscriptions. A
// subscription to "stream" starts a thread that sends triggers "seq" 0, 1, 2, ... until the
// connection fails to send or the server is destroyed, pausing 2 ms after every tenth.
class SeqServer : public ITARNServer, public StatusCounter {
public:
    explicit SeqServer(TARNConnection* connection) : m_pConnection(connection) {}
    ~SeqServer() override;
    void onSubscribe(const std::string& name) override;
    void onUnsubscribe(const std::string& name) override;
    void onCallFunctionId(const std::string& name, const ParameterList& params) override;
    void onStatusChanged(EConnStatus status) override { report(status); }
    void stopStreaming();
    Sequence calls;
    std::atomic<int> subscribes{0};
    std::atomic<int> others{0};

private:
    TARNConnection* m_pConnection;
    std::atomic<bool> m_bStreaming{false};
    std::atomic<bool> m_bStop{false};
    std::unique_ptr<std::thread> m_pStream;
};

// The parameters of call "seq" number `i`: one integer "i".
ParameterList seqParams(int i);

}  // namespace testsupport

#endif  // TARN_TESTS_SUPPORT_SEQUENCE_H
