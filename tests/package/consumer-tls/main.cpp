// A separate project using an installed libtarn_tls: a throw-away identity, a listening
// TLSTransport and a client that trusts it, one TARN frame across the handshake, and a
// TLSListener on the same configuration.
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include <tlslistener.h>
#include <tlstransport.h>

int main() {
    std::string cert;
    std::string key;
    if (!makeSelfSignedCertificate(cert, key)) {
        std::printf("tls consumer failed: no identity\n");
        return 1;
    }
    TLSConfig server;
    server.certPem = cert;
    server.keyPem = key;
    TLSTransport listening(server);
    if (!listening.listen(sal::HostAddress("127.0.0.1"), 0)) {
        std::printf("tls consumer failed: listen: %s\n", listening.getLastError().c_str());
        return 1;
    }
    std::unique_ptr<ITARNTransport> accepted;
    std::thread acceptor([&] { accepted.reset(listening.accept()); });

    TLSConfig client;
    client.caPem = cert;
    client.serverName = "localhost";
    TLSTransport connecting(client);
    const bool connected = connecting.connect(sal::HostAddress("127.0.0.1"), listening.getLocalPort());
    if (!connected) {
        listening.disconnect();  // the acceptor returns
    }
    acceptor.join();
    if (!connected || !accepted) {
        std::printf("tls consumer failed: connect: %s\n", connecting.getLastError().c_str());
        return 1;
    }
    const uint8 message[] = {'h', 'e', 'l', 'l', 'o'};
    uint8 buffer[16] = {};
    const bool sent = connecting.sendData(message, sizeof message);
    const int received = accepted->receiveData(buffer, sizeof buffer);
    const std::string protocol = connecting.getProtocol();
    connecting.disconnect();
    accepted->disconnect();
    listening.disconnect();

    TLSListener listener(server);  // links as well
    if (!sent || received != 5 || protocol != "TLSv1.3" || listener.getLocalPort() != 0) {
        std::printf("tls consumer failed: sent %d, received %d\n", sent ? 1 : 0, received);
        return 1;
    }
    std::printf("tls consumer ok\n");
    return 0;
}
