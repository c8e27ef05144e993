// The OpenSSL context behind a TLS end: protocol versions, certificate and key, trusted CAs, the
// peer check and the key log. Built once from a TLSConfig and shared by every link made with it.
#ifndef TARN_TLS_TLSCONTEXT_H
#define TARN_TLS_TLSCONTEXT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include <logging/logging.h>
#include <tlstransport.h>

namespace tarntls {

// The category every TLS line goes to ("TARN"); lines begin "TARN/TLS: ".
Corvane::Utilities::Logging::LogCategory tlsLog();

// OpenSSL's reasons for the last failure on this thread, oldest first, joined by "; " (and the queue
// emptied); `fallback` when the queue holds none.
std::string takeOpensslErrors(const std::string& fallback);

class TlsContext {
public:
    enum ERole { eClient, eServer };

    // Null, with the reason in `error`, when the certificate, key or CAs cannot be loaded.
    static std::shared_ptr<TlsContext> create(const TLSConfig& config, ERole role, std::string& error);
    ~TlsContext();
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    SSL_CTX* get() const { return m_pCtx; }
    const TLSConfig& config() const { return m_config; }
    ERole role() const { return m_role; }

private:
    TlsContext(SSL_CTX* ctx, const TLSConfig& config, ERole role);
    SSL_CTX* m_pCtx;
    TLSConfig m_config;
    ERole m_role;
};

}  // namespace tarntls

#endif  // TARN_TLS_TLSCONTEXT_H
