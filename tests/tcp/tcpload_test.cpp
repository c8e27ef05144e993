// Load over TCP: many clients at once through one listener, and many threads sending on one
// connection, with nothing lost, reordered or interleaved.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>
#include <tarnpacket.h>

#include "tcptestutil.h"
#include "testsupport.h"

using namespace testsupport;
using namespace tcptest;

namespace {

constexpr int kClients = 50;
constexpr int kMessages = 1000;

// Server side of one connection: checks that subscriptions arrive in order and echoes each one
// back as a trigger carrying its sequence number.
class EchoSession final : public ITARNServer {
public:
    explicit EchoSession(TARNConnection* connection) : m_connection(connection) {}
    void onSubscribe(const std::string& name) override {
        const int seq = std::stoi(name.substr(name.find(':') + 1));
        if (seq != m_expected) {
            errors++;
        }
        m_expected = seq + 1;
        if (!m_connection->trigger(name, ParameterValue(seq))) {
            errors++;
        }
    }
    void onUnsubscribe(const std::string&) override { errors++; }
    void onCallFunctionId(const std::string&, const ParameterList&) override { errors++; }
    void onStatusChanged(EConnStatus) override {}
    TARNConnection* connection() const { return m_connection; }
    std::atomic<int> errors{0};

private:
    TARNConnection* m_connection;
    int m_expected = 0;  // touched by the receive thread only
};

class EchoApplication {
public:
    void adopt(TARNConnection* connection) {
        std::lock_guard<std::mutex> lock(m_mutex);
        sessions.emplace_back(new EchoSession(connection));
        connection->setServer(sessions.back().get());
    }
    std::mutex m_mutex;
    std::vector<std::unique_ptr<EchoSession>> sessions;
};

class EchoConnector final : public ITARNConnector {
public:
    explicit EchoConnector(EchoApplication& application) : m_application(application) {}
    void onNewConnection(TARNConnection* connection) override { m_application.adopt(connection); }

private:
    EchoApplication& m_application;
};

// Client side: counts the echoes and checks their order.
class CountingClient final : public ITARNClient {
public:
    explicit CountingClient(std::string id) : m_prefix(std::move(id) + ":") {}
    void onTrigger(const std::string& name, const ParameterValue& value) override {
        int seq = -1;
        const int expected = received.load();
        if (name != m_prefix + std::to_string(expected) || !value.getIntValue(seq) || seq != expected) {
            errors++;
        }
        received++;
    }
    void onUpdateState(const std::string&, const ParameterValue&) override { errors++; }
    void onStatusChanged(EConnStatus) override {}
    std::atomic<int> received{0};
    std::atomic<int> errors{0};

private:
    std::string m_prefix;
};

// Deletes connections on several threads at once: each delete pauses 200 ms.
template <class List, class Get>
void deleteAll(const List& list, Get get) {
    std::vector<std::thread> deleters;
    for (const auto& item : list) {
        deleters.emplace_back([&item, get] {
            TARNConnection* connection = get(item);
            connection->disconnect();
            delete connection;
        });
    }
    for (auto& deleter : deleters) {
        deleter.join();
    }
}

}  // namespace

