// TlsContext: turns a TLSConfig into an OpenSSL context.
#include "tlscontext.h"

#include "tlslink.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace Log = Corvane::Utilities::Logging;

namespace tarntls {

namespace {

// Key log lines from every context go to one file; the lock keeps lines from two handshakes apart.
std::mutex g_keyLogMutex;

// Appends one line in the NSS key log format, which Wireshark reads to decrypt a capture. The file
// is named by SSLKEYLOGFILE when the line is written, so a file moved away is made again.
void writeKeyLogLine(const SSL* /*ssl*/, const char* line) {
    const char* const path = std::getenv("SSLKEYLOGFILE");
    if (path == nullptr || *path == '\0') {
        return;
    }
    std::lock_guard<std::mutex> hold(g_keyLogMutex);
    std::FILE* const file = std::fopen(path, "a");
    if (file == nullptr) {
        return;
    }
    std::fprintf(file, "%s\n", line);
    std::fclose(file);
}

// The insecure switch: every certificate passes the check.
int acceptAnyCertificate(int /*preverified*/, X509_STORE_CTX* /*store*/) {
    return 1;
}

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

BioPtr memoryBio(const std::string& text) {
    return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// The first certificate of `pem` is this end's own, the rest its chain.
bool useCertificatePem(SSL_CTX* ctx, const std::string& pem) {
    BioPtr bio = memoryBio(pem);
    X509* const leaf = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr);
    if (leaf == nullptr || SSL_CTX_use_certificate(ctx, leaf) != 1) {
        X509_free(leaf);
        return false;
    }
    X509_free(leaf);
    while (X509* const next = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
        if (SSL_CTX_add0_chain_cert(ctx, next) != 1) {
            X509_free(next);
            return false;
        }
    }
    ERR_clear_error();  // the read that found no further certificate left its reason behind
    return true;
}

bool useKeyPem(SSL_CTX* ctx, const std::string& pem) {
    BioPtr bio = memoryBio(pem);
    EVP_PKEY* const key = PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr);
    const bool ok = key != nullptr && SSL_CTX_use_PrivateKey(ctx, key) == 1;
    EVP_PKEY_free(key);
    return ok;
}

// Every certificate in `pem` becomes a trusted CA; false when it holds none.
bool addCaPem(SSL_CTX* ctx, const std::string& pem) {
    BioPtr bio = memoryBio(pem);
    X509_STORE* const store = SSL_CTX_get_cert_store(ctx);
    int added = 0;
    while (X509* const cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
        const bool ok = X509_STORE_add_cert(store, cert) == 1;
        X509_free(cert);
        if (!ok) {
            return false;
        }
        ++added;
    }
    ERR_clear_error();
    return added > 0;
}

// This end's certificate and key; `error` names what failed.
bool loadIdentity(SSL_CTX* ctx, const TLSConfig& config, std::string& error) {
    const bool haveCert = !config.certPem.empty() || !config.certFile.empty();
    const bool haveKey = !config.keyPem.empty() || !config.keyFile.empty();
    if (haveCert != haveKey) {
        error = "a certificate needs its key and a key its certificate";
        return false;
    }
    if (!haveCert) {
        return true;
    }
    const bool certOk = !config.certPem.empty()
                            ? useCertificatePem(ctx, config.certPem)
                            : SSL_CTX_use_certificate_chain_file(ctx, config.certFile.c_str()) == 1;
    if (!certOk) {
        error = "cannot load the certificate " + (config.certPem.empty() ? config.certFile : "PEM") + ": " +
                takeOpensslErrors("no certificate found");
        return false;
    }
    const bool keyOk = !config.keyPem.empty()
                           ? useKeyPem(ctx, config.keyPem)
                           : SSL_CTX_use_PrivateKey_file(ctx, config.keyFile.c_str(), SSL_FILETYPE_PEM) == 1;
    if (!keyOk) {
        error = "cannot load the private key " + (config.keyPem.empty() ? config.keyFile : "PEM") + ": " +
                takeOpensslErrors("no key found");
        return false;
    }
    if (SSL_CTX_check_private_key(ctx) != 1) {
        error = "the private key does not match the certificate: " + takeOpensslErrors("mismatch");
        return false;
    }
    return true;
}

bool loadTrust(SSL_CTX* ctx, const TLSConfig& config, std::string& error) {
    for (const std::string& file : config.caFiles) {
        if (SSL_CTX_load_verify_locations(ctx, file.c_str(), nullptr) != 1) {
            error = "cannot load the CA file " + file + ": " + takeOpensslErrors("no certificate found");
            return false;
        }
    }
    if (!config.caPem.empty() && !addCaPem(ctx, config.caPem)) {
        error = "cannot load the CA PEM: " + takeOpensslErrors("no certificate found");
        return false;
    }
    if (config.caFiles.empty() && config.caPem.empty() && SSL_CTX_set_default_verify_paths(ctx) != 1) {
        error = "cannot load the system's trusted CAs: " + takeOpensslErrors("unknown");
        return false;
    }
    return true;
}

void setPeerCheck(SSL_CTX* ctx, const TLSConfig& config, TlsContext::ERole role) {
    int mode = SSL_VERIFY_PEER;
    if (role == TlsContext::eServer) {
        mode =
            config.requireClientCert ? (SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT) : SSL_VERIFY_NONE;
    }
    SSL_CTX_set_verify(ctx, mode, config.insecure ? acceptAnyCertificate : nullptr);
}

}  // namespace

