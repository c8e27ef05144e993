// tarn-bridge run as a user runs it: a real mosquitto on a free port, `tarn serve` processes as
// the devices, and mosquitto_sub / mosquitto_pub as the MQTT clients that watch and drive them.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "child.h"

using namespace bridgetest;

namespace {

std::string typed(const std::string& type, const std::string& value) {
    return "{\"type\":\"" + type + "\",\"value\":" + value + "}";
}

// How the bridge is started: tarn-bridge itself, or `tarn bridge`, which runs it in its place.
enum class Launch { Direct, ThroughTool };

// tarn-bridge with --json against the broker, with the given devices and options.
class BridgeProcess {
public:
    BridgeProcess(const Broker& broker, std::vector<std::string> args, Launch launch = Launch::Direct)
        : m_process(launch == Launch::Direct ? bridgeProgram() : tarnTool(),
                    withBroker(broker, args, launch)) {}

    Child& process() { return m_process; }
    // Waits for a log line holding `part`; lines already read count too, once each, since the
    // bridge's threads log in any order.
    bool waitForLog(const std::string& part, int timeoutMs = kWaitMs) {
        for (auto it = m_seen.begin(); it != m_seen.end(); ++it) {
            if (it->find(part) != std::string::npos) {
                m_seen.erase(it);
                return true;
            }
        }
        std::vector<std::string> skipped;
        const bool found =
            m_process.waitFor([&](const std::string& line) { return line.find(part) != std::string::npos; },
                              timeoutMs, nullptr, &skipped);
        m_seen.insert(m_seen.end(), skipped.begin(), skipped.end());
        return found;
    }
    bool waitForDevice(const std::string& device, const std::string& state, int timeoutMs = kWaitMs) {
        return waitForLog("\"event\":\"device\",\"device\":\"" + device + "\",\"state\":\"" + state + "\"",
                          timeoutMs);
    }
    bool waitForBroker(const std::string& state, int timeoutMs = kWaitMs) {
        return waitForLog("\"event\":\"broker\",\"state\":\"" + state + "\"", timeoutMs);
    }
    // Drops the lines read so far, so that only what comes next is waited for.
    void forget() { m_seen.clear(); }
    // Sends the signal and returns the exit status.
    int stop(int number) {
        m_process.signal(number);
        return m_process.wait(kWaitMs);
    }

private:
    static std::vector<std::string> withBroker(const Broker& broker, std::vector<std::string> args,
                                               Launch launch) {
        args.insert(args.begin(), {"--broker", broker.address(), "--json"});
        if (launch == Launch::ThroughTool) {
            args.insert(args.begin(), "bridge");
        }
        return args;
    }
    Child m_process;
    std::vector<std::string> m_seen;
};

std::string deviceArg(const std::string& name, const std::string& transport, const Serve& serve) {
    return name + "=" + transport + "://127.0.0.1:" + std::to_string(serve.port());
}

class BridgeTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(m_dir.path().empty());
        ASSERT_TRUE(m_broker.up()) << m_broker.log();
    }
    TempDir m_dir;
    Broker m_broker{m_dir};
};

}  // namespace

