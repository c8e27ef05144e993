// The cost of connection requests, measured on a small number (the burst of 1000 is
// resource_long_test.cpp).
#include "resource_cases.h"

TEST(ResourceCost, TwentyEudpConnectionRequestsFromAStranger) {
    // Twenty requests are too few to average out the allocator's own arenas: the bound is loose.
    faults::measureConnectionRequests(20, 512);
}

TEST(ResourceCost, TwentyTcpConnections) {
    faults::measureTcpConnections(20, 4 * 1024);
}

// An empty datagram on an EUDP listening port makes its accept fail, and the listener then stops
// accepting for good: part of the protocol, and the reason to filter who may reach that port.
TEST(ResourceCost, EmptyDatagramOnTheListeningPortStopsTheEudpListener) {
    faults::TestServer server(eTransportEUDP);
    ASSERT_NE(0, server.start());
    testsupport::RawUdp stranger;
    ASSERT_TRUE(stranger.sendTo(testsupport::eudpDatagram("CON", 1), server.port()));
    ASSERT_TRUE(testsupport::waitUntil([&] { return server.accepted().count() == 1; }, 10000));
    testsupport::LogCapture log;
    ASSERT_TRUE(stranger.sendTo(testsupport::Bytes(), server.port()));
    EXPECT_TRUE(log.waitFor(testsupport::Level::eError, "TARN: failed to accept incoming connection", 10000));
    ASSERT_TRUE(stranger.sendTo(testsupport::eudpDatagram("CON", 2), server.port()));
    faults::SeqClient client;
    TARNConnection connection(eTransportEUDP);
    EXPECT_FALSE(connection.connect("127.0.0.1", server.port(), &client));  // nobody accepts any more
    connection.disconnect();
    EXPECT_EQ(1u, server.accepted().count());
}
