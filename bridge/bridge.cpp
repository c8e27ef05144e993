#include "bridge.h"

#include <unistd.h>

#include "mapping.h"

namespace tarnbridge {

namespace {

BridgeConfig withClientId(BridgeConfig config) {
    if (config.broker.clientId.empty()) {
        config.broker.clientId = "tarn-bridge-" + std::to_string(::getpid());
    }
    return config;
}

}  // namespace

Bridge::Bridge(const BridgeConfig& config, EventLog& log)
    : m_config(withClientId(config)),
      m_log(log),
      m_mqtt(m_config.broker, statusTopic(m_config.root, m_config.name), *this) {
    for (const DeviceConfig& device : m_config.devices) {
        m_devices.push_back(std::make_unique<DeviceLink>(device, m_config.retryMaxMs, *this));
        m_byName[device.name] = m_devices.back().get();
    }
}

Bridge::~Bridge() {
    stop();
}

std::string Bridge::brokerText() const {
    const bool v6 = m_config.broker.host.find(':') != std::string::npos;
    return (v6 ? "[" + m_config.broker.host + "]" : m_config.broker.host) + ":" +
           std::to_string(m_config.broker.port);
}

void Bridge::start() {
    m_log.write("started", {{"broker", brokerText()}, {"root", m_config.root}}, "devices",
                static_cast<long>(m_devices.size()));
    m_mqtt.start();
    for (auto& device : m_devices) {
        device->start();
    }
}

void Bridge::stop() {
    if (m_devices.empty()) {
        return;
    }
    for (auto& device : m_devices) {
        device->requestStop();
    }
    for (auto& device : m_devices) {
        device->join();
    }
    m_mqtt.publish(statusTopic(m_config.root, m_config.name), "offline", 1, true);
    m_mqtt.flush(3000);
    m_mqtt.stop();
    m_byName.clear();
    m_devices.clear();
    m_log.write("stopped", {});
}

std::string Bridge::payloadOf(const ParameterValue& value) const {
    return m_config.raw ? rawPayload(value) : jsonPayload(value);
}

void Bridge::deviceOnline(DeviceLink& device) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_mqtt.publish(statusTopic(m_config.root, device.name()), "online", m_config.qos, true);
    }
    m_log.write("device", {{"device", device.name()}, {"state", "online"}, {"address", device.address()}});
}

void Bridge::deviceOffline(DeviceLink& device, const std::string& reason) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_mqtt.publish(statusTopic(m_config.root, device.name()), "offline", m_config.qos, true);
    }
    m_log.write("device", {{"device", device.name()}, {"state", "offline"}, {"reason", reason}});
}

void Bridge::deviceRetry(DeviceLink& device, int delayMs) {
    m_log.write("device", {{"device", device.name()}, {"state", "retry"}, {"address", device.address()}},
                "delay_ms", delayMs);
}

void Bridge::deviceUpdate(DeviceLink& device, const std::string& name, const ParameterValue& value) {
    if (!validTail(name)) {
        return;  // a name that cannot be a topic level; the bridge subscribes to none such
    }
    const std::string payload = payloadOf(value);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_states[device.name()][name] = payload;
    m_mqtt.publish(stateTopic(m_config.root, device.name(), name), payload, m_config.qos, true);
}

void Bridge::deviceTrigger(DeviceLink& device, const std::string& name, const ParameterValue& value) {
    if (!validTail(name)) {
        m_log.write("skipped", {{"device", device.name()}, {"trigger", name}});
        return;
    }
    m_mqtt.publish(triggerTopic(m_config.root, device.name(), name), payloadOf(value), m_config.qos, false);
}

void Bridge::brokerConnected() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_mqtt.publish(statusTopic(m_config.root, m_config.name), "online", 1, true);
        for (auto& device : m_devices) {
            const std::string& name = device->name();
            m_mqtt.subscribe(callFilter(m_config.root, name), m_config.qos);
            m_mqtt.publish(statusTopic(m_config.root, name), device->online() ? "online" : "offline",
                           m_config.qos, true);
            for (const auto& state : m_states[name]) {
                m_mqtt.publish(stateTopic(m_config.root, name, state.first), state.second, m_config.qos,
                               true);
            }
        }
    }
    m_log.write("broker", {{"state", "connected"}, {"broker", brokerText()}});
}

void Bridge::brokerLost(const std::string& reason) {
    m_log.write("broker", {{"state", "lost"}, {"broker", brokerText()}, {"reason", reason}});
}

void Bridge::brokerRetry(const std::string& reason, int delayMs) {
    m_log.write("broker", {{"state", "retry"}, {"broker", brokerText()}, {"reason", reason}}, "delay_ms",
                delayMs);
}

void Bridge::brokerRefused(const std::string& reason) {
    m_bRefused.store(true, std::memory_order_relaxed);
    m_log.write("broker", {{"state", "refused"}, {"broker", brokerText()}, {"reason", reason}});
}

DeviceLink* Bridge::deviceOfTopic(const std::string& topic) {
    const std::string prefix = m_config.root + "/";
    if (topic.compare(0, prefix.size(), prefix) != 0) {
        return nullptr;
    }
    const std::size_t end = topic.find('/', prefix.size());
    const auto found = m_byName.find(topic.substr(prefix.size(), end - prefix.size()));
    return found == m_byName.end() ? nullptr : found->second;
}

void Bridge::refuse(DeviceLink& device, const std::string& topic, const std::string& function,
                    const std::string& error) {
    m_mqtt.publish(errorTopic(m_config.root, device.name()), errorPayload(topic, function, error),
                   m_config.qos, false);
    m_log.write("refused", {{"device", device.name()}, {"topic", topic}, {"error", error}});
}

void Bridge::brokerMessage(const std::string& topic, const std::string& payload, bool retained) {
    DeviceLink* device = deviceOfTopic(topic);
    std::string function;
    if (device == nullptr || !callFunction(m_config.root, device->name(), topic, function)) {
        return;  // only the call topics are subscribed
    }
    if (retained) {
        // A retained call would be made again on every reconnect.
        refuse(*device, topic, function, "a retained call is not made; publish calls without retain");
        return;
    }
    ParameterList params;
    std::string error;
    if (!parseCall(function, payload, params, error) || !device->call(function, params, error)) {
        refuse(*device, topic, function, error);
        return;
    }
    m_log.write("call", {{"device", device->name()}, {"function", function}});
}

}  // namespace tarnbridge