TEST_F(BridgeTest, StatesAreRetainedAndUpdated) {
    Serve serve("tcp");
    ASSERT_NE(serve.port(), 0);
    serve.send("set temp:f=21.5");
    serve.send("set label=\"hall 1\"");
    serve.send("set count:i=-4");
    serve.send("set on:b=on");
    BridgeProcess bridge(m_broker, {"--device", deviceArg("lab", "tcp", serve), "--sub", "temp", "label",
                                    "count", "on", "missing"});
    ASSERT_TRUE(bridge.waitForBroker("connected"));
    ASSERT_TRUE(bridge.waitForDevice("lab", "online"));
    ASSERT_TRUE(serve.process().waitForLine("[1] subscribe on", kWaitMs));

    // A subscriber that comes later finds every state, retained, with its type.
    Subscriber late(m_broker, "tarn/lab/#");
    const std::vector<std::pair<std::string, std::string>> states = {{"temp", typed("float", "21.5")},
                                                                     {"label", typed("string", "\"hall 1\"")},
                                                                     {"count", typed("int", "-4")},
                                                                     {"on", typed("bool", "true")}};
    for (const auto& state : states) {
        std::string seen;
        EXPECT_TRUE(late.waitForMessage("tarn/lab/state/" + state.first + " " + state.second, seen)) << seen;
        Subscriber one(m_broker, "tarn/lab/state/" + state.first);
        EXPECT_TRUE(one.waitForLine("1 tarn/lab/state/" + state.first + " " + state.second)) << state.first;
    }
    Subscriber status(m_broker, "tarn/+/status");
    std::vector<std::string> skipped;
    EXPECT_TRUE(status.waitForLine("1 tarn/lab/status online", kWaitMs, &skipped));

    // An update reaches the live subscriber at once and replaces the retained value.
    serve.send("set temp:f=22.25");
    EXPECT_TRUE(late.waitForLine("0 tarn/lab/state/temp " + typed("float", "22.25")));
    Subscriber again(m_broker, "tarn/lab/state/temp");
    EXPECT_TRUE(again.waitForLine("1 tarn/lab/state/temp " + typed("float", "22.25")));
    // A state the device never set is never published.
    serve.send("set marker:i=1");
    serve.send("set missing:i=7");
    EXPECT_TRUE(late.waitForLine("0 tarn/lab/state/missing " + typed("int", "7"), kWaitMs, &skipped));
    for (const std::string& line : skipped) {
        EXPECT_EQ(line.find("marker"), std::string::npos) << line;  // not subscribed
    }
    EXPECT_EQ(bridge.stop(SIGTERM), 0);
}

TEST_F(BridgeTest, TriggersArePublishedAndNotRetained) {
    Serve serve("tcp");
    BridgeProcess bridge(m_broker, {"--device", deviceArg("lab", "tcp", serve), "--sub", "temp", "alarm",
                                    "door", "level", "armed"});
    ASSERT_TRUE(bridge.waitForBroker("connected"));
    ASSERT_TRUE(bridge.waitForDevice("lab", "online"));
    ASSERT_TRUE(serve.process().waitForLine("[1] subscribe armed", kWaitMs));
    Subscriber live(m_broker, "tarn/lab/trigger/#");
    serve.send("trigger alarm:i=3");
    serve.send("trigger door=open");
    serve.send("trigger level:f=0.1");
    serve.send("trigger armed:b=off");
    EXPECT_TRUE(live.waitForLine("0 tarn/lab/trigger/alarm " + typed("int", "3")));
    EXPECT_TRUE(live.waitForLine("0 tarn/lab/trigger/door " + typed("string", "\"open\"")));
    EXPECT_TRUE(live.waitForLine("0 tarn/lab/trigger/level " + typed("float", "0.1")));
    EXPECT_TRUE(live.waitForLine("0 tarn/lab/trigger/armed " + typed("bool", "false")));

    // A later subscriber gets nothing retained: the first message it sees is a new state update.
    Subscriber later(m_broker, "tarn/lab/#");
    serve.send("set temp:i=5");
    std::vector<std::string> skipped;
    EXPECT_TRUE(later.waitForLine("0 tarn/lab/state/temp " + typed("int", "5"), kWaitMs, &skipped));
    for (const std::string& line : skipped) {
        EXPECT_EQ(line.find("trigger"), std::string::npos) << line;
    }
    EXPECT_EQ(bridge.stop(SIGINT), 0);
}

