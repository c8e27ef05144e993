// TLSTransport and TLSListener between themselves: TARN commands both ways, the framing inside the
// session, receive semantics, configuration from files and memory, host name checks, mutual
// authentication with the client's subject in onNewConnection, and the key log.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <tarnlistener.h>

#include "tlstestsupport.h"

using namespace tlstest;
using testsupport::LogCapture;
using testsupport::waitUntil;
namespace Log = Corvane::Utilities::Logging;

namespace {

// A connected pair of bare transports: the server side from a listening TLSTransport's accept().
struct TransportPair {
    explicit TransportPair(const TLSConfig& serverSide = serverConfig(),
                           const TLSConfig& clientSide = clientConfig())
        : listening(serverSide), client(clientSide) {
        if (!listening.listen(sal::HostAddress("127.0.0.1"), 0)) {
            return;
        }
        std::thread acceptor([this] { accepted.reset(static_cast<TLSTransport*>(listening.accept())); });
        connected = this->client.connect(sal::HostAddress("127.0.0.1"), listening.getLocalPort());
        if (!connected) {
            listening.disconnect();
        }
        acceptor.join();
    }
    ~TransportPair() {
        client.disconnect();
        if (accepted) {
            accepted->disconnect();
        }
        listening.disconnect();
    }
    TLSTransport listening;
    TLSTransport client;
    std::unique_ptr<TLSTransport> accepted;
    bool connected = false;
};

bool startsAny(const testsupport::Events& events, const std::string& prefix) {
    for (const std::string& event : events.list()) {
        if (event.compare(0, prefix.size(), prefix) == 0) {
            return true;
        }
    }
    return false;
}

Bytes receive(ITARNTransport& transport, unsigned size, int* result) {
    Bytes buffer(size);
    *result = transport.receiveData(buffer.data(), size);
    buffer.resize(*result > 0 ? static_cast<std::size_t>(*result) : 0);
    return buffer;
}

}  // namespace

TEST(TlsTransport, TarnCommandsTravelBothWaysOverTls13) {
    TlsServer server(serverConfig());
    ASSERT_TRUE(server.listening());
    TlsClient client(clientConfig());
    ASSERT_TRUE(client.connect(server.port()));
    EXPECT_EQ(client.transport->getProtocol(), "TLSv1.3");
    EXPECT_FALSE(client.transport->getCipher().empty());
    EXPECT_EQ(client.transport->getPeerSubject(), "CN=localhost,O=TARN Test");
    ASSERT_TRUE(server.waitCount(1, 5000));

    ParameterList params;
    params.addNumeric("level", 3);
    EXPECT_TRUE(client.connection.subscribe("temperature"));
    EXPECT_TRUE(client.connection.callFunctionId("setpoint", params));
    ASSERT_TRUE(waitUntil([&] { return startsAny(server.events(), "server#0:call setpoint level="); }, 5000));
    EXPECT_EQ(server.events().count("server#0:subscribe temperature"), 1);

    TARNConnection* const peer = server.connection(0);
    EXPECT_TRUE(peer->updateState("temperature", ParameterValue(21.5f)));
    EXPECT_TRUE(peer->trigger("alarm", ParameterValue("hot")));
    ASSERT_TRUE(client.events.waitFor("client:trigger alarm S:hot", 5000));
    EXPECT_TRUE(startsAny(client.events, "client:state temperature F:21.5"));
    EXPECT_EQ(peer->getPeerPort(), client.connection.getLocalPort());
    EXPECT_EQ(peer->getPeerAddress(), "127.0.0.1");
}

TEST(TlsTransport, FramesAreTheTcpFramingInsideTheSession) {
    TransportPair pair;
    ASSERT_TRUE(pair.connected);
    ASSERT_TRUE(pair.accepted);
    const Bytes message = testsupport::bytesOf("hello over tls");
    EXPECT_TRUE(pair.client.sendData(message.data(), static_cast<uint>(message.size())));
    int result = 0;
    EXPECT_EQ(receive(*pair.accepted, 1492, &result), message);
    EXPECT_EQ(result, static_cast<int>(message.size()));

    // Only the low 16 bits of a length count, as over TCP: 70000 bytes go out as 4464.
    Bytes big(70000);
    for (std::size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<std::uint8_t>(i * 7);
    }
    EXPECT_TRUE(pair.accepted->sendData(big.data(), static_cast<uint>(big.size())));
    const Bytes got = receive(pair.client, 65535, &result);
    ASSERT_EQ(result, 4464);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), big.begin()));
}

