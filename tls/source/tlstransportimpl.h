// What a TLSTransport holds: its configuration, the contexts made from it, and either the link of a
// connected transport or the listening socket and handshake thread of a listening one.
#ifndef TARN_TLS_TLSTRANSPORTIMPL_H
#define TARN_TLS_TLSTRANSPORTIMPL_H

#include <atomic>
#include <memory>
#include <mutex>

#include <tlstransport.h>

#include "tlsacceptor.h"
#include "tlscontext.h"
#include "tlslink.h"

struct TLSTransport::Impl {
    explicit Impl(const TLSConfig& configuration) : config(configuration) {}

    static TLSTransport* lastAcceptedBy(const TLSTransport& listening) {
        return listening.m_pImpl->lastAccepted;
    }

    TLSConfig config;
    std::shared_ptr<tarntls::TlsContext> context;  // made by the first connect or listen
    std::unique_ptr<tarntls::TlsLink> link;        // connected
    int listenFd = -1;                             // listening
    std::atomic<uint16> listenPort{0};
    std::mutex closeMutex;  // disconnect may come from two threads at once
    std::unique_ptr<tarntls::TlsAcceptor> acceptor;
    // The transport accept() handed out last; read by the listener's connector on the same thread.
    TLSTransport* lastAccepted = nullptr;
    std::string lastError;  // set by connect and listen, on the caller's thread
    // The connection a TLSListener made of this transport, for TLSTransport::of.
    const TARNConnection* connection = nullptr;
};

namespace tarntls {

// Records that `connection` runs on `transport` until the transport is deleted.
void registerConnection(const TARNConnection* connection, TLSTransport* transport);

}  // namespace tarntls

#endif  // TARN_TLS_TLSTRANSPORTIMPL_H