Log::LogCategory tlsLog() {
    return Log::LogManager::getInstance().getCategory("TARN");
}

std::string takeOpensslErrors(const std::string& fallback) {
    std::string text;
    while (const unsigned long code = ERR_get_error()) {
        char line[256];
        ERR_error_string_n(code, line, sizeof line);
        if (!text.empty()) {
            text += "; ";
        }
        text += line;
    }
    return text.empty() ? fallback : text;
}

TlsContext::TlsContext(SSL_CTX* ctx, const TLSConfig& config, ERole role)
    : m_pCtx(ctx), m_config(config), m_role(role) {}

TlsContext::~TlsContext() {
    SSL_CTX_free(m_pCtx);
}

std::shared_ptr<TlsContext> TlsContext::create(const TLSConfig& config, ERole role, std::string& error) {
    ERR_clear_error();
    SSL_CTX* const ctx = SSL_CTX_new(role == eServer ? TLS_server_method() : TLS_client_method());
    if (ctx == nullptr) {
        error = "cannot make a TLS context: " + takeOpensslErrors("out of memory");
        return nullptr;
    }
    std::shared_ptr<TlsContext> context(new TlsContext(ctx, config, role));
    SSL_CTX_set_min_proto_version(ctx, config.allowTls12 ? TLS1_2_VERSION : TLS1_3_VERSION);
    SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION);
    // Writes may stop part-way on a full socket and go on from a buffer at another address; a peer
    // that closes without close_notify reads as an ordinary end of the link.
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
    if (!loadIdentity(ctx, config, error) || !loadTrust(ctx, config, error)) {
        return nullptr;
    }
    if (role == eServer && config.certPem.empty() && config.certFile.empty()) {
        error = "a TLS server needs a certificate and its key";
        return nullptr;
    }
    setPeerCheck(ctx, config, role);
    if (role == eClient) {
        // Tickets are only counted (see TlsLink::awaitServerVerdict), never stored or reused.
        SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
        SSL_CTX_sess_set_new_cb(ctx, TlsLink::onNewSession);
    }
    const char* const keyLog = std::getenv("SSLKEYLOGFILE");
    if (keyLog != nullptr && *keyLog != '\0') {
        SSL_CTX_set_keylog_callback(ctx, writeKeyLogLine);
    }
    return context;
}

}  // namespace tarntls
