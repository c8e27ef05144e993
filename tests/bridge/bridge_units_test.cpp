// The bridge's mapping, JSON reading and configuration, without a broker or a device.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>

#include "config.h"
#include "json.h"
#include "mapping.h"

using namespace tarnbridge;

namespace {

// The entries of a list in name order as "name:type=text", from the list's own binary form.
std::string describe(const ParameterList& list) {
    char buffer[kBodyRoom];
    const int size = list.getBinary(buffer, sizeof(buffer));
    ParameterList copy;
    EXPECT_GT(copy.createFromBinary(buffer, size), 0);
    std::string out;
    std::string name;
    std::string value;
    for (unsigned int i = 0; copy.getParam(i, name, value); ++i) {
        out += (out.empty() ? "" : " ") + name + "=" + value;
    }
    return out;
}

std::string callError(const std::string& payload) {
    ParameterList list;
    std::string error;
    EXPECT_FALSE(parseCall("f", payload, list, error)) << payload;
    return error;
}

}  // namespace

TEST(BridgeJson, ReadsEveryKindOfValue) {
    JsonValue value;
    std::string error;
    ASSERT_TRUE(parseJson(R"( {"a":[1,-2.5e3,true,false,null],"b":{"c":"\u00e9\ud83d\ude00\n\"\\\/"}} )",
                          value, error))
        << error;
    ASSERT_EQ(value.kind, JsonValue::Kind::Object);
    const JsonValue* a = value.find("a");
    ASSERT_NE(a, nullptr);
    ASSERT_EQ(a->items.size(), 5u);
    EXPECT_EQ(a->items[0].text, "1");
    EXPECT_EQ(a->items[1].text, "-2.5e3");
    EXPECT_TRUE(a->items[2].boolean);
    EXPECT_EQ(a->items[4].kind, JsonValue::Kind::Null);
    EXPECT_EQ(value.find("b")->find("c")->text, "\xC3\xA9\xF0\x9F\x98\x80\n\"\\/");
    EXPECT_EQ(value.find("x"), nullptr);
}

TEST(BridgeJson, RefusesWhatIsNotJson) {
    JsonValue value;
    std::string error;
    for (const char* text : {"", "{", "{\"a\"}", "{\"a\":1,}", "[1 2]", "01", "1.", "-", "tru", "\"\\x\"",
                             "\"\\ud800\"", "\"a\nb\"", "{} x", "\"\xff\"", "\"\xc0\xaf\""}) {
        EXPECT_FALSE(parseJson(text, value, error)) << text;
        EXPECT_NE(error.find("at byte"), std::string::npos) << error;
    }
    EXPECT_TRUE(parseJson(std::string(32, '[') + std::string(32, ']'), value, error));
    EXPECT_FALSE(parseJson(std::string(40, '[') + std::string(40, ']'), value, error));
    EXPECT_EQ(error, "JSON nested too deeply at byte 33");
}

TEST(BridgeJson, QuotesAndFloats) {
    EXPECT_EQ(jsonQuote("a\"b\\c\n\x01\xC3\xA9\xFF"), "\"a\\\"b\\\\c\\n\\u0001\xC3\xA9\xEF\xBF\xBD\"");
    EXPECT_EQ(floatText(21.5f), "21.5");
    EXPECT_EQ(floatText(0.1f), "0.1");
    EXPECT_EQ(floatText(-0.0f), "-0");
    EXPECT_EQ(floatText(16777216.0f), "16777216");
    EXPECT_EQ(floatText(20.0f), "20");
    EXPECT_EQ(floatText(1500.0f), "1500");
    EXPECT_EQ(floatText(1e16f), "10000000272564224");
    EXPECT_EQ(floatText(1e20f), "1e+20");
    EXPECT_EQ(floatText(1e-5f), "1e-05");
    EXPECT_EQ(floatText(0.0001f), "0.0001");
    EXPECT_EQ(floatText(std::numeric_limits<float>::max()), "3.4028235e+38");
    EXPECT_EQ(floatText(std::numeric_limits<float>::quiet_NaN()), "nan");
    EXPECT_EQ(floatText(-std::numeric_limits<float>::infinity()), "-inf");
}

