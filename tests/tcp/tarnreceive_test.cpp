// The receive loop over TCP: dispatch of the five commands to the client or server, the warnings
// for a missing side, silently dropped unknown commands, invalid packets, and the end of the loop.
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include <tarnconnection.h>
#include <tarnpacket.h>
#include <tcptransport.h>

#include "tcptestutil.h"
#include "testsupport.h"

using namespace testsupport;
using namespace tcptest;
namespace Log = Corvane::Utilities::Logging;

namespace {

// A server-side connection built on an accepted transport, started, with a raw client peer.
struct ServerSide {
    Events events;
    RecordingServer server{events};
    TCPTransport listening;
    RawTcp peer{listenAndConnect()};
    std::unique_ptr<TARNConnection> connection{new TARNConnection(listening.accept())};

    RawTcp listenAndConnect() {
        EXPECT_TRUE(listening.listen(sal::HostAddress("127.0.0.1"), 0));
        return RawTcp::connectTo(listening.getLocalPort());
    }
    ~ServerSide() {
        connection->disconnect();
        listening.disconnect();
    }
    void send(std::uint8_t command, const Bytes& body) {
        ASSERT_TRUE(peer.sendAll(frame(packet(command, body))));
    }
};

// A client connection on a raw server peer.
struct ClientSide {
    Events events;
    RecordingClient client{events};
    RawTcpListener listener;
    std::unique_ptr<TARNConnection> connection{new TARNConnection(eTransportTCP)};
    RawTcp peer{connectAndAccept(&client)};

    int connectAndAccept(ITARNClient* pClient) {
        EXPECT_TRUE(connection->connect("127.0.0.1", listener.port(), pClient));
        const int fd = listener.accept(5000);
        EXPECT_GE(fd, 0);
        return fd;
    }
    ~ClientSide() { connection->disconnect(); }
    void send(std::uint8_t command, const Bytes& body) {
        ASSERT_TRUE(peer.sendAll(frame(packet(command, body))));
    }
};

const std::string kNoServerSubscribe = "TARN: received unexpected subscribe cmd (no server available)";

}  // namespace

TEST(TarnReceiveLoop, DispatchesSubscribeUnsubscribeAndFunctionCallsToTheServer) {
    ServerSide s;
    s.connection->setServer(&s.server);
    ASSERT_TRUE(s.connection->start());
    s.send('S', cstr("lamp"));
    s.send('X', cstr("lamp"));
    ParameterList params;
    params.addNumeric("level", 40);
    params.addFloat("fade", 1.5f);
    params.addString("name", "hall");
    params.addBoolean("on", true);
    Bytes encoded(200);
    encoded.resize(static_cast<std::size_t>(params.getBinary(reinterpret_cast<char*>(encoded.data()), 200)));
    s.send('F', concat({cstr("dim"), encoded}));
    s.send('F', concat({cstr("none"), Bytes{0}}));
    ASSERT_TRUE(s.events.waitSize(4, 5000));
    EXPECT_EQ(
        (std::vector<std::string>{"server:subscribe lamp", "server:unsubscribe lamp",
                                  "server:call dim fade=1.5;level=40;name=hall;on=ON;", "server:call none "}),
        s.events.list());
    for (const auto& id : s.events.threads()) {
        EXPECT_NE(std::this_thread::get_id(), id);
    }
}

TEST(TarnReceiveLoop, DispatchesTriggersAndStateUpdatesToTheClient) {
    ClientSide c;
    c.send('T', concat({cstr("count"), intValue(-7)}));
    c.send('U', concat({cstr("mode"), Bytes{'S', 'o', 'n', 0}}));
    c.send('T', concat({cstr("level"), Bytes{'F', 0x00, 0x00, 0x00, 0x3F}}));
    c.send('U', concat({cstr("power"), Bytes{'B', 1}}));
    c.send('T', concat({cstr("ping"), Bytes{'N'}}));
    ASSERT_TRUE(c.events.waitSize(6, 5000));
    EXPECT_EQ((std::vector<std::string>{"client:connected", "client:trigger count I:-7",
                                        "client:state mode S:on", "client:trigger level F:0.5",
                                        "client:state power B:ON", "client:trigger ping N:INV"}),
              c.events.list());
}

TEST(TarnReceiveLoop, ServerSideWithoutServerWarnsForEachSubscribeAndKeepsRunning) {
    ServerSide s;
    LogCapture log;
    ASSERT_TRUE(s.connection->start());
    s.send('S', cstr("a"));
    s.send('S', cstr("b"));
    ASSERT_TRUE(waitUntil([&] { return log.count(Log::eWarning, kNoServerSubscribe) == 2; }, 5000))
        << log.dump();
    // A server attached now counts from the next packet on.
    s.connection->setServer(&s.server);
    s.send('S', cstr("c"));
    ASSERT_TRUE(s.events.waitSize(1, 5000));
    EXPECT_EQ(std::vector<std::string>{"server:subscribe c"}, s.events.list());
    EXPECT_EQ(2, log.count(kNoServerSubscribe));
}

