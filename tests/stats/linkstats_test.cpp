// Statistics of whole links: TCP frames and bytes against a raw TCP peer, both transports through
// TARNConnection, a listener's accepted and live counts, and EUDP counters that add up under the
// impairment relay's loss and duplication.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <eudptransport.h>
#include <tarnconnection.h>
#include <tarnlistener.h>
#include <tcptransport.h>

#include "eudptestaccess.h"
#include "lossylink.h"
#include "recording.h"
#include "testsupport.h"

using testsupport::Bytes;
using testsupport::bytesOf;
using testsupport::NullClient;
using testsupport::waitUntil;

namespace {

// Keeps what the listener hands out; deletes it at the end.
class Keeper : public ITARNConnector {
public:
    explicit Keeper(std::vector<TARNConnection*>& kept, std::mutex& mutex) : m_kept(kept), m_mutex(mutex) {}
    void onNewConnection(TARNConnection* connection) override {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_kept.push_back(connection);
    }

private:
    std::vector<TARNConnection*>& m_kept;
    std::mutex& m_mutex;
};

std::uint64_t sum(const std::uint64_t (&counts)[EUDP_COMMAND_KINDS]) {
    std::uint64_t total = 0;
    for (std::uint64_t n : counts) {
        total += n;
    }
    return total;
}

}  // namespace

TEST(LinkStatistics, TcpCountsFramesBytesAndOversizeFrames) {
    testsupport::RawTcpListener raw;
    NullClient client;
    TARNConnection connection(eTransportTCP);
    ASSERT_TRUE(connection.connect("127.0.0.1", raw.port(), &client));
    testsupport::RawTcp peer(raw.accept(5000));
    ASSERT_TRUE(peer.valid());

    ASSERT_TRUE(connection.subscribe("abc"));  // 4 + 4 bytes, framed: 10
    Bytes body;
    ASSERT_TRUE(peer.receiveFrame(body, 5000));
    EXPECT_EQ(8u, body.size());

    // A trigger "A" = 1 from the peer, then a frame longer than the receive buffer.
    const Bytes trigger{0x01, 0x54, 0x07, 0x00, 0x41, 0x00, 0x49, 0x01, 0x00, 0x00, 0x00};
    ASSERT_TRUE(peer.sendAll(testsupport::frame(trigger)));
    ASSERT_TRUE(waitUntil([&] { return client.triggers.load() == 1; }, 5000));
    ASSERT_TRUE(peer.sendAll(testsupport::frame(Bytes(1500, 0x01))));
    ASSERT_TRUE(waitUntil([&] { return connection.getStatistics().tcp.oversizeRefused >= 1; }, 5000));

    const TARNConnectionStatistics stats = connection.getStatistics();
    EXPECT_EQ(eTransportTCP, stats.transport);
    EXPECT_EQ(1u, stats.tcp.framesSent);
    EXPECT_EQ(10u, stats.tcp.bytesSent);
    EXPECT_EQ(1u, stats.tcp.framesReceived);
    EXPECT_EQ(13u, stats.tcp.bytesReceived);
    EXPECT_EQ(0u, sum(stats.eudp.sentDatagrams));
    connection.disconnect();
}

TEST(LinkStatistics, EudpThroughConnectionsAndTheListener) {
    std::vector<TARNConnection*> kept;
    std::mutex mutex;
    TARNListener listener(eTransportEUDP);
    EXPECT_EQ(0u, listener.getStatistics().accepted);
    listener.listen("127.0.0.1", 0, new Keeper(kept, mutex));
    ASSERT_TRUE(waitUntil([&] { return listener.getLocalPort() != 0; }, 5000));

    NullClient client;
    TARNConnection connection(eTransportEUDP);
    ASSERT_TRUE(connection.connect("127.0.0.1", listener.getLocalPort(), &client));
    ASSERT_TRUE(connection.subscribe("abc"));
    // The two counts and the connector's call are different moments of the hand-over: wait for
    // all three.
    ASSERT_TRUE(waitUntil(
        [&] {
            const TARNListenerStatistics now = listener.getStatistics();
            std::lock_guard<std::mutex> hold(mutex);
            return now.live == 1 && now.accepted == 1 && kept.size() == 1;
        },
        5000));
    TARNListenerStatistics figures = listener.getStatistics();
    EXPECT_EQ(1u, figures.accepted);
    EXPECT_FALSE(figures.hardened);
    TARNConnection* server = nullptr;
    {
        std::lock_guard<std::mutex> hold(mutex);
        ASSERT_EQ(1u, kept.size());
        server = kept[0];
    }
    ASSERT_TRUE(waitUntil([&] { return server->getStatistics().eudp.receivedDatagrams[CMD] >= 1; }, 5000));
    const TARNConnectionStatistics clientStats = connection.getStatistics();
    EXPECT_EQ(eTransportEUDP, clientStats.transport);
    EXPECT_EQ(1u, clientStats.eudp.sentDatagrams[CON]);
    EXPECT_GE(clientStats.eudp.sentDatagrams[CMD], 1u);
    EXPECT_GE(clientStats.eudp.sentPayloadBytes[CMD], 8u);
    EXPECT_EQ(0u, clientStats.tcp.framesSent);
    EXPECT_GE(server->getStatistics().eudp.receivedPayloadBytes[CMD], 8u);

    // The link ends: the listener's live count follows.
    connection.disconnect();
    ASSERT_TRUE(waitUntil([&] { return listener.getStatistics().live == 0; }, 5000));
    EXPECT_EQ(1u, listener.getStatistics().accepted);
    listener.shutdown(-1);
    std::lock_guard<std::mutex> hold(mutex);
    for (TARNConnection* c : kept) {
        c->disconnect();
        delete c;
    }
}

