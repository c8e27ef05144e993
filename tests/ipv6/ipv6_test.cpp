// TARN between the two loopbacks, ::1 and 127.0.0.1, over TCP and EUDP: listeners bound to one
// family or to the any-address (which takes both), clients naming the server by either family,
// the addresses each side reports, and the EUDP handshake from a raw IPv6 peer byte for byte.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eudptestaccess.h"
#include "tarnpeers.h"

using Corvane::Utilities::Logging::eError;
using eudptest::CollectingServer;
using eudptest::RecordingClient;
using eudptest::RecordingServer;
using testsupport::Bytes;
using testsupport::bytesOf;
using testsupport::eudpDatagram;
using testsupport::hex;
using testsupport::LogCapture;
using testsupport::nowMs;
using testsupport::waitUntil;

namespace {

// A connected client. The listener reports its port once bound, a moment before a TCP listener
// listens, so a refused TCP connection is tried again (on a fresh connection) until the deadline.
std::unique_ptr<TARNConnection> connectTo(ETransport transport, const std::string& host, uint16 port,
                                          ITARNClient* client) {
    const std::int64_t deadline = nowMs() + 5000;
    for (;;) {
        std::unique_ptr<TARNConnection> connection(new TARNConnection(transport));
        if (connection->connect(host, port, client)) {
            return connection;
        }
        if (transport != eTransportTCP || nowMs() > deadline) {
            return nullptr;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

struct Route {
    ETransport transport;
    const char* listenOn;   // the listener's address text
    const char* connectTo;  // the host the client names
    const char* seen;  // the client's address as the server reports it, and the server's as the client does
};

std::ostream& operator<<(std::ostream& out, const Route& route) {
    return out << (route.transport == eTransportTCP ? "TCP" : "EUDP") << " listen '" << route.listenOn
               << "' connect '" << route.connectTo << "'";
}

class BetweenLoopbacks : public ::testing::TestWithParam<Route> {};

// Every command in both directions, the addresses and ports each side reports, and the end.
TEST_P(BetweenLoopbacks, AllCommandsAddressesAndPorts) {
    const Route route = GetParam();
    CollectingServer server(route.transport);
    ASSERT_TRUE(server.open(route.listenOn));
    const uint16 listenPort = server.listener.getLocalPort();
    RecordingClient client;
    std::unique_ptr<TARNConnection> connected =
        connectTo(route.transport, route.connectTo, listenPort, &client);
    ASSERT_NE(nullptr, connected);
    TARNConnection& connection = *connected;
    ASSERT_TRUE(waitUntil([&] { return server.shared.count() == 1; }, 5000));
    TARNConnection* accepted = server.shared.connection(0);
    RecordingServer* recorder = server.shared.server(0);

    EXPECT_EQ(route.seen, accepted->getPeerAddress());
    EXPECT_EQ(route.seen, connection.getPeerAddress());
    EXPECT_EQ(connection.getLocalPort(), accepted->getPeerPort());
    EXPECT_EQ(accepted->getLocalPort(), connection.getPeerPort());
    if (route.transport == eTransportEUDP) {
        EXPECT_NE(listenPort, accepted->getLocalPort());  // the connection's own server port
    } else {
        EXPECT_EQ(listenPort, accepted->getLocalPort());
    }

    ASSERT_NO_FATAL_FAILURE(eudptest::expectFiveCommands(connection, client, *accepted, *recorder));

    connection.disconnect();
    EXPECT_TRUE(waitUntil([&] { return recorder->disconnects() == 1; }, 5000));
    EXPECT_TRUE(waitUntil([&] { return client.disconnects() == 1; }, 5000));
}

std::vector<Route> routes() {
    std::vector<Route> all;
    for (ETransport transport : {eTransportTCP, eTransportEUDP}) {
        all.push_back({transport, "::1", "::1", "::1"});
        all.push_back({transport, "::1", "[::1]", "::1"});
        all.push_back({transport, "127.0.0.1", "127.0.0.1", "127.0.0.1"});
        all.push_back({transport, "", "::1", "::1"});
        all.push_back({transport, "", "127.0.0.1", "127.0.0.1"});
        all.push_back({transport, "0.0.0.0", "::1", "::1"});
        all.push_back({transport, "::", "127.0.0.1", "127.0.0.1"});
        all.push_back({transport, "::", "::1", "::1"});
    }
    return all;
}

std::string nameOf(const std::string& address) {
    if (address == "::1") {
        return "Loopback6";
    }
    if (address == "[::1]") {
        return "Bracketed6";
    }
    if (address == "127.0.0.1") {
        return "Loopback4";
    }
    if (address == "::") {
        return "Any6";
    }
    return address.empty() ? "Empty" : "Any4";
}

INSTANTIATE_TEST_SUITE_P(IPv6, BetweenLoopbacks, ::testing::ValuesIn(routes()),
                         [](const ::testing::TestParamInfo<Route>& param) {
                             return std::string(param.param.transport == eTransportTCP ? "TCP" : "EUDP") +
                                    "_Listen" + nameOf(param.param.listenOn) + "_Connect" +
                                    nameOf(param.param.connectTo);
                         });

class OnEitherTransport : public ::testing::TestWithParam<ETransport> {};

// One listener on the any-address serves an IPv4 and an IPv6 client at once, each on its own.
TEST_P(OnEitherTransport, AnyAddressListenerServesBothFamiliesAtOnce) {
    CollectingServer server(GetParam());
    ASSERT_TRUE(server.open(""));
    RecordingClient four;
    RecordingClient six;
    std::unique_ptr<TARNConnection> toFour =
        connectTo(GetParam(), "127.0.0.1", server.listener.getLocalPort(), &four);
    ASSERT_NE(nullptr, toFour);
    ASSERT_TRUE(waitUntil([&] { return server.shared.count() == 1; }, 5000));
    std::unique_ptr<TARNConnection> toSix =
        connectTo(GetParam(), "::1", server.listener.getLocalPort(), &six);
    ASSERT_NE(nullptr, toSix);
    ASSERT_TRUE(waitUntil([&] { return server.shared.count() == 2; }, 5000));
    EXPECT_EQ("127.0.0.1", server.shared.connection(0)->getPeerAddress());
    EXPECT_EQ("::1", server.shared.connection(1)->getPeerAddress());

    ASSERT_TRUE(server.shared.connection(0)->trigger("to", ParameterValue("four")));
    ASSERT_TRUE(server.shared.connection(1)->trigger("to", ParameterValue("six")));
    ASSERT_TRUE(toSix->subscribe("six-item"));
    ASSERT_TRUE(toFour->subscribe("four-item"));
    ASSERT_TRUE(waitUntil([&] { return four.size() == 1 && six.size() == 1; }, 5000));
    EXPECT_EQ("client:trigger to S:four", four.entries()[0]);
    EXPECT_EQ("client:trigger to S:six", six.entries()[0]);
    ASSERT_TRUE(waitUntil(
        [&] { return server.shared.server(0)->size() == 1 && server.shared.server(1)->size() == 1; }, 5000));
    EXPECT_EQ("server:subscribe four-item", server.shared.server(0)->entries()[0]);
    EXPECT_EQ("server:subscribe six-item", server.shared.server(1)->entries()[0]);
    toFour->disconnect();
    toSix->disconnect();
}

INSTANTIATE_TEST_SUITE_P(IPv6, OnEitherTransport, ::testing::Values(eTransportTCP, eTransportEUDP),
                         [](const ::testing::TestParamInfo<ETransport>& param) {
                             return std::string(param.param == eTransportTCP ? "TCP" : "EUDP");
                         });

TEST(IPv6, TcpClientOfTheOtherFamilyIsRefused) {
    CollectingServer four(eTransportTCP);
    ASSERT_TRUE(four.open("127.0.0.1"));
    CollectingServer six(eTransportTCP);
    ASSERT_TRUE(six.open("::1"));
    // Each port number is held in the other family, so that no other test's listener on the other
    // loopback can happen to have the same number and take the connection meant to be refused.
    testsupport::ClosedTcpPort fourOnSix(true, four.listener.getLocalPort());
    testsupport::ClosedTcpPort sixOnFour(false, six.listener.getLocalPort());
    if (fourOnSix.port() == 0 || sixOnFour.port() == 0) {
        GTEST_SKIP() << "a listener of the other family has the same port number";
    }
    RecordingClient client;
    // Both listen: each takes a client of its own family.
    std::unique_ptr<TARNConnection> toFour =
        connectTo(eTransportTCP, "127.0.0.1", four.listener.getLocalPort(), &client);
    std::unique_ptr<TARNConnection> toSix =
        connectTo(eTransportTCP, "::1", six.listener.getLocalPort(), &client);
    ASSERT_TRUE(toFour && toSix);
    TARNConnection connection(eTransportTCP);
    EXPECT_FALSE(connection.connect("::1", four.listener.getLocalPort(), &client));
    TARNConnection other(eTransportTCP);
    EXPECT_FALSE(other.connect("127.0.0.1", six.listener.getLocalPort(), &client));
    EXPECT_TRUE(waitUntil([&] { return four.shared.count() == 1 && six.shared.count() == 1; }, 5000));
    toFour->disconnect();
    toSix->disconnect();
}

// Nobody answers on ::1: the CON goes unanswered, and the time-out names the IPv6 address.
TEST(IPv6, EudpClientOfTheOtherFamilyTimesOut) {
    CollectingServer four(eTransportEUDP);
    ASSERT_TRUE(four.open("127.0.0.1"));
    LogCapture log;
    RecordingClient client;
    TARNConnection connection(eTransportEUDP);
    const std::int64_t start = nowMs();
    EXPECT_FALSE(connection.connect("::1", four.listener.getLocalPort(), &client));
    EXPECT_GE(nowMs() - start, 4900);
    const std::string expected =
        "TARN/EUDP[" + std::to_string(connection.getLocalPort()) +
        "]: failed to connect to ::1:" + std::to_string(four.listener.getLocalPort()) + " (timeout)";
    EXPECT_TRUE(log.contains(eError, expected)) << log.dump();
    EXPECT_EQ(0u, four.shared.count());
    connection.disconnect();
}

// A raw IPv6 UDP socket on ::1 playing the EUDP client.
class RawUdp6 {
public:
    RawUdp6() : m_fd(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in6 local = loopback(0);
        if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0) {
            socklen_t length = sizeof(local);
            ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length);
            m_port = ntohs(local.sin6_port);
        }
    }
    ~RawUdp6() { ::close(m_fd); }
    RawUdp6(const RawUdp6&) = delete;
    RawUdp6& operator=(const RawUdp6&) = delete;

    uint16 port() const { return m_port; }
    bool sendTo(const Bytes& datagram, uint16 port) {
        sockaddr_in6 remote = loopback(port);
        return ::sendto(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&remote),
                        sizeof(remote)) == static_cast<ssize_t>(datagram.size());
    }
    // The next datagram other than a keep-alive within 5 s; false on time-out. Tells its source.
    bool next(Bytes& datagram, uint16& fromPort, std::string& fromAddress) {
        const std::int64_t deadline = nowMs() + 5000;
        for (;;) {
            const std::int64_t left = deadline - nowMs();
            pollfd entry{m_fd, POLLIN, 0};
            if (left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) != 1) {
                return false;
            }
            datagram.assign(2048, 0);
            sockaddr_in6 from;
            socklen_t length = sizeof(from);
            const ssize_t n = ::recvfrom(m_fd, datagram.data(), datagram.size(), 0,
                                         reinterpret_cast<sockaddr*>(&from), &length);
            if (n < 0) {
                return false;
            }
            datagram.resize(static_cast<std::size_t>(n));
            fromPort = ntohs(from.sin6_port);
            char text[INET6_ADDRSTRLEN] = {0};
            fromAddress = ::inet_ntop(AF_INET6, &from.sin6_addr, text, sizeof(text)) ? text : "";
            if (datagram.size() < 4 || std::memcmp(datagram.data() + 1, "NOP", 3) != 0) {
                return true;
            }
        }
    }

private:
    static sockaddr_in6 loopback(uint16 port) {
        sockaddr_in6 address;
        std::memset(&address, 0, sizeof(address));
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_loopback;
        return address;
    }