TEST_F(BridgeTest, RawValuesFromAConfigurationFile) {
    Serve serve("tcp");
    const std::string names = m_dir.write("names.txt", "# states of the rig\ntemp\nlabel\n\ncount\non\n");
    const std::string config = m_dir.write(
        "bridge.conf",
        "# a bridge\nbroker " + m_broker.address() + "\ntopic-root plant/floor1\nraw\ndevice rig=" +
            std::to_string(serve.port()).insert(0, "127.0.0.1:") + "\nsub-file " + names + "\n");
    serve.send("set temp:f=1e+20");
    serve.send("set label=\"a b\"");
    serve.send("set count:i=2147483647");
    serve.send("set on:b=off");
    Child bridge(bridgeProgram(), {"--config", config, "--json"});
    ASSERT_TRUE(bridge.waitForText("\"state\":\"online\"", kWaitMs));
    Subscriber states(m_broker, "plant/floor1/rig/state/#");
    const std::vector<std::string> expected = {
        "plant/floor1/rig/state/temp 1e+20", "plant/floor1/rig/state/label a b",
        "plant/floor1/rig/state/count 2147483647", "plant/floor1/rig/state/on false"};
    for (const std::string& message : expected) {
        std::string seen;
        EXPECT_TRUE(states.waitForMessage(message, seen)) << message << "\n" << seen;
    }
    // Every one of them is retained.
    Subscriber later(m_broker, "plant/floor1/rig/state/#");
    for (const std::string& message : expected) {
        std::vector<std::string> skipped;
        EXPECT_TRUE(later.waitForLine("1 " + message, kWaitMs, &skipped)) << message;
        later.process().putBack(skipped);
    }
    bridge.signal(SIGTERM);
    EXPECT_EQ(bridge.wait(kWaitMs), 0);
}

TEST_F(BridgeTest, CallsCarryEveryValueType) {
    Serve serve("tcp");
    BridgeProcess bridge(m_broker, {"--device", deviceArg("lab", "tcp", serve)});
    ASSERT_TRUE(bridge.waitForBroker("connected"));
    ASSERT_TRUE(bridge.waitForDevice("lab", "online"));
    ASSERT_TRUE(serve.process().waitForText("connected", kWaitMs));

    ASSERT_TRUE(
        publish(m_broker, "tarn/lab/call/setpoint", R"({"level":3,"gain":1.5,"on":true,"mode":"eco"})"));
    EXPECT_TRUE(
        serve.process().waitForLine("[1] call setpoint gain:f=1.5 level:i=3 mode=\"eco\" on:b=on", kWaitMs));
    ASSERT_TRUE(
        publish(m_broker, "tarn/lab/call/typed",
                R"({"a":{"type":"string","value":"x \"y\"\u00e9"},"b":{"type":"int","value":-2147483648},)"
                R"("c":{"type":"bool","value":false},"d":{"type":"float","value":-0.25},)"
                R"("e":{"type":"float","value":"inf"},"f":{"type":"float","value":7}})"));
    EXPECT_TRUE(serve.process().waitForLine(
        "[1] call typed a=\"x \\\"y\\\"\xC3\xA9\" b:i=-2147483648 c:b=off d:f=-0.25 e:f=inf f:f=7", kWaitMs));
    ASSERT_TRUE(publish(m_broker, "tarn/lab/call/ping", "{}"));
    EXPECT_TRUE(serve.process().waitForLine("[1] call ping", kWaitMs));
    ASSERT_TRUE(publish(m_broker, "tarn/lab/call/a/b", "{\"x\":1}"));
    EXPECT_TRUE(serve.process().waitForLine("[1] call a/b x:i=1", kWaitMs));
    EXPECT_EQ(bridge.stop(SIGTERM), 0);
}

