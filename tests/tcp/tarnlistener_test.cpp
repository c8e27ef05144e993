// TARNListener over TCP: accepting peers in turn, handing connections to the connector, shut-down
// and restart, a failed accept, ownership of the connector, and the listener thread's assertions.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <eudptransport.h>
#include <tarnconnection.h>
#include <tarnlistener.h>
#include <tcptransport.h>

#include "tcptestutil.h"
#include "testaccess.h"
#include "testsupport.h"

using namespace testsupport;
using namespace tcptest;
namespace Log = Corvane::Utilities::Logging;

namespace {

// Keeps every connection it is handed (the application owns them), attaches a recording server to
// each, and disconnects and deletes them at the end.
class Application {
public:
    ~Application() {
        for (auto* connection : connections()) {
            connection->disconnect();
        }
        for (auto* connection : connections()) {
            delete connection;
        }
    }
    void adopt(TARNConnection* connection) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::string prefix = "server" + std::to_string(m_connections.size());
        events.add(prefix + ":new");
        m_servers.emplace_back(new RecordingServer(events, prefix));
        m_connections.push_back(connection);
        connection->setServer(m_servers.back().get());
    }
    std::vector<TARNConnection*> connections() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_connections;
    }
    Events events;

private:
    std::mutex m_mutex;
    std::vector<std::unique_ptr<RecordingServer>> m_servers;
    std::vector<TARNConnection*> m_connections;
};

// The connector the listener owns; tells the application and reports its own deletion.
class Connector final : public ITARNConnector {
public:
    Connector(Application& application, std::atomic<bool>* deleted = nullptr)
        : m_application(application), m_deleted(deleted) {}
    ~Connector() override {
        if (m_deleted != nullptr) {
            *m_deleted = true;
        }
    }
    void onNewConnection(TARNConnection* connection) override { m_application.adopt(connection); }

private:
    Application& m_application;
    std::atomic<bool>* m_deleted;
};

uint16 waitForPort(const TARNListener& listener, uint16 other = 0) {
    uint16 port = 0;
    waitUntil(
        [&] {
            port = listener.getLocalPort();
            return port != 0 && port != other;
        },
        5000);
    return port;
}

}  // namespace

TEST(TarnListenerTcp, HandsEachPeerToTheConnectorThenReportsConnected) {
    Application app;
    TARNListener listener(eTransportTCP);
    EXPECT_EQ(0, listener.getLocalPort());
    EXPECT_TRUE(listener.listen("127.0.0.1", 0, new Connector(app)));
    const uint16 port = waitForPort(listener);
    ASSERT_NE(0, port);
    RawTcp peer = RawTcp::connectTo(port);
    ASSERT_TRUE(peer.valid());
    ASSERT_TRUE(app.events.waitSize(2, 5000));
    ASSERT_TRUE(peer.sendAll(frame(packet('S', cstr("lamp")))));
    ASSERT_TRUE(app.events.waitSize(3, 5000));
    EXPECT_EQ((std::vector<std::string>{"server0:new", "server0:connected", "server0:subscribe lamp"}),
              app.events.list());
    // New connection, connected status and commands all come from threads of the library.
    for (const auto& id : app.events.threads()) {
        EXPECT_NE(std::this_thread::get_id(), id);
    }
    auto connections = app.connections();
    ASSERT_EQ(1u, connections.size());
    EXPECT_EQ("127.0.0.1", connections[0]->getPeerAddress());
    EXPECT_EQ(localPortOf(peer.fd()), connections[0]->getPeerPort());
    EXPECT_EQ(port, connections[0]->getLocalPort());
}

TEST(TarnListenerTcp, ThreePeersInTurnGiveThreeConnectionsEachFollowedByConnected) {
    Application app;
    TARNListener listener(eTransportTCP);
    listener.listen("127.0.0.1", 0, new Connector(app));
    const uint16 port = waitForPort(listener);
    std::vector<RawTcp> peers;
    for (int i = 0; i < 3; ++i) {
        peers.push_back(RawTcp::connectTo(port));
        ASSERT_TRUE(app.events.waitSize(static_cast<std::size_t>(2 * (i + 1)), 5000));
    }
    EXPECT_EQ((std::vector<std::string>{"server0:new", "server0:connected", "server1:new",
                                        "server1:connected", "server2:new", "server2:connected"}),
              app.events.list());
    // Each connection is its own: a command on the second peer reaches the second server only.
    ASSERT_TRUE(peers[1].sendAll(frame(packet('X', cstr("b")))));
    ASSERT_TRUE(app.events.waitSize(7, 5000));
    EXPECT_EQ("server1:unsubscribe b", app.events.list()[6]);
}