TEST(TcpLoad, FiftyClientsAtOnceEachExchangeAThousandMessagesInOrder) {
    EchoApplication app;
    TARNListener listener(eTransportTCP);
    listener.listen("127.0.0.1", 0, new EchoConnector(app));
    uint16 port = 0;
    ASSERT_TRUE(waitUntil([&] { return (port = listener.getLocalPort()) != 0; }, 5000));

    std::vector<std::unique_ptr<CountingClient>> clients;
    std::vector<TARNConnection*> connections;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(new CountingClient("c" + std::to_string(i)));
        connections.push_back(new TARNConnection(eTransportTCP));
        ASSERT_TRUE(connections.back()->connect("127.0.0.1", port, clients.back().get()));
        // The listening backlog is 5: connecting faster than the listener accepts would only
        // measure the system's SYN retry, so each client waits until it has been taken on.
        ASSERT_TRUE(waitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(app.m_mutex);
                return app.sessions.size() == connections.size();
            },
            10000));
    }
    const std::int64_t start = nowMs();
    std::vector<std::thread> senders;
    std::atomic<int> sendFailures{0};
    for (int i = 0; i < kClients; ++i) {
        senders.emplace_back([&, i] {
            const std::string prefix = "c" + std::to_string(i) + ":";
            for (int seq = 0; seq < kMessages; ++seq) {
                if (!connections[static_cast<std::size_t>(i)]->subscribe(prefix + std::to_string(seq))) {
                    sendFailures++;
                }
            }
        });
    }
    for (auto& sender : senders) {
        sender.join();
    }
    const bool allBack = waitUntil(
        [&] {
            for (const auto& client : clients) {
                if (client->received.load() < kMessages) {
                    return false;
                }
            }
            return true;
        },
        60000);
    const std::int64_t elapsed = nowMs() - start;
    EXPECT_TRUE(allBack);
    EXPECT_EQ(0, sendFailures.load());
    for (const auto& client : clients) {
        EXPECT_EQ(kMessages, client->received.load());
        EXPECT_EQ(0, client->errors.load());
    }
    {
        std::lock_guard<std::mutex> lock(app.m_mutex);
        EXPECT_EQ(static_cast<std::size_t>(kClients), app.sessions.size());
        for (const auto& session : app.sessions) {
            EXPECT_EQ(0, session->errors.load());
        }
    }
    RecordProperty("round_trip_ms", static_cast<int>(elapsed));
    std::printf("%d clients x %d messages each way: %lld ms\n", kClients, kMessages,
                static_cast<long long>(elapsed));

    deleteAll(connections, [](TARNConnection* c) { return c; });
    listener.shutdown(-1);
    deleteAll(app.sessions, [](const std::unique_ptr<EchoSession>& s) { return s->connection(); });
}

TEST(TcpLoad, EightThreadsSendingOnOneConnectionNeverInterleaveFrames) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 500;
    RawTcpListener listener;
    TARNConnection connection(eTransportTCP);
    ASSERT_TRUE(connection.connect("127.0.0.1", listener.port(), nullptr));
    RawTcp peer(listener.accept(5000));
    ASSERT_TRUE(peer.valid());

    std::vector<std::thread> senders;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            // Names of different lengths per thread, so that a torn frame cannot pass as a whole one.
            const std::string name =
                "thread" + std::to_string(t) + std::string(static_cast<std::size_t>(t * 37), 'x');
            for (int seq = 0; seq < kPerThread; ++seq) {
                if (!connection.trigger(name, ParameterValue(seq))) {
                    failures++;
                }
            }
        });
    }
    std::vector<int> next(kThreads, 0);
    int frames = 0;
    int bad = 0;
    while (frames < kThreads * kPerThread) {
        Bytes body;
        if (!peer.receiveFrame(body, 10000)) {
            break;
        }
        ++frames;
        // A whole packet: version, command, length that matches, then name, then an integer.
        if (body.size() < 4 || body[0] != 1 || body[1] != 'T' ||
            static_cast<std::size_t>(body[2] | (body[3] << 8)) + 4 != body.size()) {
            ++bad;
            continue;
        }
        const std::string name(reinterpret_cast<const char*>(body.data()) + 4);
        const std::size_t valueAt = 4 + name.size() + 1;
        const int t = name.size() >= 7 ? name[6] - '0' : -1;
        if (t < 0 || t >= kThreads || name != "thread" + std::to_string(t) + std::string(t * 37, 'x') ||
            body.size() != valueAt + 5 || body[valueAt] != 'I' ||
            static_cast<int>(le32(body, valueAt + 1)) != next[static_cast<std::size_t>(t)]) {
            ++bad;
            continue;
        }
        ++next[static_cast<std::size_t>(t)];
    }
    for (auto& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(kThreads * kPerThread, frames);
    EXPECT_EQ(0, bad);
    EXPECT_EQ(0, failures.load());
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(kPerThread, next[static_cast<std::size_t>(t)]) << t;
    }
    connection.disconnect();
}