TEST_F(BridgeTest, MalformedCallsAreAnsweredAndNeverReachTheDevice) {
    Serve serve("tcp");
    BridgeProcess bridge(m_broker, {"--device", deviceArg("lab", "tcp", serve)});
    ASSERT_TRUE(bridge.waitForBroker("connected"));
    ASSERT_TRUE(bridge.waitForDevice("lab", "online"));
    ASSERT_TRUE(serve.process().waitForText("connected", kWaitMs));
    Subscriber errors(m_broker, "tarn/lab/error");

    const std::string big(1500, 'x');
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{\"level\":3", "not JSON: ',' or '}' expected at byte 10"},
        {"", "not JSON: JSON ends early at byte 0"},
        {"[1,2]", "a call's payload is a JSON object of parameters"},
        {"{\"a\":null}",
         "parameter \"a\": a parameter is a string, number, true, false or a typed object, not null or an "
         "array"},
        {"{\"a\":[1]}",
         "parameter \"a\": a parameter is a string, number, true, false or a typed object, not null or an "
         "array"},
        {"{\"a\":2147483648}", "parameter \"a\": 2147483648 is outside the 32-bit int range"},
        {"{\"a\":1e39}", "parameter \"a\": 1e39 is outside the float range"},
        {"{\"a\":{\"type\":\"int\",\"value\":1.5}}", "parameter \"a\": an int needs a whole JSON number"},
        {"{\"a\":{\"type\":\"double\",\"value\":1}}",
         "parameter \"a\": unknown type \"double\" (string, int, bool or float)"},
        {"{\"a\":{\"type\":\"bool\",\"value\":1}}", "parameter \"a\": a bool needs true or false"},
        {"{\"a\":{\"type\":\"string\"}}",
         "parameter \"a\": a typed parameter is {\"type\":\"string|int|bool|float\",\"value\":...}"},
        {"{\"a\":1,\"a\":2}", "parameter \"a\" is given twice"},
        {"{\"\":1}", "a parameter needs a name without NUL characters"},
        {"{\"a\":\"" + big + "\"}", "the call needs 1514 bytes, a TARN message carries at most 1488"},
    };
    for (const auto& entry : cases) {
        ASSERT_TRUE(publish(m_broker, "tarn/lab/call/setpoint", entry.first));
        std::string expected =
            "0 tarn/lab/error {\"topic\":\"tarn/lab/call/setpoint\",\"function\":\"setpoint\",\"error\":\"";
        for (const char c : entry.second) {
            expected += c == '"' ? std::string("\\\"") : std::string(1, c);
        }
        EXPECT_TRUE(errors.waitForLine(expected + "\"}")) << entry.first.substr(0, 40);
    }
    // A retained call would be made again by every reconnect: refused, and cleared afterwards.
    ASSERT_TRUE(publish(m_broker, "tarn/lab/call/setpoint", "{}", true));
    EXPECT_TRUE(
        errors.waitForLine("0 tarn/lab/error {\"topic\":\"tarn/lab/call/setpoint\",\"function\":\"setpoint\","
                           "\"error\":\"a retained call is not made; publish calls without retain\"}"));
    ASSERT_TRUE(publish(m_broker, "tarn/lab/call/setpoint", "", true));

    // None of them reached the device: the next thing it hears is this call.
    ASSERT_TRUE(publish(m_broker, "tarn/lab/call/marker", "{}"));
    std::string line;
    ASSERT_TRUE(serve.process().waitFor(
        [](const std::string& l) { return l.find("call") != std::string::npos; }, kWaitMs, &line));
    EXPECT_EQ(line, "[1] call marker");
    EXPECT_EQ(bridge.stop(SIGTERM), 0);
}

TEST_F(BridgeTest, CallToAnOfflineDeviceIsAnswered) {
    const testsupport::ClosedTcpPort closed;
    BridgeProcess bridge(m_broker, {"--device", "gone=127.0.0.1:" + std::to_string(closed.port())});
    ASSERT_TRUE(bridge.waitForBroker("connected"));
    ASSERT_TRUE(bridge.waitForDevice("gone", "retry"));
    Subscriber watcher(m_broker, "tarn/gone/#");
    std::string seen;
    EXPECT_TRUE(watcher.waitForMessage("tarn/gone/status offline", seen));
    ASSERT_TRUE(publish(m_broker, "tarn/gone/call/go", "{}"));
    EXPECT_TRUE(watcher.waitForLine(
        "0 tarn/gone/error {\"topic\":\"tarn/gone/call/go\",\"function\":\"go\",\"error\":\"device gone is "
        "offline\"}"));
    EXPECT_EQ(bridge.stop(SIGTERM), 0);
}

