// How a link begins and ends, as scripts see it: sub's ready line, the wait for a server that is not
// up yet, a link closed by the server told apart from one lost to silence, and a server that
// closes many connections at once.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include <tarnconnection.h>

#include "process.h"
#include "rawpeers.h"
#include "testsupport.h"

using namespace clitest;
using testsupport::startsWith;

namespace {

class CliLinks : public ::testing::TestWithParam<std::string> {
protected:
    std::string transport() const { return GetParam(); }
    std::string flag() const { return "--" + GetParam(); }
    // A port on which nothing answers, kept from other sockets for the test: the TCP one by a
    // socket that never listens (a server started on it binds beside it), the UDP one by a socket
    // that nobody reads until openClosedPort() gives it up for a server about to bind it.
    std::uint16_t closedPort() const { return transport() == "tcp" ? m_tcp.port() : m_udp.port(); }
    void openClosedPort() { m_udp.release(); }

private:
    testsupport::ReservedTcpPort m_tcp;
    testsupport::HeldUdpPort m_udp;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Transports, CliLinks, ::testing::Values("tcp", "eudp"),
                         [](const ::testing::TestParamInfo<std::string>& param) { return param.param; });

TEST_P(CliLinks, SubSaysWhenItsSubscriptionsAreSent) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess sub({"sub", flag(), "127.0.0.1", serve.portText(), "door", "two words", "--count", "1"});
    std::string line;
    ASSERT_TRUE(sub.nextErrorLine(line, kWaitMs));
    EXPECT_EQ(line, "ready: subscriptions sent for door \"two words\"");
    // Once that line is there, the server has been asked: a trigger sent after the server shows the
    // subscription reaches the subscriber.
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] subscribe door");
    EXPECT_EQ(serve.next(), "[1] subscribe \"two words\"");
    serve.send("trigger door=open");
    EXPECT_EQ(serve.next(), "trigger door=\"open\" (sent to 1)");
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(), "trigger door=\"open\"\n");
    EXPECT_EQ(sub.restOfErrors(), "");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliLinks, ReadyIsAJsonEventBeforeTheUpdates) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    serve.send("set t:f=10");
    EXPECT_EQ(serve.next(), "set t:f=10 (sent to 0)");
    ToolProcess sub({"sub", "--json", flag(), "127.0.0.1:" + serve.portText(), "t", "-c", "1"});
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(),
              "{\"event\":\"ready\",\"names\":[\"t\"]}\n"
              "{\"event\":\"update\",\"name\":\"t\",\"type\":\"float\",\"value\":10}\n");
    EXPECT_EQ(sub.restOfErrors(), "");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliLinks, SubWaitsForAServerThatComesUpLater) {
    const std::string port = std::to_string(closedPort());
    ToolProcess sub({"sub", flag(), "--wait", "60", "127.0.0.1", port, "x", "--count", "1"});
    std::string line;
    ASSERT_TRUE(sub.nextErrorLine(line, kWaitMs));
    const std::string reason =
        transport() == "tcp" ? "connection refused" : "no answer within 5 s (timed out)";
    EXPECT_EQ(line, "waiting up to 60 s for a server at 127.0.0.1:" + port + " over " + transport() + " (" +
                        reason + ")");
    openClosedPort();
    ToolProcess serve({"serve", flag(), "--bind", "127.0.0.1", "--port", port});
    ASSERT_TRUE(serve.nextLine(line, kWaitMs));
    ASSERT_EQ(line, "listening on " + transport() + " 127.0.0.1:" + port);
    ASSERT_TRUE(sub.nextErrorLine(line, 3 * kWaitMs));  // an EUDP try lasts 5 s
    EXPECT_EQ(line, "ready: subscriptions sent for x");
    EXPECT_TRUE(serve.waitForLine("[1] subscribe x", kWaitMs));
    serve.send("trigger x:i=1");
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(), "trigger x:i=1\n");
    serve.send("quit");
    EXPECT_EQ(serve.wait(kWaitMs), 0);
}

