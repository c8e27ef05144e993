// A hostile-input run against a TLS server: for a bounded time, peers send random bytes, cut and
// mutated ClientHellos, nothing at all, or finish a real handshake and then send garbage records,
// random frames and oversized lengths. The server must end each such connection alone and still
// serve an honest client at the end.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "tlstestsupport.h"

using namespace tlstest;
using testsupport::RawTcp;
using testsupport::waitUntil;

namespace {

// The bytes of a real ClientHello, made by OpenSSL into a memory BIO.
Bytes clientHello() {
    SSL_CTX* const ctx = SSL_CTX_new(TLS_client_method());
    SSL* const ssl = SSL_new(ctx);
    BIO* const in = BIO_new(BIO_s_mem());
    BIO* const out = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl, in, out);
    SSL_set_tlsext_host_name(ssl, "localhost");
    SSL_connect(ssl);
    char* data = nullptr;
    const long size = BIO_get_mem_data(out, &data);
    Bytes hello(data, data + size);
    SSL_free(ssl);
    SSL_CTX_free(ctx);
    return hello;
}

// A TLS session of our own making on a blocking socket, for sending wrong things inside it.
class RawSession {
public:
    explicit RawSession(std::uint16_t port) : m_tcp(RawTcp::connectTo(port)) {
        m_ctx = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_verify(m_ctx, SSL_VERIFY_NONE, nullptr);
        m_ssl = SSL_new(m_ctx);
        SSL_set_fd(m_ssl, m_tcp.fd());
        m_ok = m_tcp.valid() && SSL_connect(m_ssl) == 1;
    }
    ~RawSession() {
        SSL_free(m_ssl);
        SSL_CTX_free(m_ctx);
        ERR_clear_error();
    }
    bool ok() const { return m_ok; }
    void write(const Bytes& bytes) { SSL_write(m_ssl, bytes.data(), static_cast<int>(bytes.size())); }
    RawTcp& tcp() { return m_tcp; }

private:
    RawTcp m_tcp;
    SSL_CTX* m_ctx = nullptr;
    SSL* m_ssl = nullptr;
    bool m_ok = false;
};

Bytes randomBytes(std::mt19937& random, std::size_t count) {
    Bytes bytes(count);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

// One hostile peer of kind `kind`.
void attack(std::uint16_t port, int kind, std::mt19937& random, const Bytes& hello) {
    switch (kind) {
        case 0: {  // random bytes
            RawTcp tcp = RawTcp::connectTo(port);
            tcp.sendAll(randomBytes(random, 1 + random() % 3000));
            break;
        }
        case 1: {  // a ClientHello cut short
            RawTcp tcp = RawTcp::connectTo(port);
            tcp.sendAll(Bytes(hello.begin(), hello.begin() + static_cast<long>(random() % hello.size())));
            break;
        }
        case 2: {  // a ClientHello with a few bytes changed
            Bytes mutated = hello;
            for (int i = 0; i < 1 + static_cast<int>(random() % 8); ++i) {
                mutated[random() % mutated.size()] = static_cast<std::uint8_t>(random());
            }
            RawTcp tcp = RawTcp::connectTo(port);
            tcp.sendAll(mutated);
            tcp.waitClosed(50);
            break;
        }
        case 3: {  // connect and leave
            RawTcp tcp = RawTcp::connectTo(port);
            break;
        }
        case 4: {  // a real handshake, then bytes that are no TLS record
            RawSession session(port);
            if (session.ok()) {
                session.tcp().sendAll(randomBytes(random, 1 + random() % 500));
            }
            break;
        }
        case 5: {  // a real handshake, then random TARN-ish frames inside the session
            RawSession session(port);
            for (int i = 0; session.ok() && i < 20; ++i) {
                Bytes body = randomBytes(random, random() % 64);
                if (!body.empty()) {
                    body[0] = 1;  // version 1, so that some reach the command dispatch
                }
                session.write(testsupport::frame(body));
            }
            break;
        }
        default: {  // a real handshake, then a frame announcing more than a packet can hold
            RawSession session(port);
            if (session.ok()) {
                session.write(Bytes{0xFF, 0xFF, 0x01, 'S'});
            }
            break;
        }
    }
}

}  // namespace

TEST(TlsHostile, ServerSurvivesHostilePeersAndServesOn) {
    // The attackers' own sockets may be written after the server closed them; SIGPIPE is the
    // attackers' concern here, not the server's.
    signal(SIGPIPE, SIG_IGN);
    TLSConfig config = serverConfig();
    config.handshakeTimeoutMs = 500;
    TlsServer server(config);
    ASSERT_TRUE(server.listening());
    const Bytes hello = clientHello();
    ASSERT_GT(hello.size(), 100u);

    const int kRunMs = 3000;
    std::atomic<int> attacks{0};
    std::vector<std::thread> attackers;
    for (int t = 0; t < 2; ++t) {
        attackers.emplace_back([&, t] {
            std::mt19937 random(1234 + t);
            const std::int64_t end = testsupport::nowMs() + kRunMs;
            while (testsupport::nowMs() < end) {
                attack(server.port(), static_cast<int>(random() % 7), random, hello);
                ++attacks;
            }
        });
    }
    for (std::thread& attacker : attackers) {
        attacker.join();
    }
    EXPECT_GT(attacks.load(), 20);

    // Handshakes of the storm may still be finishing, so the honest client's connection is found
    // by its port rather than by its place in the list.
    TlsClient client(clientConfig());
    ASSERT_TRUE(client.connect(server.port()));
    std::size_t index = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            for (std::size_t i = 0; i < server.count(); ++i) {
                if (server.connection(i)->getPeerPort() == client.connection.getLocalPort()) {
                    index = i;
                    return true;
                }
            }
            return false;
        },
        10000));
    ASSERT_TRUE(server.events().waitFor("server#" + std::to_string(index) + ":connected", 10000));
    EXPECT_TRUE(client.connection.subscribe("after-the-storm"));
    EXPECT_TRUE(
        server.events().waitFor("server#" + std::to_string(index) + ":subscribe after-the-storm", 10000));
    ASSERT_TRUE(server.connection(index)->trigger("calm", ParameterValue(1)));
    EXPECT_TRUE(client.events.waitFor("client:trigger calm I:1", 10000));
}