class BridgeDeviceRestart : public BridgeTest, public ::testing::WithParamInterface<const char*> {};

// Keeps a stopped device's port from the other sockets of the machine until the device starts
// again on it: a TCP port by a socket that never listens (the device binds beside it), a UDP port by
// a bound socket that is given up just before the device binds.
class DevicePortHold {
public:
    DevicePortHold(const std::string& transport, std::uint16_t port)
        : m_transport(transport), m_port(port), m_tcp(port), m_udp(port) {
        if (transport == "tcp") {
            m_udp.release();
        }
    }
    bool held() const { return m_transport == "tcp" ? m_tcp.port() == m_port : m_udp.held(); }

    // `tarn serve` on the port again. Another socket may take the UDP port in the moment between
    // the hold's end and the device's bind; the device is then started again until the deadline.
    std::unique_ptr<Serve> restart() {
        std::unique_ptr<Serve> serve;
        testsupport::waitUntil(
            [&] {
                m_udp.release();
                serve.reset(new Serve(m_transport, m_port));
                return serve->port() == m_port;
            },
            kWaitMs);
        return serve;
    }

private:
    std::string m_transport;
    std::uint16_t m_port;
    testsupport::ReservedTcpPort m_tcp;
    testsupport::HeldUdpPort m_udp;
};

TEST_P(BridgeDeviceRestart, OfflineThenOnlineWithItsStatesAgain) {
    const std::string transport = GetParam();
    const int lossMs = transport == "eudp" ? kEudpLossMs : kWaitMs;
    auto* serve = new Serve(transport);
    const std::uint16_t port = serve->port();
    ASSERT_NE(port, 0);
    serve->send("set temp:f=20");
    BridgeProcess bridge(m_broker, {"--device", "dev=" + transport + "://127.0.0.1:" + std::to_string(port),
                                    "--sub", "temp", "--retry-max", "1"});
    ASSERT_TRUE(bridge.waitForDevice("dev", "online"));
    Subscriber watcher(m_broker, "tarn/dev/#");
    std::string seen;
    EXPECT_TRUE(watcher.waitForMessage("tarn/dev/state/temp " + typed("float", "20"), seen)) << seen;
    serve->send("set temp:f=21");
    EXPECT_TRUE(watcher.waitForLine("0 tarn/dev/state/temp " + typed("float", "21")));

    serve->process().signal(SIGKILL);
    delete serve;
    DevicePortHold hold(transport, port);
    ASSERT_TRUE(hold.held());
    EXPECT_TRUE(watcher.waitForLine("0 tarn/dev/status offline", lossMs));
    EXPECT_TRUE(bridge.waitForDevice("dev", "offline", lossMs));
    // The last value stays retained while the device is away.
    {
        Subscriber meanwhile(m_broker, "tarn/dev/state/temp");
        EXPECT_TRUE(meanwhile.waitForLine("1 tarn/dev/state/temp " + typed("float", "21")));
    }

    const std::unique_ptr<Serve> again = hold.restart();
    ASSERT_EQ(again->port(), port);
    again->send("set temp:f=30");
    EXPECT_TRUE(watcher.waitForMessage("tarn/dev/status online", seen)) << seen;
    EXPECT_TRUE(again->process().waitForLine("[1] subscribe temp", kWaitMs));
    EXPECT_TRUE(watcher.waitForMessage("tarn/dev/state/temp " + typed("float", "30"), seen)) << seen;
    EXPECT_EQ(bridge.stop(SIGTERM), 0);
}

INSTANTIATE_TEST_SUITE_P(Transports, BridgeDeviceRestart, ::testing::Values("tcp", "eudp"));

