// One end of a TARN link.
//
// A client creates a TARNConnection for a transport kind and calls connect(); on the server side
// TARNListener creates one per accepted peer and hands it to the application's ITARNConnector. The
// connection owns its transport and its receive thread; it never owns the ITARNClient or ITARNServer
// it calls. The application owns the connection: it calls disconnect() and then deletes it, never
// from inside one of the connection's own callbacks.
//
// Threads: the sending operations (trigger, updateState, subscribe, unsubscribe, callFunctionId)
// and the mode and window operations may be called from any thread at any time, also from inside a
// callback; the transport keeps messages whole. Every callback and every eDisconnected status runs
// on the connection's own receive thread, one at a time, in the order the packets arrived.
#ifndef TARN_TARNCONNECTION_H
#define TARN_TARNCONNECTION_H

#include <atomic>
#include <string>

#include <eudphardening.h>
#include <itarntransport.h>
#include <logging/logging.h>
#include <parameterlist.h>
#include <sal/thread.h>
#include <sal/types.h>
#include <tarn_export.h>
#include <tarnstatistics.h>

// What onStatusChanged reports: eConnected once the connection runs (after a successful connect,
// or once the listener started an accepted one), eDisconnected once, from the receive thread, when
// the link ends (closed by the peer, lost, or disconnect()).
enum EConnStatus { eConnected = 0, eDisconnected = 1 };

// Implemented by a client application: what the server sends.
class TARN_EXPORT ITARNClient {
public:
    virtual void onTrigger(const std::string& name, const ParameterValue& value) = 0;
    virtual void onUpdateState(const std::string& name, const ParameterValue& value) = 0;
    virtual void onStatusChanged(EConnStatus status) = 0;
    // Declared last so that the three operations keep their places in the table of virtual
    // functions. The library never deletes a client.
    virtual ~ITARNClient() = default;
};

// Implemented by a server application: what the client sends.
class TARN_EXPORT ITARNServer {
public:
    virtual void onSubscribe(const std::string& name) = 0;
    virtual void onUnsubscribe(const std::string& name) = 0;
    virtual void onCallFunctionId(const std::string& name, const ParameterList& params) = 0;
    virtual void onStatusChanged(EConnStatus status) = 0;
    // Declared last, as for ITARNClient. The library never deletes a server.
    virtual ~ITARNServer() = default;
};

class RunThreadC;  // the connection's receive thread (tarnconnection.cpp)

// One end of a TARN link (see the top of this file). Owns its transport and receive thread, never its
// ITARNClient or ITARNServer. Ended by disconnect() and then delete, never from inside one of its own
// callbacks; the destructor waits 200 ms and does not disconnect by itself.
class TARN_EXPORT TARNConnection {
public:
    explicit TARNConnection(ETransport transport);
    explicit TARNConnection(ITARNTransport* transport);  // takes ownership
    virtual ~TARNConnection();
    TARNConnection(const TARNConnection&) = delete;
    TARNConnection& operator=(const TARNConnection&) = delete;

    // Connects the transport to host:port; on success starts the receive thread and reports
    // eConnected. `client` is stored whatever the outcome. False when the peer cannot be reached: at
    // once over TCP when nobody listens, after 5 s without an answer over EUDP; then no thread runs and
    // no status is reported, and the connection is still disconnected and deleted as usual.
    // Reconnecting: over TCP call disconnect() first; over EUDP a link that ended can be connected
    // again as it is. A receive loop that has ended (reported eDisconnected) or was stopped by
    // disconnect() is first waited for, also while its eDisconnected callback still runs, so never
    // call connect() from a thread that callback waits for.
    bool connect(const std::string& host, uint16 port, ITARNClient* client);

    // Starts (or restarts) the receive thread; returns the thread start's result: false at once
    // while a receive loop is still going, also one that is just ending.
    bool start();

    // Attaches the server callbacks; takes effect with the next packet.
    void setServer(ITARNServer* server);

    // Passed to the transport unchanged. Over EUDP each asks the peer and blocks up to 10 s for its
    // answer (see ITARNTransport); over TCP the modes answer true for eReliable only, the window false.
    bool setWindowSize(uint size);
    bool setSendMode(EConnMode mode);
    bool setReceiveMode(EConnMode mode);

    // Reports a status to the client, then to the server, whichever are set.
    void updateStatus(EConnStatus status);

    // The five commands: a server sends trigger and updateState, a client subscribe, unsubscribe and
    // callFunctionId. Each sends one message from the calling thread and returns true once the
    // transport took it, false (with a debug log line) when it did not, e.g. before connect or after
    // the link ended. Everything must fit one message, 1488 bytes after the header: what does not
    // fit goes out cut short, and a list value that does not fit after its name ends the process
    // through an assertion.
    bool trigger(const std::string& name, const ParameterValue& value);
    bool updateState(const std::string& name, const ParameterValue& value);
    bool subscribe(const std::string& name);
    bool unsubscribe(const std::string& name);
    bool callFunctionId(const std::string& name, const ParameterList& params);

    // Stops the receive thread and closes the transport; the thread reports eDisconnected. Harmless
    // when the link has already ended. Call it before deleting the connection.
    void disconnect();

    std::string getPeerAddress() const;
    uint16 getPeerPort() const;
    uint16 getLocalPort() const;

    // What the transport has done so far; `transport` tells which part is filled (a transport of
    // another kind, handed in by the application, leaves both at zero). Any thread, any time.
    TARNConnectionStatistics getStatistics() const;
    // Hardened mode for an EUDP connection (eudphardening.h); call before connect(). False, and
    // nothing changed, when the transport is not EUDP.
    bool setHardening(const EUDPHardening& hardening);

private:
    friend class RunThreadC;

    // The receive loop; runs on the receive thread.
    TARN_NO_EXPORT void run();
    TARN_NO_EXPORT bool sendPacket(const class TARNPacket& packet, const char* failure,
                                   const std::string& name);
    TARN_NO_EXPORT void awaitEndingLoop();
    TARN_NO_EXPORT void endLoop();

    ITARNTransport* m_pTransport;
    std::atomic<ITARNClient*> m_pClient;
    std::atomic<ITARNServer*> m_pServer;  // read afresh for every packet
    Corvane::Utilities::Logging::LogCategory m_log;
    RunThreadC* m_pThread;
    std::atomic<bool> m_bStop;        // written by the application, read by the receive loop
    std::atomic<bool> m_bLoopEnding;  // set by a loop that has stopped receiving, cleared by start()
};

// Library start-up and shut-down: create and destroy the process's command processor. Call tarnInit
// once before using the library and tarnDeinit once after; a second tarnInit without tarnDeinit in
// between ends the process through an assertion, a tarnDeinit without tarnInit does nothing.
TARN_EXPORT void tarnInit();
TARN_EXPORT void tarnDeinit();

#endif  // TARN_TARNCONNECTION_H
