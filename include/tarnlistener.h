// The server side's entry point: listens on an address and port, accepts peers one after another
// on its own thread, wraps each in a new TARNConnection, hands it to the application's
// ITARNConnector, then starts it and reports eConnected.
//
// Ownership: the listener owns its thread and its connector (deleted with the listener). Each
// connection handed to onNewConnection belongs to the application from then on and lives on
// independently of the listener. The listening transport is left behind, disconnected, when the
// listener is deleted; so is a peer's transport that accept returned while the listener was
// shutting down (never handed out, its link stays open). A TARNConnectionSet (at the end of this
// file) can own the handed-out connections and delete them safely.
//
// Two ways to start: listen() binds on the listener's thread and always returns true, so a port
// that cannot be bound shows up only later (see listen); bindAndListen() binds on the calling
// thread first and returns false, starting nothing, when that fails.
//
// Threads: listen, bindAndListen, start, shutdown and the destructor on the application's thread;
// onNewConnection runs on the listener's thread.
#ifndef TARN_TARNLISTENER_H
#define TARN_TARNLISTENER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <eudphardening.h>
#include <itarntransport.h>
#include <sal/types.h>
#include <tarn_export.h>
#include <tarnstatistics.h>

class TARNConnection;
class ITARNServer;

// Implemented by a server application.
class TARN_EXPORT ITARNConnector {
public:
    // A peer was accepted. The application takes ownership of `connection` and attaches its
    // ITARNServer here (setServer) to see every command from the first packet on; the listener
    // starts the connection and reports eConnected right after this returns.
    virtual void onNewConnection(TARNConnection* connection) = 0;
    virtual ~ITARNConnector() = default;
};

class RunThread;  // the listener's accept thread (tarnlistener.cpp)

// Accepts peers on its own thread and hands each to the ITARNConnector as a new TARNConnection (see
// the top of this file). Deleting the listener stops accepting; the connections handed out run on.
class TARN_EXPORT TARNListener {
public:
    explicit TARNListener(ETransport transport);
    virtual ~TARNListener();
    TARNListener(const TARNListener&) = delete;
    TARNListener& operator=(const TARNListener&) = delete;

    // Stores the arguments and starts the accept thread; always true, since binding happens later, on
    // the thread. `address` "" or "0.0.0.0" is every interface; port 0 lets the system choose
    // (getLocalPort() tells which). The listener takes the connector and deletes it with itself.
    // A port that cannot be bound is not reported: over EUDP the listener then accepts nobody, and
    // over TCP the connector is handed a connection without a socket, whose receive thread ends the
    // process through an assertion. Make sure the port is free, use port 0, or use bindAndListen.
    bool listen(const std::string& address, uint16 port, ITARNConnector* connector);
    // Binds `address`:`port` on the calling thread, then goes on as listen(). False when the
    // address cannot be bound (a port already taken, an address that is not this machine's, a
    // name that does not resolve): then nothing is started and `connector` stays the caller's.
    // True: the listener has taken the connector, the port is listening before the call returns,
    // and getLocalPort() tells it at once. For a listener that is not listening yet.
    bool bindAndListen(const std::string& address, uint16 port, ITARNConnector* connector);
    // Accepts on `transport`, a listening transport that the application made and bound (its
    // listen() returned true), of any kind: a transport from an add-on library, say. The accept
    // loop and everything it does with a peer are listen()'s. shutdown() disconnects the transport;
    // it stays the application's, to be deleted only after the listener. False, with nothing
    // started and the connector still the caller's, for a null transport or a listener that is
    // still accepting; on true the listener takes the connector. The kind given at construction is
    // not used.
    bool listenOn(ITARNTransport* transport, ITARNConnector* connector);
    // Starts the accept thread again with the address, port and connector stored before; returns
    // the thread start's result. It leaves the running flag as it is: after shutdown() a bare
    // start() serves one peer and stops, while listen() starts a loop that goes on.
    bool start();
    // Stops accepting: ends the accept thread, waiting up to `timeout` milliseconds (-1 without
    // limit); false when there was no thread. Connections already handed out are not touched.
    bool shutdown(int timeout);

    // The listening transport's bound port (0 before the thread has bound it). Lets an application
    // that listened on port 0 learn the port the system chose.
    uint16 getLocalPort() const;

