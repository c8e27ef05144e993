// A socket BIO that sends with MSG_NOSIGNAL: a peer that went away makes a write fail with EPIPE
// instead of raising SIGPIPE in the host process. Reads and writes never block on their own account;
// the socket's blocking mode decides, and EAGAIN becomes OpenSSL's "retry".
#ifndef TARN_TLS_TLSSOCKETBIO_H
#define TARN_TLS_TLSSOCKETBIO_H

#include <openssl/bio.h>

namespace tarntls {

// A BIO on `fd`; the socket stays the caller's (the BIO never closes it).
BIO* newSocketBio(int fd);

}  // namespace tarntls

#endif  // TARN_TLS_TLSSOCKETBIO_H
