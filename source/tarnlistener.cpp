// TARNListener: the accept thread that turns each accepted transport into a TARNConnection for the
// application.
//
// The listener keeps no log category of its own; it asks for "TARN" each time it logs.
#include <tarnlistener.h>

#include <eudptransport.h>
#include <logging/logging.h>
#include <sal/assert.h>
#include <sal/hostaddress.h>
#include <sal/thread.h>
#include <tarnconnection.h>
#include <tcptransport.h>

#include "tarntransportkind.h"

namespace Log = Corvane::Utilities::Logging;

namespace {

const char* const kUnit = "source/tarnlistener.cpp";

Log::LogCategory tarnLog() {
    return Log::LogManager::getInstance().getCategory("TARN");
}

}  // namespace

// The listener's accept thread: runs the listener's accept loop, and has the listener close its
// transport when it is shut down. The listener owns it.
class RunThread : public sal::Thread {
public:
    explicit RunThread(TARNListener* pListener);
    ~RunThread() override;
    void run() override;
    bool shutdownCallback() override;

    TARNListener* m_pListener;  // not owned
};

RunThread::RunThread(TARNListener* pListener) : m_pListener(pListener) {}

// The listener has shut this thread down before deleting it, so run() is over by now.
RunThread::~RunThread() = default;

void RunThread::run() {
    m_pListener->run();
}

bool RunThread::shutdownCallback() {
    return m_pListener->shutdownCallback();
}

TARNListener::TARNListener(ETransport transport)
    : m_transportType(transport),
      m_pTransport(nullptr),
      m_pBound(nullptr),
      m_bBoundIsOurs(true),
      m_address(),
      m_port(0),
      m_pConnector(nullptr),
      m_bRunning(false),
      m_pThread(nullptr),
      m_bShutdownRequested(false),
      m_hardening(),
      m_accepted(0) {}

// The listening transport stays behind, disconnected: the listener deliberately never deletes it.
TARNListener::~TARNListener() {
    shutdown(-1);
    delete m_pThread;
    m_pThread = nullptr;
    ITARNTransport* const unused = m_pBound.exchange(nullptr);  // bound, but no run ever took it
    if (m_bBoundIsOurs) {
        delete unused;
    }
    delete m_pConnector;
    m_pConnector = nullptr;
}

// Always true: binding happens on the thread, and a failed bind shows up as a failed accept there.
bool TARNListener::listen(const std::string& address, uint16 port, ITARNConnector* connector) {
    m_address = address;
    m_port = port;
    m_pConnector = connector;
    m_bRunning = true;
    start();
    return true;
}

// The transport is made and bound here, on the caller's thread; a run takes it over instead of
// making its own. An unknown transport kind is refused like an address that cannot be bound.
bool TARNListener::bindAndListen(const std::string& address, uint16 port, ITARNConnector* connector) {
    ITARNTransport* const transport = newTransport();
    if (transport == nullptr) {
        return false;
    }
    if (!transport->listen(sal::HostAddress(address), port)) {
        delete transport;
        return false;
    }
    ITARNTransport* const unused = m_pBound.exchange(transport);
    if (m_bBoundIsOurs) {
        delete unused;
    }
    m_bBoundIsOurs = true;
    m_pTransport = transport;  // getLocalPort() answers from now on
    return listen(address, port, connector);
}

// The application's transport is handed to the run as a bound one is; it is never deleted here.
bool TARNListener::listenOn(ITARNTransport* transport, ITARNConnector* connector) {
    if (transport == nullptr || (m_pThread != nullptr && m_pThread->isRunning())) {
        return false;
    }
    ITARNTransport* const unused = m_pBound.exchange(transport);
    if (m_bBoundIsOurs) {
        delete unused;
    }
    m_bBoundIsOurs = false;
    m_pTransport = transport;
    return listen(m_address, m_port, connector);
}

// Leaves m_bRunning alone: after a shutdown, a bare start() serves one peer and stops.
bool TARNListener::start() {
    m_bShutdownRequested = false;
    if (m_pThread == nullptr) {
        m_pThread = new RunThread(this);
    }
    return m_pThread->start();
}