TEST_F(BridgeTest, BrokerRestartGetsEveryStateAgain) {
    Serve tcp("tcp");
    Serve eudp("eudp");
    tcp.send("set temp:f=19.5");
    eudp.send("set level:i=8");
    BridgeProcess bridge(m_broker, {"--device", deviceArg("a", "tcp", tcp), "--sub", "temp", "--device",
                                    deviceArg("b", "eudp", eudp), "--sub", "level"});
    ASSERT_TRUE(bridge.waitForDevice("a", "online"));
    ASSERT_TRUE(eudp.process().waitForLine("[1] subscribe level", kWaitMs));
    {
        Subscriber first(m_broker, "tarn/b/state/level");
        std::string seen;
        ASSERT_TRUE(first.waitForMessage("tarn/b/state/level " + typed("int", "8"), seen));
    }

    bridge.forget();
    ASSERT_TRUE(m_broker.restart());  // no persistence: every retained message is gone
    EXPECT_TRUE(bridge.waitForBroker("lost"));
    EXPECT_TRUE(bridge.waitForBroker("connected"));
    Subscriber after(m_broker, "tarn/#");
    for (const std::string& expected : std::vector<std::string>{
             "tarn/bridge/status online", "tarn/a/status online", "tarn/b/status online",
             "tarn/a/state/temp " + typed("float", "19.5"), "tarn/b/state/level " + typed("int", "8")}) {
        std::string seen;
        EXPECT_TRUE(after.waitForMessage(expected, seen)) << expected << "\n" << seen;
    }
    // Calls flow again through the new connection.
    ASSERT_TRUE(publish(m_broker, "tarn/b/call/go", "{\"n\":1}"));
    EXPECT_TRUE(eudp.process().waitForLine("[1] call go n:i=1", kWaitMs));
    EXPECT_EQ(bridge.stop(SIGTERM), 0);
}

TEST_F(BridgeTest, BrokerStartedAfterTheBridge) {
    Serve serve("tcp");
    serve.send("set temp:i=1");
    TempDir other;
    Broker late(other);
    const std::uint16_t port = late.port();
    late.stop();
    Child bridge(bridgeProgram(), {"--broker", "127.0.0.1:" + std::to_string(port), "--json", "--device",
                                   deviceArg("lab", "tcp", serve), "--sub", "temp"});
    EXPECT_TRUE(bridge.waitForText("\"event\":\"broker\",\"state\":\"retry\"", kWaitMs));
    ASSERT_TRUE(late.restart());
    EXPECT_TRUE(bridge.waitForText("\"event\":\"broker\",\"state\":\"connected\"", kWaitMs));
    Subscriber watcher(late, "tarn/lab/state/temp");
    std::string seen;
    EXPECT_TRUE(watcher.waitForMessage("tarn/lab/state/temp " + typed("int", "1"), seen));
    bridge.signal(SIGTERM);
    EXPECT_EQ(bridge.wait(kWaitMs), 0);
}

