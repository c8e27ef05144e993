#include "mqttlink.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <chrono>

namespace tarnbridge {

namespace {

const int kFirstRetryMs = 250;
const int kLastRetryMs = 5000;

// CONNACK reason codes after which another try cannot succeed: bad user name or password, not
// authorised (0x86, 0x87; 4 and 5 before MQTT 5).
bool loginRefused(int rc) {
    return rc == 4 || rc == 5 || rc == 0x86 || rc == 0x87;
}

}  // namespace

MqttLink::MqttLink(const BrokerConfig& config, const std::string& willTopic, IMqttSink& sink)
    : m_config(config), m_willTopic(willTopic), m_sink(sink) {}

MqttLink::~MqttLink() {
    stop();
}

void MqttLink::initLibrary() {
    mosquitto_lib_init();
}

void MqttLink::cleanupLibrary() {
    mosquitto_lib_cleanup();
}

void MqttLink::start() {
    m_thread = std::thread(&MqttLink::run, this);
}

void MqttLink::stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStop = true;
        m_changed.notify_all();
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool MqttLink::connected() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bConnected;
}

bool MqttLink::publish(const std::string& topic, const std::string& payload, int qos, bool retain) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_bConnected || m_pClient == nullptr) {
        return false;
    }
    const int rc = mosquitto_publish(m_pClient, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                     payload.data(), qos, retain);
    if (rc != MOSQ_ERR_SUCCESS) {
        return false;
    }
    ++m_published;
    return true;
}

bool MqttLink::subscribe(const std::string& filter, int qos) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Retain as published: a call published with the retain flag is seen as such, also while
    // the bridge is subscribed, and can be refused.
    return m_bConnected && m_pClient != nullptr &&
           mosquitto_subscribe_v5(m_pClient, nullptr, filter.c_str(), qos, MQTT_SUB_OPT_RETAIN_AS_PUBLISHED,
                                  nullptr) == MOSQ_ERR_SUCCESS;
}

bool MqttLink::flush(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] {
        return !m_bConnected || m_done >= m_published;
    }) && m_bConnected;
}

void MqttLink::onConnect(mosquitto*, void* self, int rc) {
    MqttLink& link = *static_cast<MqttLink*>(self);
    if (rc != 0) {
        if (loginRefused(rc)) {
            link.m_bRefused = true;
            link.m_sink.brokerRefused(rc >= 0x80 ? mosquitto_reason_string(rc)
                                                 : mosquitto_connack_string(rc));
        }
        return;  // the broker closes the connection; the loop sees it
    }
    link.m_bSession = true;
    {
        std::lock_guard<std::mutex> lock(link.m_mutex);
        link.m_bConnected = true;
        link.m_published = 0;
        link.m_done = 0;
    }
    link.m_sink.brokerConnected();
}

void MqttLink::onDisconnect(mosquitto*, void* self, int) {
    MqttLink& link = *static_cast<MqttLink*>(self);
    std::lock_guard<std::mutex> lock(link.m_mutex);
    link.m_bConnected = false;
    link.m_changed.notify_all();
}

void MqttLink::onPublish(mosquitto*, void* self, int) {
    MqttLink& link = *static_cast<MqttLink*>(self);
    std::lock_guard<std::mutex> lock(link.m_mutex);
    ++link.m_done;
    link.m_changed.notify_all();
}

void MqttLink::onMessage(mosquitto*, void* self, const mosquitto_message* message) {
    MqttLink& link = *static_cast<MqttLink*>(self);
    const std::string payload(static_cast<const char*>(message->payload),
                              static_cast<std::size_t>(std::max(message->payloadlen, 0)));
    link.m_sink.brokerMessage(message->topic, payload, message->retain);
}