TEST(TarnReceiveLoop, ClientSideWarnsForServerCommands) {
    ClientSide c;
    LogCapture log;
    c.send('S', cstr("a"));
    c.send('X', cstr("a"));
    c.send('F', concat({cstr("f"), Bytes{0}}));
    c.send('T', concat({cstr("ok"), intValue(1)}));
    ASSERT_TRUE(c.events.waitFor("client:trigger ok I:1", 5000));
    const auto lines = log.lines();
    ASSERT_EQ(3u, lines.size()) << log.dump();
    EXPECT_EQ(kNoServerSubscribe, lines[0].text);
    EXPECT_EQ("TARN: received unexpected unsubscribe cmd (no server available)", lines[1].text);
    EXPECT_EQ("TARN: received unexpected FID cmd (no server available)", lines[2].text);
    for (const auto& line : lines) {
        EXPECT_EQ(Log::eWarning, line.level);
        EXPECT_EQ("TARN", line.category);
    }
}

TEST(TarnReceiveLoop, ConnectionWithoutClientWarnsForClientCommands) {
    Events events;
    RecordingServer server(events);
    RawTcpListener listener;
    TARNConnection connection(eTransportTCP);
    ASSERT_TRUE(connection.connect("127.0.0.1", listener.port(), nullptr));
    RawTcp peer(listener.accept(5000));
    LogCapture log;
    ASSERT_TRUE(peer.sendAll(frame(packet('T', concat({cstr("t"), intValue(1)})))));
    ASSERT_TRUE(peer.sendAll(frame(packet('U', concat({cstr("u"), intValue(1)})))));
    ASSERT_TRUE(
        log.waitFor(Log::eWarning, "TARN: received unexpected update state cmd (no client available)", 5000));
    EXPECT_EQ(1, log.count(Log::eWarning, "TARN: received unexpected trigger cmd (no client available)"));
    // A server on the same connection is not asked for client commands.
    connection.setServer(&server);
    ASSERT_TRUE(peer.sendAll(frame(packet('T', concat({cstr("t"), intValue(1)})))));
    ASSERT_TRUE(peer.sendAll(frame(packet('S', cstr("s")))));
    ASSERT_TRUE(events.waitFor("server:subscribe s", 5000));
    EXPECT_EQ(2, log.count(Log::eWarning, "TARN: received unexpected trigger cmd (no client available)"));
    EXPECT_EQ(std::vector<std::string>{"server:subscribe s"}, events.list());
    connection.disconnect();
}

