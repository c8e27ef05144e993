// TARNListener::bindAndListen: an address that cannot be bound (a port taken over TCP or UDP, an
// address that is not this machine's) gives false with nothing started and the connector still the
// caller's; a bound listener knows its port on return and accepts at once, on IPv4 and IPv6, and
// is shut down, restarted and deleted as one started by listen().
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "tarnpeers.h"
#include "testsupport.h"

using eudptest::CollectingConnector;
using eudptest::RecordingClient;
using testsupport::LogCapture;
using testsupport::RawTcp;
using testsupport::RawTcpListener;
using testsupport::RawUdp;
using testsupport::waitUntil;
namespace Log = Corvane::Utilities::Logging;

namespace {

// Collects connections like CollectingConnector and reports its own deletion.
class CountedConnector final : public CollectingConnector {
public:
    CountedConnector(Shared* pShared, std::atomic<int>* pDeleted)
        : CollectingConnector(pShared), m_pDeleted(pDeleted) {}
    ~CountedConnector() override { ++*m_pDeleted; }

private:
    std::atomic<int>* m_pDeleted;
};

const char* name(ETransport transport) {
    return transport == eTransportTCP ? "TCP" : "EUDP";
}

class BindAndListen : public ::testing::TestWithParam<ETransport> {};

// Nothing started: no thread to shut down, no port, no log line, the connector not taken.
void expectRefused(ETransport transport, const std::string& address, uint16 port) {
    SCOPED_TRACE(std::string(name(transport)) + " on '" + address + "' port " + std::to_string(port));
    LogCapture log;
    std::atomic<int> deleted{0};
    CollectingConnector::Shared shared;
    auto* connector = new CountedConnector(&shared, &deleted);
    {
        TARNListener listener(transport);
        EXPECT_FALSE(listener.bindAndListen(address, port, connector));
        EXPECT_EQ(0, listener.getLocalPort());
        EXPECT_FALSE(listener.shutdown(100));  // no accept thread was started
    }
    EXPECT_EQ(0, deleted.load());  // still the caller's, after the listener is gone
    delete connector;
    EXPECT_EQ(1, deleted.load());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

}  // namespace

TEST_P(BindAndListen, PortTakenGivesFalseAndStartsNothing) {
    const ETransport transport = GetParam();
    if (transport == eTransportTCP) {
        RawTcpListener taken;
        expectRefused(transport, "127.0.0.1", taken.port());
        expectRefused(transport, "", taken.port());  // the any-address overlaps it too
        expectRefused(transport, "0.0.0.0", taken.port());
    } else {
        RawUdp taken;
        expectRefused(transport, "127.0.0.1", taken.port());
        expectRefused(transport, "", taken.port());
        expectRefused(transport, "0.0.0.0", taken.port());
    }
}

TEST_P(BindAndListen, PortTakenByAnotherListenerGivesFalse) {
    const ETransport transport = GetParam();
    CollectingConnector::Shared shared;
    TARNListener first(transport);
    ASSERT_TRUE(first.bindAndListen("::1", 0, new CollectingConnector(&shared)));
    ASSERT_NE(0, first.getLocalPort());
    expectRefused(transport, "::1", first.getLocalPort());
    expectRefused(transport, "::", first.getLocalPort());
    EXPECT_TRUE(first.shutdown(-1));
}

TEST_P(BindAndListen, AddressThatIsNotLocalGivesFalse) {
    const ETransport transport = GetParam();
    expectRefused(transport, "192.0.2.1", 0);  // documentation range: on no interface here
    expectRefused(transport, "2001:db8::1", 0);
}

TEST_P(BindAndListen, BoundListenerKnowsItsPortAndAcceptsAtOnce) {
    const ETransport transport = GetParam();
    for (const char* address : {"127.0.0.1", "::1", ""}) {
        SCOPED_TRACE(std::string(name(transport)) + " on '" + address + "'");
        CollectingConnector::Shared shared;
        TARNListener listener(transport);
        ASSERT_TRUE(listener.bindAndListen(address, 0, new CollectingConnector(&shared)));
        const uint16 port = listener.getLocalPort();
        ASSERT_NE(0, port);  // known on return, not only once the thread runs
        // Listening before the call returned: the first try connects, with no retry.
        RecordingClient client;
        TARNConnection connection(transport);
        const std::string host = std::string(address).empty() ? "127.0.0.1" : address;
        ASSERT_TRUE(connection.connect(host, port, &client));
        ASSERT_TRUE(waitUntil([&] { return shared.count() == 1; }, 5000));
        EXPECT_EQ(host, shared.connection(0)->getPeerAddress());
        ASSERT_TRUE(connection.subscribe("lamp"));
        ASSERT_TRUE(waitUntil([&] { return shared.server(0)->size() == 1; }, 5000));
        EXPECT_EQ("server:subscribe lamp", shared.server(0)->entries()[0]);
        EXPECT_EQ(port, listener.getLocalPort());
        connection.disconnect();
        EXPECT_TRUE(listener.shutdown(-1));
    }
}

TEST_P(BindAndListen, ShutdownRightAfterIsCleanAndRestartBindsAgain) {
    const ETransport transport = GetParam();
    LogCapture log;
    std::atomic<int> deleted{0};
    CollectingConnector::Shared shared;
    {
        TARNListener listener(transport);
        ASSERT_TRUE(listener.bindAndListen("127.0.0.1", 0, new CountedConnector(&shared, &deleted)));
        EXPECT_TRUE(listener.shutdown(5000));
        EXPECT_TRUE(log.waitFor(Log::eInfo, "TARN: listener is shut down", 5000)) << log.dump();
        EXPECT_EQ(0, deleted.load());
    }
    EXPECT_EQ(1, deleted.load());  // taken by the listener and deleted with it
}

// A deleted listener leaves its listening transport behind, disconnected. Over TCP that frees the
// port for a new listener; the EUDP transport keeps its socket bound, so the port stays taken and
// a second bindAndListen says so instead of starting a listener that would accept nobody.
TEST_P(BindAndListen, PortOfADeletedListener) {
    const ETransport transport = GetParam();
    CollectingConnector::Shared shared;
    uint16 port = 0;
    {
        TARNListener first(transport);
        ASSERT_TRUE(first.bindAndListen("127.0.0.1", 0, new CollectingConnector(&shared)));
        port = first.getLocalPort();
        ASSERT_NE(0, port);
        EXPECT_TRUE(first.shutdown(-1));
    }
    if (transport == eTransportEUDP) {
        expectRefused(transport, "127.0.0.1", port);
        return;
    }
    TARNListener second(transport);
    ASSERT_TRUE(second.bindAndListen("127.0.0.1", port, new CollectingConnector(&shared)));
    EXPECT_EQ(port, second.getLocalPort());
    RawTcp peer = RawTcp::connectTo(port);
    ASSERT_TRUE(peer.valid());
    ASSERT_TRUE(waitUntil([&] { return shared.count() == 1; }, 5000));
    EXPECT_TRUE(second.shutdown(-1));
}

INSTANTIATE_TEST_SUITE_P(Transports, BindAndListen, ::testing::Values(eTransportTCP, eTransportEUDP),
                         [](const ::testing::TestParamInfo<ETransport>& param) {
                             return std::string(name(param.param));
                         });

TEST(BindAndListenTcp, RawPeerConnectsRightAfterTheCall) {
    CollectingConnector::Shared shared;
    TARNListener listener(eTransportTCP);
    ASSERT_TRUE(listener.bindAndListen("127.0.0.1", 0, new CollectingConnector(&shared)));
    RawTcp peer = RawTcp::connectTo(listener.getLocalPort());
    ASSERT_TRUE(peer.valid());
    ASSERT_TRUE(waitUntil([&] { return shared.count() == 1; }, 5000));
    EXPECT_EQ(listener.getLocalPort(), shared.connection(0)->getLocalPort());
    EXPECT_TRUE(listener.shutdown(-1));
}

// listen() keeps its own way: true even where the port is taken (UDP here, where the failed bind
// only means that nobody is accepted).
TEST(BindAndListenEudp, ListenStillReturnsTrueOnATakenPort) {
    RawUdp taken;
    CollectingConnector::Shared shared;
    TARNListener listener(eTransportEUDP);
    EXPECT_TRUE(listener.listen("127.0.0.1", taken.port(), new CollectingConnector(&shared)));
    EXPECT_TRUE(listener.shutdown(-1));
    EXPECT_EQ(0u, shared.count());
}