bool MqttLink::attempt(std::string& reason) {
    mosquitto* client = mosquitto_new(m_config.clientId.c_str(), true, this);
    if (client == nullptr) {
        reason = "cannot make an MQTT client";
        return false;
    }
    mosquitto_threaded_set(client, true);
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_max_inflight_messages_set(client, 0);  // no limit: QoS 1 streams are not held back
    mosquitto_connect_callback_set(client, &MqttLink::onConnect);
    mosquitto_disconnect_callback_set(client, &MqttLink::onDisconnect);
    mosquitto_publish_callback_set(client, &MqttLink::onPublish);
    mosquitto_message_callback_set(client, &MqttLink::onMessage);
    const std::string offline = "offline";
    int rc = mosquitto_will_set(client, m_willTopic.c_str(), static_cast<int>(offline.size()), offline.data(),
                                1, true);
    if (rc == MOSQ_ERR_SUCCESS && (!m_config.username.empty() || m_config.hasPassword)) {
        rc = mosquitto_username_pw_set(client, m_config.username.c_str(),
                                       m_config.hasPassword ? m_config.password.c_str() : nullptr);
    }
    const bool tls = !m_config.caFile.empty() || !m_config.caPath.empty();
    if (rc == MOSQ_ERR_SUCCESS && tls) {
        rc = mosquitto_tls_set(client, m_config.caFile.empty() ? nullptr : m_config.caFile.c_str(),
                               m_config.caPath.empty() ? nullptr : m_config.caPath.c_str(),
                               m_config.certFile.empty() ? nullptr : m_config.certFile.c_str(),
                               m_config.keyFile.empty() ? nullptr : m_config.keyFile.c_str(), nullptr);
        if (rc == MOSQ_ERR_SUCCESS && m_config.tlsInsecure) {
            rc = mosquitto_tls_insecure_set(client, true);
        }
        if (rc != MOSQ_ERR_SUCCESS) {
            m_bRefused = true;
            m_sink.brokerRefused(std::string("TLS set-up: ") + mosquitto_strerror(rc));
        }
    }
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_connect(client, m_config.host.c_str(), m_config.port, m_config.keepAliveSeconds);
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        reason = rc == MOSQ_ERR_ERRNO ? "cannot connect" : mosquitto_strerror(rc);
        mosquitto_destroy(client);
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pClient = client;
    m_bSession = false;
    return true;
}

bool MqttLink::drop() {
    mosquitto* client = nullptr;
    const bool wasConnected = m_bSession;
    m_bSession = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        client = m_pClient;
        m_pClient = nullptr;
        m_bConnected = false;
        m_changed.notify_all();
    }
    if (client != nullptr) {
        mosquitto_destroy(client);
    }
    return wasConnected;
}

bool MqttLink::pause(int ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_bStop; });
}

void MqttLink::closeCleanly() {
    if (m_pClient == nullptr) {
        return;
    }
    // DISCONNECT tells the broker to drop the last will; it leaves with the next loop turns.
    if (mosquitto_disconnect(m_pClient) == MOSQ_ERR_SUCCESS) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (mosquitto_loop(m_pClient, 50, 1) == MOSQ_ERR_SUCCESS &&
               std::chrono::steady_clock::now() < deadline) {
        }
    }
    drop();
}

void MqttLink::run() {
    int delay = kFirstRetryMs;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_bStop) {
                break;
            }
        }
        std::string reason;
        if (m_pClient == nullptr && !attempt(reason)) {
            if (m_bRefused) {
                return;
            }
            m_sink.brokerRetry(reason, delay);
            if (pause(delay)) {
                return;
            }
            delay = std::min(delay * 2, kLastRetryMs);
            continue;
        }
        const int rc = mosquitto_loop(m_pClient, 100, 1);
        if (connected()) {
            delay = kFirstRetryMs;
        }
        if (rc != MOSQ_ERR_SUCCESS || m_bRefused) {
            const bool wasConnected = drop();
            if (m_bRefused) {
                return;
            }
            if (wasConnected) {
                m_sink.brokerLost(rc == MOSQ_ERR_CONN_LOST ? "connection lost" : mosquitto_strerror(rc));
            }
            if (pause(delay)) {
                return;
            }
            delay = std::min(delay * 2, kLastRetryMs);
        }
    }
    closeCleanly();
}

}  // namespace tarnbridge