    // Hardened mode for an EUDP listener (eudphardening.h): applied to its listening transport and
    // to every transport it accepts, including the limits on connection requests. Call before
    // listen() or bindAndListen(); ignored over TCP. A transport handed to listenOn() keeps its own
    // setting (EUDPTransport::setHardening), which it hands on to what it accepts.
    void setHardening(const EUDPHardening& hardening);
    // The modes every connection an EUDP listener accepts allows when its peer asks for one
    // (EUDPTransport::allowSendMode, allowReceiveMode), in force before the accepted transport
    // receives its first datagram: a request that follows the handshake at once, before
    // onNewConnection could restrict anything, already meets them. Call before listen() or
    // bindAndListen(); ignored over TCP and by a transport handed to listenOn(), which keeps its
    // own (EUDPTransport::allowAcceptedSendMode). Neither realtime nor reliable is refused with an
    // error line, keeping the setting before. Every mode unless called.
    void allowAcceptedSendMode(bool realtime, bool reliable);
    void allowAcceptedReceiveMode(bool realtime, bool reliable);
    // Connections accepted so far and, over EUDP, those still live, the requests refused by cause
    // and what else reached the listening socket (tarnstatistics.h). Any thread, any time; all zero
    // before the accept thread has created its transport.
    TARNListenerStatistics getStatistics() const;

protected:
    // What shutdown() has the accept thread do as it stops: clears the running flag and disconnects
    // the listening transport, so that a blocked accept comes back; true. A derived listener that
    // overrides it calls this one.
    virtual bool shutdownCallback();

private:
    friend class RunThread;
    friend class TARNListenerTest;

    // The accept loop; runs on the listener's thread.
    TARN_NO_EXPORT void run();
    // Of m_transportType, set up; null for an unknown kind.
    TARN_NO_EXPORT ITARNTransport* newTransport() const;

    ETransport m_transportType;
    std::atomic<ITARNTransport*> m_pTransport;  // created by the thread, disconnected by shutdown
    // Bound by bindAndListen and handed to the next run, which then makes no transport of its own.
    std::atomic<ITARNTransport*> m_pBound;
    bool m_bBoundIsOurs;  // false for a transport given to listenOn: never deleted here
    std::string m_address;
    uint16 m_port;
    ITARNConnector* m_pConnector;
    std::atomic<bool> m_bRunning;
    RunThread* m_pThread;
    // Set by shutdownCallback, cleared by start(): lets a run that created its transport after a
    // shutdown had already looked for it close that transport itself instead of blocking in accept.
    std::atomic<bool> m_bShutdownRequested;
    EUDPHardening m_hardening;  // set before listen(), read by the accept thread
    // Modes accepted EUDP transports allow: send realtime, send reliable, receive realtime, receive
    // reliable. Set before listen(), read by the accept thread.
    bool m_allowed[4] = {true, true, true, true};
    std::atomic<std::uint64_t> m_accepted;
};

// Owns the connections a server accepted and deletes each safely: never from inside one of its own
// callbacks, and only once it has reported eConnected (the thread that reported it has left the
// connection) and, after disconnect(), eDisconnected. The application adds each connection with its
// ITARNServer from ITARNConnector::onNewConnection, or from its own accept loop before it starts the
// connection; the set attaches a relay that hands every callback on to that server unchanged and
// notes the statuses. The server stays the application's unless add() is told to delete it.
//
// Threads: add on any thread; reap, close, closeAll and the destructor on the application's own
// threads, never from a callback of a connection in the set (they wait for those callbacks). Each
// of them may run on several threads at once: a connection is taken out of the set by exactly one.
class TARN_EXPORT TARNConnectionSet {
public:
    // Called just before the set deletes a connection, with the connection and the server it was
    // added with (see setEndingHandler).
    using EndingHandler = std::function<void(TARNConnection* connection, ITARNServer* server)>;

    TARNConnectionSet();
    ~TARNConnectionSet();  // closeAll()
    TARNConnectionSet(const TARNConnectionSet&) = delete;
    TARNConnectionSet& operator=(const TARNConnectionSet&) = delete;

    // What the application does just before a connection is deleted: stop a thread of its own
    // that sends on it, take it out of its own tables. The handler runs on the thread that deletes
    // the connection (one of those reap, close or closeAll start, several side by side, so it must
    // be safe to call for different connections at once), once per connection, after its server's
    // callback for eDisconnected has returned (closeAll and close give up waiting for it after
    // 30 s) and before the connection, and then a server the set owns, are deleted. The
    // connection makes no more callbacks by then, but it is not disconnected by the set unless
    // close or closeAll ended it. Set before the first add; none by default.
    void setEndingHandler(EndingHandler handler);

    // Takes `connection` and attaches `server` (may be null) through the relay. With `deleteServer`
    // the server is deleted right after its connection.
    void add(TARNConnection* connection, ITARNServer* server, bool deleteServer = false);
    // Deletes the connections whose link has ended (both statuses reported, the server's callback
    // for eDisconnected returned); returns how many are left. Each deletion takes the connection
    // destructor's 200 ms; they run side by side.
    std::size_t reap();
    // Disconnects `connection`, waits for its statuses (up to 30 s) and deletes it, on the calling
    // thread; false, touching nothing, when the set does not hold it (never added, or already
    // taken by reap, closeAll or another close).
    bool close(TARNConnection* connection);
    // Disconnects every connection, waits for its statuses (up to 30 s each) and deletes it; side
    // by side, like reap.
    void closeAll();
    std::size_t size() const;

private:
    class Impl;
    Impl* m_pImpl;
};

#endif  // TARN_TARNLISTENER_H