TEST(CliWait, ConnectWaitsToo) {
    const testsupport::ReservedTcpPort closed;  // the server binds beside it
    const std::string port = std::to_string(closed.port());
    ToolProcess client({"connect", "-w", "60", "127.0.0.1:" + port});
    std::string line;
    ASSERT_TRUE(client.nextErrorLine(line, kWaitMs));
    EXPECT_EQ(line,
              "waiting up to 60 s for a server at 127.0.0.1:" + port + " over tcp (connection refused)");
    ToolProcess serve({"serve", "--bind", "127.0.0.1", "--port", port});
    ASSERT_TRUE(serve.nextLine(line, kWaitMs));
    ASSERT_TRUE(client.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "connected tcp 127.0.0.1:" + port);
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 0);
    serve.send("quit");
    EXPECT_EQ(serve.wait(kWaitMs), 0);
}

TEST(CliWait, GivesUpWhenTheWaitRunsOut) {
    const testsupport::ClosedTcpPort closed;
    const std::string port = std::to_string(closed.port());
    const std::int64_t start = testsupport::nowMs();
    std::string out;
    std::string err;
    EXPECT_EQ(runTool({"sub", "--wait", "0.5", "127.0.0.1", port, "x"}, "", kWaitMs, out, err), 4);
    EXPECT_GE(testsupport::nowMs() - start, 450);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "waiting up to 0.5 s for a server at 127.0.0.1:" + port +
                       " over tcp (connection refused)\n"
                       "tarn: cannot connect to 127.0.0.1:" +
                       port + " over tcp: connection refused (waited 0.5 s)\n");
    // The same in JSON: both lines are objects on standard output.
    EXPECT_EQ(runTool({"sub", "-j", "-w", "0.25", "127.0.0.1", port, "x"}, "", kWaitMs, out, err), 4);
    EXPECT_EQ(err, "");
    EXPECT_EQ(out, "{\"event\":\"waiting\",\"transport\":\"tcp\",\"peer\":\"127.0.0.1:" + port +
                       "\",\"seconds\":0.25,\"reason\":\"connection refused\"}\n"
                       "{\"event\":\"error\",\"message\":\"cannot connect to 127.0.0.1:" +
                       port + " over tcp: connection refused (waited 0.25 s)\"}\n");
    // Without --wait, one try only, and no waiting line.
    EXPECT_EQ(runTool({"call", "127.0.0.1", port, "f"}, "", kWaitMs, out, err), 4);
    EXPECT_EQ(err, "tarn: cannot connect to 127.0.0.1:" + port + " over tcp: connection refused\n");
    EXPECT_EQ(runTool({"call", "-w", "soon", "127.0.0.1", port, "f"}, "", kWaitMs, out, err), 2);
    EXPECT_EQ(err,
              "tarn: --wait needs a number of seconds above 0 (at most 86400); see 'tarn call --help'\n");
}

TEST(CliWait, ASignalEndsTheWait) {
    const testsupport::ClosedTcpPort closed;
    const std::string port = std::to_string(closed.port());
    ToolProcess sub({"sub", "--wait", "600", "127.0.0.1", port, "x"});
    std::string line;
    ASSERT_TRUE(sub.nextErrorLine(line, kWaitMs));
    EXPECT_TRUE(startsWith(line, "waiting up to 600 s")) << line;
    sub.signal(SIGINT);
    EXPECT_EQ(sub.wait(kWaitMs), 0);
}

TEST(CliEnd, ServerClosingIsToldAsClosed) {
    RawEudpServer server;
    ToolProcess client({"connect", "--eudp", "127.0.0.1", std::to_string(server.socket.port())});
    ASSERT_TRUE(server.acceptConnection());
    std::string line;
    ASSERT_TRUE(client.nextLine(line, kWaitMs));
    ASSERT_TRUE(server.sendDis());
    ASSERT_TRUE(client.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "disconnected");
    EXPECT_EQ(client.wait(kWaitMs), 6);
    EXPECT_EQ(client.restOfErrors(), "tarn: connection closed by the server\n");
}

