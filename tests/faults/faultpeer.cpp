// A TARN peer in a process of its own, for the tests that kill it with SIGKILL mid-stream.
//   tarn_fault_peer server tcp|eudp        listens on 127.0.0.1, prints "port <n>"; streams triggers
//                                          "seq" 0, 1, ... to every client that subscribes "stream"
//   tarn_fault_peer client tcp|eudp <port> connects (with retries), prints "connected <local port>",
//                                          then calls "seq" with 0, 1, ... about every millisecond
// Both run until they are killed.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <sal/thread.h>

#include "faultsupport.h"

int main(int argc, char** argv) {
    if (argc < 3 || (std::strcmp(argv[2], "tcp") != 0 && std::strcmp(argv[2], "eudp") != 0)) {
        std::fprintf(stderr,
                     "usage: tarn_fault_peer server tcp|eudp | tarn_fault_peer client tcp|eudp PORT\n");
        return 2;
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
    std::fprintf(stderr, "usage: tarn_fault_peer server tcp|eudp | tarn_fault_peer client tcp|eudp PORT\n");
    return 2;
}
