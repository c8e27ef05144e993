// TARNConnection over TCP, set-up and sending: the exact bytes of each sending operation on a raw
// peer, connect and its failures, status reports, the pass-through operations, disconnect, restart
// and destruction.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include <tarnconnection.h>
#include <tcptransport.h>

#include "tcptestutil.h"
#include "testsupport.h"

using namespace testsupport;
using namespace tcptest;
namespace Log = Corvane::Utilities::Logging;

namespace {

// A client connection on a raw peer.
struct Connected {
    Events events;
    RecordingClient client{events};
    RawTcpListener listener;
    std::unique_ptr<TARNConnection> connection{new TARNConnection(eTransportTCP)};
    RawTcp peer{connectAndAccept()};

    int connectAndAccept() {
        EXPECT_TRUE(connection->connect("127.0.0.1", listener.port(), &client));
        const int fd = listener.accept(5000);
        EXPECT_GE(fd, 0);
        return fd;
    }
    ~Connected() {
        if (connection) {
            connection->disconnect();
        }
    }

    // The next frame the peer receives, as bytes with its 2-byte length in front.
    Bytes nextWire() {
        Bytes body;
        EXPECT_TRUE(peer.receiveFrame(body, 5000));
        return frame(body);
    }
};

// A transport that records what the connection passes to it and answers as told.
class FakeTransport final : public ITARNTransport {
public:
    explicit FakeTransport(std::atomic<bool>& deleted) : m_deleted(deleted) {}
    ~FakeTransport() override { m_deleted = true; }
    bool setWindowSize(uint windowSize) override {
        lastWindow = windowSize;
        return answer;
    }
    bool listen(const sal::HostAddress&, uint16) override { return false; }
    ITARNTransport* accept() override { return nullptr; }
    void allowSendMode(bool, bool) override {}
    void allowReceiveMode(bool, bool) override {}
    bool setSendMode(EConnMode mode) override {
        lastSendMode = mode;
        return answer;
    }
    bool setReceiveMode(EConnMode mode) override {
        lastReceiveMode = mode;
        return answer;
    }
    bool connect(const sal::HostAddress&, uint16) override { return false; }
    void disconnect() override {}
    bool sendData(const uint8*, uint) override { return false; }
    int receiveData(uint8*, uint) override { return 0; }
    sal::HostAddress getPeerAddress() const override { return sal::HostAddress("10.1.2.3"); }
    uint16 getPeerPort() const override { return 4711; }
    uint16 getLocalPort() const override { return 815; }

    bool answer = false;
    uint lastWindow = 0;
    int lastSendMode = 0;
    int lastReceiveMode = 0;

private:
    std::atomic<bool>& m_deleted;
};

}  // namespace

TEST(TarnConnectionTcp, ConnectReportsConnectedOnTheCallersThread) {
    Connected c;
    ASSERT_TRUE(c.events.waitSize(1, 5000));
    EXPECT_EQ(std::vector<std::string>{"client:connected"}, c.events.list());
    EXPECT_EQ(std::this_thread::get_id(), c.events.threads()[0]);
    EXPECT_EQ("127.0.0.1", c.connection->getPeerAddress());
    EXPECT_EQ(c.listener.port(), c.connection->getPeerPort());
    EXPECT_EQ(peerPortOf(c.peer.fd()), c.connection->getLocalPort());
}

TEST(TarnConnectionTcp, ConnectByHostName) {
    Events events;
    RecordingClient client(events);
    RawTcpListener listener;
    TARNConnection connection(eTransportTCP);
    ASSERT_TRUE(connection.connect("localhost", listener.port(), &client));
    RawTcp peer(listener.accept(5000));
    EXPECT_TRUE(peer.valid());
    connection.disconnect();
}

TEST(TarnConnectionTcp, ConnectWhereNobodyListensFailsWithoutThreadOrStatus) {
    Events events;
    RecordingClient client(events);
    LogCapture log;
    TARNConnection connection(eTransportTCP);
    EXPECT_FALSE(connection.connect("127.0.0.1", testsupport::ClosedTcpPort().port(), &client));
    // No thread: a receive loop on the unconnected socket would end at once and report.
    connection.disconnect();
    EXPECT_FALSE(events.waitSize(1, 150));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    // The client was stored all the same.
    connection.updateStatus(eConnected);
    EXPECT_EQ(std::vector<std::string>{"client:connected"}, events.list());
}