TEST_F(BridgeTest, LastWillWhenTheBridgeDies) {
    Serve serve("tcp");
    BridgeProcess bridge(m_broker, {"--device", deviceArg("lab", "tcp", serve), "--name", "gw1"});
    ASSERT_TRUE(bridge.waitForBroker("connected"));
    Subscriber watcher(m_broker, "tarn/gw1/status");
    std::string seen;
    EXPECT_TRUE(watcher.waitForMessage("tarn/gw1/status online", seen));
    EXPECT_EQ(bridge.stop(SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(watcher.waitForLine("0 tarn/gw1/status offline"));
}

// Each stopping signal, sent to tarn-bridge itself and to `tarn bridge`.
class BridgeCleanStop : public BridgeTest, public ::testing::WithParamInterface<std::tuple<int, Launch>> {};

TEST_P(BridgeCleanStop, PublishesOfflineForEveryDeviceAndItself) {
    Serve one("tcp");
    Serve two("eudp");
    BridgeProcess bridge(
        m_broker, {"--device", deviceArg("one", "tcp", one), "--device", deviceArg("two", "eudp", two)},
        std::get<1>(GetParam()));
    ASSERT_TRUE(bridge.waitForBroker("connected"));
    ASSERT_TRUE(bridge.waitForDevice("one", "online"));
    ASSERT_TRUE(bridge.waitForDevice("two", "online"));
    Subscriber watcher(m_broker, "tarn/+/status");
    EXPECT_EQ(bridge.stop(std::get<0>(GetParam())), 0);
    EXPECT_TRUE(bridge.waitForLog("\"event\":\"stopped\""));
    // Retained, so a subscriber that comes afterwards sees the bridge and both devices offline.
    Subscriber after(m_broker, "tarn/+/status");
    for (const char* expected :
         {"1 tarn/bridge/status offline", "1 tarn/one/status offline", "1 tarn/two/status offline"}) {
        std::vector<std::string> skipped;
        EXPECT_TRUE(after.waitForLine(expected, kWaitMs, &skipped)) << expected;
        after.process().putBack(skipped);
    }
    // A clean stop leaves no last will behind.
    std::vector<std::string> seen;
    EXPECT_TRUE(watcher.waitForLine("0 tarn/bridge/status offline", kWaitMs, &seen));
    publish(m_broker, "tarn/bridge/status", "marker");
    std::string line;
    EXPECT_TRUE(watcher.process().waitFor(
        [](const std::string& l) { return l.find("tarn/bridge/status") != std::string::npos; }, kWaitMs,
        &line));
    EXPECT_EQ(line, "0 tarn/bridge/status marker");
}

INSTANTIATE_TEST_SUITE_P(Signals, BridgeCleanStop,
                         ::testing::Combine(::testing::Values(SIGINT, SIGTERM),
                                            ::testing::Values(Launch::Direct, Launch::ThroughTool)),
                         [](const ::testing::TestParamInfo<std::tuple<int, Launch>>& param) {
                             return std::string(std::get<0>(param.param) == SIGINT ? "Sigint" : "Sigterm") +
                                    (std::get<1>(param.param) == Launch::Direct ? "Direct" : "ThroughTool");
                         });

// `tarn bridge` runs the same bridge: states mapped and updated, a call from MQTT reaching the
// device, and a clean stop on SIGTERM with exit status 0.
TEST_F(BridgeTest, ThroughTheToolStatesCallsAndAStop) {
    Serve serve("eudp");
    serve.send("set temp:f=21.5");
    BridgeProcess bridge(m_broker, {"--device", deviceArg("lab", "eudp", serve), "--sub", "temp"},
                         Launch::ThroughTool);
    ASSERT_TRUE(bridge.waitForLog("\"event\":\"started\""));
    ASSERT_TRUE(bridge.waitForBroker("connected"));
    ASSERT_TRUE(bridge.waitForDevice("lab", "online"));
    ASSERT_TRUE(serve.process().waitForLine("[1] subscribe temp", kWaitMs));
    Subscriber watcher(m_broker, "tarn/lab/#");
    std::string seen;
    EXPECT_TRUE(watcher.waitForMessage("tarn/lab/state/temp " + typed("float", "21.5"), seen)) << seen;
    serve.send("set temp:f=22.25");
    EXPECT_TRUE(watcher.waitForLine("0 tarn/lab/state/temp " + typed("float", "22.25")));
    ASSERT_TRUE(publish(m_broker, "tarn/lab/call/setpoint", R"({"level":3})"));
    EXPECT_TRUE(serve.process().waitForLine("[1] call setpoint level:i=3", kWaitMs));
    EXPECT_TRUE(bridge.waitForLog("\"event\":\"call\",\"device\":\"lab\""));

    EXPECT_EQ(bridge.stop(SIGTERM), 0);
    EXPECT_TRUE(bridge.waitForLog("\"event\":\"stopped\""));
    Subscriber after(m_broker, "tarn/+/status");
    for (const char* expected : {"1 tarn/bridge/status offline", "1 tarn/lab/status offline"}) {
        std::vector<std::string> skipped;
        EXPECT_TRUE(after.waitForLine(expected, kWaitMs, &skipped)) << expected;
        after.process().putBack(skipped);
    }
    Subscriber retained(m_broker, "tarn/lab/state/temp");
    EXPECT_TRUE(retained.waitForLine("1 tarn/lab/state/temp " + typed("float", "22.25")));
}

// The bridge's own exit statuses and errors come through `tarn bridge` unchanged.
TEST(BridgeThroughTool, UsageErrorIsTheBridgesOwn) {
    TempDir dir;
    const std::string errors = dir.path() + "/stderr";
    Child bridge(tarnTool(), {"bridge", "--device", "lab"}, errors);
    EXPECT_EQ(bridge.wait(kWaitMs), 2);
    std::ifstream in(errors);
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "tarn-bridge: --device takes NAME=[tcp://|eudp://]HOST:PORT, not 'lab'");
}

TEST(BridgeUsage, RefusesBadArguments) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"--device", "lab"},
        {"--device", "lab=udp://127.0.0.1:1"},
        {"--device", "a/b=127.0.0.1:1"},
        {"--device", "lab=127.0.0.1:0"},
        {"--sub", "temp"},
        {"--device", "lab=127.0.0.1:1", "--sub"},
        {"--device", "lab=127.0.0.1:1", "--sub", "a#"},
        {"--device", "lab=127.0.0.1:1", "--qos", "3"},
        {"--device", "bridge=127.0.0.1:1"},
        {"--device", "lab=127.0.0.1:1", "--device", "lab=127.0.0.1:2"},
        {"--device", "lab=127.0.0.1:1", "--topic-root", "a/+"},
        {"--device", "lab=127.0.0.1:1", "--frobnicate"},
        {"--config", "/nonexistent/bridge.conf"},
    };
    for (const auto& args : cases) {
        Child bridge(bridgeProgram(), args);
        EXPECT_EQ(bridge.wait(kWaitMs), 2) << (args.empty() ? "" : args.back());
    }
    Child help(bridgeProgram(), {"--help"});
    std::string line;
    EXPECT_TRUE(help.nextLine(line, kWaitMs));
    EXPECT_EQ(line.rfind("usage: tarn-bridge", 0), 0u) << line;
    EXPECT_EQ(help.wait(kWaitMs), 0);
}