TEST(LinkStatistics, EudpListenerCountsWhatItDropped) {
    EUDPTransport listener;
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    testsupport::RawUdp raw;
    Bytes wrong = testsupport::eudpDatagram("CON", 0);
    wrong[0] = 7;
    ASSERT_TRUE(raw.sendTo(wrong, listener.getLocalPort()));
    ASSERT_TRUE(raw.sendTo(testsupport::eudpDatagram("NOP", 0), listener.getLocalPort()));
    ASSERT_TRUE(raw.sendTo(testsupport::eudpDatagram("CON", 5), listener.getLocalPort()));
    std::unique_ptr<ITARNTransport> accepted(listener.accept());
    ASSERT_TRUE(accepted);
    const TARNListenerStatistics figures = listener.getListenerStatistics();
    EXPECT_EQ(1u, figures.invalidReceived);
    EXPECT_EQ(1u, figures.nonConReceived);
    EXPECT_EQ(1u, figures.live);
    // Default mode: an empty datagram still ends the listener, and is counted.
    ASSERT_TRUE(raw.sendTo(Bytes(), listener.getLocalPort()));
    EXPECT_EQ(nullptr, listener.accept());
    EXPECT_EQ(1u, listener.getListenerStatistics().emptyReceived);
    accepted.reset();
    EXPECT_EQ(0u, listener.getListenerStatistics().live);
}

// Under loss and duplication every datagram is accounted for: what both ends sent, less what the
// relay dropped, plus what it duplicated, is what both ends received. The CON is the listener's.
TEST(LinkStatistics, EudpCountersAddUpUnderTheRelaysLoss) {
    EUDPTransport listener;
    ASSERT_TRUE(listener.listen(sal::HostAddress("127.0.0.1"), 0));
    eudptest::LossyLink::Options options;
    options.seed = 77;
    options.drop = 0.1;
    options.duplicate = 0.05;
    eudptest::LossyLink link(listener.getLocalPort(), options);
    std::unique_ptr<EUDPTransport> server;
    std::thread acceptor([&] { server.reset(static_cast<EUDPTransport*>(listener.accept())); });
    EUDPTransport client;
    const bool connected = client.connect(sal::HostAddress("127.0.0.1"), link.port());
    if (!connected) {
        listener.disconnect();
    }
    acceptor.join();
    ASSERT_TRUE(connected && server);
    EUDPTransportTest::quietTimers(client);
    EUDPTransportTest::quietTimers(*server);
    EUDPTransportTest::sendMode(client) = eReliable;
    EUDPTransportTest::receiveMode(*server) = eReliable;

    const int kMessages = 300;
    std::thread reader([&] {
        std::uint8_t buffer[1500];
        for (int i = 0; i < kMessages; ++i) {
            if (server->receiveData(buffer, sizeof buffer) <= 0) {
                break;
            }
        }
    });
    for (int i = 0; i < kMessages; ++i) {
        const std::string text = "message " + std::to_string(i);
        ASSERT_TRUE(
            client.sendData(reinterpret_cast<const uint8*>(text.data()), static_cast<uint>(text.size())));
    }
    reader.join();
    ASSERT_TRUE(waitUntil([&] { return client.getStatistics().sendRingOccupancy == 0; }, 30000));
    // Nothing in flight: the last resend (500 ms after a lost ACK) has been answered.
    std::uint64_t last = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            const std::uint64_t now = link.forwarded() + link.dropped();
            const bool still = now == last;
            last = now;
            if (!still) {
                std::this_thread::sleep_for(std::chrono::milliseconds(700));
            }
            return still;
        },
        30000));

    const EUDPStatistics sent = client.getStatistics();
    const EUDPStatistics got = server->getStatistics();
    EXPECT_EQ(static_cast<std::uint64_t>(kMessages),
              got.receivedDatagrams[CMD] - got.duplicatesDropped - got.naksSent);  // each delivered once
    EXPECT_GT(sent.dataResent, 0u);
    EXPECT_GT(link.dropped(), 0u);
    const std::uint64_t allSent = sum(sent.sentDatagrams) + sum(got.sentDatagrams) - 1;  // less the CON
    const std::uint64_t allReceived = sum(sent.receivedDatagrams) + sum(got.receivedDatagrams);
    EXPECT_EQ(allSent - link.dropped() + link.duplicated(), allReceived)
        << "dropped " << link.dropped() << ", duplicated " << link.duplicated();
    EXPECT_EQ(sent.sentDatagrams[CMD] - sent.dataResent, static_cast<std::uint64_t>(kMessages));
    // A NAK may be lost or repeated by the relay, never made up.
    EXPECT_LE(sent.naksReceived, got.naksSent + link.duplicated());
}