TEST(TarnConnectionTcp, EachSendingOperationPutsItsExactBytesOnTheWire) {
    Connected c;
    // A trigger of the one-letter name A with the integer 1.
    EXPECT_TRUE(c.connection->trigger("A", ParameterValue(1)));
    EXPECT_EQ(hex(Bytes{0x0B, 0x00, 0x01, 0x54, 0x07, 0x00, 0x41, 0x00, 0x49, 0x01, 0x00, 0x00, 0x00}),
              hex(c.nextWire()));

    EXPECT_TRUE(c.connection->updateState("t", ParameterValue(1.0f)));
    EXPECT_EQ(hex(Bytes{0x0B, 0x00, 0x01, 'U', 0x07, 0x00, 't', 0x00, 0x46, 0x00, 0x00, 0x80, 0x3F}),
              hex(c.nextWire()));

    EXPECT_TRUE(c.connection->updateState("on", ParameterValue("yes")));
    EXPECT_EQ(hex(frame(packet('U', concat({cstr("on"), Bytes{'S', 'y', 'e', 's', 0}})))), hex(c.nextWire()));

    EXPECT_TRUE(c.connection->trigger("b", ParameterValue(false)));
    EXPECT_EQ(hex(frame(packet('T', concat({cstr("b"), Bytes{'B', 0}})))), hex(c.nextWire()));

    EXPECT_TRUE(c.connection->trigger("none", ParameterValue()));
    EXPECT_EQ(hex(frame(packet('T', concat({cstr("none"), Bytes{'N'}})))), hex(c.nextWire()));

    EXPECT_TRUE(c.connection->subscribe("lamp"));
    EXPECT_EQ(hex(Bytes{0x09, 0x00, 0x01, 0x53, 0x05, 0x00, 'l', 'a', 'm', 'p', 0x00}), hex(c.nextWire()));

    EXPECT_TRUE(c.connection->unsubscribe("x"));
    EXPECT_EQ(hex(Bytes{0x06, 0x00, 0x01, 0x58, 0x02, 0x00, 'x', 0x00}), hex(c.nextWire()));

    EXPECT_TRUE(c.connection->subscribe(""));  // an empty name is one NUL
    EXPECT_EQ(hex(Bytes{0x05, 0x00, 0x01, 0x53, 0x01, 0x00, 0x00}), hex(c.nextWire()));

    ParameterList params;
    params.addBoolean("b", true);
    params.addNumeric("a", 1);
    EXPECT_TRUE(c.connection->callFunctionId("f", params));
    EXPECT_EQ(hex(Bytes{0x12, 0x00, 0x01, 0x46, 0x0E, 0x00, 'f', 0x00, 0x02, 'a',
                        0x00, 0x49, 0x01, 0x00, 0x00, 0x00, 'b', 0x00, 0x42, 0x01}),
              hex(c.nextWire()));

    EXPECT_TRUE(c.connection->callFunctionId("g", ParameterList()));
    EXPECT_EQ(hex(frame(packet('F', concat({cstr("g"), Bytes{0}})))), hex(c.nextWire()));
    EXPECT_TRUE(quietFor(c.peer.fd(), 50));
}

TEST(TarnConnectionTcp, ABodyThatDidNotFitGoesOutAsFarAsItFitted) {
    Connected c;
    LogCapture log;
    // The name is refused (it needs 1489 bytes of room), the value after it still fits.
    EXPECT_TRUE(c.connection->trigger(std::string(1488, 'n'), ParameterValue(7)));
    EXPECT_EQ(hex(frame(packet('T', intValue(7)))), hex(c.nextWire()));
    EXPECT_TRUE(log.contains(Log::eError, "TARN: TARN packet length (1489) exceeds max length (1488)"))
        << log.dump();

    // A name that fills the packet exactly leaves no room for the value.
    EXPECT_TRUE(c.connection->trigger(std::string(1487, 'm'), ParameterValue(7)));
    const Bytes wire = c.nextWire();
    ASSERT_EQ(2u + 1492u, wire.size());
    EXPECT_EQ(hex(Bytes{0xD4, 0x05, 0x01, 'T', 0xD0, 0x05, 'm'}), hex(Bytes(wire.begin(), wire.begin() + 7)));
    EXPECT_EQ(0, wire.back());
}

