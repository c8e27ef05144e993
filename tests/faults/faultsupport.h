// Shared pieces of the fault suites: the toolkit's applications that number what they send and
// record what they receive (sequence.h), a server with a listener that keeps every accepted connection,
// connecting and negotiating with retries as an application on a lossy network must, checks of received
// sequences, and process figures (resident memory, threads) read from /proc.
//
// Ownership: TestServer owns its listener and, through Accepted, every accepted connection and its
// SeqServer; a connection is deleted by a TARNConnectionSet, only after it reported eDisconnected.
// Threads: the recorders are called on connections' receive threads and read from the test thread.
#ifndef TARN_TESTS_FAULTS_FAULTSUPPORT_H
#define TARN_TESTS_FAULTS_FAULTSUPPORT_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "sequence.h"

namespace faults {

// The sequence recorders of the test toolkit (sequence.h).
using testsupport::SeqClient;
using testsupport::seqParams;
using testsupport::SeqServer;
using testsupport::Sequence;
using testsupport::StatusCounter;

// The connections a listener handed out, each with its SeqServer, in the order they came; a
// TARNConnectionSet owns the connections, the servers stay until closeAll.
class Accepted {
public:
    Accepted();
    ~Accepted();
    Accepted(const Accepted&) = delete;
    Accepted& operator=(const Accepted&) = delete;
    void add(TARNConnection* connection, SeqServer* server);
    std::size_t count() const;  // every connection added, deleted ones too
    // Null once the connection was deleted.
    TARNConnection* connection(std::size_t i) const;
    SeqServer* server(std::size_t i) const;
    // The accepted connection whose peer is this client port; -1 when there is none.
    int findByPeerPort(uint16 port) const;
    // Deletes the connections that have ended (both statuses reported); returns how many are left.
    std::size_t reap();
    // Disconnects every connection, waits for its eDisconnected and deletes it, then the servers.
    void closeAll();

private:
    void forget(TARNConnection* connection);  // just before the set deletes it

    mutable std::mutex m_mutex;
    std::vector<TARNConnection*> m_connections;
    std::vector<SeqServer*> m_servers;
    TARNConnectionSet m_set;  // declared last: gone before what its ending handler touches
};

// A listener on 127.0.0.1 (ephemeral port) that keeps what it accepts in an Accepted.
class TestServer {
public:
    explicit TestServer(ETransport kind);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;
    // Starts listening and waits for the bound port; 0 on failure.
    uint16 start(const std::string& address = "127.0.0.1");
    uint16 port() const { return m_port; }
    Accepted& accepted() { return m_accepted; }
    void stop();
    TARNListener* listener() const { return m_pListener; }
    // Applied to the listener by start(); off unless set before.
    EUDPHardening hardening;

private:
    ETransport m_kind;
    uint16 m_port = 0;
    Accepted m_accepted;
    TARNListener* m_pListener = nullptr;
};

// Connects a fresh connection, up to `attempts` times: CON is never resent by EUDP, so an
// application on a lossy network tries again. A failed attempt's connection is disconnected and
// deleted. Null when every attempt failed.
// With `hardening`, an EUDP connection is hardened before it connects.
std::unique_ptr<TARNConnection> connectWithRetry(ETransport kind, uint16 port, ITARNClient* client,
                                                 int attempts, int* attemptsUsed = nullptr,
                                                 const EUDPHardening* hardening = nullptr);
// Repeats a request (a mode or window negotiation) until it succeeds; false after `attempts`.
bool retry(const std::function<bool()>& request, int attempts, int* attemptsUsed = nullptr);
// Disconnects a client connection, waits for its eDisconnected, deletes it.
void closeClient(std::unique_ptr<TARNConnection>& connection, const StatusCounter& status);

// "" when `values` is exactly 0 .. count-1; otherwise what is wrong with it.
std::string checkComplete(const std::vector<int>& values, int count);
// "" when `values` is strictly increasing; otherwise the first place where it is not.
std::string checkIncreasing(const std::vector<int>& values);

// Resident memory of this process in KiB, and its number of threads, from /proc/self/status.
long residentKb();
int threadCount();
// Threads without the platform's shared threads (the timers' "sal-timer*" and the shared socket
// watch's "sal-reader"), which are started with the first timer or watched socket and live as long
// as the process: what connections themselves cost.
int ownThreadCount();

// Prints a measured figure in one recognisable line ("[ figure ] ...") for the report.
void figure(const std::string& text);

}  // namespace faults

#endif  // TARN_TESTS_FAULTS_FAULTSUPPORT_H
