// A hardened EUDP connection against strangers and out-of-bounds requests, over real sockets:
// what a stranger sends to a connection's port changes nothing and is counted, WIN is kept within
// 1 to 999, an empty datagram does not end the link, and a connecting client takes its answer only
// from the address it connects to.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include <eudptransport.h>

#include "eudptestaccess.h"
#include "testsupport.h"

using eudptest::ClientWithRawPeer;
using eudptest::ServerWithRawPeer;
using eudptest::TransportPair;
using testsupport::Bytes;
using testsupport::bytesOf;
using testsupport::eudpDatagram;
using testsupport::LogCapture;

namespace {

// A UDP socket bound to another loopback address, for a stranger that is not 127.0.0.1.
class OtherAddressUdp {
public:
    explicit OtherAddressUdp(const char* address) : m_fd(::socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        ::inet_pton(AF_INET, address, &local.sin_addr);
        m_bound = m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    }
    ~OtherAddressUdp() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    OtherAddressUdp(const OtherAddressUdp&) = delete;
    OtherAddressUdp& operator=(const OtherAddressUdp&) = delete;
    bool bound() const { return m_bound; }
    bool sendTo(const Bytes& datagram, std::uint16_t port) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        ::inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
        return ::sendto(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
                        sizeof to) == static_cast<ssize_t>(datagram.size());
    }

private:
    int m_fd;
    bool m_bound = false;
};

std::string received(EUDPTransport& transport) {
    std::uint8_t buffer[1500];
    const int n = transport.receiveData(buffer, sizeof buffer);
    return n > 0 ? std::string(buffer, buffer + n) : std::string("<") + std::to_string(n) + ">";
}

int linesContaining(const LogCapture& log, const std::string& text) {
    int n = 0;
    for (const LogCapture::Line& line : log.lines()) {
        n += line.text.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
}

}  // namespace

TEST(HardenedTransport, StrangersDatagramsChangeNothingAndAreCounted) {
    LogCapture log(Corvane::Utilities::Logging::eWarning);
    ServerWithRawPeer peer;
    peer.listener.setHardening(EUDPHardening::on());
    ASSERT_TRUE(peer.open(0));
    EUDPTransport& server = *peer.server;
    EXPECT_TRUE(server.isHardened());

    testsupport::RawUdp stranger;  // 127.0.0.1, another port
    const std::vector<Bytes> hostile = {eudpDatagram("DIS", 0),
                                        Bytes(),
                                        eudpDatagram("ACK", 0),
                                        eudpDatagram("NAK", 0),
                                        eudpDatagram("CMD", 1, bytesOf("evil")),
                                        eudpDatagram("WIN", 0),
                                        eudpDatagram("MOD", 0x44524452u)};
    for (const Bytes& datagram : hostile) {
        ASSERT_TRUE(stranger.sendTo(datagram, peer.serverPort));
    }
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return server.getStatistics().hardenedDropped[eHardenedForeignSource] == hostile.size(); },
        5000));
    EXPECT_TRUE(stranger.quietFor(300)) << "a stranger gets no answer";

    // The link works both ways as before.
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1, bytesOf("good"))));
    EXPECT_EQ("good", received(server));
    ASSERT_TRUE(server.sendData(reinterpret_cast<const uint8*>("back"), 4));
    Bytes datagram;
    ASSERT_TRUE(peer.next(datagram));
    EXPECT_EQ(testsupport::hex(eudpDatagram("CMD", 0, bytesOf("back"))), testsupport::hex(datagram));

    const EUDPStatistics stats = server.getStatistics();
    EXPECT_FALSE(server.isClosed());
    EXPECT_TRUE(stats.hardened);
    EXPECT_EQ(10u, stats.windowSize);
    EXPECT_EQ(eRealtime, stats.sendMode);
    EXPECT_EQ(eRealtime, stats.receiveMode);
    EXPECT_EQ(1u, stats.receivedDatagrams[CMD]);
    EXPECT_EQ(0u, stats.receivedDatagrams[DIS] + stats.receivedDatagrams[WIN] + stats.receivedDatagrams[ACK]);
    const std::string expected = eudptest::line(
        peer.raw.port(), "hardened: dropped a datagram from 127.0.0.1:" + std::to_string(stranger.port()) +
                             ", not the peer (1 so far)");
    EXPECT_EQ(1, log.count(Corvane::Utilities::Logging::eWarning, expected)) << log.dump();
    EXPECT_LE(linesContaining(log, "hardened: dropped"), 2) << log.dump();
}

TEST(HardenedTransport, WithoutHardeningAStrangersDisStillEndsTheLink) {
    ServerWithRawPeer peer;
    ASSERT_TRUE(peer.open(0));
    testsupport::RawUdp stranger;
    ASSERT_TRUE(stranger.sendTo(eudpDatagram("DIS", 0), peer.serverPort));
    EXPECT_TRUE(testsupport::waitUntil([&] { return peer.server->isClosed(); }, 5000));
    EXPECT_EQ(0u, peer.server->getStatistics().hardenedDropped[eHardenedForeignSource]);
}

