// The TARN demonstration: starts a server on an ephemeral port of 127.0.0.1, runs a client against
// it over TCP and prints what each side sees, step by step: subscription and state update,
// function call and trigger, unsubscription, disconnection.
//
// Each step waits for the answer of the one before, so the story prints in order. Exits 0 when
// every step was answered within its time, 1 otherwise.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

namespace {

// Prints lines from any thread and lets the main thread wait for a given one.
class Story {
public:
    void tell(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
        m_lines.push_back(line);
        m_changed.notify_all();
    }
    bool waitFor(const std::string& line) {
        std::unique_lock<std::mutex> lock(m_mutex);
        const bool seen = m_changed.wait_for(lock, std::chrono::seconds(10), [&] {
            for (const auto& told : m_lines) {
                if (told == line) {
                    return true;
                }
            }
            return false;
        });
        if (!seen) {
            std::printf("demo: no \"%s\" in time\n", line.c_str());
        }
        return seen;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_lines;
};

Story g_story;

const char* statusText(EConnStatus status) {
    return status == eConnected ? "connected" : "disconnected";
}

class Client final : public ITARNClient {
public:
    void onTrigger(const std::string& name, const ParameterValue& value) override {
        g_story.tell("client: trigger " + name + " = " + value.getAsString());
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override {
        g_story.tell("client: state " + name + " = " + value.getAsString());
    }
    void onStatusChanged(EConnStatus status) override {
        g_story.tell(std::string("client: ") + statusText(status));
    }
};

class Server final : public ITARNServer {
public:
    void adopt(TARNConnection* connection) {
        g_story.tell("server: new connection from " + connection->getPeerAddress());
        m_pConnection = connection;  // the application owns it from now on
        connection->setServer(this);
    }
    void onSubscribe(const std::string& name) override {
        g_story.tell("server: subscribe " + name);
        m_pConnection->updateState(name, ParameterValue(true));
    }
    void onUnsubscribe(const std::string& name) override { g_story.tell("server: unsubscribe " + name); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override {
        std::ostringstream text;
        params.print(text);
        g_story.tell("server: call " + name + " with " + text.str());
        m_pConnection->trigger(name, ParameterValue("done"));
    }
    void onStatusChanged(EConnStatus status) override {
        g_story.tell(std::string("server: client ") + statusText(status));
    }
    TARNConnection* m_pConnection = nullptr;
};

// Owned and deleted by the listener; hands each new connection to the server object, which
// outlives the listener.
struct Connector : ITARNConnector {
    explicit Connector(Server& server) : m_server(server) {}
    void onNewConnection(TARNConnection* connection) override { m_server.adopt(connection); }
    Server& m_server;
};

}  // namespace

int main() {
    tarnInit();
    Server server;
    TARNListener* listener = new TARNListener(eTransportTCP);
    listener->listen("127.0.0.1", 0, new Connector(server));
    for (int i = 0; i < 500 && listener->getLocalPort() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const uint16 port = listener->getLocalPort();
    g_story.tell("demo: server listening on 127.0.0.1:" + std::to_string(port));

    Client client;
    TARNConnection* connection = new TARNConnection(eTransportTCP);
    bool ok = connection->connect("127.0.0.1", port, &client) && g_story.waitFor("server: client connected");
    if (ok) {
        connection->subscribe("lamp");
        ok = g_story.waitFor("client: state lamp = ON");
    }
    if (ok) {
        ParameterList params;
        params.addNumeric("level", 40);
        params.addFloat("fade", 1.5f);
        connection->callFunctionId("dim", params);
        ok = g_story.waitFor("client: trigger dim = done");
    }
    if (ok) {
        connection->unsubscribe("lamp");
        ok = g_story.waitFor("server: unsubscribe lamp");
    }
    connection->disconnect();
    ok = g_story.waitFor("client: disconnected") && ok;
    delete connection;
    if (server.m_pConnection != nullptr) {
        ok = g_story.waitFor("server: client disconnected") && ok;
        server.m_pConnection->disconnect();
        delete server.m_pConnection;
    }
    delete listener;
    tarnDeinit();
    g_story.tell(ok ? "demo: done" : "demo: failed");
    return ok ? 0 : 1;
}