TEST(TarnConnectionTcp, SendFailuresLogTheMessageRunTogetherWithTheName) {
    Events events;
    RecordingClient client(events);
    TARNConnection connection(eTransportTCP);  // never connected: every send fails
    LogCapture log;
    EXPECT_FALSE(connection.trigger("lamp", ParameterValue(1)));
    EXPECT_FALSE(connection.updateState("lamp", ParameterValue(true)));
    EXPECT_FALSE(connection.subscribe("lamp"));
    EXPECT_FALSE(connection.unsubscribe("lamp"));
    EXPECT_FALSE(connection.callFunctionId("lamp", ParameterList()));
    const std::vector<std::string> expected{
        "TARN: failed to send triggerlamp", "TARN: failed to send state updatelamp",
        "TARN: failed to send subscribe cmdlamp", "TARN: failed to send unsubscribe cmdlamp",
        "TARN: failed to send FID cmdlamp"};
    const auto lines = log.lines();
    ASSERT_EQ(expected.size(), lines.size()) << log.dump();
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], lines[i].text);
        EXPECT_EQ(Log::eDebug, lines[i].level);
        EXPECT_EQ("TARN", lines[i].category);
    }
    EXPECT_EQ(0u, events.size());  // no status change
}

TEST(TarnConnectionTcp, SendFailsAfterDisconnectAndTheConnectionStaysAsItWas) {
    Connected c;
    ASSERT_TRUE(c.events.waitFor("client:connected", 5000));
    c.connection->disconnect();
    ASSERT_TRUE(c.events.waitFor("client:disconnected", 5000));
    LogCapture log;
    EXPECT_FALSE(c.connection->trigger("x", ParameterValue(1)));
    EXPECT_EQ(1, log.count(Log::eDebug, "TARN: failed to send triggerx"));
    EXPECT_EQ(2u, c.events.size());
}

TEST(TarnConnectionTcp, SendingWorksBeforeTheThreadIsStarted) {
    TCPTransport listening;
    ASSERT_TRUE(listening.listen(sal::HostAddress("127.0.0.1"), 0));
    RawTcp peer = RawTcp::connectTo(listening.getLocalPort());
    TARNConnection connection(listening.accept());  // not started
    EXPECT_TRUE(connection.trigger("A", ParameterValue(1)));
    Bytes body;
    ASSERT_TRUE(peer.receiveFrame(body, 5000));
    EXPECT_EQ(packet('T', concat({cstr("A"), intValue(1)})), body);
    listening.disconnect();
}

TEST(TarnConnectionTcp, UpdateStatusGoesToClientThenServer) {
    Events events;
    RecordingClient client(events);
    RecordingServer server(events);
    TARNConnection connection(eTransportTCP);
    connection.updateStatus(eConnected);  // neither set: nothing happens
    EXPECT_EQ(0u, events.size());

    connection.setServer(&server);
    connection.updateStatus(eDisconnected);
    EXPECT_EQ(std::vector<std::string>{"server:disconnected"}, events.list());

    EXPECT_FALSE(connection.connect("127.0.0.1", testsupport::ClosedTcpPort().port(), &client));
    connection.updateStatus(eConnected);
    EXPECT_EQ((std::vector<std::string>{"server:disconnected", "client:connected", "server:connected"}),
              events.list());
}

TEST(TarnConnectionTcp, ModeAndWindowOperationsOnTcp) {
    Connected c;
    EXPECT_FALSE(c.connection->setSendMode(eRealtime));
    EXPECT_TRUE(c.connection->setSendMode(eReliable));
    EXPECT_FALSE(c.connection->setReceiveMode(eRealtime));
    EXPECT_TRUE(c.connection->setReceiveMode(eReliable));
    EXPECT_FALSE(c.connection->setWindowSize(10));
    EXPECT_TRUE(quietFor(c.peer.fd(), 50));
}

