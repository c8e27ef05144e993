// A minimal TARN client: connects over TCP, subscribes to one item, calls one function, prints
// what the server sends back and leaves.
//
// Usage: tarn-example-client <host> <port>
//
// Ownership: the application owns the connection and its ITARNClient. It calls disconnect() before
// deleting the connection, and deletes it from its own thread, never from inside a callback.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <tarnconnection.h>

namespace {

class Client final : public ITARNClient {
public:
    void onTrigger(const std::string& name, const ParameterValue& value) override {
        std::printf("client: trigger %s = %s\n", name.c_str(), value.getAsString().c_str());
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_triggers;
        m_changed.notify_all();
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override {
        std::printf("client: state %s = %s\n", name.c_str(), value.getAsString().c_str());
    }
    void onStatusChanged(EConnStatus status) override {
        std::printf("client: %s\n", status == eConnected ? "connected" : "disconnected");
    }
    // Waits until `count` triggers have come, at most `seconds`.
    bool waitForTriggers(int count, int seconds) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(seconds), [&] { return m_triggers >= count; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_triggers = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <host> <port>\n", argv[0]);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    tarnInit();
    Client client;
    TARNConnection* connection = new TARNConnection(eTransportTCP);
    bool ok = connection->connect(argv[1], static_cast<uint16>(std::atoi(argv[2])), &client);
    if (ok) {
        connection->subscribe("temperature");
        ParameterList params;
        params.addNumeric("count", 3);
        params.addString("unit", "celsius");
        connection->callFunctionId("measure", params);
        ok = client.waitForTriggers(3, 10);
        connection->unsubscribe("temperature");
        connection->disconnect();  // the receive thread reports "disconnected" as it ends
    } else {
        std::fprintf(stderr, "client: cannot connect to %s:%s\n", argv[1], argv[2]);
    }
    delete connection;  // after disconnect(), from the application's own thread
    tarnDeinit();
    return ok ? 0 : 1;
}
