// TARNConnection: set-up, the five sending operations, the receive loop that dispatches to the
// application's callbacks, and the library's start-up and shut-down.
//
// The protocol layer takes no lock of its own: the transport keeps concurrent messages whole, and
// the fields shared with the receive thread are atomics.
#include <tarnconnection.h>

#include <cstdio>

#include <eudptransport.h>
#include <sal/assert.h>
#include <sal/cmdprocessor.h>
#include <sal/hostaddress.h>
#include <tarnpacket.h>
#include <tcptransport.h>

#include "tarntransportkind.h"

namespace Log = Corvane::Utilities::Logging;

namespace {

const char* const kUnit = "source/tarnconnection.cpp";

// The destructor's pause before it deletes the transport.
const unsigned int kDeletePauseMs = 200;
// disconnect(): the pause after the stop flag is set, and how long the receive thread's shutdown is
// waited for before the transport is closed.
const unsigned int kStopPauseMs = 10;
const int kStopShutdownMs = 20;

// Hands one received, validated packet to the callback object its command is meant for.
void dispatch(const TARNPacket& packet, ITARNClient* client, ITARNServer* server,
              const Log::LogCategory& log) {
    switch (packet.m_pHeader->command) {
        case CMD_TRIGGER:
        case CMD_UPDATE_STATE: {
            const bool isTrigger = packet.m_pHeader->command == CMD_TRIGGER;
            if (client == nullptr) {
                log.getWarnStream()
                    << (isTrigger ? "TARN: received unexpected trigger cmd (no client available)"
                                  : "TARN: received unexpected update state cmd (no client available)");
                return;
            }
            // What the readers produce is passed on as it is, also from a short body: validation
            // is the only gate.
            const std::string name = packet.getString();
            ParameterValue value;
            packet.getParameterValue(value);
            if (isTrigger) {
                client->onTrigger(name, value);
            } else {
                client->onUpdateState(name, value);
            }
            return;
        }
        case CMD_SUBSCRIBE:
        case CMD_UNSUBSCRIBE: {
            const bool isSubscribe = packet.m_pHeader->command == CMD_SUBSCRIBE;
            if (server == nullptr) {
                log.getWarnStream()
                    << (isSubscribe ? "TARN: received unexpected subscribe cmd (no server available)"
                                    : "TARN: received unexpected unsubscribe cmd (no server available)");
                return;
            }
            const std::string name = packet.getString();
            if (isSubscribe) {
                server->onSubscribe(name);
            } else {
                server->onUnsubscribe(name);
            }
            return;
        }
        case CMD_CALL_FUNCTION: {
            if (server == nullptr) {
                log.getWarnStream() << "TARN: received unexpected FID cmd (no server available)";
                return;
            }
            const std::string name = packet.getString();
            ParameterList params;
            packet.getParameterList(params);
            server->onCallFunctionId(name, params);
            return;
        }
        default:
            return;  // commands this side does not know are dropped without a word
    }
}

}  // namespace

// The connection's receive thread: runs TARNConnection::run().
class RunThreadC : public sal::Thread {
public:
    explicit RunThreadC(TARNConnection* pConnection);
    ~RunThreadC() override;
    void run() override;

    TARNConnection* m_pConnection;
};

RunThreadC::RunThreadC(TARNConnection* pConnection) : m_pConnection(pConnection) {}

// run() uses this object, so it must have returned before the derived part goes. The default
// shutdownCallback does nothing; this only waits, as the base destructor would.
RunThreadC::~RunThreadC() {
    shutdown(-1);
}

void RunThreadC::run() {
    m_pConnection->run();
}

TARNConnection::TARNConnection(ETransport transport)
    : m_pTransport(nullptr),
      m_pClient(nullptr),
      m_pServer(nullptr),
      m_log(Log::LogManager::getInstance().getCategory("TARN")),
      m_pThread(nullptr),
      m_bStop(true),
      m_bLoopEnding(false) {
    m_pTransport = tarn::newTransportOfKind(transport);
    if (m_pTransport == nullptr) {
        SAL_ASSERT_AT(false, kUnit, 49, "TARNConnection::TARNConnection(ETransport)");
    }
}