bool TARNListener::shutdown(int timeout) {
    m_bRunning = false;
    if (m_pThread == nullptr) {
        return false;
    }
    return m_pThread->shutdown(timeout);
}

bool TARNListener::shutdownCallback() {
    m_bRunning = false;
    m_bShutdownRequested = true;
    ITARNTransport* const transport = m_pTransport.load();
    if (transport != nullptr) {
        transport->disconnect();  // a blocked accept comes back
    }
    return true;
}

uint16 TARNListener::getLocalPort() const {
    ITARNTransport* const transport = m_pTransport.load();
    return (transport != nullptr) ? transport->getLocalPort() : 0;
}

void TARNListener::setHardening(const EUDPHardening& hardening) {
    m_hardening = hardening;
}

namespace {

// Neither realtime nor reliable is refused, as the transport refuses it, and the pair before stays.
void storeAllowedPair(bool* pair, bool realtime, bool reliable) {
    if (!realtime && !reliable) {
        tarnLog().getErrorStream() << "TARN: allowing neither realtime nor reliable mode";
        return;
    }
    pair[0] = realtime;
    pair[1] = reliable;
}

}  // namespace

void TARNListener::allowAcceptedSendMode(bool realtime, bool reliable) {
    storeAllowedPair(&m_allowed[0], realtime, reliable);
}

void TARNListener::allowAcceptedReceiveMode(bool realtime, bool reliable) {
    storeAllowedPair(&m_allowed[2], realtime, reliable);
}

ITARNTransport* TARNListener::newTransport() const {
    ITARNTransport* const transport = tarn::newTransportOfKind(m_transportType);
    EUDPTransport* const eudp = dynamic_cast<EUDPTransport*>(transport);
    if (eudp != nullptr) {
        eudp->setHardening(m_hardening);
        eudp->allowAcceptedSendMode(m_allowed[0], m_allowed[1]);  // both true unless restricted
        eudp->allowAcceptedReceiveMode(m_allowed[2], m_allowed[3]);
    }
    return transport;
}

TARNListenerStatistics TARNListener::getStatistics() const {
    TARNListenerStatistics out;
    const EUDPTransport* eudp = dynamic_cast<const EUDPTransport*>(m_pTransport.load());
    if (eudp != nullptr) {
        out = eudp->getListenerStatistics();
    }
    out.accepted = m_accepted.load(std::memory_order_relaxed);
    return out;
}

void TARNListener::run() {
    ITARNTransport* transport = m_pBound.exchange(nullptr);  // bound by bindAndListen, if any
    const bool bound = transport != nullptr;
    if (!bound) {
        transport = newTransport();
        if (transport == nullptr) {
            SAL_ASSERT_AT(false, kUnit, 89, "void TARNListener::run()");  // an unknown kind
        }
    }
    // A transport of an earlier run is overwritten, not deleted.
    m_pTransport = transport;
    SAL_ASSERT_AT(m_pConnector, kUnit, 94, "void TARNListener::run()");

    // The result is not looked at: a failed bind surfaces as a failed accept below.
    if (!bound) {
        transport->listen(sal::HostAddress(m_address), m_port);
    }

    // A shutdown that came after start() but before the transport existed found nothing to close;
    // close it here so that accept returns at once, just as if the shutdown had reached it.
    if (m_bShutdownRequested.load()) {
        transport->disconnect();
    }

    for (;;) {
        ITARNTransport* const accepted = transport->accept();
        if (!m_bRunning.load()) {
            tarnLog().getInfoStream() << "TARN: listener is shut down";
            // A peer accepted at this moment is dropped unused, and its transport is left as it
            // is, not deleted: its link stays open (over EUDP it keeps answering the peer), as the
            // listening transport of a finished run stays behind.
            return;
        }
        if (accepted == nullptr) {
            tarnLog().getErrorStream() << "TARN: failed to accept incoming connection";
            return;
        }
        // The connector sees the connection before its thread runs and before it reports
        // eConnected, so a server attached there gets every command from the first on.
        m_accepted.fetch_add(1, std::memory_order_relaxed);
        TARNConnection* const connection = new TARNConnection(accepted);
        m_pConnector->onNewConnection(connection);
        connection->start();
        connection->updateStatus(eConnected);
    }
}
