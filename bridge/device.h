// One TARN server that the bridge watches: a client connection kept up by a thread of its own,
// which connects, subscribes the configured states, and on a lost link (or a failed try) waits
// with back-off (0.25 s doubling up to the configured limit) and connects again.
//
// Ownership: the link owns its connection and its thread; the sink is not owned and must outlive
// the link. Threads: start, requestStop, join and call from any thread; the sink is told of
// online/offline on the link's thread and of updates and triggers on the connection's receive
// thread.
#ifndef TARN_BRIDGE_DEVICE_H
#define TARN_BRIDGE_DEVICE_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include <tarnconnection.h>

#include "config.h"

namespace tarnbridge {

class DeviceLink;

class IDeviceSink {
public:
    virtual ~IDeviceSink() = default;
    virtual void deviceOnline(DeviceLink& device) = 0;
    // `reason` says why: "lost", "stopped", or a failed try's "cannot connect".
    virtual void deviceOffline(DeviceLink& device, const std::string& reason) = 0;
    virtual void deviceRetry(DeviceLink& device, int delayMs) = 0;
    virtual void deviceUpdate(DeviceLink& device, const std::string& name, const ParameterValue& value) = 0;
    virtual void deviceTrigger(DeviceLink& device, const std::string& name, const ParameterValue& value) = 0;
};

class DeviceLink : public ITARNClient {
public:
    DeviceLink(const DeviceConfig& config, int retryMaxMs, IDeviceSink& sink);
    ~DeviceLink() override;  // stops and joins
    DeviceLink(const DeviceLink&) = delete;
    DeviceLink& operator=(const DeviceLink&) = delete;

    const DeviceConfig& config() const { return m_config; }
    const std::string& name() const { return m_config.name; }
    // tcp://HOST:PORT or eudp://HOST:PORT
    std::string address() const;

    void start();
    // Tells the thread to stop without waiting for it, so that many links stop side by side.
    void requestStop();
    // Waits for the thread: the connection is closed and deleted when this returns.
    void join();

    // Calls `function` on the device now. False with a reason when the device is offline or the
    // call could not be sent.
    bool call(const std::string& function, const ParameterList& params, std::string& error);
    bool online() const;

    void onTrigger(const std::string& name, const ParameterValue& value) override;
    void onUpdateState(const std::string& name, const ParameterValue& value) override;
    void onStatusChanged(EConnStatus status) override;

private:
    void run();
    // One connection from connect to loss or stop; false when it could not connect.
    bool session();
    // Waits up to `ms` or until stopped; true when stopped.
    bool pause(int ms);

    DeviceConfig m_config;
    int m_retryMaxMs;
    IDeviceSink& m_sink;
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    TARNConnection* m_pConnection = nullptr;  // under m_mutex; set while connected
    bool m_bOnline = false;                   // under m_mutex
    bool m_bLost = false;                     // under m_mutex
    bool m_bStop = false;                     // under m_mutex
};

}  // namespace tarnbridge

#endif  // TARN_BRIDGE_DEVICE_H
