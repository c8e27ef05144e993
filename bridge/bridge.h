// The bridge: its devices and its broker link, and the mapping between them. It keeps the last
// payload of every state it has seen, so that a broker that lost its retained messages (a
// restart without persistence) gets them all again when the link comes back.
//
// Ownership: owns its device links and its broker link; the event log is not owned and must
// outlive it. Threads: start, stop and refused from the controlling thread; the rest are the
// links' callbacks. One lock orders each change of the kept states with its publication, so that
// the broker never ends up with an older value than the bridge last saw.
#ifndef TARN_BRIDGE_BRIDGE_H
#define TARN_BRIDGE_BRIDGE_H

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "config.h"
#include "device.h"
#include "eventlog.h"
#include "mqttlink.h"

namespace tarnbridge {

class Bridge : public IDeviceSink, public IMqttSink {
public:
    Bridge(const BridgeConfig& config, EventLog& log);
    ~Bridge() override;
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    void start();
    // Closes every device (each is published offline), publishes the bridge offline, waits up to
    // 3 s for that to reach the broker, then disconnects from it cleanly.
    void stop();
    // True once the broker refused the log-in or TLS failed; the bridge cannot go on.
    bool refused() const { return m_bRefused.load(std::memory_order_relaxed); }

    void deviceOnline(DeviceLink& device) override;
    void deviceOffline(DeviceLink& device, const std::string& reason) override;
    void deviceRetry(DeviceLink& device, int delayMs) override;
    void deviceUpdate(DeviceLink& device, const std::string& name, const ParameterValue& value) override;
    void deviceTrigger(DeviceLink& device, const std::string& name, const ParameterValue& value) override;

    void brokerConnected() override;
    void brokerLost(const std::string& reason) override;
    void brokerRetry(const std::string& reason, int delayMs) override;
    void brokerRefused(const std::string& reason) override;
    void brokerMessage(const std::string& topic, const std::string& payload, bool retained) override;

private:
    std::string payloadOf(const ParameterValue& value) const;
    DeviceLink* deviceOfTopic(const std::string& topic);
    void refuse(DeviceLink& device, const std::string& topic, const std::string& function,
                const std::string& error);
    std::string brokerText() const;

    BridgeConfig m_config;
    EventLog& m_log;
    std::mutex m_mutex;
    std::map<std::string, std::map<std::string, std::string>> m_states;  // device, name: payload
    std::vector<std::unique_ptr<DeviceLink>> m_devices;
    std::map<std::string, DeviceLink*> m_byName;
    MqttLink m_mqtt;
    std::atomic<bool> m_bRefused{false};
};

}  // namespace tarnbridge

#endif  // TARN_BRIDGE_BRIDGE_H
