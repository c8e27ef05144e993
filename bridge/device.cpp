#include "device.h"

#include <algorithm>

namespace tarnbridge {

namespace {

const int kFirstRetryMs = 250;

}  // namespace

DeviceLink::DeviceLink(const DeviceConfig& config, int retryMaxMs, IDeviceSink& sink)
    : m_config(config), m_retryMaxMs(std::max(retryMaxMs, kFirstRetryMs)), m_sink(sink) {}

DeviceLink::~DeviceLink() {
    requestStop();
    join();
}

std::string DeviceLink::address() const {
    const bool v6 = m_config.host.find(':') != std::string::npos;
    return std::string(m_config.transport == eTransportEUDP ? "eudp://" : "tcp://") + (v6 ? "[" : "") +
           m_config.host + (v6 ? "]" : "") + ":" + std::to_string(m_config.port);
}

void DeviceLink::start() {
    m_thread = std::thread(&DeviceLink::run, this);
}

void DeviceLink::requestStop() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bStop = true;
    m_wake.notify_all();
}

void DeviceLink::join() {
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool DeviceLink::online() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bOnline;
}

bool DeviceLink::call(const std::string& function, const ParameterList& params, std::string& error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_bOnline || m_pConnection == nullptr) {
        error = "device " + m_config.name + " is offline";
        return false;
    }
    if (!m_pConnection->callFunctionId(function, params)) {
        error = "the call could not be sent to device " + m_config.name;
        return false;
    }
    return true;
}

void DeviceLink::onTrigger(const std::string& name, const ParameterValue& value) {
    m_sink.deviceTrigger(*this, name, value);
}

void DeviceLink::onUpdateState(const std::string& name, const ParameterValue& value) {
    m_sink.deviceUpdate(*this, name, value);
}

void DeviceLink::onStatusChanged(EConnStatus status) {
    if (status == eDisconnected) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bLost = true;
        m_wake.notify_all();
    }
}

bool DeviceLink::pause(int ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_bStop; });
}

bool DeviceLink::session() {
    TARNConnection* connection = new TARNConnection(m_config.transport);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bLost = false;
    }
    if (!connection->connect(m_config.host, m_config.port, this)) {
        delete connection;
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pConnection = connection;
        m_bOnline = !m_bLost;
    }
    m_sink.deviceOnline(*this);
    for (const std::string& name : m_config.subscriptions) {
        connection->subscribe(name);
    }
    bool stopped = false;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, [this] { return m_bLost || m_bStop; });
        stopped = m_bStop;
        m_pConnection = nullptr;
        m_bOnline = false;
    }
    // The receive thread has ended (or ends in disconnect) before the connection goes: no
    // update can reach the sink after the offline below.
    connection->disconnect();
    delete connection;
    m_sink.deviceOffline(*this, stopped ? "stopped" : "lost");
    return true;
}

void DeviceLink::run() {
    int delay = kFirstRetryMs;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_bStop) {
                return;
            }
        }
        if (session()) {
            delay = kFirstRetryMs;
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_bStop) {
                return;
            }
        }
        m_sink.deviceRetry(*this, delay);
        if (pause(delay)) {
            return;
        }
        delay = std::min(delay * 2, m_retryMaxMs);
    }
}

}  // namespace tarnbridge