TEST(BridgeMapping, Topics) {
    EXPECT_EQ(stateTopic("tarn", "lab", "temp"), "tarn/lab/state/temp");
    EXPECT_EQ(triggerTopic("a/b", "lab", "x/y"), "a/b/lab/trigger/x/y");
    EXPECT_EQ(statusTopic("tarn", "lab"), "tarn/lab/status");
    EXPECT_EQ(errorTopic("tarn", "lab"), "tarn/lab/error");
    EXPECT_EQ(callFilter("tarn", "lab"), "tarn/lab/call/#");
    std::string function;
    EXPECT_TRUE(callFunction("tarn", "lab", "tarn/lab/call/set/point", function));
    EXPECT_EQ(function, "set/point");
    EXPECT_FALSE(callFunction("tarn", "lab", "tarn/lab/call/", function));
    EXPECT_FALSE(callFunction("tarn", "lab", "tarn/lab2/call/x", function));
    EXPECT_FALSE(callFunction("tarn", "lab", "tarn/lab/state/x", function));
    EXPECT_TRUE(validLevel("lab-1"));
    EXPECT_FALSE(validLevel("a/b"));
    EXPECT_FALSE(validLevel(""));
    EXPECT_FALSE(validLevel("a+"));
    EXPECT_TRUE(validTail("a/b"));
    EXPECT_FALSE(validTail("a#"));
    EXPECT_FALSE(validTail(std::string("a\0b", 3)));
    EXPECT_TRUE(validRoot("plant/floor1"));
    EXPECT_FALSE(validRoot("/plant"));
    EXPECT_FALSE(validRoot("plant/"));
    EXPECT_FALSE(validRoot("a//b"));
    EXPECT_FALSE(validRoot("$SYS"));
}

TEST(BridgeMapping, Payloads) {
    EXPECT_EQ(jsonPayload(ParameterValue(21.5f)), R"({"type":"float","value":21.5})");
    EXPECT_EQ(jsonPayload(ParameterValue(-3)), R"({"type":"int","value":-3})");
    EXPECT_EQ(jsonPayload(ParameterValue(true)), R"({"type":"bool","value":true})");
    EXPECT_EQ(jsonPayload(ParameterValue(std::string("a\"b"))), R"({"type":"string","value":"a\"b"})");
    EXPECT_EQ(jsonPayload(ParameterValue()), R"({"type":"none","value":null})");
    EXPECT_EQ(jsonPayload(ParameterValue(std::numeric_limits<float>::infinity())),
              R"({"type":"float","value":"inf"})");
    EXPECT_EQ(rawPayload(ParameterValue(21.5f)), "21.5");
    EXPECT_EQ(rawPayload(ParameterValue(-3)), "-3");
    EXPECT_EQ(rawPayload(ParameterValue(false)), "false");
    EXPECT_EQ(rawPayload(ParameterValue(std::string("a b"))), "a b");
    EXPECT_EQ(rawPayload(ParameterValue()), "");
    EXPECT_EQ(errorPayload("t/x", "x", "bad \"y\""), R"({"topic":"t/x","function":"x","error":"bad \"y\""})");
}

TEST(BridgeMapping, CallsInPlainAndTypedForm) {
    ParameterList list;
    std::string error;
    ASSERT_TRUE(parseCall("f", R"({"i":3,"f":1.5,"e":1e2,"b":true,"s":"x"})", list, error)) << error;
    EXPECT_EQ(describe(list), "b=ON e=100 f=1.5 i=3 s=x");
    ASSERT_TRUE(parseCall("f",
                          R"({"i":{"type":"int","value":-2147483648},"f":{"type":"float","value":2},)"
                          R"("b":{"type":"bool","value":false},"s":{"type":"string","value":"7"}})",
                          list, error))
        << error;
    EXPECT_EQ(describe(list), "b=OFF f=2 i=-2147483648 s=7");
    ASSERT_TRUE(parseCall("f", R"({"n":{"type":"float","value":"nan"}})", list, error));
    ASSERT_TRUE(parseCall("f", "{}", list, error));
    EXPECT_EQ(describe(list), "");
}

TEST(BridgeMapping, RefusedCalls) {
    EXPECT_EQ(callError("1"), "a call's payload is a JSON object of parameters");
    EXPECT_EQ(callError(R"({"a":2147483648})"),
              "parameter \"a\": 2147483648 is outside the 32-bit int range");
    EXPECT_EQ(callError(R"({"a":-2147483649})"),
              "parameter \"a\": -2147483649 is outside the 32-bit int range");
    EXPECT_EQ(callError(R"({"a":99999999999999999999999})"),
              "parameter \"a\": 99999999999999999999999 is outside the 32-bit int range");
    EXPECT_EQ(callError(R"({"a":-1e39})"), "parameter \"a\": -1e39 is outside the float range");
    EXPECT_EQ(callError(R"({"a":{"type":"float","value":"NaN"}})"),
              "parameter \"a\": a float needs a JSON number, \"nan\", \"inf\" or \"-inf\"");
    EXPECT_EQ(callError(R"({"a":{"type":"string","value":1}})"),
              "parameter \"a\": a string needs a JSON string");
    EXPECT_EQ(callError(R"({"a":"x\u0000y"})"), "parameter \"a\": a string cannot hold a NUL character");
    EXPECT_EQ(callError(R"({"a":{"type":"int","value":1,"x":2}})"),
              "parameter \"a\": a typed parameter is {\"type\":\"string|int|bool|float\",\"value\":...}");
    EXPECT_EQ(callError(R"({"a\u0000":1})"), "a parameter needs a name without NUL characters");
}