TEST(HardenedTransport, EmptyDatagramFromThePeerDoesNotEndTheLink) {
    ServerWithRawPeer peer;
    peer.listener.setHardening(EUDPHardening::on());
    ASSERT_TRUE(peer.open(0));
    ASSERT_TRUE(peer.sendToServer(Bytes()));
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return peer.server->getStatistics().hardenedDropped[eHardenedEmptyDatagram] == 1; }, 5000));
    ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 1, bytesOf("still"))));
    EXPECT_EQ("still", received(*peer.server));
    EXPECT_FALSE(peer.server->isClosed());
}

TEST(HardenedTransport, WindowRequestsAreAnsweredWithinOneTo999) {
    LogCapture log(Corvane::Utilities::Logging::eWarning);
    ServerWithRawPeer peer;
    peer.listener.setHardening(EUDPHardening::on());
    ASSERT_TRUE(peer.open(0));
    Bytes datagram;
    const std::pair<std::uint32_t, std::uint32_t> cases[] = {{0u, 1u}, {4294967295u, 999u}, {1000u, 999u},
                                                             {1u, 1u}, {999u, 999u},        {500u, 500u}};
    for (const auto& c : cases) {
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("WIN", c.first)));
        ASSERT_TRUE(peer.next(datagram));
        EXPECT_EQ(testsupport::hex(eudpDatagram("WAK", c.second)), testsupport::hex(datagram)) << c.first;
    }
    const EUDPStatistics stats = peer.server->getStatistics();
    EXPECT_EQ(3u, stats.hardenedDropped[eHardenedWindowClamped]);
    EXPECT_EQ(500u, stats.windowSize);
    EXPECT_EQ(1, linesContaining(log, "hardened: bounded a window request (1 so far)")) << log.dump();
}

TEST(HardenedTransport, RequesterSeesTheOrdinaryWindowRefusal) {
    LogCapture log(Corvane::Utilities::Logging::eError);
    TransportPair pair;
    pair.listener.setHardening(EUDPHardening::on());
    ASSERT_TRUE(pair.open());
    EXPECT_FALSE(pair.client.setWindowSize(0));
    const std::string id = std::to_string(pair.client.getLocalPort());
    EXPECT_TRUE(log.contains(Corvane::Utilities::Logging::eError,
                             "TARN/EUDP[" + id + "]: failed to set window size (tried 0, got 1)"))
        << log.dump();
    EXPECT_FALSE(pair.client.setWindowSize(4294967295u));
    EXPECT_TRUE(log.contains(Corvane::Utilities::Logging::eError,
                             "TARN/EUDP[" + id + "]: failed to set window size (tried 4294967295, got 999)"));
    EXPECT_TRUE(pair.client.setWindowSize(999));
    EXPECT_EQ(999u, pair.server->getWindowSize());
}

TEST(HardenedTransport, ClientTakesItsAnswerOnlyFromTheAddressItConnectsTo) {
    OtherAddressUdp stranger("127.0.0.2");
    ASSERT_TRUE(stranger.bound());
    ClientWithRawPeer peer;
    peer.client.setHardening(EUDPHardening::on());
    std::uint16_t clientPort = 0;
    std::thread answer([&] {
        Bytes con;
        std::uint16_t from = 0;
        if (peer.raw.receive(con, from, 4000)) {
            clientPort = from;
            stranger.sendTo(eudpDatagram("ACK", 0), from);  // first, from the wrong address
            testsupport::waitUntil(
                [&] { return peer.client.getStatistics().hardenedDropped[eHardenedForeignSource] == 1; },
                3000);
            peer.raw.sendTo(eudpDatagram("ACK", 0), from);
        }
    });
    const bool connected = peer.client.connect(sal::HostAddress("127.0.0.1"), peer.raw.port());
    answer.join();
    ASSERT_TRUE(connected);
    EXPECT_EQ(peer.raw.port(), peer.client.getPeerPort());
    EXPECT_EQ(1u, peer.client.getStatistics().hardenedDropped[eHardenedForeignSource]);

    // Connected, a datagram from the peer's address but another port is a stranger's too.
    testsupport::RawUdp samehost;
    ASSERT_TRUE(samehost.sendTo(eudpDatagram("DIS", 0), clientPort));
    ASSERT_TRUE(testsupport::waitUntil(
        [&] { return peer.client.getStatistics().hardenedDropped[eHardenedForeignSource] == 2; }, 5000));
    EXPECT_FALSE(peer.client.isClosed());
    peer.client.disconnect();
}

TEST(HardenedTransport, HardenedAndDefaultEndsExchangeTheSameBytes) {
    // A hardened server answers a default client's handshake and data exactly as a default one.
    for (bool hardened : {false, true}) {
        ServerWithRawPeer peer;
        if (hardened) {
            peer.listener.setHardening(EUDPHardening::on());
        }
        ASSERT_TRUE(peer.open(7));  // checks the ACK's bytes
        EUDPTransportTest::receiveMode(*peer.server) = eReliable;
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("CMD", 8, bytesOf("x"))));
        ASSERT_TRUE(peer.sendToServer(eudpDatagram("WIN", 25)));
        Bytes datagram;
        ASSERT_TRUE(peer.next(datagram));
        EXPECT_EQ(testsupport::hex(eudpDatagram("ACK", 8)), testsupport::hex(datagram));
        ASSERT_TRUE(peer.next(datagram));
        EXPECT_EQ(testsupport::hex(eudpDatagram("WAK", 25)), testsupport::hex(datagram));
        EXPECT_TRUE(peer.raw.quietFor(200));
    }
}
