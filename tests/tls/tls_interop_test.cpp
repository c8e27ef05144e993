// Interoperability with a TLS implementation we did not write: openssl s_server and s_client carry
// TARN frames to and from TLSTransport, both directions, with and without client certificates, and
// TLS 1.2 only where it was asked for.
#include <gtest/gtest.h>

#include <thread>

#include "tlstestsupport.h"

using namespace tlstest;
using tcptest::concat;
using tcptest::cstr;
using tcptest::packet;
using testsupport::LogCapture;
using testsupport::waitUntil;
namespace Log = Corvane::Utilities::Logging;

namespace {

const int kWaitMs = 10000;

// openssl s_server on a port of 127.0.0.1 that the test holds for it (testsupport::ReservedTcpPort),
// with the server certificate, and `extra` options.
std::unique_ptr<Child> startServer(std::uint16_t port, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {
        TARN_OPENSSL_PATH, "s_server",     "-quiet", "-accept",        "127.0.0.1:" + std::to_string(port),
        "-cert",           certs().server, "-key",   certs().serverKey};
    args.insert(args.end(), extra.begin(), extra.end());
    return std::unique_ptr<Child>(new Child(args));
}

// Connects `client` to s_server, which may take a moment to start listening.
bool connectWhenUp(TlsClient& client, std::uint16_t port) {
    return waitUntil([&] { return client.connect(port); }, kWaitMs);
}

std::unique_ptr<Child> startClient(std::uint16_t port, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {TARN_OPENSSL_PATH,  "s_client", "-quiet",
                                     "-nocommands",      "-connect", "127.0.0.1:" + std::to_string(port),
                                     "-CAfile",          certs().ca, "-verify_return_error",
                                     "-verify_hostname", "localhost"};
    args.insert(args.end(), extra.begin(), extra.end());
    return std::unique_ptr<Child>(new Child(args));
}

Bytes subscribeFrame(const std::string& name) {
    return testsupport::frame(packet('S', cstr(name)));
}

Bytes triggerFrame(const std::string& name, std::int32_t value) {
    return testsupport::frame(packet('T', concat({cstr(name), tcptest::intValue(value)})));
}

// Our client against s_server: a subscribe arrives as TARN's TCP frame, byte for byte, and a
// trigger frame typed into s_server reaches the client's callback.
void exchangeWithServer(Child& server, TlsClient& client) {
    ASSERT_TRUE(client.connection.subscribe("temperature"));
    const Bytes expected = subscribeFrame("temperature");
    Bytes got;
    ASSERT_TRUE(server.readExactly(got, expected.size(), kWaitMs)) << server.errors();
    EXPECT_EQ(testsupport::hex(got), testsupport::hex(expected));
    ASSERT_TRUE(server.write(triggerFrame("alarm", 7)));
    EXPECT_TRUE(client.events.waitFor("client:trigger alarm I:7", kWaitMs)) << server.errors();
}

// s_client against our server: a subscribe frame typed into s_client reaches the server, and a
// trigger from the server arrives at s_client as TARN's TCP frame, byte for byte.
void exchangeWithClient(Child& client, TlsServer& server) {
    ASSERT_TRUE(server.waitCount(1, kWaitMs)) << client.errors();
    ASSERT_TRUE(client.write(subscribeFrame("door")));
    ASSERT_TRUE(server.events().waitFor("server#0:subscribe door", kWaitMs)) << client.errors();
    ASSERT_TRUE(server.connection(0)->trigger("alarm", ParameterValue(7)));
    const Bytes expected = triggerFrame("alarm", 7);
    Bytes got;
    ASSERT_TRUE(client.readExactly(got, expected.size(), kWaitMs)) << client.errors();
    EXPECT_EQ(testsupport::hex(got), testsupport::hex(expected));
}

}  // namespace

TEST(TlsInterop, OurClientTalksToOpensslServer) {
    const testsupport::ReservedTcpPort reserved;
    const std::uint16_t port = reserved.port();
    auto server = startServer(port, {});
    TlsClient client(clientConfig());
    ASSERT_TRUE(connectWhenUp(client, port)) << server->errors();
    EXPECT_EQ(client.transport->getProtocol(), "TLSv1.3");
    exchangeWithServer(*server, client);
}