TEST(CliEnd, SilentServerIsToldAsLost) {
    RawEudpServer server;  // answers the CON, then nothing: no keep-alive answer, no DIS
    const std::int64_t start = testsupport::nowMs();
    ToolProcess client({"connect", "--eudp", "127.0.0.1", std::to_string(server.socket.port())});
    ASSERT_TRUE(server.acceptConnection());
    std::string line;
    ASSERT_TRUE(client.nextLine(line, kWaitMs));
    ASSERT_TRUE(client.nextLine(line, 4 * kWaitMs));
    EXPECT_EQ(line, "disconnected");
    EXPECT_GE(testsupport::nowMs() - start, 10000) << "a keep-alive, then 10 s without an answer";
    EXPECT_EQ(client.wait(kWaitMs), 6);
    EXPECT_EQ(client.restOfErrors(), "tarn: connection lost: no answer from the server for 10 s\n");
}

TEST(CliEnd, SilentServerIsToldAsLostInJsonToo) {
    RawEudpServer server;
    ToolProcess sub({"sub", "--eudp", "--json", "127.0.0.1", std::to_string(server.socket.port()), "x"});
    ASSERT_TRUE(server.acceptConnection());
    std::string line;
    ASSERT_TRUE(sub.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "{\"event\":\"ready\",\"names\":[\"x\"]}");
    EXPECT_EQ(sub.wait(4 * kWaitMs), 6);
    EXPECT_EQ(sub.restOfOutput(),
              "{\"event\":\"error\",\"message\":\"connection lost: no answer from the server for 10 s\"}\n");
    EXPECT_EQ(sub.restOfErrors(), "");
}

TEST(CliEnd, ServeTellsASilentClientFromOneThatLeft) {
    ServeProcess serve("eudp", {"--json"});
    ASSERT_NE(serve.port(), 0);
    RawEudpClient leaving;
    ASSERT_TRUE(leaving.connect(serve.port()));
    EXPECT_TRUE(startsWith(serve.next(), "{\"event\":\"connected\",\"conn\":1,"));
    ASSERT_TRUE(leaving.sendTo("DIS", 0));
    EXPECT_EQ(serve.next(), "{\"event\":\"disconnected\",\"conn\":1,\"reason\":\"closed\"}");

    RawEudpClient silent;
    ASSERT_TRUE(silent.connect(serve.port()));
    EXPECT_TRUE(startsWith(serve.next(), "{\"event\":\"connected\",\"conn\":2,"));
    const std::int64_t start = testsupport::nowMs();
    EXPECT_EQ(serve.next(4 * kWaitMs), "{\"event\":\"disconnected\",\"conn\":2,\"reason\":\"lost\"}");
    EXPECT_GE(testsupport::nowMs() - start, 9500);
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliEnd, ServeSaysLostInTextToo) {
    ServeProcess serve("eudp");
    ASSERT_NE(serve.port(), 0);
    RawEudpClient silent;
    ASSERT_TRUE(silent.connect(serve.port()));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected 127.0.0.1:"));
    EXPECT_EQ(serve.next(4 * kWaitMs), "[1] disconnected: no answer from the client for 10 s");
    EXPECT_EQ(serve.quit(), 0);
}

namespace {

// Reads serve's lines from "stopping" to "stopped"; returns the milliseconds between the two and
// counts the "disconnected" lines in between.
std::int64_t timeTheStop(ServeProcess& serve, std::size_t count, std::size_t& disconnected) {
    const std::string expected = "stopping: closing " + std::to_string(count) + " connections";
    EXPECT_TRUE(serve.process().waitForLine(expected, kWaitMs));
    const std::int64_t start = testsupport::nowMs();
    std::vector<std::string> between;
    EXPECT_TRUE(serve.process().waitForLine("stopped", 4 * kWaitMs, &between));
    const std::int64_t took = testsupport::nowMs() - start;
    disconnected = 0;
    const std::string suffix = "] disconnected";
    for (const std::string& line : between) {
        if (line.size() > suffix.size() &&
            line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0) {
            ++disconnected;
        }
    }
    return took;
}

}  // namespace