    int m_fd;
    uint16 m_port = 0;
};

// The handshake from an IPv6 client, byte for byte: the ACK carries the CON's number and comes
// from a port of the new connection's own; data go both ways through that port.
TEST(IPv6, EudpHandshakeFromRawIPv6Peer) {
    for (const char* listenOn : {"::1", "::", ""}) {
        SCOPED_TRACE(listenOn);
        EUDPTransport listener;
        ASSERT_TRUE(listener.listen(sal::HostAddress(listenOn), 0));
        RawUdp6 raw;
        ASSERT_NE(0, raw.port());
        ASSERT_TRUE(raw.sendTo(eudpDatagram("CON", 1234), listener.getLocalPort()));
        std::unique_ptr<EUDPTransport> server(static_cast<EUDPTransport*>(listener.accept()));
        ASSERT_NE(nullptr, server);
        EXPECT_EQ("::1", server->getPeerAddress().getAddressString());
        EXPECT_EQ(raw.port(), server->getPeerPort());

        Bytes datagram;
        uint16 serverPort = 0;
        std::string from;
        ASSERT_TRUE(raw.next(datagram, serverPort, from));
        EXPECT_EQ(hex(eudpDatagram("ACK", 1234)), hex(datagram));
        EXPECT_EQ("::1", from);
        EXPECT_NE(listener.getLocalPort(), serverPort);
        EXPECT_EQ(server->getLocalPort(), serverPort);

        ASSERT_TRUE(raw.sendTo(eudpDatagram("CMD", 1235, bytesOf("hello")), serverPort));
        std::uint8_t buffer[64];
        ASSERT_EQ(5, server->receiveData(buffer, sizeof buffer));
        EXPECT_EQ("hello", std::string(buffer, buffer + 5));
        ASSERT_TRUE(server->sendData(reinterpret_cast<const uint8*>("hi"), 2));
        uint16 port = 0;
        ASSERT_TRUE(raw.next(datagram, port, from));
        EXPECT_EQ(hex(eudpDatagram("CMD", 0, bytesOf("hi"))), hex(datagram));
        EXPECT_EQ(serverPort, port);
        server->disconnect();
        listener.disconnect();
    }
}

}  // namespace
