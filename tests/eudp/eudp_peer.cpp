// A peer in a process of its own for the liveness tests, which kill it with SIGKILL.
//   eudp_peer server           listens on 127.0.0.1, prints "port <n>", accepts for ever
//   eudp_peer client <port>    connects to 127.0.0.1:<port>, prints "connected <local port>"
// Both keep their connections and answer keep-alives until they are killed.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <eudptransport.h>
#include <sal/thread.h>

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "server") == 0) {
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
    if (argc >= 3 && std::strcmp(argv[1], "client") == 0) {
        EUDPTransport client;
        unsigned long port = std::strtoul(argv[2], nullptr, 10);
        if (!client.connect(sal::HostAddress("127.0.0.1"), static_cast<uint16>(port))) {
            return 1;
        }
        std::printf("connected %u\n", static_cast<unsigned int>(client.getLocalPort()));
        std::fflush(stdout);
        for (;;) {
            sal::Thread::mssleep(1000);
        }
    }
    std::fprintf(stderr, "usage: eudp_peer server | eudp_peer client <port>\n");
    return 2;
}
