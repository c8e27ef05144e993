// The socket BIO: send(MSG_NOSIGNAL) and recv on a descriptor kept in the BIO's data pointer.
#include "tlssocketbio.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

namespace tarntls {

namespace {

int fdOf(BIO* bio) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

bool isRetry(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

int socketWrite(BIO* bio, const char* data, int length) {
    BIO_clear_retry_flags(bio);
    const ssize_t sent = ::send(fdOf(bio), data, static_cast<size_t>(length), MSG_NOSIGNAL);
    if (sent < 0 && isRetry(errno)) {
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(sent);
}

int socketRead(BIO* bio, char* buffer, int size) {
    BIO_clear_retry_flags(bio);
    const ssize_t got = ::recv(fdOf(bio), buffer, static_cast<size_t>(size), 0);
    if (got < 0 && isRetry(errno)) {
        BIO_set_retry_read(bio);
    }
    return static_cast<int>(got);
}

long socketCtrl(BIO* bio, int command, long /*number*/, void* pointer) {
    switch (command) {
        case BIO_CTRL_FLUSH:
            return 1;  // nothing is buffered here
        case BIO_C_GET_FD:
            if (pointer != nullptr) {
                *static_cast<int*>(pointer) = fdOf(bio);
            }
            return fdOf(bio);
        default:
            return 0;
    }
}

int socketCreate(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

int socketDestroy(BIO* /*bio*/) {
    return 1;
}

BIO_METHOD* makeMethod() {
    BIO_METHOD* const method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tarn socket");
    BIO_meth_set_write(method, socketWrite);
    BIO_meth_set_read(method, socketRead);
    BIO_meth_set_ctrl(method, socketCtrl);
    BIO_meth_set_create(method, socketCreate);
    BIO_meth_set_destroy(method, socketDestroy);
    return method;
}

}  // namespace

BIO* newSocketBio(int fd) {
    // Made once and kept for the life of the process, as OpenSSL's own methods are.
    static BIO_METHOD* const method = makeMethod();
    BIO* const bio = BIO_new(method);
    if (bio != nullptr) {
        BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
    }
    return bio;
}

}  // namespace tarntls
