// Hardened EUDP: the checks a transport makes when hardening is on, and the listener's admission
// of connection requests. With hardening off each check lets everything through unchanged (the
// listener still counts what it accepted and dropped).
#include <eudptransport.h>

#include "eudpadmission.h"

using Corvane::Utilities::Logging::eWarning;

namespace {

const std::int64_t LOG_INTERVAL_MS = 1000;
const std::uint32_t MIN_WINDOW = 1;
const std::uint32_t MAX_WINDOW = EUDPTransport::RING_CAPACITY - 1;  // the ring holds 999

// The table key of a source: an IPv4 address's 4 bytes (short enough to need no allocation, so a
// flood from IPv4 sources allocates nothing per request), otherwise the 16 address bytes and zone.
std::string sourceKey(const sal::HostAddress& address) {
    if (address.isIPv4()) {
        const std::uint32_t ipv4 = address.toUint32();
        return std::string(reinterpret_cast<const char*>(&ipv4), sizeof ipv4);
    }
    std::string key(reinterpret_cast<const char*>(address.getIPv6Bytes()), 16);
    const std::uint32_t zone = address.getScopeId();
    key.append(reinterpret_cast<const char*>(&zone), sizeof(zone));
    return key;
}

const char* refusalText(int cause) {
    switch (cause) {
        case eRefusedTotalLimit:
            return "too many connections in all";
        case eRefusedPerSourceLimit:
            return "too many connections from this address";
        default:
            return "too many new connections from this address within a second";
    }
}

}  // namespace

void EUDPTransport::setHardening(const EUDPHardening& hardening) {
    m_hardening = hardening;
    m_bHardened.store(hardening.enabled);
    if (m_pAdmission) {
        m_pAdmission->setHardening(hardening);
    }
}

EUDPHardening EUDPTransport::getHardening() const {
    return m_hardening;
}

TARNListenerStatistics EUDPTransport::getListenerStatistics() const {
    return m_pAdmission ? m_pAdmission->snapshot() : TARNListenerStatistics();
}

void EUDPTransport::logHardenedDrop(EEUDPHardenedCause cause, std::uint64_t total,
                                    const sal::HostAddress* pFrom, uint16 fromPort) {
    const std::int64_t now = EUDPCounters::coarseMillis();
    std::int64_t last = m_lastHardenedLog[cause].load(std::memory_order_relaxed);
    if (now - last < LOG_INTERVAL_MS ||
        !m_lastHardenedLog[cause].compare_exchange_strong(last, now, std::memory_order_relaxed)) {
        return;
    }
    Corvane::Utilities::Logging::LogStream line = logLine(eWarning);
    line << "hardened: ";
    switch (cause) {
        case eHardenedForeignSource:
            line << "dropped a datagram from " << pFrom->getAddressString() << ":" << fromPort
                 << ", not the peer";
            break;
        case eHardenedEmptyDatagram:
            line << "ignored an empty datagram";
            break;
        case eHardenedReceiveError:
            line << "ignored a receive error";
            break;
        default:
            line << "bounded a window request";
            break;
    }
    line << " (" << total << " so far)";
}

bool EUDPTransport::takeFrom(const sal::HostAddress& address, uint16 port) {
    if (!m_bHardened.load(std::memory_order_relaxed)) {
        return true;
    }
    // While connecting the peer's port is not known yet: its answer may come from any port of the
    // address connected to.
    const uint16 peerPort = m_peerPort.load();
    if (address == m_peerAddress && (peerPort == 0 || port == peerPort)) {
        return true;
    }
    logHardenedDrop(eHardenedForeignSource, m_counters.countHardened(eHardenedForeignSource), &address, port);
    return false;
}

bool EUDPTransport::survivesEmptyOrError(int received, const sal::HostAddress& address, uint16 port) {
    if (!m_bHardened.load(std::memory_order_relaxed) || m_bClosed.load()) {
        return false;
    }
    const sal::UdpSocket* pSocket = m_pSocket.load();
    if (pSocket == nullptr || pSocket->isClosed()) {
        return false;
    }
    if (received == 0 && !takeFrom(address, port)) {
        return true;  // counted as a stranger's
    }
    const EEUDPHardenedCause cause = received == 0 ? eHardenedEmptyDatagram : eHardenedReceiveError;
    logHardenedDrop(cause, m_counters.countHardened(cause), nullptr, 0);
    if (received < 0) {
        sal::Thread::mssleep(1);  // an error that repeats must not spin this thread
    }
    return true;
}

std::uint32_t EUDPTransport::boundWindowRequest(std::uint32_t requested) {
    if (!m_bHardened.load(std::memory_order_relaxed) ||
        (requested >= MIN_WINDOW && requested <= MAX_WINDOW)) {
        return requested;
    }
    logHardenedDrop(eHardenedWindowClamped, m_counters.countHardened(eHardenedWindowClamped), nullptr, 0);
    return requested < MIN_WINDOW ? MIN_WINDOW : MAX_WINDOW;
}

// ---- listening side -----------------------------------------------------------------------------

void EUDPTransport::countListenerDrop(int kind) {
    m_pAdmission->countDrop(static_cast<EUDPAdmission::EDrop>(kind));
}

bool EUDPTransport::listenerSurvives(sal::UdpSocket* pSocket, int received) {
    if (pSocket->isClosed() || m_bClosed.load()) {
        return false;
    }
    const bool empty = received == 0;
    const std::uint64_t total =
        m_pAdmission->countDrop(empty ? EUDPAdmission::eDropEmpty : EUDPAdmission::eDropReceiveError);
    if (!m_bHardened.load(std::memory_order_relaxed)) {
        return false;
    }
    logHardenedDrop(empty ? eHardenedEmptyDatagram : eHardenedReceiveError, total, nullptr, 0);
    if (!empty) {
        sal::Thread::mssleep(1);
    }
    return true;
}

bool EUDPTransport::admitConnection(const sal::HostAddress& address, uint16 port) {
    const std::int64_t now = EUDPCounters::coarseMillis();
    const int refusal = m_pAdmission->admit(sourceKey(address), now);
    if (refusal < 0) {
        return true;
    }
    if (m_pAdmission->logDue(refusal, now)) {
        const TARNListenerStatistics figures = m_pAdmission->snapshot();
        logLine(eWarning) << "hardened: refused a connection from " << address.getAddressString() << ":"
                          << port << ", " << refusalText(refusal) << " (" << figures.refused[refusal]
                          << " so far)";
    }
    return false;
}

void EUDPTransport::handOnAdmission(EUDPTransport* pPeer, const sal::HostAddress& address) {
    pPeer->setHardening(m_hardening);
    pPeer->m_pAdmission = m_pAdmission;
    pPeer->m_admittedAddress = address;
    pPeer->m_bAdmitted.store(true);
    m_pAdmission->countAccepted();
}

void EUDPTransport::leaveAdmission() {
    if (m_bAdmitted.exchange(false)) {
        m_pAdmission->release(sourceKey(m_admittedAddress));
    }
}