TEST(BridgeMapping, CallSizeFollowsTheEncoder) {
    // Body: the function name and its NUL, then the list: a count byte, each name and NUL, each value.
    // "f" + NUL = 2, count 1, "s" + NUL 2, string: type, text, NUL.
    ParameterList list;
    std::string error;
    const std::size_t fits = kBodyRoom - 2 - 1 - 2 - 2;
    EXPECT_TRUE(parseCall("f", "{\"s\":\"" + std::string(fits, 'x') + "\"}", list, error)) << error;
    EXPECT_FALSE(parseCall("f", "{\"s\":\"" + std::string(fits + 1, 'x') + "\"}", list, error));
    EXPECT_EQ(error, "the call needs 1489 bytes, a TARN message carries at most 1488");
    // A float asks for six bytes of room although it writes five.
    const std::size_t name = kBodyRoom - 2 - 1 - 1 - 6;
    EXPECT_TRUE(parseCall("f", "{\"" + std::string(name, 'n') + "\":1.5}", list, error)) << error;
    EXPECT_FALSE(parseCall("f", "{\"" + std::string(name + 1, 'n') + "\":1.5}", list, error));
}

TEST(BridgeConfig, CommandLine) {
    BridgeConfig config;
    std::string error;
    ASSERT_EQ(parseArguments({"--broker",
                              "[::1]:1884",
                              "--device",
                              "a=eudp://10.0.0.1:6000",
                              "--sub",
                              "x",
                              "y",
                              "x",
                              "--device",
                              "b=host:5",
                              "--sub",
                              "z",
                              "--topic-root",
                              "p/q",
                              "--raw",
                              "--qos",
                              "0",
                              "--json",
                              "--retry-max",
                              "3",
                              "--username",
                              "u",
                              "--password",
                              "",
                              "--keepalive",
                              "60"},
                             config, error),
              ParseResult::Run)
        << error;
    EXPECT_EQ(config.broker.host, "::1");
    EXPECT_EQ(config.broker.port, 1884);
    ASSERT_EQ(config.devices.size(), 2u);
    EXPECT_EQ(config.devices[0].transport, eTransportEUDP);
    EXPECT_EQ(config.devices[0].host, "10.0.0.1");
    EXPECT_EQ(config.devices[0].port, 6000);
    EXPECT_EQ(config.devices[0].subscriptions, (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(config.devices[1].transport, eTransportTCP);
    EXPECT_EQ(config.devices[1].subscriptions, (std::vector<std::string>{"z"}));
    EXPECT_EQ(config.root, "p/q");
    EXPECT_TRUE(config.raw);
    EXPECT_TRUE(config.json);
    EXPECT_EQ(config.qos, 0);
    EXPECT_EQ(config.retryMaxMs, 3000);
    EXPECT_TRUE(config.broker.hasPassword);
    EXPECT_EQ(config.broker.keepAliveSeconds, 60);
}

TEST(BridgeConfig, RefusedArguments) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no --device given"},
        {{"--device", "x=127.0.0.1:99999"}, "not a port number in '127.0.0.1:99999'"},
        {{"--device", "x=::1:5"}, "'::1:5': write an IPv6 address as [ADDRESS]:PORT"},
        {{"--device", "x=udp://h:5"}, "unknown transport in 'x=udp://h:5' (tcp:// or eudp://)"},
        {{"--sub", "a"}, "--sub and --sub-file follow the --device they belong to"},
        {{"--device", "x=h:5", "--broker"}, "--broker needs a value"},
        {{"--device", "x=h:5", "--cert", "c"}, "--cert and --key go together"},
        {{"--device", "x=h:5", "--name", "x"}, "device 'x' has the bridge's own name (see --name)"},
        {{"--device", "x=h:5", "--log-level", "loud"},
         "unknown log level 'loud' (none, error, warning, info or debug)"},
        {{"--device", "x=h:5", "stray"}, "unknown option 'stray'"},
    };
    for (const auto& entry : cases) {
        BridgeConfig config;
        std::string error;
        EXPECT_EQ(parseArguments(entry.first, config, error), ParseResult::Error);
        EXPECT_EQ(error, entry.second);
    }
}

TEST(BridgeConfig, FileLinesAreOptions) {
    const std::string path = ::testing::TempDir() + "bridge-config-test.conf";
    std::ofstream(path)
        << "# comment\n\nbroker 127.0.0.1:2000\n  device lab=tcp://127.0.0.1:5555\nsub a b\njson\n";
    BridgeConfig config;
    std::string error;
    ASSERT_EQ(parseArguments({"--config", path, "--sub", "c"}, config, error), ParseResult::Run) << error;
    EXPECT_EQ(config.broker.port, 2000);
    ASSERT_EQ(config.devices.size(), 1u);
    EXPECT_EQ(config.devices[0].subscriptions, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(config.json);
    std::ofstream(path) << "config " << path << "\n";
    EXPECT_EQ(parseArguments({"--config", path}, config, error), ParseResult::Error);
    EXPECT_EQ(error, "configuration files include each other too deeply");
}