TEST(TlsTransport, AMessageLongerThanTheBufferStaysForTheNextReceive) {
    TransportPair pair;
    ASSERT_TRUE(pair.connected && pair.accepted);
    Bytes message(1500, 0x5A);
    ASSERT_TRUE(pair.client.sendData(message.data(), 1500));
    int result = 0;
    receive(*pair.accepted, 1492, &result);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(receive(*pair.accepted, 1500, &result), message);
    EXPECT_EQ(result, 1500);
}

TEST(TlsTransport, AnEmptyMessageIsSkippedAsOverTcp) {
    TransportPair pair;
    ASSERT_TRUE(pair.connected && pair.accepted);
    const Bytes next = testsupport::bytesOf("next");
    ASSERT_TRUE(pair.client.sendData(nullptr, 0));
    ASSERT_TRUE(pair.client.sendData(next.data(), 4));
    int result = 0;
    EXPECT_EQ(receive(*pair.accepted, 1492, &result), next);
}

TEST(TlsTransport, ModesAndWindowAreFixedAnswers) {
    TLSTransport transport(clientConfig());
    EXPECT_TRUE(transport.setSendMode(eReliable));
    EXPECT_FALSE(transport.setSendMode(eRealtime));
    EXPECT_TRUE(transport.setReceiveMode(eReliable));
    EXPECT_FALSE(transport.setReceiveMode(eRealtime));
    EXPECT_FALSE(transport.setWindowSize(10));
    EXPECT_EQ(transport.getPeerPort(), 0);
    EXPECT_EQ(transport.getLocalPort(), 0);
    EXPECT_FALSE(transport.sendData(reinterpret_cast<const uint8*>("x"), 1));
    uint8 buffer[16];
    EXPECT_EQ(transport.receiveData(buffer, sizeof buffer), 0);
    EXPECT_EQ(transport.accept(), nullptr);
}

TEST(TlsTransport, DisconnectWakesABlockedReceiveAndAccept) {
    TransportPair pair;
    ASSERT_TRUE(pair.connected && pair.accepted);
    std::atomic<int> received{99};
    std::thread receiver([&] {
        uint8 buffer[64];
        received = pair.client.receiveData(buffer, sizeof buffer);
    });
    std::atomic<bool> acceptReturned{false};
    ITARNTransport* acceptedAgain = reinterpret_cast<ITARNTransport*>(1);
    std::thread acceptor([&] {
        acceptedAgain = pair.listening.accept();
        acceptReturned = true;
    });
    EXPECT_FALSE(waitUntil([&] { return received.load() != 99 || acceptReturned.load(); }, 200));
    pair.client.disconnect();
    pair.listening.disconnect();
    EXPECT_TRUE(waitUntil([&] { return received.load() == 0 && acceptReturned.load(); }, 5000));
    receiver.join();
    acceptor.join();
    EXPECT_EQ(acceptedAgain, nullptr);
    // The peer sees the end of the link as an orderly close.
    int result = 99;
    receive(*pair.accepted, 64, &result);
    EXPECT_EQ(result, 0);
    pair.client.disconnect();  // twice is harmless
}

TEST(TlsTransport, ADisconnectedClientConnectsAgain) {
    TlsServer server(serverConfig());
    ASSERT_TRUE(server.listening());
    TlsClient client(clientConfig());
    ASSERT_TRUE(client.connect(server.port()));
    client.connection.disconnect();
    ASSERT_TRUE(client.connect(server.port()));
    ASSERT_TRUE(server.waitCount(2, 5000));
    EXPECT_TRUE(client.connection.subscribe("again"));
    EXPECT_TRUE(server.events().waitFor("server#1:subscribe again", 5000));
}

TEST(TlsTransport, ManySendersKeepEveryMessageWhole) {
    TransportPair pair;
    ASSERT_TRUE(pair.connected && pair.accepted);
    const int kThreads = 4;
    const int kEach = 300;
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                Bytes message(1 + (i * 37 + t) % 1400, static_cast<std::uint8_t>('a' + t));
                pair.client.sendData(message.data(), static_cast<uint>(message.size()));
            }
        });
    }
    int counts[kThreads] = {};
    for (int n = 0; n < kThreads * kEach; ++n) {
        int result = 0;
        const Bytes got = receive(*pair.accepted, 1492, &result);
        ASSERT_GT(result, 0);
        const int t = got[0] - 'a';
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(got.size(), static_cast<std::size_t>(1 + (counts[t] * 37 + t) % 1400));
        EXPECT_EQ(std::count(got.begin(), got.end(), got[0]), static_cast<long>(got.size()));
        ++counts[t];
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
}