namespace {

// Holds the first connection until the test has seen listen() return, then describes it.
std::atomic<bool> g_listenReturned{false};

class GatedConnector final : public ITARNConnector {
public:
    void onNewConnection(TARNConnection* connection) override {
        while (!g_listenReturned.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::fprintf(stderr, "handed a connection with local port %u, peer port %u\n",
                     static_cast<unsigned>(connection->getLocalPort()),
                     static_cast<unsigned>(connection->getPeerPort()));
    }
};

}  // namespace

TEST(TarnListenerTcp, ListenOnATakenPortStillReturnsTrue) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The bind fails on the thread; the platform's accept then yields no socket, and the listener
    // hands out a connection whose transport has none: its first receive fails the assertion.
    EXPECT_DEATH(
        {
            RawTcpListener taken;
            TARNListener listener(eTransportTCP);
            const bool listened = listener.listen("127.0.0.1", taken.port(), new GatedConnector());
            std::fprintf(stderr, "listen returned %s\n", listened ? "true" : "false");
            g_listenReturned = true;
            std::this_thread::sleep_for(std::chrono::seconds(30));
        },
        "listen returned true\n.*handed a connection with local port 0, peer port 0\n.*"
        "source/tcptransport\\.cpp:118: virtual int TCPTransport::receiveData\\(uint8\\*, uint\\): "
        "Assertion `m_pSocket' failed\\.");
}

TEST(TarnListenerTcp, ShutdownWhileWaitingInAcceptEndsTheThreadWithTheInfoLine) {
    Application app;
    LogCapture log;
    TARNListener listener(eTransportTCP);
    listener.listen("127.0.0.1", 0, new Connector(app));
    ASSERT_NE(0, waitForPort(listener));
    EXPECT_TRUE(listener.shutdown(-1));
    const auto lines = log.lines();
    ASSERT_EQ(1u, lines.size()) << log.dump();
    EXPECT_EQ("TARN: listener is shut down", lines[0].text);
    EXPECT_EQ(Log::eInfo, lines[0].level);
    EXPECT_EQ("TARN", lines[0].category);
    EXPECT_EQ(0u, app.events.size());
}

TEST(TarnListenerTcp, ShutdownWithoutThreadReturnsFalse) {
    TARNListener listener(eTransportTCP);
    EXPECT_FALSE(listener.shutdown(100));
    EXPECT_FALSE(listener.shutdown(-1));
}

TEST(TarnListenerTcp, ShutdownRightAfterListenDoesNotHang) {
    Application app;
    LogCapture log;
    TARNListener listener(eTransportTCP);
    listener.listen("127.0.0.1", 0, new Connector(app));
    EXPECT_TRUE(listener.shutdown(5000));
    EXPECT_TRUE(log.waitFor(Log::eInfo, "TARN: listener is shut down", 5000)) << log.dump();
}

TEST(TarnListenerTcp, DeletingTheListenerDeletesTheConnectorAndLeavesConnectionsAlone) {
    Application app;
    std::atomic<bool> deleted{false};
    auto* listener = new TARNListener(eTransportTCP);
    listener->listen("127.0.0.1", 0, new Connector(app, &deleted));
    const uint16 port = waitForPort(*listener);
    RawTcp peer = RawTcp::connectTo(port);
    ASSERT_TRUE(app.events.waitSize(2, 5000));
    EXPECT_FALSE(deleted.load());
    delete listener;
    EXPECT_TRUE(deleted.load());
    // The accepted connection lives on.
    ASSERT_TRUE(peer.sendAll(frame(packet('S', cstr("still")))));
    ASSERT_TRUE(app.events.waitFor("server0:subscribe still", 5000));
    EXPECT_TRUE(app.connections()[0]->trigger("t", ParameterValue(1)));
    Bytes body;
    ASSERT_TRUE(peer.receiveFrame(body, 5000));
    EXPECT_EQ(packet('T', concat({cstr("t"), intValue(1)})), body);
}