TEST(TarnConnectionTcp, PassThroughOperationsReturnTheTransportsVerdictUnchanged) {
    std::atomic<bool> deleted{false};
    FakeTransport* fake = new FakeTransport(deleted);
    {
        TARNConnection connection(fake);
        fake->answer = true;
        EXPECT_TRUE(connection.setWindowSize(77));
        EXPECT_EQ(77u, fake->lastWindow);
        EXPECT_TRUE(connection.setSendMode(eRealtime));
        EXPECT_EQ('T', fake->lastSendMode);
        fake->answer = false;
        EXPECT_FALSE(connection.setReceiveMode(eReliable));
        EXPECT_EQ('R', fake->lastReceiveMode);
        EXPECT_EQ("10.1.2.3", connection.getPeerAddress());
        EXPECT_EQ(4711, connection.getPeerPort());
        EXPECT_EQ(815, connection.getLocalPort());
        EXPECT_FALSE(deleted.load());
    }
    EXPECT_TRUE(deleted.load());  // the connection owned the transport
}

TEST(TarnConnectionTcp, UnconnectedConnectionHasNoPeer) {
    TARNConnection connection(eTransportTCP);
    EXPECT_EQ("", connection.getPeerAddress());
    EXPECT_EQ(0, connection.getPeerPort());
    EXPECT_EQ(0, connection.getLocalPort());
}

TEST(TarnConnectionTcp, DisconnectEndsTheLoopWithOneDisconnectedOnTheReceiveThread) {
    Connected c;
    ASSERT_TRUE(c.events.waitFor("client:connected", 5000));
    const std::int64_t start = nowMs();
    c.connection->disconnect();
    EXPECT_GE(nowMs() - start, 10);  // the pause that lets the loop see the stop flag
    ASSERT_TRUE(c.events.waitFor("client:disconnected", 5000));
    EXPECT_TRUE(c.peer.waitClosed(5000));
    EXPECT_FALSE(c.events.waitSize(3, 200));
    EXPECT_EQ(1, c.events.count("client:disconnected"));
    EXPECT_NE(std::this_thread::get_id(), c.events.threads()[1]);
    c.connection->disconnect();  // a second disconnect reports nothing more
    EXPECT_FALSE(c.events.waitSize(3, 100));
}

TEST(TarnConnectionTcp, ConnectAgainAfterDisconnectRestartsTheSameConnection) {
    Connected c;
    ASSERT_TRUE(c.events.waitFor("client:connected", 5000));
    c.connection->disconnect();
    ASSERT_TRUE(c.events.waitFor("client:disconnected", 5000));

    RawTcpListener second;
    ASSERT_TRUE(c.connection->connect("127.0.0.1", second.port(), &c.client));
    RawTcp peer(second.accept(5000));
    ASSERT_TRUE(peer.valid());
    ASSERT_TRUE(peer.sendAll(frame(packet('T', concat({cstr("again"), intValue(2)})))));
    ASSERT_TRUE(c.events.waitSize(4, 5000));
    EXPECT_EQ((std::vector<std::string>{"client:connected", "client:disconnected", "client:connected",
                                        "client:trigger again I:2"}),
              c.events.list());
    c.connection->disconnect();
    ASSERT_TRUE(c.events.waitSize(5, 5000));
    EXPECT_EQ("client:disconnected", c.events.list()[4]);
}

TEST(TarnConnectionTcp, DeletingAConnectionWaitsAtLeast200Ms) {
    Connected c;
    c.connection->disconnect();
    const std::int64_t start = nowMs();
    c.connection.reset();
    EXPECT_GE(nowMs() - start, 200);

    TARNConnection* unused = new TARNConnection(eTransportTCP);
    const std::int64_t start2 = nowMs();
    delete unused;
    EXPECT_GE(nowMs() - start2, 200);
}

TEST(TarnConnectionTcp, DeletingWithoutDisconnectStillEndsTheLoop) {
    Events events;
    RecordingClient client(events);
    RawTcpListener listener;
    auto* connection = new TARNConnection(eTransportTCP);
    ASSERT_TRUE(connection->connect("127.0.0.1", listener.port(), &client));
    RawTcp peer(listener.accept(5000));
    delete connection;  // against the rules, but the host process survives it
    EXPECT_EQ((std::vector<std::string>{"client:connected", "client:disconnected"}), events.list());
    EXPECT_TRUE(peer.waitClosed(5000));
}

