// A peer in a process of its own, for the tests that kill it with SIGKILL.
//   tarn_test_peer eudp-idle server           a bare EUDP end: listens on 127.0.0.1, prints "port <n>",
//                                             accepts for ever
//   tarn_test_peer eudp-idle client <port>    a bare EUDP end: connects to 127.0.0.1:<port>, prints
//                                             "connected <local port>"
//   tarn_test_peer server tcp|eudp            a TARN server: listens on 127.0.0.1, prints "port <n>";
//                                             streams triggers "seq" 0, 1, ... to every client that
//                                             subscribes "stream"
//   tarn_test_peer client tcp|eudp <port>     a TARN client: connects (with retries), prints
//                                             "connected <local port>", then calls "seq" with 0, 1, ...
//                                             about every millisecond
// The bare EUDP ends send nothing of their own: they keep their connections and answer keep-alives.
// Every mode runs until it is killed.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <eudptransport.h>
#include <sal/thread.h>

#include "faultsupport.h"

namespace {

const char* const USAGE =
    "usage: tarn_test_peer eudp-idle server | tarn_test_peer eudp-idle client PORT |\n"
    "       tarn_test_peer server tcp|eudp | tarn_test_peer client tcp|eudp PORT\n";

int usage() {
    std::fprintf(stderr, "%s", USAGE);
    return 2;
}

// A bare EUDP end, without TARN on top.
int eudpIdle(int argc, char** argv) {
    if (argc >= 3 && std::strcmp(argv[2], "server") == 0) {
        EUDPTransport listener;
        if (!listener.listen(sal::HostAddress("127.0.0.1"), 0)) {
            return 1;
        }
        std::printf("port %u\n", static_cast<unsigned int>(listener.getLocalPort()));
        std::fflush(stdout);
        std::vector<ITARNTransport*> accepted;
        while (ITARNTransport* transport = listener.accept()) {
            accepted.push_back(transport);
        }
        return 0;
    }
    if (argc >= 4 && std::strcmp(argv[2], "client") == 0) {
        EUDPTransport client;
        unsigned long port = std::strtoul(argv[3], nullptr, 10);
        if (!client.connect(sal::HostAddress("127.0.0.1"), static_cast<uint16>(port))) {
            return 1;
        }
        std::printf("connected %u\n", static_cast<unsigned int>(client.getLocalPort()));
        std::fflush(stdout);
        for (;;) {
            sal::Thread::mssleep(1000);
        }
    }
    return usage();
}

// A TARN end that streams.
int tarnPeer(int argc, char** argv) {
    if (argc < 3 || (std::strcmp(argv[2], "tcp") != 0 && std::strcmp(argv[2], "eudp") != 0)) {
        return usage();
    }
    const ETransport kind = std::strcmp(argv[2], "tcp") == 0 ? eTransportTCP : eTransportEUDP;
    tarnInit();
    if (std::strcmp(argv[1], "server") == 0) {
        faults::TestServer server(kind);
        const uint16 port = server.start();
        if (port == 0) {
            return 1;
        }
        std::printf("port %u\n", static_cast<unsigned int>(port));
        std::fflush(stdout);
        for (;;) {
            sal::Thread::mssleep(1000);
        }
    }
    if (std::strcmp(argv[1], "client") == 0 && argc >= 4) {
        faults::SeqClient client;
        const uint16 port = static_cast<uint16>(std::strtoul(argv[3], nullptr, 10));
        std::unique_ptr<TARNConnection> connection = faults::connectWithRetry(kind, port, &client, 5);
        if (!connection) {
            return 1;
        }
        std::printf("connected %u\n", static_cast<unsigned int>(connection->getLocalPort()));
        std::fflush(stdout);
        for (int i = 0;; ++i) {
            connection->callFunctionId("seq", faults::seqParams(i));
            sal::Thread::mssleep(1);
        }
    }
    return usage();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "eudp-idle") == 0) {
        return eudpIdle(argc, argv);
    }
    return tarnPeer(argc, argv);
}