TEST(TarnListenerTcp, DeletingAListenerThatNeverListenedDeletesItsConnectorToo) {
    // A listener without a connector deletes nothing; one whose thread ended still deletes it.
    { TARNListener idle(eTransportTCP); }
    Application app;
    std::atomic<bool> deleted{false};
    {
        TARNListener listener(eTransportTCP);
        listener.listen("127.0.0.1", 0, new Connector(app, &deleted));
        ASSERT_NE(0, waitForPort(listener));
        EXPECT_TRUE(listener.shutdown(-1));
        EXPECT_FALSE(deleted.load());
    }
    EXPECT_TRUE(deleted.load());
}

TEST(TarnListenerTcp, BareStartAfterShutdownEndsAfterItsFirstPeer) {
    Application app;
    LogCapture log;
    TARNListener listener(eTransportTCP);
    listener.listen("127.0.0.1", 0, new Connector(app));
    const uint16 first = waitForPort(listener);
    ASSERT_TRUE(listener.shutdown(-1));
    ASSERT_EQ(1, log.count(Log::eInfo, "TARN: listener is shut down"));

    EXPECT_TRUE(listener.start());  // a new run with a new listening transport
    const uint16 second = waitForPort(listener, first);
    ASSERT_NE(0, second);
    ASSERT_NE(first, second);
    RawTcp peer = RawTcp::connectTo(second);
    ASSERT_TRUE(peer.valid());
    ASSERT_TRUE(log.waitFor(Log::eInfo, "TARN: listener is shut down", 5000));
    ASSERT_TRUE(waitUntil([&] { return log.count(Log::eInfo, "TARN: listener is shut down") == 2; }, 5000));
    // The peer was dropped unused: the connector never heard of it, and its link stays open.
    EXPECT_FALSE(peer.waitClosed(500));
    EXPECT_EQ(0u, app.events.size());
    // The run is over: the thread can be started again.
    EXPECT_TRUE(listener.shutdown(1000));
}

TEST(TarnListenerTcp, ListenAgainAfterShutdownServesPeersAgain) {
    Application app;
    TARNListener listener(eTransportTCP);
    auto* connector = new Connector(app);  // stored again by the second listen, deleted once
    listener.listen("127.0.0.1", 0, connector);
    const uint16 first = waitForPort(listener);
    ASSERT_TRUE(listener.shutdown(-1));
    EXPECT_TRUE(listener.listen("127.0.0.1", 0, connector));
    const uint16 second = waitForPort(listener, first);
    ASSERT_NE(0, second);
    RawTcp one = RawTcp::connectTo(second);
    RawTcp two = RawTcp::connectTo(second);
    ASSERT_TRUE(app.events.waitSize(4, 5000));
    EXPECT_EQ(2, app.events.count("server0:connected") + app.events.count("server1:connected"));
}

namespace {

// Holds the listener's thread inside onNewConnection until released.
class BlockingConnector final : public ITARNConnector {
public:
    explicit BlockingConnector(Application& application) : m_application(application) {}
    void onNewConnection(TARNConnection* connection) override {
        m_application.adopt(connection);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_bInside = true;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_bReleased; });
    }
    bool waitInside() {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_bInside; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bReleased = true;
        m_changed.notify_all();
    }

private:
    Application& m_application;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bInside = false;
    bool m_bReleased = false;
};

}  // namespace

