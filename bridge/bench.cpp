// tarn-bridge-bench: what the bridge costs. A mosquitto broker on a free port (started here, with
// its own configuration file), TARN servers and the bridge in this process, and an MQTT subscriber
// on libmosquitto. It reports updates per second from 1 and from 100 devices through the bridge to
// the subscriber, and the latency an update takes through the bridge against a direct TARN
// subscription to the same server, measured on the same updates.
#include <fcntl.h>
#include <mosquitto.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <logging/logging.h>
#include <tarnconnection.h>
#include <tarnlistener.h>

#include "bridge.h"
#include "mqttlink.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

long long nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// The value's text is the send time in nanoseconds: the time an update took is read from it.
long long sentAt(const std::string& text) {
    const std::size_t digits = text.find_first_of("0123456789");
    return digits == std::string::npos ? 0 : std::atoll(text.c_str() + digits);
}

class Samples {
public:
    void add(long long ns) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_values.push_back(ns);
    }
    std::size_t size() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_values.size();
    }
    double percentileUs(double p) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_values.empty()) {
            return 0;
        }
        std::sort(m_values.begin(), m_values.end());
        return m_values[static_cast<std::size_t>(p * static_cast<double>(m_values.size() - 1))] / 1000.0;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_values.clear();
    }

private:
    std::mutex m_mutex;
    std::vector<long long> m_values;
};

// One device: a listener whose sessions remember every connection that subscribed.
class Device : public ITARNConnector {
public:
    struct Session : public ITARNServer {
        Session(Device& device, TARNConnection* connection) : m_device(device), m_pConnection(connection) {}
        void onSubscribe(const std::string&) override { m_device.subscribed(m_pConnection); }
        void onUnsubscribe(const std::string&) override {}
        void onCallFunctionId(const std::string&, const ParameterList&) override {}
        void onStatusChanged(EConnStatus) override {}
        Device& m_device;
        TARNConnection* m_pConnection;
    };

    void onNewConnection(TARNConnection* connection) override {
        auto* session = new Session(*this, connection);
        connection->setServer(session);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessions.emplace_back(session);
        m_connections.push_back(connection);
    }
    void subscribed(TARNConnection* connection) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_subscribers.push_back(connection);
    }
    std::size_t subscribers() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_subscribers.size();
    }
    void send(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (TARNConnection* connection : m_subscribers) {
            connection->updateState("v", ParameterValue(text));
        }
    }
    void close() {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (TARNConnection* connection : m_connections) {
            connection->disconnect();
            delete connection;
        }
        m_connections.clear();
        m_subscribers.clear();
    }

private:
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Session>> m_sessions;
    std::vector<TARNConnection*> m_connections;
    std::vector<TARNConnection*> m_subscribers;
};

// A direct TARN subscriber: the baseline.
class Direct : public ITARNClient {
public:
    explicit Direct(Samples& samples) : m_samples(samples) {}
    void onTrigger(const std::string&, const ParameterValue&) override {}
    void onUpdateState(const std::string&, const ParameterValue& value) override {
        m_samples.add(nowNs() - sentAt(value.getAsString()));
    }
    void onStatusChanged(EConnStatus) override {}

private:
    Samples& m_samples;
};

// The MQTT subscriber, on its own libmosquitto thread.
struct Subscriber {
    std::atomic<long> received{0};
    Samples* pSamples = nullptr;
    mosquitto* client = nullptr;
    static void onMessage(mosquitto*, void* self, const mosquitto_message* message) {
        Subscriber& s = *static_cast<Subscriber*>(self);
        const std::string payload(static_cast<const char*>(message->payload),
                                  static_cast<std::size_t>(message->payloadlen));
        if (s.pSamples != nullptr) {
            s.pSamples->add(nowNs() - sentAt(payload));
        }
        s.received.fetch_add(1, std::memory_order_relaxed);
    }
};

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // polling a condition
    }
    return true;
}

struct Run {
    int devices = 1;
    double updatesPerSecond = 0;
    long received = 0;
    long sent = 0;
};

void dropLine(Corvane::Utilities::Logging::ELogLevel, const std::string&, const std::string&) {}

}  // namespace

