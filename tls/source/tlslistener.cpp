// TLSListener: TARNListener accepting on a listening TLSTransport.
#include <tlslistener.h>

#include <sal/hostaddress.h>

#include "tlstransportimpl.h"

namespace {

// Stands between the listener and the application's connector: records which TLS transport each
// new connection runs on (the one accept() just handed out, on this same thread), so that
// TLSTransport::of answers inside the application's onNewConnection. Owns the application's
// connector, as the listener owns this one.
class TransportRecorder : public ITARNConnector {
public:
    TransportRecorder(TLSTransport* listening, ITARNConnector* application)
        : m_pListening(listening), m_pApplication(application) {}
    ~TransportRecorder() override { delete m_pApplication; }
    TransportRecorder(const TransportRecorder&) = delete;
    TransportRecorder& operator=(const TransportRecorder&) = delete;

    void onNewConnection(TARNConnection* connection) override {
        TLSTransport* const accepted = TLSTransport::Impl::lastAcceptedBy(*m_pListening);
        if (accepted != nullptr) {
            tarntls::registerConnection(connection, accepted);
        }
        m_pApplication->onNewConnection(connection);
    }

    // Hands the application's connector back (a listener that did not start).
    ITARNConnector* release() {
        ITARNConnector* const application = m_pApplication;
        m_pApplication = nullptr;
        return application;
    }

private:
    TLSTransport* m_pListening;
    ITARNConnector* m_pApplication;
};

}  // namespace

TLSListener::TLSListener(const TLSConfig& config) : m_config(config) {}

TLSListener::~TLSListener() {
    shutdown(-1);
    m_pListener.reset();  // deletes the connectors while the transport still exists
    m_pTransport.reset();
}

bool TLSListener::listen(const std::string& address, uint16 port, ITARNConnector* connector) {
    if (m_bListening) {
        return false;
    }
    std::unique_ptr<TLSTransport> transport(new TLSTransport(m_config));
    if (!transport->listen(sal::HostAddress(address), port)) {
        return false;
    }
    std::unique_ptr<TARNListener> listener(new TARNListener(eTransportTCP));
    TransportRecorder* const recorder = new TransportRecorder(transport.get(), connector);
    if (!listener->listenOn(transport.get(), recorder)) {
        recorder->release();
        delete recorder;
        return false;
    }
    // A previous run's listener goes first, then the transport it accepted on.
    m_pListener.reset();
    m_pTransport = std::move(transport);
    m_pListener = std::move(listener);
    m_bListening = true;
    return true;
}

bool TLSListener::shutdown(int timeout) {
    m_bListening = false;
    return m_pListener ? m_pListener->shutdown(timeout) : false;
}

uint16 TLSListener::getLocalPort() const {
    return m_pTransport ? m_pTransport->getLocalPort() : 0;
}