TEST(TarnListenerTcp, AFailedAcceptEndsTheLoopWithTheErrorLineAndNoRetry) {
    Application app;
    LogCapture log;
    TARNListener listener(eTransportTCP);
    auto* connector = new BlockingConnector(app);
    listener.listen("127.0.0.1", 0, connector);
    const uint16 port = waitForPort(listener);
    RawTcp peer = RawTcp::connectTo(port);
    ASSERT_TRUE(connector->waitInside());
    // While the thread is busy with the first peer, the listening transport is closed and the
    // running flag raised again: the next accept fails with the loop meant to go on.
    EXPECT_TRUE(TARNListenerTest::shutdownCallback(listener));
    EXPECT_TRUE(listener.listen("127.0.0.1", port, connector));  // true although the thread runs
    connector->release();
    ASSERT_TRUE(log.waitFor(Log::eError, "TARN: failed to accept incoming connection", 5000)) << log.dump();
    EXPECT_TRUE(listener.shutdown(5000));
    EXPECT_EQ(0, log.count("TARN: listener is shut down"));
    EXPECT_EQ(1, log.count(Log::eError, "TARN: failed to accept incoming connection"));
    // The first peer was served all the same.
    ASSERT_TRUE(app.events.waitFor("server0:connected", 5000));
    ASSERT_TRUE(peer.sendAll(frame(packet('S', cstr("x")))));
    EXPECT_TRUE(app.events.waitFor("server0:subscribe x", 5000));
}

namespace {

// A listener that lets a test act inside its shutdown: the accept loop has been told to stop, but
// its listening transport is still open, so a peer that connects now is accepted into a loop that
// is shutting down.
class ShutdownHookListener final : public TARNListener {
public:
    using TARNListener::TARNListener;
    bool shutdownCallback() override {
        std::function<void()> hook;
        hook.swap(duringShutdown);  // once only: the destructor shuts down again
        if (hook) {
            hook();
        }
        return TARNListener::shutdownCallback();
    }
    std::function<void()> duringShutdown;
};

// Records when a connection reports eConnected.
class TimedServer final : public ITARNServer {
public:
    void onSubscribe(const std::string& name) override { events.add("subscribe " + name); }
    void onUnsubscribe(const std::string&) override {}
    void onCallFunctionId(const std::string&, const ParameterList&) override {}
    void onStatusChanged(EConnStatus status) override {
        if (status == eConnected) {
            connectedAtMs = nowMs();
        }
        events.add(status == eConnected ? "connected" : "disconnected");
    }
    Events events;
    std::atomic<std::int64_t> connectedAtMs{0};
};

// Starts the connection itself inside onNewConnection, as an application may.
class StartingConnector final : public ITARNConnector {
public:
    explicit StartingConnector(TimedServer& server) : m_server(server) {}
    ~StartingConnector() override {
        for (auto* connection : m_connections) {
            connection->disconnect();
            delete connection;
        }
    }
    void onNewConnection(TARNConnection* connection) override {
        m_connections.push_back(connection);
        connection->setServer(&m_server);
        startedAtMs = nowMs();
        started = connection->start();
    }
    std::atomic<std::int64_t> startedAtMs{0};
    std::atomic<bool> started{false};

private:
    TimedServer& m_server;
    std::vector<TARNConnection*> m_connections;
};

}  // namespace

TEST(TarnListenerTcp, APeerAcceptedDuringShutdownIsLeftConnected) {
    Application app;
    LogCapture log;
    auto listener = std::make_unique<ShutdownHookListener>(eTransportTCP);
    listener->listen("127.0.0.1", 0, new Connector(app));
    const uint16 port = waitForPort(*listener);
    ASSERT_NE(0, port);
    std::unique_ptr<RawTcp> peer;
    listener->duringShutdown = [&] {
        peer.reset(new RawTcp(RawTcp::connectTo(port)));
        EXPECT_TRUE(log.waitFor(Log::eInfo, "TARN: listener is shut down", 5000)) << log.dump();
    };
    EXPECT_TRUE(listener->shutdown(-1));
    ASSERT_TRUE(peer && peer->valid());
    EXPECT_EQ(1, log.count(Log::eInfo, "TARN: listener is shut down"));
    // Never handed out, and not closed either: no end of stream, also once the listener is gone.
    EXPECT_FALSE(peer->waitClosed(500));
    listener.reset();
    EXPECT_TRUE(peer->sendAll(frame(packet('S', cstr("anyone")))));
    EXPECT_FALSE(peer->waitClosed(500));
    EXPECT_EQ(0u, app.events.size());
}