namespace {

// A client whose eDisconnected callback takes its time: it records the report, then holds the
// receive thread until release() (or for a fixed spell), then records that it returned.
class SlowClient final : public ITARNClient {
public:
    explicit SlowClient(Events& events, int holdMs = -1) : m_events(events), m_holdMs(holdMs) {}
    void onTrigger(const std::string& name, const ParameterValue& value) override {
        m_events.add("client:trigger " + name + " " + describe(value));
    }
    void onUpdateState(const std::string&, const ParameterValue&) override {}
    void onStatusChanged(EConnStatus status) override {
        if (status == eConnected) {
            m_events.add("client:connected");
            return;
        }
        m_events.add("client:disconnected");
        if (m_holdMs >= 0) {
            // The application's own slow work in the callback, not a wait for a condition.
            std::this_thread::sleep_for(std::chrono::milliseconds(m_holdMs));
        } else {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_released.wait(lock, [&] { return m_bReleased; });
        }
        m_events.add("client:callback returned");
    }
    void release() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bReleased = true;
        m_released.notify_all();
    }

private:
    Events& m_events;
    int m_holdMs;
    std::mutex m_mutex;
    std::condition_variable m_released;
    bool m_bReleased = false;
};

// Margin under the 200 ms that a start() waiting for a loop would take at least.
const std::int64_t kAtOnceMs = 180;

// The quickest of three calls of start() that all fail, in milliseconds: a call that lost the
// processor for a while on a loaded machine does not count as one that waited.
std::int64_t quickestFailedStart(TARNConnection& connection) {
    std::int64_t quickest = -1;
    for (int i = 0; i < 3; ++i) {
        const std::int64_t start = nowMs();
        EXPECT_FALSE(connection.start());
        const std::int64_t took = nowMs() - start;
        quickest = quickest < 0 ? took : std::min(quickest, took);
    }
    return quickest;
}

// Once a connection with a SlowClient was served a second time: waits until the client saw `last`
// on the second link and checks its whole story (the first link, its end with the callback
// returning, the second link up to `last`); then ends the connection.
void expectServedAgain(Events& events, TARNConnection& connection, const std::string& last) {
    ASSERT_TRUE(events.waitFor(last, 5000)) << ::testing::PrintToString(events.list());
    EXPECT_EQ((std::vector<std::string>{"client:connected", "client:disconnected", "client:callback returned",
                                        "client:connected", last}),
              events.list());
    connection.disconnect();
    ASSERT_TRUE(events.waitFor("client:callback returned", 5000));
}

}  // namespace

TEST(TarnConnectionTcp, StartOnARunningConnectionFailsAtOnce) {
    Connected c;
    ASSERT_TRUE(c.events.waitFor("client:connected", 5000));
    EXPECT_LT(quickestFailedStart(*c.connection), kAtOnceMs);
    // The loop that runs is the one it was: the next packet arrives once.
    ASSERT_TRUE(c.peer.sendAll(frame(packet('T', concat({cstr("x"), intValue(1)})))));
    ASSERT_TRUE(c.events.waitFor("client:trigger x I:1", 5000));
    EXPECT_FALSE(c.events.waitSize(3, 200));
}

TEST(TarnConnectionTcp, StartWhileTheLoopIsStillInItsDisconnectedCallbackFailsAtOnce) {
    Events events;
    SlowClient client(events);
    RawTcpListener listener;
    TARNConnection connection(eTransportTCP);
    ASSERT_TRUE(connection.connect("127.0.0.1", listener.port(), &client));
    RawTcp peer(listener.accept(5000));
    ASSERT_TRUE(peer.valid());
    peer.close();
    ASSERT_TRUE(events.waitFor("client:disconnected", 5000));
    EXPECT_LT(quickestFailedStart(connection), kAtOnceMs);
    client.release();
    ASSERT_TRUE(events.waitFor("client:callback returned", 5000));
    connection.disconnect();
}