// The stop flag starts raised here too; nothing reads it before start() or disconnect() writes it.
TARNConnection::TARNConnection(ITARNTransport* transport)
    : m_pTransport(transport),
      m_pClient(nullptr),
      m_pServer(nullptr),
      m_log(Log::LogManager::getInstance().getCategory("TARN")),
      m_pThread(nullptr),
      m_bStop(true),
      m_bLoopEnding(false) {}

// Neither disconnects nor waits for the thread beyond the pause: the application disconnects first.
TARNConnection::~TARNConnection() {
    sal::Thread::mssleep(kDeletePauseMs);
    // After disconnect() the transport is closed, so the receive loop is on its way out; let it
    // leave receiveData before the transport goes, however slow the machine. Without disconnect()
    // the loop may be blocked for good, and deleting the transport is what ends it.
    if (m_pThread != nullptr && m_bStop) {
        m_pThread->shutdown(-1);
    }
    delete m_pTransport;
    delete m_pThread;
    m_pThread = nullptr;
    m_pClient = nullptr;
    m_pServer = nullptr;
}

bool TARNConnection::connect(const std::string& host, uint16 port, ITARNClient* client) {
    m_pClient = client;
    awaitEndingLoop();
    bool ok = false;
    {
        const sal::HostAddress address(host);
        ok = m_pTransport->connect(address, port);
    }
    if (ok) {
        m_bStop = false;
        start();
        updateStatus(eConnected);
    }
    return ok;
}

// No waiting here: a loop that is still going (even one on its way out after reporting
// eDisconnected) makes the start fail at once, as the thread's own start does.
bool TARNConnection::start() {
    m_bStop = false;
    if (m_pThread == nullptr) {
        m_pThread = new RunThreadC(this);
    } else if (m_pThread->isRunning()) {
        return false;
    }
    // The previous loop has returned, so nothing else writes the flag now.
    m_bLoopEnding = false;
    return m_pThread->start();
}

// A reconnect reuses the transport and then starts the loop again. A loop that is ending (it
// reported eDisconnected, or disconnect() closed the transport under it) no longer receives but may
// still be inside its eDisconnected callback; it is waited for, so that the start that follows
// finds the thread free. From the loop's own thread (a reconnect inside that callback) nothing can
// be waited for, and a loop that is still receiving is left alone.
void TARNConnection::awaitEndingLoop() {
    if (m_pThread != nullptr && (m_bStop.load() || m_bLoopEnding.load())) {
        m_pThread->shutdown(-1);
    }
}

void TARNConnection::setServer(ITARNServer* server) {
    m_pServer = server;
}

bool TARNConnection::setWindowSize(uint size) {
    return m_pTransport->setWindowSize(size);
}

bool TARNConnection::setSendMode(EConnMode mode) {
    return m_pTransport->setSendMode(mode);
}

bool TARNConnection::setReceiveMode(EConnMode mode) {
    return m_pTransport->setReceiveMode(mode);
}

void TARNConnection::updateStatus(EConnStatus status) {
    ITARNClient* const client = m_pClient.load();
    if (client != nullptr) {
        client->onStatusChanged(status);
    }
    ITARNServer* const server = m_pServer.load();
    if (server != nullptr) {
        server->onStatusChanged(status);
    }
}

// The append results are not looked at: a body that did not fit goes out as far as it fitted.
bool TARNConnection::trigger(const std::string& name, const ParameterValue& value) {
    TARNPacket packet(CMD_TRIGGER);
    packet.appendString(name);
    packet.appendParamValue(value);
    return sendPacket(packet, "TARN: failed to send trigger", name);
}

bool TARNConnection::updateState(const std::string& name, const ParameterValue& value) {
    TARNPacket packet(CMD_UPDATE_STATE);
    packet.appendString(name);
    packet.appendParamValue(value);
    return sendPacket(packet, "TARN: failed to send state update", name);
}

bool TARNConnection::subscribe(const std::string& name) {
    TARNPacket packet(CMD_SUBSCRIBE);
    packet.appendString(name);
    return sendPacket(packet, "TARN: failed to send subscribe cmd", name);
}