TEST(TarnListenerEudp, APeerAcceptedDuringShutdownKeepsItsLink) {
    Application app;
    LogCapture log;
    auto listener = std::make_unique<ShutdownHookListener>(eTransportEUDP);
    listener->listen("127.0.0.1", 0, new Connector(app));
    const uint16 port = waitForPort(*listener);
    ASSERT_NE(0, port);
    RawUdp peer;
    std::uint16_t serverPort = 0;
    listener->duringShutdown = [&] {
        ASSERT_TRUE(peer.sendTo(eudpDatagram("CON", 7), port));
        Bytes ack;
        ASSERT_TRUE(peer.receive(ack, serverPort, 5000));
        EXPECT_EQ(hex(eudpDatagram("ACK", 7)), hex(ack));
        EXPECT_TRUE(log.waitFor(Log::eInfo, "TARN: listener is shut down", 5000)) << log.dump();
    };
    EXPECT_TRUE(listener->shutdown(-1));
    listener.reset();
    ASSERT_NE(0, serverPort);
    ASSERT_NE(port, serverPort);
    // The accepted transport runs on: its receiver answers a keep-alive (an empty data datagram)
    // with NOP, and its own keep-alive timer is armed.
    ASSERT_TRUE(peer.sendTo(eudpDatagram("CMD", 8), serverPort));
    bool nop = false;
    bool keepAlive = false;
    const std::int64_t deadline = nowMs() + 5000;
    while ((!nop || !keepAlive) && nowMs() < deadline) {
        Bytes datagram;
        std::uint16_t from = 0;
        if (peer.receive(datagram, from, 100) && from == serverPort && datagram.size() == 8) {
            nop = nop || hex(datagram) == hex(eudpDatagram("NOP", 0));
            keepAlive = keepAlive || (datagram[1] == 'C' && datagram[2] == 'M' && datagram[3] == 'D');
        }
    }
    EXPECT_TRUE(nop);
    EXPECT_TRUE(keepAlive);
    EXPECT_EQ(0u, app.events.size());
}

TEST(TarnListenerTcp, AStartInsideOnNewConnectionDelaysNothing) {
    TimedServer server;
    TARNListener listener(eTransportTCP);
    auto* connector = new StartingConnector(server);
    listener.listen("127.0.0.1", 0, connector);
    const uint16 port = waitForPort(listener);
    RawTcp peer = RawTcp::connectTo(port);
    ASSERT_TRUE(peer.valid());
    // eConnected comes while the peer has sent nothing and keeps its link open: the listener's own
    // start() fails at once instead of waiting for the running loop to end.
    ASSERT_TRUE(server.events.waitFor("connected", 5000));
    EXPECT_TRUE(connector->started.load());
    // A bound far above a loaded machine's scheduling delays (ctest -j6 on 2 cores, TSan) and far
    // below the waits above: the start and the report follow each other without a pause.
    const std::int64_t kNoPauseMs = 2000;
    EXPECT_LT(server.connectedAtMs.load() - connector->startedAtMs.load(), kNoPauseMs);
    ASSERT_TRUE(peer.sendAll(frame(packet('S', cstr("s")))));
    ASSERT_TRUE(server.events.waitFor("subscribe s", 5000));
    EXPECT_EQ((std::vector<std::string>{"connected", "subscribe s"}), server.events.list());
    EXPECT_TRUE(listener.shutdown(-1));
}

TEST(TarnListenerTcpDeathTest, UnknownTransportKindFailsOnTheThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Application app;
            TARNListener listener(static_cast<ETransport>(2));
            listener.listen("127.0.0.1", 0, new Connector(app));
            std::this_thread::sleep_for(std::chrono::seconds(30));
        },
        "source/tarnlistener\\.cpp:89: void TARNListener::run\\(\\): Assertion `false' failed\\.");
}

TEST(TarnListenerTcpDeathTest, MissingConnectorFailsOnTheThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            TARNListener listener(eTransportTCP);
            listener.listen("127.0.0.1", 0, nullptr);
            std::this_thread::sleep_for(std::chrono::seconds(30));
        },
        "source/tarnlistener\\.cpp:94: void TARNListener::run\\(\\): Assertion `m_pConnector' failed\\.");
}