TEST(TarnConnectionTcp, ReconnectWaitsForTheOldLoopToReturnFromItsCallback) {
    // The peer goes away; the application disconnects and connects again while the old loop is
    // still in its eDisconnected callback. connect() lets that callback finish before it starts
    // the loop again, so the new link is served.
    Events events;
    SlowClient client(events, 600);
    RawTcpListener first;
    TARNConnection connection(eTransportTCP);
    ASSERT_TRUE(connection.connect("127.0.0.1", first.port(), &client));
    {
        RawTcp peer(first.accept(5000));
        ASSERT_TRUE(peer.valid());
    }
    ASSERT_TRUE(events.waitFor("client:disconnected", 5000));
    connection.disconnect();
    RawTcpListener second;
    ASSERT_TRUE(connection.connect("127.0.0.1", second.port(), &client));
    RawTcp peer(second.accept(5000));
    ASSERT_TRUE(peer.valid());
    ASSERT_TRUE(peer.sendAll(frame(packet('T', concat({cstr("again"), intValue(2)})))));
    expectServedAgain(events, connection, "client:trigger again I:2");
}

TEST(TarnConnectionTcp, ConnectRightAfterDisconnectWaitsForTheStoppedLoop) {
    // disconnect() closes the transport under a loop that is still receiving; connect() follows at
    // once and waits until that loop has reported and returned.
    Events events;
    SlowClient client(events, 400);
    RawTcpListener first;
    TARNConnection connection(eTransportTCP);
    ASSERT_TRUE(connection.connect("127.0.0.1", first.port(), &client));
    RawTcp firstPeer(first.accept(5000));
    ASSERT_TRUE(firstPeer.valid());
    connection.disconnect();
    RawTcpListener second;
    ASSERT_TRUE(connection.connect("127.0.0.1", second.port(), &client));
    RawTcp peer(second.accept(5000));
    ASSERT_TRUE(peer.valid());
    ASSERT_TRUE(peer.sendAll(frame(packet('U', concat({cstr("s"), intValue(3)})))));
    ASSERT_TRUE(peer.sendAll(frame(packet('T', concat({cstr("t"), intValue(4)})))));
    expectServedAgain(events, connection, "client:trigger t I:4");
}

TEST(TarnConnectionEudp, ReconnectAfterTheLinkEndedWaitsForTheOldLoop) {
    // Over EUDP a link that the peer ended (DIS) is connected again as it is, without disconnect().
    // A raw UDP peer plays the server: it answers each CON with an ACK of the same number.
    Events events;
    SlowClient client(events, 600);
    RawUdp server;
    TARNConnection connection(eTransportEUDP);
    std::uint16_t clientPort = 0;
    std::thread answering([&] {
        Bytes datagram;
        std::uint16_t from = 0;
        for (int answered = 0; answered < 2 && server.receive(datagram, from, 10000);) {
            if (datagram.size() >= 8 && datagram[1] == 'C' && datagram[2] == 'O' && datagram[3] == 'N') {
                server.sendTo(eudpDatagram("ACK", le32(datagram, 4)), from);
                clientPort = from;
                ++answered;
            }
        }
    });
    ASSERT_TRUE(connection.connect("127.0.0.1", server.port(), &client));
    const std::uint16_t firstPort = connection.getLocalPort();
    ASSERT_TRUE(server.sendTo(eudpDatagram("DIS", 0), firstPort));
    ASSERT_TRUE(events.waitFor("client:disconnected", 5000));
    const bool reconnected = connection.connect("127.0.0.1", server.port(), &client);
    answering.join();
    ASSERT_TRUE(reconnected);
    ASSERT_NE(firstPort, clientPort);
    ASSERT_TRUE(
        server.sendTo(eudpDatagram("CMD", 0, packet('T', concat({cstr("e"), intValue(5)}))), clientPort));
    expectServedAgain(events, connection, "client:trigger e I:5");
}

TEST(TarnConnectionTcpDeathTest, UnknownTransportKindIsRefused) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH({ TARNConnection connection(static_cast<ETransport>(2)); },
                 "source/tarnconnection\\.cpp:49: TARNConnection::TARNConnection\\(ETransport\\): "
                 "Assertion `false' failed\\.");
}
