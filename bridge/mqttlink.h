// The bridge's one connection to the MQTT broker, on libmosquitto. A thread of its own runs the
// client: it connects, hands incoming messages to the sink, and when the broker is lost or cannot
// be reached tries again with back-off (0.25 s doubling up to 5 s). Each try starts a fresh client
// object, so that nothing queued for a lost connection is sent late, after newer values; what must
// be on the broker again after a reconnect, the sink publishes when told brokerConnected().
//
// Ownership: the link owns its client object and thread; the sink is not owned and must outlive
// the link. Threads: publish, subscribe, flush and connected from any thread, also from inside a
// sink callback; start and stop from one controlling thread. Every sink callback runs on the
// link's thread.
#ifndef TARN_BRIDGE_MQTTLINK_H
#define TARN_BRIDGE_MQTTLINK_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "config.h"

struct mosquitto;
struct mosquitto_message;

namespace tarnbridge {

class IMqttSink {
public:
    virtual ~IMqttSink() = default;
    // Connected and logged in: publish what the broker must hold, subscribe.
    virtual void brokerConnected() = 0;
    virtual void brokerLost(const std::string& reason) = 0;
    virtual void brokerRetry(const std::string& reason, int delayMs) = 0;
    // The broker refused the log-in, or TLS could not be set up: trying again cannot help, and
    // the link has stopped trying.
    virtual void brokerRefused(const std::string& reason) = 0;
    virtual void brokerMessage(const std::string& topic, const std::string& payload, bool retained) = 0;
};

class MqttLink {
public:
    // `willTopic` gets a retained "offline" from the broker when the link ends without a clean stop.
    MqttLink(const BrokerConfig& config, const std::string& willTopic, IMqttSink& sink);
    ~MqttLink();  // stops
    MqttLink(const MqttLink&) = delete;
    MqttLink& operator=(const MqttLink&) = delete;

    // libmosquitto's process-wide set-up and clean-up, once each per process.
    static void initLibrary();
    static void cleanupLibrary();

    void start();
    // Disconnects cleanly (the broker drops the last will) and joins the thread.
    void stop();

    // False when not connected: nothing is queued for a later connection.
    bool publish(const std::string& topic, const std::string& payload, int qos, bool retain);
    bool subscribe(const std::string& filter, int qos);
    // Waits until everything published on the current connection has left (QoS 0 written,
    // QoS 1 and 2 acknowledged), at most `timeoutMs`; false when that did not happen.
    bool flush(int timeoutMs);
    bool connected() const;

private:
    static void onConnect(mosquitto* client, void* self, int rc);
    static void onDisconnect(mosquitto* client, void* self, int rc);
    static void onPublish(mosquitto* client, void* self, int mid);
    static void onMessage(mosquitto* client, void* self, const mosquitto_message* message);

    void run();
    // Makes a client object and connects it; false with a reason.
    bool attempt(std::string& reason);
    // Destroys the client object; true when it had been connected.
    bool drop();
    void closeCleanly();
    bool pause(int ms);

    BrokerConfig m_config;
    std::string m_willTopic;
    IMqttSink& m_sink;
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    mosquitto* m_pClient = nullptr;  // replaced on the link's thread only, under m_mutex
    bool m_bConnected = false;       // under m_mutex
    bool m_bStop = false;            // under m_mutex
    bool m_bRefused = false;         // link's thread only
    bool m_bSession = false;         // link's thread only: the client object got connected
    long m_published = 0;            // under m_mutex: publications on this connection
    long m_done = 0;                 // under m_mutex: of them written or acknowledged
};

}  // namespace tarnbridge

#endif  // TARN_BRIDGE_MQTTLINK_H