TEST(TarnReceiveLoop, UnknownCommandsAreDroppedWithoutALogLine) {
    ClientSide c;
    LogCapture log;
    c.send('G', cstr("g"));
    c.send('V', cstr("v"));
    c.send('A', Bytes());
    c.send(0, cstr("zero"));
    c.send(0xFF, Bytes{1, 2, 3});
    c.send('T', concat({cstr("after"), intValue(5)}));
    ASSERT_TRUE(c.events.waitSize(2, 5000));
    EXPECT_EQ((std::vector<std::string>{"client:connected", "client:trigger after I:5"}), c.events.list());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(TarnReceiveLoop, InvalidPacketIsDiscardedAfterItsOwnWarningAndTheNextOneProcessed) {
    ClientSide c;
    LogCapture log;
    // 10 bytes whose length field says 5.
    ASSERT_TRUE(c.peer.sendAll(frame(Bytes{1, 'T', 5, 0, 'a', 0, 'I', 1, 0, 0})));
    c.send('T', concat({cstr("good"), intValue(3)}));
    ASSERT_TRUE(c.events.waitFor("client:trigger good I:3", 5000));
    const auto lines = log.lines();
    ASSERT_EQ(2u, lines.size()) << log.dump();
    EXPECT_EQ("TARN: packet validation failed: wrong packet size", lines[0].text);
    EXPECT_EQ(Log::eWarning, lines[0].level);
    EXPECT_EQ("TARN: discarding invalid packet", lines[1].text);
    EXPECT_EQ(Log::eWarning, lines[1].level);
    EXPECT_EQ(2u, c.events.size());
}

TEST(TarnReceiveLoop, WrongVersionAndShortHeaderAreDiscardedToo) {
    ClientSide c;
    LogCapture log;
    ASSERT_TRUE(c.peer.sendAll(frame(Bytes{2, 'T', 0, 0})));
    ASSERT_TRUE(c.peer.sendAll(frame(Bytes{1, 'T', 0})));
    c.send('U', concat({cstr("good"), intValue(4)}));
    ASSERT_TRUE(c.events.waitFor("client:state good I:4", 5000));
    const auto lines = log.lines();
    ASSERT_EQ(4u, lines.size()) << log.dump();
    EXPECT_EQ("TARN: packet validation failed: wrong version", lines[0].text);
    EXPECT_EQ("TARN: discarding invalid packet", lines[1].text);
    EXPECT_EQ("TARN: packet validation failed: header too short", lines[2].text);
    EXPECT_EQ("TARN: discarding invalid packet", lines[3].text);
}

TEST(TarnReceiveLoop, AShortBodyStillReachesTheCallbackWithWhatTheReadersMade) {
    ClientSide c;
    LogCapture log;
    c.send('T', cstr("novalue"));  // valid packet, value missing
    ASSERT_TRUE(c.events.waitSize(2, 5000));
    EXPECT_EQ("client:trigger novalue N:INV", c.events.list()[1]);
    EXPECT_EQ(1, log.count(Log::eError, "TARN: failed to parse parameter value")) << log.dump();
}

TEST(TarnReceiveLoop, PeerCloseGivesExactlyOneDisconnectedClientThenServerOnTheReceiveThread) {
    Events events;
    RecordingClient client(events);
    RecordingServer server(events);
    RawTcpListener listener;
    TARNConnection connection(eTransportTCP);
    connection.setServer(&server);
    ASSERT_TRUE(connection.connect("127.0.0.1", listener.port(), &client));
    RawTcp peer(listener.accept(5000));
    ASSERT_TRUE(events.waitSize(2, 5000));
    peer.close();
    ASSERT_TRUE(events.waitSize(4, 5000));
    EXPECT_FALSE(events.waitSize(5, 300));
    EXPECT_EQ((std::vector<std::string>{"client:connected", "server:connected", "client:disconnected",
                                        "server:disconnected"}),
              events.list());
    const auto threads = events.threads();
    EXPECT_EQ(std::this_thread::get_id(), threads[0]);
    EXPECT_NE(std::this_thread::get_id(), threads[2]);
    EXPECT_EQ(threads[2], threads[3]);
    connection.disconnect();  // the loop is over: nothing more is reported
    EXPECT_FALSE(events.waitSize(5, 100));
}

TEST(TarnReceiveLoop, OversizedMessageEndsTheLoopWithoutALogLine) {
    ClientSide c;
    LogCapture log;
    ASSERT_TRUE(c.peer.sendAll(frame(Bytes(1493, 1))));
    ASSERT_TRUE(c.events.waitFor("client:disconnected", 5000));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(TarnReceiveLoop, AMessageOfExactly1492BytesIsAccepted) {
    ClientSide c;
    const Bytes body = concat({cstr(std::string(1482, 'n')), intValue(9)});  // 1488 bytes
    ASSERT_EQ(1488u, body.size());
    c.send('T', body);
    ASSERT_TRUE(c.events.waitSize(2, 5000));
    EXPECT_EQ("client:trigger " + std::string(1482, 'n') + " I:9", c.events.list()[1]);
}

namespace {

// Answers each subscription with a trigger on the same connection, from inside the callback.
class EchoServer final : public ITARNServer {
public:
    explicit EchoServer(TARNConnection*& connection) : m_connection(connection) {}
    void onSubscribe(const std::string& name) override {
        sent = m_connection->trigger(name, ParameterValue(1));
    }
    void onUnsubscribe(const std::string&) override {}
    void onCallFunctionId(const std::string&, const ParameterList&) override {}
    void onStatusChanged(EConnStatus) override {}
    std::atomic<bool> sent{false};

private:
    TARNConnection*& m_connection;
};

}  // namespace

TEST(TarnReceiveLoop, ACallbackMaySendOnItsOwnConnection) {
    // The server object outlives the connection: the loop reports eDisconnected to it when the
    // connection goes at the end of the test.
    TARNConnection* raw = nullptr;
    EchoServer echo(raw);
    ServerSide s;
    raw = s.connection.get();
    s.connection->setServer(&echo);
    ASSERT_TRUE(s.connection->start());
    s.send('S', cstr("echo"));
    Bytes body;
    ASSERT_TRUE(s.peer.receiveFrame(body, 5000));
    EXPECT_EQ(packet('T', concat({cstr("echo"), intValue(1)})), body);
    EXPECT_TRUE(waitUntil([&] { return echo.sent.load(); }, 5000));
}