bool TARNConnection::unsubscribe(const std::string& name) {
    TARNPacket packet(CMD_UNSUBSCRIBE);
    packet.appendString(name);
    return sendPacket(packet, "TARN: failed to send unsubscribe cmd", name);
}

bool TARNConnection::callFunctionId(const std::string& name, const ParameterList& params) {
    TARNPacket packet(CMD_CALL_FUNCTION);
    packet.appendString(name);
    packet.appendParamList(params);
    return sendPacket(packet, "TARN: failed to send FID cmd", name);
}

// The failure line runs the message and the name together, with no separator.
bool TARNConnection::sendPacket(const TARNPacket& packet, const char* failure, const std::string& name) {
    const bool ok = m_pTransport->sendData(packet.m_buffer, packet.m_length);
    if (!ok) {
        m_log.getDebugStream() << failure << name;
    }
    return ok;
}

void TARNConnection::disconnect() {
    m_bStop = true;
    sal::Thread::mssleep(kStopPauseMs);
    if (m_pThread != nullptr) {
        m_pThread->shutdown(kStopShutdownMs);
    }
    // Closing the transport is what wakes the receive loop; it then reports eDisconnected.
    m_pTransport->disconnect();
}

std::string TARNConnection::getPeerAddress() const {
    if (m_pTransport == nullptr) {
        return std::string();
    }
    return m_pTransport->getPeerAddress().getAddressString();
}

uint16 TARNConnection::getPeerPort() const {
    return (m_pTransport != nullptr) ? m_pTransport->getPeerPort() : 0;
}

uint16 TARNConnection::getLocalPort() const {
    return (m_pTransport != nullptr) ? m_pTransport->getLocalPort() : 0;
}

TARNConnectionStatistics TARNConnection::getStatistics() const {
    TARNConnectionStatistics out;
    if (const EUDPTransport* eudp = dynamic_cast<const EUDPTransport*>(m_pTransport)) {
        out.transport = eTransportEUDP;
        out.eudp = eudp->getStatistics();
    } else if (const TCPTransport* tcp = dynamic_cast<const TCPTransport*>(m_pTransport)) {
        out.transport = eTransportTCP;
        out.tcp = tcp->getStatistics();
    }
    return out;
}

bool TARNConnection::setHardening(const EUDPHardening& hardening) {
    EUDPTransport* eudp = dynamic_cast<EUDPTransport*>(m_pTransport);
    if (eudp == nullptr) {
        return false;
    }
    eudp->setHardening(hardening);
    return true;
}

// One packet for the life of the loop: the transport writes each message straight into its buffer.
void TARNConnection::run() {
    TARNPacket packet;
    if (m_bStop.load()) {
        endLoop();
        return;
    }
    for (;;) {
        const int received = m_pTransport->receiveData(packet.m_buffer, TARNPacket::MAX_LENGTH);
        if (received <= 0) {
            endLoop();
            return;
        }
        packet.m_readPos = TARNPacket::HEADER_LENGTH;
        if (packet.validatePacket(static_cast<unsigned int>(received))) {
            // Read afresh for every packet, so a setServer made meanwhile counts from this one on.
            dispatch(packet, m_pClient.load(), m_pServer.load(), m_log);
        } else {
            m_log.getWarnStream() << "TARN: discarding invalid packet";
        }
        if (m_bStop.load()) {
            endLoop();
            return;
        }
    }
}

// The loop's one way out: from here on it does not touch the transport.
void TARNConnection::endLoop() {
    m_bLoopEnding = true;
    updateStatus(eDisconnected);
}

void tarnInit() {
    // The command processor registers itself as the instance; createInstance asserts there is none.
    sal::SingletonDll<sal::CmdProcessor>::createInstance();
    // A probe that start-up still performs: open for reading and close again, nothing read.
    std::FILE* probe = std::fopen("Halvex_Menu.exe.config", "r");
    if (probe != nullptr) {
        std::fclose(probe);
    }
}

void tarnDeinit() {
    sal::CmdProcessor* const instance = sal::SingletonDll<sal::CmdProcessor>::s_pInstance;
    if (instance != nullptr) {
        delete instance;
    }
    sal::SingletonDll<sal::CmdProcessor>::s_pInstance = nullptr;
}