TEST(TlsTransport, PemInMemoryServesAsWellAsFiles) {
    TLSConfig server;
    server.certPem = readFile(certs().server);
    server.keyPem = readFile(certs().serverKey);
    TLSConfig client;
    client.caPem = readFile(certs().otherCa) + readFile(certs().ca);  // several CAs in one text
    TransportPair pair(server, client);
    EXPECT_TRUE(pair.connected);
}

TEST(TlsTransport, HostNameIsCheckedByDefault) {
    TlsServer server(serverConfig());
    ASSERT_TRUE(server.listening());
    {
        TLSConfig config = clientConfig();
        config.serverName = "localhost";
        TlsClient client(config);
        EXPECT_TRUE(client.connect(server.port(), "localhost"));
    }
    {
        LogCapture log;
        TLSConfig config = clientConfig();
        config.serverName = "control.example";
        TlsClient client(config);
        EXPECT_FALSE(client.connect(server.port()));
        bool found = false;
        for (const auto& line : log.lines()) {
            found |= line.level == Log::eError &&
                     line.text.find("TARN/TLS: handshake with 127.0.0.1:") == 0 &&
                     line.text.find("certificate verify failed") != std::string::npos &&
                     line.text.find("(hostname mismatch)") != std::string::npos;
        }
        EXPECT_TRUE(found) << log.dump();
    }
    {
        TLSConfig config = clientConfig();
        config.serverName = "control.example";
        config.verifyHostName = false;
        TlsClient client(config);
        EXPECT_TRUE(client.connect(server.port()));
    }
}

TEST(TlsTransport, MutualAuthenticationShowsTheClientSubjectInOnNewConnection) {
    TLSConfig config = serverConfig();
    config.requireClientCert = true;
    TlsServer server(config);
    ASSERT_TRUE(server.listening());
    TlsClient client(clientConfigWithCert());
    ASSERT_TRUE(client.connect(server.port()));
    ASSERT_TRUE(server.waitCount(1, 5000));
    EXPECT_EQ(server.subject(0), "CN=tarn-client,O=TARN Test");
    EXPECT_EQ(TLSTransport::of(server.connection(0))->getPeerSubject(), "CN=tarn-client,O=TARN Test");
    EXPECT_TRUE(client.connection.subscribe("door"));
    EXPECT_TRUE(server.events().waitFor("server#0:subscribe door", 5000));
    EXPECT_EQ(TLSTransport::of(&client.connection), nullptr);
}

TEST(TlsTransport, WithoutClientCertificatesTheSubjectIsEmpty) {
    TlsServer server(serverConfig());
    TlsClient client(clientConfigWithCert());  // offers nothing unasked
    ASSERT_TRUE(client.connect(server.port()));
    ASSERT_TRUE(server.waitCount(1, 5000));
    EXPECT_EQ(server.subject(0), "");
}

TEST(TlsTransport, KeyLogFileGetsTheSessionSecrets) {
    const std::string path = certs().dir + "/keylog.txt";
    std::remove(path.c_str());
    setenv("SSLKEYLOGFILE", path.c_str(), 1);
    {
        TlsServer server(serverConfig());
        TlsClient client(clientConfig());
        ASSERT_TRUE(client.connect(server.port()));
    }
    unsetenv("SSLKEYLOGFILE");
    const std::string keys = readFile(path);
    // Both ends write: the client's and the server's traffic secrets of the one session.
    EXPECT_NE(keys.find("CLIENT_HANDSHAKE_TRAFFIC_SECRET "), std::string::npos) << keys;
    EXPECT_NE(keys.find("SERVER_TRAFFIC_SECRET_0 "), std::string::npos);
    EXPECT_NE(keys.find("CLIENT_TRAFFIC_SECRET_0 "), std::string::npos);
}

TEST(TlsTransport, InsecureClientAcceptsAnUnknownCa) {
    TLSConfig server = serverConfig();
    server.certFile = certs().otherServer;
    server.keyFile = certs().otherServerKey;
    TlsServer tls(server);
    TLSConfig config = clientConfig();
    config.insecure = true;
    TlsClient client(config);
    EXPECT_TRUE(client.connect(tls.port()));
}

TEST(TlsTransport, DefaultConfigurationIsStrict) {
    const TLSConfig config;
    EXPECT_TRUE(config.verifyHostName);
    EXPECT_FALSE(config.insecure);
    EXPECT_FALSE(config.requireClientCert);
    EXPECT_FALSE(config.allowTls12);
    EXPECT_EQ(config.handshakeTimeoutMs, 10000);
}