TEST(TlsInterop, OurClientShowsItsCertificateToOpensslServer) {
    const testsupport::ReservedTcpPort reserved;
    const std::uint16_t port = reserved.port();
    auto server = startServer(port, {"-Verify", "1", "-CAfile", certs().ca, "-verify_return_error"});
    TlsClient client(clientConfigWithCert());
    ASSERT_TRUE(connectWhenUp(client, port)) << server->errors();
    exchangeWithServer(*server, client);
}

TEST(TlsInterop, OpensslServerRefusesOurClientWithoutCertificate) {
    LogCapture log;
    const testsupport::ReservedTcpPort reserved;
    const std::uint16_t port = reserved.port();
    auto server = startServer(port, {"-Verify", "1", "-CAfile", certs().ca, "-verify_return_error"});
    {
        // Wait until s_server listens, with a client it accepts.
        TlsClient probe(clientConfigWithCert());
        ASSERT_TRUE(connectWhenUp(probe, port)) << server->errors();
    }
    TlsClient client(clientConfig());
    EXPECT_FALSE(client.connect(port));
    bool found = false;
    for (const auto& line : log.lines()) {
        found |= line.level == Log::eError && line.text.find("TARN/TLS: handshake with 127.0.0.1:") == 0 &&
                 line.text.find("certificate required") != std::string::npos;
    }
    EXPECT_TRUE(found) << log.dump();
}

TEST(TlsInterop, OpensslClientTalksToOurServer) {
    TlsServer server(serverConfig());
    ASSERT_TRUE(server.listening());
    auto client = startClient(server.port(), {});
    exchangeWithClient(*client, server);
    EXPECT_EQ(TLSTransport::of(server.connection(0))->getProtocol(), "TLSv1.3");
    EXPECT_EQ(server.subject(0), "");
}

TEST(TlsInterop, OpensslClientWithCertificateTalksToOurMutualServer) {
    TLSConfig config = serverConfig();
    config.requireClientCert = true;
    TlsServer server(config);
    auto client = startClient(server.port(), {"-cert", certs().client, "-key", certs().clientKey});
    exchangeWithClient(*client, server);
    EXPECT_EQ(server.subject(0), "CN=tarn-client,O=TARN Test");
}

TEST(TlsInterop, OurMutualServerRefusesOpensslClientWithoutCertificate) {
    LogCapture log;
    TLSConfig config = serverConfig();
    config.requireClientCert = true;
    TlsServer server(config);
    auto client = startClient(server.port(), {});
    client->write(subscribeFrame("door"));
    EXPECT_TRUE(waitUntil(
        [&] {
            for (const auto& line : log.lines()) {
                if (line.level == Log::eWarning &&
                    line.text.find("peer did not return a certificate") != std::string::npos) {
                    return true;
                }
            }
            return false;
        },
        kWaitMs))
        << log.dump();
    EXPECT_EQ(server.count(), 0u);
}

TEST(TlsInterop, Tls12OnlyWhenAsked) {
    {
        LogCapture log;
        TlsServer strict(serverConfig());
        auto client = startClient(strict.port(), {"-tls1_2"});
        EXPECT_TRUE(waitUntil(
            [&] {
                for (const auto& line : log.lines()) {
                    if (line.text.find("unsupported protocol") != std::string::npos) {
                        return true;
                    }
                }
                return false;
            },
            kWaitMs))
            << log.dump();
        EXPECT_EQ(strict.count(), 0u);
    }
    TLSConfig config = serverConfig();
    config.allowTls12 = true;
    TlsServer lenient(config);
    auto client = startClient(lenient.port(), {"-tls1_2"});
    exchangeWithClient(*client, lenient);
    EXPECT_EQ(TLSTransport::of(lenient.connection(0))->getProtocol(), "TLSv1.2");
}

TEST(TlsInterop, OurClientRefusesATls12OnlyServerUnlessAsked) {
    const testsupport::ReservedTcpPort reserved;
    const std::uint16_t port = reserved.port();
    auto server = startServer(port, {"-tls1_2"});
    TLSConfig config = clientConfig();
    config.allowTls12 = true;
    TlsClient lenient(config);
    ASSERT_TRUE(connectWhenUp(lenient, port)) << server->errors();
    EXPECT_EQ(lenient.transport->getProtocol(), "TLSv1.2");
    exchangeWithServer(*server, lenient);
    lenient.connection.disconnect();
    LogCapture log;
    TlsClient strict(clientConfig());
    EXPECT_FALSE(strict.connect(port));
    EXPECT_NE(log.dump().find("TARN/TLS: handshake with 127.0.0.1:"), std::string::npos) << log.dump();
}
