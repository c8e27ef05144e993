// makeSelfSignedCertificate: a throw-away key and certificate for demonstrations and tests.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <tlstransport.h>

namespace {

std::string pemOf(int (*write)(BIO*, void*), void* object) {
    std::string text;
    BIO* const out = BIO_new(BIO_s_mem());
    if (out != nullptr && write(out, object) == 1) {
        char* data = nullptr;
        const long size = BIO_get_mem_data(out, &data);
        text.assign(data, static_cast<std::size_t>(size));
    }
    BIO_free(out);
    return text;
}

int writeCertificate(BIO* out, void* cert) {
    return PEM_write_bio_X509(out, static_cast<X509*>(cert));
}

int writeKey(BIO* out, void* key) {
    return PEM_write_bio_PrivateKey(out, static_cast<EVP_PKEY*>(key), nullptr, nullptr, 0, nullptr, nullptr);
}

bool addExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    const bool ok = extension != nullptr && X509_add_ext(cert, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return ok;
}

}  // namespace

bool makeSelfSignedCertificate(std::string& certPem, std::string& keyPem) {
    EVP_PKEY* const key = EVP_EC_gen("P-256");
    X509* const cert = X509_new();
    bool ok = key != nullptr && cert != nullptr;
    if (ok) {
        X509_NAME* const name = X509_get_subject_name(cert);
        ok =
            X509_set_version(cert, 2) == 1 && ASN1_INTEGER_set(X509_get_serialNumber(cert), 1) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(cert), -60) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert), 24L * 3600) != nullptr &&
            X509_set_pubkey(cert, key) == 1 &&
            X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>("tarn demo"), -1, -1, 0) == 1 &&
            X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0) == 1 &&
            X509_set_issuer_name(cert, name) == 1 &&
            addExtension(cert, NID_basic_constraints, "critical,CA:TRUE") &&
            addExtension(cert, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1") &&
            X509_sign(cert, key, EVP_sha256()) > 0;
    }
    if (ok) {
        certPem = pemOf(writeCertificate, cert);
        keyPem = pemOf(writeKey, key);
        ok = !certPem.empty() && !keyPem.empty();
    }
    X509_free(cert);
    EVP_PKEY_free(key);
    return ok;
}
