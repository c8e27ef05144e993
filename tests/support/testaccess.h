// White-box access for the test suites to what the TCP transport and the listener keep to
// themselves: the one place through which tests reach them.
#ifndef TARN_TESTS_SUPPORT_TESTACCESS_H
#define TARN_TESTS_SUPPORT_TESTACCESS_H

#include <memory>

#include <sal/tcpsocket.h>
#include <tarnlistener.h>
#include <tcptransport.h>

class TCPTransportTest {
public:
    // A transport that adopts `socket` (may be null) as accept() adopts the socket it got.
    static std::unique_ptr<TCPTransport> adopt(sal::TcpSocket* socket) {
        return std::unique_ptr<TCPTransport>(new TCPTransport(socket));
    }
};

class TARNListenerTest {
public:
    // What the accept thread's shutdown calls: the running flag cleared, the listening transport
    // disconnected.
    static bool shutdownCallback(TARNListener& listener) { return listener.shutdownCallback(); }
};

#endif  // TARN_TESTS_SUPPORT_TESTACCESS_H