TEST(CliStop, ServeClosesAHundredTcpConnectionsAtOnce) {
    ServeProcess serve("tcp");
    ASSERT_NE(serve.port(), 0);
    // One after another, each once the server has taken the one before: the listening socket keeps
    // only a few unaccepted peers, and a burst beyond them waits a second for its next SYN.
    std::vector<testsupport::RawTcp> clients;
    for (int i = 1; i <= 100; ++i) {
        clients.push_back(testsupport::RawTcp::connectTo(serve.port()));
        ASSERT_TRUE(clients.back().valid());
        std::string line;
        const std::string connected = "[" + std::to_string(i) + "] connected ";
        ASSERT_TRUE(serve.process().waitForLine(
            [&](const std::string& l) { return startsWith(l, connected); }, line, kWaitMs));
    }
    serve.send("quit");
    std::size_t disconnected = 0;
    const std::int64_t took = timeTheStop(serve, 100, disconnected);
    EXPECT_EQ(disconnected, 100u);
    // One at a time this took about 0.25 s each (25 s); at once, well under a second on a quiet
    // machine. The bound leaves room for sanitizer builds on a busy one.
    EXPECT_LT(took, 8000);
    EXPECT_EQ(serve.process().wait(kWaitMs), 0);
    for (testsupport::RawTcp& client : clients) {
        EXPECT_TRUE(client.waitClosed(kWaitMs));
    }
}

namespace {

// A library client that only counts how its connection ended.
class EndCounter : public ITARNClient {
public:
    void onTrigger(const std::string&, const ParameterValue&) override {}
    void onUpdateState(const std::string&, const ParameterValue&) override {}
    void onStatusChanged(EConnStatus status) override {
        if (status == eDisconnected) {
            ++ended;
        }
    }
    std::atomic<int> ended{0};
};

}  // namespace

TEST(CliStop, ServeClosesThirtyEudpConnectionsAtOnce) {
    ServeProcess serve("eudp");
    ASSERT_NE(serve.port(), 0);
    // Clients of the library itself, which answer the server's keep-alives however long this takes.
    tarnInit();
    {
        std::vector<std::unique_ptr<EndCounter>> counters;
        std::vector<std::unique_ptr<TARNConnection>> clients;
        for (int i = 0; i < 30; ++i) {
            counters.emplace_back(new EndCounter());
            clients.emplace_back(new TARNConnection(eTransportEUDP));
            ASSERT_TRUE(clients.back()->connect("127.0.0.1", serve.port(), counters.back().get()));
        }
        std::string line;
        ASSERT_TRUE(serve.process().waitForLine(
            [](const std::string& l) { return startsWith(l, "[30] connected "); }, line, 4 * kWaitMs));
        serve.process().signal(SIGTERM);
        std::size_t disconnected = 0;
        const std::int64_t took = timeTheStop(serve, 30, disconnected);
        EXPECT_EQ(disconnected, 30u);
        EXPECT_LT(took, 8000);
        EXPECT_EQ(serve.process().wait(kWaitMs), 0);
        // Each client was told (a DIS came to it) and ended at once, not by its keep-alive.
        for (auto& counter : counters) {
            EXPECT_TRUE(testsupport::waitUntil([&] { return counter->ended.load() == 1; }, kWaitMs));
        }
        // Each connection's destructor pauses a while: all of them at once.
        std::vector<std::thread> closers;
        for (auto& client : clients) {
            closers.emplace_back([&client] {
                client->disconnect();
                client.reset();
            });
        }
        for (std::thread& closer : closers) {
            closer.join();
        }
    }
    tarnDeinit();
}