TEST(BridgeLogin, RefusedPasswordEndsWithStatusThree) {
    TempDir dir;
    // mosquitto_passwd writes a hashed password file: user "ops", password "right".
    const std::string passwords = dir.write("passwd", "");
    Child make(MOSQUITTO_PASSWD_PATH, {"-b", passwords, "ops", "right"});
    ASSERT_EQ(make.wait(kWaitMs), 0);
    Broker broker(dir, "allow_anonymous false\npassword_file " + passwords + "\n");
    ASSERT_TRUE(broker.up()) << broker.log();
    Serve serve("tcp");
    const std::string device = "lab=127.0.0.1:" + std::to_string(serve.port());
    {
        Child wrong(bridgeProgram(), {"--broker", broker.address(), "--json", "--device", device,
                                      "--username", "ops", "--password", "wrong"});
        EXPECT_TRUE(wrong.waitForText("\"state\":\"refused\"", kWaitMs));
        EXPECT_EQ(wrong.wait(kWaitMs), 3);
    }
    Child right(bridgeProgram(), {"--broker", broker.address(), "--json", "--device", device, "--username",
                                  "ops", "--password", "right"});
    EXPECT_TRUE(right.waitForText("\"event\":\"broker\",\"state\":\"connected\"", kWaitMs));
    right.signal(SIGTERM);
    EXPECT_EQ(right.wait(kWaitMs), 0);
}
