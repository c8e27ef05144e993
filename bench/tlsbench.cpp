// The TLS server of the benchmarks (see tlsbench.h).
#include "tlsbench.h"

#ifdef TARN_BENCH_HAVE_TLS
#include <tlslistener.h>
#include <tlstransport.h>
#endif

namespace bench {

#ifdef TARN_BENCH_HAVE_TLS

namespace {

class TlsTarnServer : public TarnServer {
public:
    TlsTarnServer() : TarnServer(eTransportTCP) {
        m_bIdentity = makeSelfSignedCertificate(m_serverConfig.certPem, m_serverConfig.keyPem);
        m_clientConfig.caPem = m_serverConfig.certPem;  // checked against 127.0.0.1, as connected to
    }
    ~TlsTarnServer() override { stopListening(); }

    ITARNTransport* newClientTransport() override { return new TLSTransport(m_clientConfig); }

protected:
    uint16 listenWith(ITARNConnector* connector) override {
        m_pListener.reset(new TLSListener(m_serverConfig));
        if (!m_bIdentity || !m_pListener->listen("127.0.0.1", 0, connector)) {
            delete connector;
            return 0;
        }
        return m_pListener->getLocalPort();
    }

    void stopListening() override {
        if (m_pListener) {
            m_pListener->shutdown(-1);
            m_pListener.reset();
        }
    }

private:
    TLSConfig m_serverConfig;
    TLSConfig m_clientConfig;
    bool m_bIdentity = false;
    std::unique_ptr<TLSListener> m_pListener;
};

}  // namespace

std::unique_ptr<TarnServer> makeTlsServer() {
    return std::unique_ptr<TarnServer>(new TlsTarnServer());
}

#else

std::unique_ptr<TarnServer> makeTlsServer() {
    return nullptr;
}

#endif

}  // namespace bench
