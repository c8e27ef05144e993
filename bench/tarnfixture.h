// A TARN server for the benchmarks: one listener per transport kind on 127.0.0.1 with an ephemeral
// port, kept for the whole run, whose accepted connections answer round-trip calls.
//
// Every accepted connection gets an Answerer: a call "rt" whose list holds a text is answered at
// once, on the connection's receive thread, with a trigger "rt" carrying that text. The scenario
// that opened the client end claims the server end with nextAccepted() and owns both from then on;
// closeAll() disconnects and deletes any number of connections on helper threads, since each
// connection pauses about a fifth of a second on its way out.
//
// Threads: TarnServer is created, used and destroyed on one thread; the listener's thread adds
// accepted connections under the server's own lock.
#ifndef TARN_BENCH_TARNFIXTURE_H
#define TARN_BENCH_TARNFIXTURE_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

namespace bench {

// Notes the end of a connection's link (its eDisconnected).
class EndWatch {
public:
    void note(EConnStatus status) {
        if (status == eDisconnected) {
            m_bEnded.store(true);
        }
    }
    bool ended() const { return m_bEnded.load(); }

private:
    std::atomic<bool> m_bEnded{false};
};

class TarnServer;

class Answerer : public ITARNServer {
public:
    Answerer(TARNConnection* connection, TarnServer* owner) : m_pConnection(connection), m_pOwner(owner) {}
    virtual ~Answerer() = default;
    void onSubscribe(const std::string&) override {}
    void onUnsubscribe(const std::string&) override {}
    void onCallFunctionId(const std::string& name, const ParameterList& params) override;
    // eConnected comes from the listener's thread once it has started the connection: only then is
    // the connection handed to a scenario, which may disconnect it at any time from then on.
    void onStatusChanged(EConnStatus status) override;

private:
    TARNConnection* m_pConnection;
    TarnServer* m_pOwner;
    bool m_bReported = false;
};

// One accepted server end and the answerer attached to it; both owned by whoever claimed them.
struct Accepted {
    TARNConnection* connection = nullptr;
    Answerer* answerer = nullptr;
};

class TarnServer {
public:
    explicit TarnServer(ETransport transport);
    virtual ~TarnServer();
    TarnServer(const TarnServer&) = delete;
    TarnServer& operator=(const TarnServer&) = delete;

    // Starts listening and waits for the bound port; false when none came within a few seconds.
    bool start();
    uint16 port() const { return m_port; }

    // The next accepted connection, waiting up to `timeoutMs`; false when none came.
    bool nextAccepted(Accepted& accepted, int timeoutMs);

    // The transport of a new client end; null lets the connection make one of the server's kind.
    // A server on another transport (TLS, bench/tlsbench.h) gives its own.
    virtual ITARNTransport* newClientTransport() { return nullptr; }

protected:
    // Starts accepting, handing each connection to `connector`; returns the bound port, 0 when
    // none came within a few seconds. Overridden with the listener of another transport.
    virtual uint16 listenWith(ITARNConnector* connector);
    // Stops accepting (before the accepted connections are closed).
    virtual void stopListening();

private:
    class Connector;
    friend class Answerer;
    void add(TARNConnection* connection);
    void ready(TARNConnection* connection, Answerer* answerer);

    ETransport m_transport;
    TARNListener* m_pListener = nullptr;
    uint16 m_port = 0;
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::deque<Accepted> m_accepted;
};

// Disconnects the connections (null ones are skipped) and deletes them (the destructor waits for the
// receive loop to leave), then deletes the answerers; on up to `threads` helper threads. Leaves
// both vectors empty.
void closeAll(std::vector<TARNConnection*>& connections, std::vector<Answerer*>& answerers, int threads = 64);

}  // namespace bench

#endif  // TARN_BENCH_TARNFIXTURE_H