TEST(TlsTransport, ListenerRestartsAfterShutdown) {
    TLSListener listener(serverConfig());
    struct Null : ITARNConnector {
        void onNewConnection(TARNConnection* connection) override { delete connection; }
    };
    ASSERT_TRUE(listener.listen("127.0.0.1", 0, new Null));
    Null second;
    EXPECT_FALSE(listener.listen("127.0.0.1", 0, &second));  // still accepting: stays ours
    EXPECT_TRUE(listener.shutdown(-1));
    ASSERT_TRUE(listener.listen("127.0.0.1", 0, new Null));
    EXPECT_NE(listener.getLocalPort(), 0);
}

TEST(TlsTransport, ASelfSignedIdentityServesADemonstration) {
    TLSConfig server;
    ASSERT_TRUE(makeSelfSignedCertificate(server.certPem, server.keyPem));
    EXPECT_NE(server.certPem.find("-----BEGIN CERTIFICATE-----"), std::string::npos);
    TLSConfig client;
    client.caPem = server.certPem;
    client.serverName = "localhost";
    TransportPair pair(server, client);
    EXPECT_TRUE(pair.connected);
    EXPECT_EQ(pair.client.getLastError(), "");
    EXPECT_EQ(pair.client.getPeerSubject(), "CN=localhost,O=tarn demo");
}

TEST(TlsTransport, LastErrorSaysWhyConnectFailed) {
    TLSConfig config = clientConfig();
    config.caFiles = {certs().otherCa};
    TlsServer server(serverConfig());
    TLSTransport transport(config);
    EXPECT_FALSE(transport.connect(sal::HostAddress("127.0.0.1"), server.port()));
    EXPECT_EQ(transport.getLastError().find("TLS handshake failed: "), 0u) << transport.getLastError();
    EXPECT_NE(transport.getLastError().find("certificate verify failed"), std::string::npos);
    EXPECT_FALSE(transport.connect(sal::HostAddress("127.0.0.1"), testsupport::ClosedTcpPort().port()));
    EXPECT_EQ(transport.getLastError(), "Connection refused");
}

TEST(TlsTransport, IPv6AndTheDualStackAnyAddress) {
    if (!sal::HostAddress("::1").isValid()) {
        GTEST_SKIP() << "no IPv6 here";
    }
    TLSTransport listening(serverConfig());
    ASSERT_TRUE(listening.listen(sal::HostAddress(""), 0));  // every interface, both families
    for (const char* peer : {"::1", "127.0.0.1"}) {
        TLSConfig config = clientConfig();
        config.serverName = "localhost";
        TLSTransport client(config);
        std::unique_ptr<ITARNTransport> accepted;
        std::thread acceptor([&] { accepted.reset(listening.accept()); });
        const bool connected = client.connect(sal::HostAddress(peer), listening.getLocalPort());
        if (!connected) {
            listening.disconnect();
        }
        acceptor.join();
        ASSERT_TRUE(connected) << peer;
        ASSERT_TRUE(accepted);
        EXPECT_EQ(accepted->getPeerAddress().getAddressString(), peer);
        EXPECT_EQ(accepted->getPeerPort(), client.getLocalPort());
        const Bytes message = testsupport::bytesOf(peer);
        EXPECT_TRUE(client.sendData(message.data(), static_cast<uint>(message.size())));
        int result = 0;
        EXPECT_EQ(receive(*accepted, 64, &result), message);
        client.disconnect();
    }
}

TEST(TlsTransport, ListenOnTakesAnyBoundTransportAndLeavesItToItsOwner) {
    struct Keep : ITARNConnector {
        void onNewConnection(TARNConnection* connection) override { connection_ = connection; }
        std::atomic<TARNConnection*> connection_{nullptr};  // set on the accept thread
    };
    // The transport stays ours and must outlive the listener, so it is made first.
    TLSTransport transport(serverConfig());
    TARNListener listener(eTransportTCP);
    Keep refused;
    EXPECT_FALSE(listener.listenOn(nullptr, &refused));  // nothing started; the connector stays ours
    ASSERT_TRUE(transport.listen(sal::HostAddress("127.0.0.1"), 0));
    Keep* const keep = new Keep;
    ASSERT_TRUE(listener.listenOn(&transport, keep));
    EXPECT_EQ(listener.getLocalPort(), transport.getLocalPort());
    EXPECT_FALSE(listener.listenOn(&transport, &refused));  // still accepting
    TlsClient client(clientConfig());
    ASSERT_TRUE(client.connect(transport.getLocalPort()));
    ASSERT_TRUE(waitUntil([&] { return keep->connection_ != nullptr; }, 5000));
    TARNConnection* const accepted = keep->connection_;
    EXPECT_TRUE(listener.shutdown(-1));
    accepted->disconnect();
    delete accepted;
    // The transport is still ours and usable after the listener is done with it.
    EXPECT_EQ(transport.accept(), nullptr);  // disconnected by the shutdown
}
