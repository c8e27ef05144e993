// tarn impair as users run it: it prints where it listens, relays an EUDP connection to a server
// (following the server's connection port), and prints its counts when it ends.
#include <signal.h>

#include <string>

#include <gtest/gtest.h>

#include "childprocess.h"
#include "faultsupport.h"
#include "testsupport.h"

namespace {

TEST(ImpairCommand, RelaysATarnConnectionAndPrintsCountsOnSigterm) {
    faults::TestServer server(eTransportEUDP);
    ASSERT_NE(0, server.start());
    testsupport::ChildProcess relay({TARN_TOOL_PATH, "impair", "--listen", "0", "--to",
                                     "127.0.0.1:" + std::to_string(server.port()), "--dup", "100", "--seed",
                                     "5"});
    ASSERT_TRUE(relay.started());
    std::string first;
    relay.nextLine(first, 20000);
    const std::string prefix = "impair: relaying 127.0.0.1:";
    ASSERT_EQ(0u, first.find(prefix)) << first;
    const int port = std::atoi(first.c_str() + prefix.size());
    EXPECT_NE(std::string::npos, first.find(" to 127.0.0.1:" + std::to_string(server.port()))) << first;

    faults::SeqClient client;
    TARNConnection connection(eTransportEUDP);
    ASSERT_TRUE(connection.connect("127.0.0.1", static_cast<uint16>(port), &client));
    EXPECT_EQ(port, connection.getPeerPort());  // the client only sees the relay
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(connection.subscribe("stream"));
    }
    EXPECT_TRUE(testsupport::waitUntil([&] { return client.triggers.size() >= 100; }, 20000));
    connection.disconnect();

    relay.signal(SIGTERM);
    std::string last;
    relay.nextLine(last, 20000);
    EXPECT_EQ(0u, last.find("impair: received ")) << last;
    EXPECT_NE(std::string::npos, last.find(", clients 1, refused 0")) << last;
    EXPECT_EQ(std::string::npos, last.find("duplicated 0,")) << last;
}

TEST(ImpairCommand, RefusesABadPercentage) {
    testsupport::ChildProcess relay(
        {TARN_TOOL_PATH, "impair", "--listen", "0", "--to", "127.0.0.1:9", "--loss", "120"});
    ASSERT_TRUE(relay.started());
    EXPECT_EQ(2, relay.wait(20000));
}

}  // namespace
