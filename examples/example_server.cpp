// A minimal TARN server: listens on 127.0.0.1 over TCP, answers a subscription with the item's state
// and a function call with as many triggers as its "count" parameter asks for, and stops after
// serving a given number of clients.
//
// Usage: tarn-example-server [port] [clients]   (port 0, the default, lets the system choose)
//
// Ownership: the listener owns its connector and deletes it. Each connection handed to
// onNewConnection belongs to the application, which gives it with its ITARNServer to a
// TARNConnectionSet; the set disconnects and deletes the connections (and here the sessions) at
// the end, from the main thread, never from a callback.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <tarnconnection.h>
#include <tarnlistener.h>

namespace {

std::mutex g_mutex;
std::condition_variable g_changed;
int g_ended = 0;

struct Session final : ITARNServer {
    explicit Session(TARNConnection* c) : connection(c) {}
    void onSubscribe(const std::string& name) override {
        std::printf("server: subscribe %s\n", name.c_str());
        connection->updateState(name, ParameterValue(21.5f));  // sending from a callback is fine
    }
    void onUnsubscribe(const std::string& name) override {
        std::printf("server: unsubscribe %s\n", name.c_str());
    }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override {
        ParameterList args = params;
        int count = 0;
        args.getParam("count", count);
        std::printf("server: call %s with count %d\n", name.c_str(), count);
        for (int i = 1; i <= count; ++i) {
            connection->trigger(name, ParameterValue(i));
        }
    }
    void onStatusChanged(EConnStatus status) override {
        std::printf("server: client %s\n", status == eConnected ? "connected" : "disconnected");
        std::lock_guard<std::mutex> lock(g_mutex);
        g_ended += status == eDisconnected ? 1 : 0;
        g_changed.notify_all();
    }
    TARNConnection* connection;
};

TARNConnectionSet g_connections;  // owned by the application, not by the listener

struct Connector : ITARNConnector {
    void onNewConnection(TARNConnection* connection) override {
        // Attached before the first packet is read; the set deletes the session after its connection.
        g_connections.add(connection, new Session(connection), true);
    }
};

}  // namespace

int main(int argc, char** argv) {
    const uint16 port = static_cast<uint16>(argc > 1 ? std::atoi(argv[1]) : 0);
    const int clients = argc > 2 ? std::atoi(argv[2]) : 1;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    tarnInit();
    TARNListener* listener = new TARNListener(eTransportTCP);
    listener->listen("127.0.0.1", port, new Connector());  // the listener owns the connector
    for (int i = 0; i < 500 && listener->getLocalPort() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::printf("server: listening on port %u\n", static_cast<unsigned>(listener->getLocalPort()));
    std::unique_lock<std::mutex> lock(g_mutex);
    const bool served =
        g_changed.wait_for(lock, std::chrono::seconds(60), [&] { return g_ended >= clients; });
    lock.unlock();
    delete listener;           // stops accepting; connections already handed out live on
    g_connections.closeAll();  // disconnects, waits for each link's end, deletes
    tarnDeinit();
    return served ? 0 : 1;
}