int main(int argc, char** argv) {
    std::string mosquittoPath = MOSQUITTO_PATH;
    long updates = 20000;
    int qos = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--mosquitto") {
            mosquittoPath = argv[i + 1];
        } else if (option == "--updates") {
            updates = std::atol(argv[i + 1]);
        } else if (option == "--qos") {
            qos = std::atoi(argv[i + 1]);
        }
    }
    std::signal(SIGPIPE, SIG_IGN);
    Corvane::Utilities::Logging::LogManager::getInstance().setSink(dropLine);
    tarnInit();
    tarnbridge::MqttLink::initLibrary();

    // The broker: no persistence, no limit on queued or in-flight messages.
    char dir[] = "/tmp/tarn-bridge-bench-XXXXXX";
    if (::mkdtemp(dir) == nullptr) {
        return 1;
    }
    const int port = 20000 + static_cast<int>(::getpid() % 20000);
    const passwd* self = ::getpwuid(::getuid());
    const std::string config = std::string(dir) + "/mosquitto.conf";
    std::ofstream(config) << "listener " << port << " 127.0.0.1\nallow_anonymous true\npersistence false\n"
                          << "max_queued_messages 0\nmax_inflight_messages 0\n"
                          << (self ? std::string("user ") + self->pw_name + "\n" : std::string());
    std::vector<std::string> words = {mosquittoPath, "-c", config};
    std::vector<char*> args;
    for (std::string& word : words) {
        args.push_back(&word[0]);
    }
    args.push_back(nullptr);
    pid_t broker = -1;
    posix_spawn_file_actions_t quietBroker;
    posix_spawn_file_actions_init(&quietBroker);
    posix_spawn_file_actions_addopen(&quietBroker, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const int spawned =
        posix_spawn(&broker, mosquittoPath.c_str(), &quietBroker, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&quietBroker);
    if (spawned != 0) {
        std::fprintf(stderr, "cannot start %s\n", mosquittoPath.c_str());
        return 1;
    }

    Subscriber subscriber;
    subscriber.client = mosquitto_new(nullptr, true, &subscriber);
    mosquitto_message_callback_set(subscriber.client, &Subscriber::onMessage);
    mosquitto_max_inflight_messages_set(subscriber.client, 0);
    if (!waitUntil(
            [&] { return mosquitto_connect(subscriber.client, "127.0.0.1", port, 60) == MOSQ_ERR_SUCCESS; },
            10000)) {
        std::fprintf(stderr, "broker not reached\n");
        return 1;
    }
    mosquitto_subscribe(subscriber.client, nullptr, "bench/+/state/#", qos);
    mosquitto_loop_start(subscriber.client);

    std::printf("| through the bridge (QoS %d, TCP devices, %ld updates) | updates/s |\n|---|---|\n", qos,
                updates);
    Samples bridgeLatency;
    Samples directLatency;
    for (const int deviceCount : {1, 100}) {
        std::vector<std::unique_ptr<TARNListener>> listeners;
        std::vector<Device*> devices;
        tarnbridge::BridgeConfig bridgeConfig;
        bridgeConfig.broker.port = static_cast<std::uint16_t>(port);
        bridgeConfig.root = "bench";
        bridgeConfig.qos = qos;
        for (int d = 0; d < deviceCount; ++d) {
            auto* device = new Device;
            devices.push_back(device);
            listeners.emplace_back(new TARNListener(eTransportTCP));
            listeners.back()->listen("127.0.0.1", 0, device);
            waitUntil([&] { return listeners.back()->getLocalPort() != 0; }, 5000);
            tarnbridge::DeviceConfig entry;
            entry.name = "d" + std::to_string(d);
            entry.host = "127.0.0.1";
            entry.port = listeners.back()->getLocalPort();
            entry.subscriptions = {"v"};
            bridgeConfig.devices.push_back(entry);
        }
        std::FILE* quiet = std::fopen("/dev/null", "w");
        tarnbridge::EventLog log(false, quiet);
        auto bridge = std::make_unique<tarnbridge::Bridge>(bridgeConfig, log);
        bridge->start();
        waitUntil(
            [&] {
                return std::all_of(devices.begin(), devices.end(),
                                   [](Device* d) { return d->subscribers() == 1; });
            },
            30000);

        // Throughput: every device sends its share as fast as it can.
        subscriber.received.store(0);
        const long each = updates / deviceCount;
        const auto start = Clock::now();
        std::vector<std::thread> senders;
        for (Device* device : devices) {
            senders.emplace_back([device, each] {
                for (long i = 0; i < each; ++i) {
                    device->send("n" + std::to_string(i));
                }
            });
        }
        for (std::thread& sender : senders) {
            sender.join();
        }
        const long expected = each * deviceCount;
        waitUntil([&] { return subscriber.received.load() >= expected; }, 60000);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        std::printf("| %d device%s | %.0f (%ld of %ld arrived) |\n", deviceCount, deviceCount == 1 ? "" : "s",
                    static_cast<double>(subscriber.received.load()) / seconds, subscriber.received.load(),
                    expected);
        std::fflush(stdout);

        if (deviceCount == 1) {
            // Latency: paced updates, seen by the bridge's subscriber and a direct TARN subscriber.
            Direct direct(directLatency);
            TARNConnection connection(eTransportTCP);
            connection.connect("127.0.0.1", bridgeConfig.devices[0].port, &direct);
            connection.subscribe("v");
            waitUntil([&] { return devices[0]->subscribers() == 2; }, 10000);
            subscriber.pSamples = &bridgeLatency;
            subscriber.received.store(0);
            const int samples = 2000;
            for (int i = 0; i < samples; ++i) {
                devices[0]->send("t" + std::to_string(nowNs()));
                std::this_thread::sleep_for(std::chrono::microseconds(1000));  // the pace: 1000 updates/s
            }
            waitUntil(
                [&] { return subscriber.received.load() >= samples && directLatency.size() >= samples; },
                30000);
            subscriber.pSamples = nullptr;
            connection.disconnect();
        }
        bridge->stop();
        bridge.reset();
        std::fclose(quiet);
        for (Device* device : devices) {
            device->close();
        }
        for (auto& listener : listeners) {
            listener->shutdown(-1);
        }
    }
    std::printf("\n| latency of an update, 1 device at 1000 updates/s | p50 | p99 |\n|---|---|---|\n");
    std::printf("| direct TARN subscription | %.0f us | %.0f us |\n", directLatency.percentileUs(0.5),
                directLatency.percentileUs(0.99));
    std::printf("| through the bridge and the broker | %.0f us | %.0f us |\n",
                bridgeLatency.percentileUs(0.5), bridgeLatency.percentileUs(0.99));
    std::printf("| added by the bridge | %.0f us | %.0f us |\n",
                bridgeLatency.percentileUs(0.5) - directLatency.percentileUs(0.5),
                bridgeLatency.percentileUs(0.99) - directLatency.percentileUs(0.99));

    mosquitto_disconnect(subscriber.client);
    mosquitto_loop_stop(subscriber.client, false);
    mosquitto_destroy(subscriber.client);
    ::kill(broker, SIGTERM);
    int status = 0;
    ::waitpid(broker, &status, 0);
    std::remove(config.c_str());
    ::rmdir(dir);
    tarnbridge::MqttLink::cleanupLibrary();
    tarnDeinit();
    return 0;
}
