// Child processes for the bridge's tests: any program with its standard output read line by line
// with deadlines (the toolkit's ChildProcess), and the programs the tests run (mosquitto on a port held for
// it, with its own configuration file, `tarn serve`, tarn-bridge, mosquitto_sub, mosquitto_pub).
#ifndef TARN_TESTS_BRIDGE_CHILD_H
#define TARN_TESTS_BRIDGE_CHILD_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "childprocess.h"
#include "testsupport.h"

namespace bridgetest {

// Deadline for anything a test waits for: generous, since sanitizer builds on a small shared
// machine are slow.
const int kWaitMs = 20000;
// A killed EUDP peer is noticed by the keep-alive after about 11 s.
const int kEudpLossMs = 45000;

// A program run by a bridge test, its standard output read line by line.
class Child : public testsupport::ChildProcess {
public:
    // Runs `program` with `args`; standard error goes to `errorFile` when given, else is dropped.
    Child(const std::string& program, const std::vector<std::string>& args,
          const std::string& errorFile = "");

    // Reads lines until one satisfies `match`; the lines passed over go to `skipped` when given.
    bool waitFor(const std::function<bool(const std::string&)>& match, int timeoutMs,
                 std::string* line = nullptr, std::vector<std::string>* skipped = nullptr);
    bool waitForText(const std::string& part, int timeoutMs, std::string* line = nullptr);
};

// A scratch directory removed with everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return m_path; }
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

// True once something accepts TCP connections on 127.0.0.1:port, within `timeoutMs`.
bool waitForListener(std::uint16_t port, int timeoutMs);

// mosquitto on 127.0.0.1 and a port held for it for the broker's lifetime (restarts included),
// without persistence, with its own configuration file.
class Broker {
public:
    explicit Broker(const TempDir& dir, const std::string& extraConfig = "");
    ~Broker();
    bool up() const { return m_bUp; }
    std::uint16_t port() const { return m_port.port(); }
    std::string address() const { return "127.0.0.1:" + std::to_string(port()); }
    // Stops it (SIGTERM) and starts it again on the same port: every retained message is gone.
    bool restart();
    void stop();
    // What mosquitto wrote to its log (standard error) so far.
    std::string log() const;

private:
    bool start();
    std::string m_config;
    std::string m_log;
    testsupport::ReservedTcpPort m_port;
    Child* m_pProcess = nullptr;
    bool m_bUp = false;
};

// `tarn serve` on 127.0.0.1; port 0 picks a free one, read from its first line.
class Serve {
public:
    Serve(const std::string& transport, std::uint16_t port = 0);
    std::uint16_t port() const { return m_port; }
    Child& process() { return m_process; }
    bool send(const std::string& line) { return m_process.send(line); }

private:
    Child m_process;
    std::uint16_t m_port = 0;
};

// mosquitto_sub on the broker printing "RETAIN TOPIC PAYLOAD" lines; ready when it has subscribed.
class Subscriber {
public:
    Subscriber(const Broker& broker, const std::string& filter);
    Child& process() { return m_process; }
    bool waitForLine(const std::string& exact, int timeoutMs = kWaitMs,
                     std::vector<std::string>* skipped = nullptr) {
        return m_process.waitForLine(exact, timeoutMs, skipped);
    }
    // Waits for `topicAndPayload` with either retain flag (for a value that may reach the broker
    // before or after this subscriber); the lines passed over are kept for later waits. On time-out
    // `seen` tells what came instead.
    bool waitForMessage(const std::string& topicAndPayload, std::string& seen, int timeoutMs = kWaitMs);

private:
    Child m_process;
};

// mosquitto_pub of one message; true when it exits 0.
bool publish(const Broker& broker, const std::string& topic, const std::string& payload, bool retain = false);

const char* tarnTool();
const char* bridgeProgram();

}  // namespace bridgetest

#endif  // TARN_TESTS_BRIDGE_CHILD_H
