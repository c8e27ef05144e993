// EUDP through a link that drops, duplicates and reorders: reliable delivery arrives complete, in
// order and once; realtime delivery arrives strictly increasing.
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eudptestaccess.h"
#include "lossylink.h"

using eudptest::LossyLink;
using testsupport::waitUntil;

namespace {

// A listener, a relay in front of it, and clients connected through the relay.
struct LossySetup {
    EUDPTransport listener;
    std::unique_ptr<LossyLink> link;
    std::vector<std::unique_ptr<EUDPTransport>> clients;
    std::vector<std::unique_ptr<EUDPTransport>> servers;

    bool open(const LossyLink::Options& options, int count) {
        if (!listener.listen(sal::HostAddress("127.0.0.1"), 0)) {
            return false;
        }
        link.reset(new LossyLink(listener.getLocalPort(), options));
        for (int i = 0; i < count; ++i) {
            std::unique_ptr<EUDPTransport> server;
            std::thread acceptor([&] { server.reset(static_cast<EUDPTransport*>(listener.accept())); });
            clients.emplace_back(new EUDPTransport);
            bool ok = clients.back()->connect(sal::HostAddress("127.0.0.1"), link->port());
            if (!ok) {
                listener.disconnect();
            }
            acceptor.join();
            if (!ok || !server) {
                return false;
            }
            servers.push_back(std::move(server));
        }
        return true;
    }
};

bool sendIndex(EUDPTransport& t, int i) {
    std::string text = "message " + std::to_string(i);
    return t.sendData(reinterpret_cast<const uint8*>(text.data()), static_cast<uint>(text.size()));
}

// Reads until `count` messages arrived or the transport ends; returns their indices. With
// `lastIndex`, the index of each message is published there as it is read.
std::vector<int> readIndices(EUDPTransport& t, int count, std::atomic<int>* lastIndex = nullptr) {
    std::vector<int> indices;
    std::uint8_t buffer[1500];
    while (static_cast<int>(indices.size()) < count) {
        int n = t.receiveData(buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        std::string text(buffer, buffer + n);
        indices.push_back(std::stoi(text.substr(8)));
        if (lastIndex != nullptr) {
            lastIndex->store(indices.back());
        }
    }
    return indices;
}

LossyLink::Options disturbed(std::uint32_t seed) {
    LossyLink::Options options;
    options.seed = seed;
    options.drop = 0.05;
    options.duplicate = 0.03;
    options.reorder = 0.05;
    return options;
}

TEST(EUDPLossyLink, ReliableBothWaysArrivesCompleteInOrderOnce) {
    const int kMessages = 2000;
    LossySetup setup;
    ASSERT_TRUE(setup.open(disturbed(20240611), 2));
    for (auto& client : setup.clients) {
        ASSERT_TRUE(client->setReceiveMode(eReliable));  // client sends reliably
        ASSERT_TRUE(client->setSendMode(eReliable));     // server sends reliably
    }

    std::vector<std::vector<int>> received(4);
    std::vector<std::thread> threads;
    for (int c = 0; c < 2; ++c) {
        EUDPTransport* client = setup.clients[c].get();
        EUDPTransport* server = setup.servers[c].get();
        threads.emplace_back([&received, server, c] { received[2 * c] = readIndices(*server, kMessages); });
        threads.emplace_back(
            [&received, client, c] { received[2 * c + 1] = readIndices(*client, kMessages); });
        threads.emplace_back([client] {
            for (int i = 0; i < kMessages; ++i) {
                sendIndex(*client, i);
            }
        });
        threads.emplace_back([server] {
            for (int i = 0; i < kMessages; ++i) {
                sendIndex(*server, i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<int> expected(kMessages);
    for (int i = 0; i < kMessages; ++i) {
        expected[i] = i;
    }
    for (std::size_t r = 0; r < received.size(); ++r) {
        EXPECT_EQ(expected, received[r]) << "stream " << r;
    }
    EXPECT_GT(setup.link->dropped(), 0u);
    EXPECT_GT(setup.link->duplicated(), 0u);
    EXPECT_GT(setup.link->reordered(), 0u);
}

TEST(EUDPLossyLink, RealtimeArrivesStrictlyIncreasing) {
    const int kMessages = 3000;
    LossySetup setup;
    ASSERT_TRUE(setup.open(disturbed(7), 1));
    EUDPTransport& client = *setup.clients[0];
    EUDPTransport& server = *setup.servers[0];
    std::vector<int> indices;
    std::atomic<int> lastRead{-1};
    std::thread reader([&] { indices = readIndices(server, kMessages, &lastRead); });
    // The sender keeps at most kAhead messages beyond the last one the reader has taken, so that
    // however slowly the reader runs, neither the receive ring nor a socket on the way overflows:
    // every message lost is one the link dropped or delivered late. Pacing on the index read, not
    // on a count, keeps going past the messages that never arrive.
    const int kAhead = 100;
    int sent = 0;
    while (sent < kMessages && waitUntil([&] { return sent - lastRead.load() <= kAhead; }, 10000) &&
           sendIndex(client, sent)) {
        ++sent;
    }
    // Let the tail arrive, then end the reader.
    std::uint64_t last = 0;
    do {
        last = setup.link->forwarded();
        sal::Thread::mssleep(300);
    } while (setup.link->forwarded() != last);
    server.disconnect();
    reader.join();

    ASSERT_EQ(kMessages, sent) << "last read " << lastRead.load();
    ASSERT_FALSE(indices.empty());
    for (std::size_t i = 1; i < indices.size(); ++i) {
        ASSERT_LT(indices[i - 1], indices[i]) << "at " << i;
    }
    EXPECT_LT(indices.size(), static_cast<std::size_t>(kMessages));  // losses are not made good
    EXPECT_GT(indices.size(), static_cast<std::size_t>(kMessages * 8 / 10));
    EXPECT_GT(setup.link->dropped(), 0u);
}

// Collects every message a transport delivers until it ends.
class Collector {
public:
    explicit Collector(EUDPTransport& t) : m_thread([this, &t] { run(t); }) {}
    ~Collector() { m_thread.join(); }
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // The indices of the messages tagged `phase`, in arrival order.
    std::vector<int> phase(const std::string& tag) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<int> out;
        for (const std::string& text : m_texts) {
            if (text.compare(0, tag.size() + 1, tag + " ") == 0) {
                out.push_back(std::stoi(text.substr(tag.size() + 1)));
            }
        }
        return out;
    }

private:
    void run(EUDPTransport& t) {
        std::uint8_t buffer[1500];
        for (;;) {
            int n = t.receiveData(buffer, sizeof buffer);
            if (n <= 0) {
                return;
            }
            std::lock_guard<std::mutex> lock(m_mutex);
            m_texts.emplace_back(buffer, buffer + n);
        }
    }
    std::mutex m_mutex;
    std::vector<std::string> m_texts;
    std::thread m_thread;
};

void sendPhase(EUDPTransport& t, const std::string& tag, int count) {
    for (int i = 0; i < count; ++i) {
        std::string text = tag + " " + std::to_string(i);
        t.sendData(reinterpret_cast<const uint8*>(text.data()), static_cast<uint>(text.size()));
        if (i % 50 == 49) {
            sal::Thread::mssleep(2);
        }
    }
}

// Realtime: waits until no more messages of `tag` arrive for longer than a resend period.
void waitSettled(Collector& collector, const std::string& tag) {
    std::size_t last = 0;
    std::int64_t deadline = testsupport::nowMs() + 60000;
    do {
        last = collector.phase(tag).size();
        sal::Thread::mssleep(700);
    } while (collector.phase(tag).size() != last && testsupport::nowMs() < deadline);
}

// Reliable: waits until all `count` messages of `tag` are there.
void waitComplete(Collector& collector, const std::string& tag, int count) {
    waitUntil([&] { return collector.phase(tag).size() >= static_cast<std::size_t>(count); }, 60000);
}

// Realtime: sends single messages tagged `tag` until one arrives. A receiver that switches to
// reliable takes the number after the last one it saw as the next it expects, and a realtime
// message lost at the end of a phase is never sent again; after this the sender's next number is
// the one the receiver expects.
void alignRealtime(EUDPTransport& sender, Collector& receiver, const std::string& tag) {
    for (int i = 0; i < 100; ++i) {
        const std::string text = tag + " " + std::to_string(i);
        sender.sendData(reinterpret_cast<const uint8*>(text.data()), static_cast<uint>(text.size()));
        if (waitUntil([&] { return !receiver.phase(tag).empty(); }, 300)) {
            return;
        }
    }
    ADD_FAILURE() << "no message tagged " << tag << " arrived";
}

bool strictlyIncreasing(const std::vector<int>& values) {
    for (std::size_t i = 1; i < values.size(); ++i) {
        if (values[i - 1] >= values[i]) {
            return false;
        }
    }
    return true;
}

TEST(EUDPLossyLink, ModeChangesBothWaysShowInDelivery) {
    const int kCount = 300;
    LossyLink::Options options;
    options.seed = 99;
    options.drop = 0.1;
    LossySetup setup;
    ASSERT_TRUE(setup.open(options, 1));
    EUDPTransport& client = *setup.clients[0];
    EUDPTransport& server = *setup.servers[0];
    std::vector<int> all(kCount);
    for (int i = 0; i < kCount; ++i) {
        all[i] = i;
    }
    {
        Collector atServer(server);
        Collector atClient(client);

        // Realtime both ways: losses are not made good.
        sendPhase(client, "up1", kCount);
        sendPhase(server, "down1", kCount);
        waitSettled(atServer, "up1");
        waitSettled(atClient, "down1");
        std::vector<int> up1 = atServer.phase("up1");
        std::vector<int> down1 = atClient.phase("down1");
        EXPECT_LT(up1.size(), static_cast<std::size_t>(kCount));
        EXPECT_LT(down1.size(), static_cast<std::size_t>(kCount));
        EXPECT_TRUE(strictlyIncreasing(up1));
        EXPECT_TRUE(strictlyIncreasing(down1));

        // The client asks for reliable delivery in both directions.
        alignRealtime(client, atServer, "sync-up");
        alignRealtime(server, atClient, "sync-down");
        ASSERT_TRUE(client.setReceiveMode(eReliable));
        ASSERT_TRUE(client.setSendMode(eReliable));
        sendPhase(client, "up2", kCount);
        sendPhase(server, "down2", kCount);
        waitComplete(atServer, "up2", kCount);
        waitComplete(atClient, "down2", kCount);
        EXPECT_EQ(all, atServer.phase("up2"));
        EXPECT_EQ(all, atClient.phase("down2"));

        // The server asks for realtime again in both directions.
        ASSERT_TRUE(server.setSendMode(eRealtime));     // the client sends in realtime
        ASSERT_TRUE(server.setReceiveMode(eRealtime));  // the server sends in realtime
        EXPECT_EQ(eRealtime, client.getSendMode());
        EXPECT_EQ(eRealtime, client.getReceiveMode());
        sendPhase(client, "up3", kCount);
        sendPhase(server, "down3", kCount);
        waitSettled(atServer, "up3");
        waitSettled(atClient, "down3");
        EXPECT_LT(atServer.phase("up3").size(), static_cast<std::size_t>(kCount));
        EXPECT_LT(atClient.phase("down3").size(), static_cast<std::size_t>(kCount));
        EXPECT_TRUE(strictlyIncreasing(atServer.phase("up3")));

        client.disconnect();  // ends both collectors: DIS to the server, close here
    }
}

TEST(EUDPLossyLink, CleanRelayFollowsConnectionPort) {
    LossySetup setup;
    ASSERT_TRUE(setup.open(LossyLink::Options(), 3));
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(setup.link->port(), setup.clients[c]->getPeerPort());
        ASSERT_TRUE(sendIndex(*setup.clients[c], c));
    }
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(std::vector<int>{c}, readIndices(*setup.servers[c], 1));
    }
}

}  // namespace
