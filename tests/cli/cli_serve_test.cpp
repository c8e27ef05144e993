// tarn serve driven through its standard input, with tarn sub and tarn call against it, over TCP
// and over EUDP.
#include <gtest/gtest.h>

#include <csignal>

#include "process.h"
#include "testsupport.h"

using namespace clitest;
using testsupport::startsWith;

namespace {

class CliServe : public ::testing::TestWithParam<std::string> {
protected:
    std::string transport() const { return GetParam(); }
    std::string flag() const { return "--" + GetParam(); }

    // A tarn sub against `serve` with further arguments.
    std::vector<std::string> subArgs(ServeProcess& serve, const std::vector<std::string>& rest) {
        std::vector<std::string> args = {"sub", flag(), "127.0.0.1", serve.portText()};
        args.insert(args.end(), rest.begin(), rest.end());
        return args;
    }
    std::vector<std::string> callArgs(ServeProcess& serve, const std::vector<std::string>& rest) {
        std::vector<std::string> args = {"call", flag(), "127.0.0.1", serve.portText()};
        args.insert(args.end(), rest.begin(), rest.end());
        return args;
    }
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Transports, CliServe, ::testing::Values("tcp", "eudp"),
                         [](const ::testing::TestParamInfo<std::string>& param) { return param.param; });

TEST_P(CliServe, FirstLineNamesThePort) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0) << serve.firstLine();
    EXPECT_EQ(serve.firstLine(), "listening on " + transport() + " 127.0.0.1:" + serve.portText());
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, NewSubscriberGetsTheStateAtOnceThenEachUpdate) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    serve.send("set temp:f=21.5");
    EXPECT_EQ(serve.next(), "set temp:f=21.5 (sent to 0)");

    ToolProcess sub(subArgs(serve, {"temp", "--count", "2"}));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected 127.0.0.1:"));
    EXPECT_EQ(serve.next(), "[1] subscribe temp");
    EXPECT_EQ(serve.next(), "[1] sent update temp:f=21.5");
    std::string line;
    ASSERT_TRUE(sub.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "update temp:f=21.5");

    serve.send("set temp:f=22.5");
    EXPECT_EQ(serve.next(), "set temp:f=22.5 (sent to 1)");
    ASSERT_TRUE(sub.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "update temp:f=22.5");
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(), "");
    EXPECT_EQ(sub.restOfErrors(), "ready: subscriptions sent for temp\n");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    EXPECT_EQ(serve.quit(), 0);
    EXPECT_EQ(serve.process().restOfErrors(), "");
}

TEST_P(CliServe, TriggersGoToSubscribersOfTheNameOnly) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess alarm(subArgs(serve, {"alarm", "--count", "1"}));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] subscribe alarm");
    ToolProcess other(subArgs(serve, {"other", "--count", "1"}));
    EXPECT_TRUE(startsWith(serve.next(), "[2] connected "));
    EXPECT_EQ(serve.next(), "[2] subscribe other");

    serve.send("trigger alarm :b=on");
    EXPECT_EQ(serve.next(), "trigger alarm:b=on (sent to 1)");
    EXPECT_EQ(alarm.wait(kWaitMs), 0);
    EXPECT_EQ(alarm.restOfOutput(), "trigger alarm:b=on\n");
    EXPECT_EQ(serve.next(), "[1] disconnected");

    serve.send("trigger other:i=7");
    EXPECT_EQ(serve.next(), "trigger other:i=7 (sent to 1)");
    EXPECT_EQ(other.wait(kWaitMs), 0);
    EXPECT_EQ(other.restOfOutput(), "trigger other:i=7\n");  // nothing of alarm
    EXPECT_EQ(serve.next(), "[2] disconnected");
    // Triggers are not states: nothing was stored.
    serve.send("list");
    EXPECT_EQ(serve.next(), "list 0 states, 0 connections");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, EverySubscriberOfANameGetsTheUpdate) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess first(subArgs(serve, {"x", "--count", "1"}));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] subscribe x");
    ToolProcess second(subArgs(serve, {"y", "x", "--count", "1"}));
    EXPECT_TRUE(startsWith(serve.next(), "[2] connected "));
    EXPECT_EQ(serve.next(), "[2] subscribe y");
    EXPECT_EQ(serve.next(), "[2] subscribe x");
    serve.send("set x \"two words\"");
    EXPECT_EQ(serve.next(), "set x=\"two words\" (sent to 2)");
    EXPECT_EQ(first.wait(kWaitMs), 0);
    EXPECT_EQ(second.wait(kWaitMs), 0);
    EXPECT_EQ(first.restOfOutput(), "update x=\"two words\"\n");
    EXPECT_EQ(second.restOfOutput(), "update x=\"two words\"\n");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, CallCarriesAllFourTypes) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess call(
        callArgs(serve, {"setpoint", "hello", "mode=eco", "level:i=-3", "enabled:b=on", "target:f=20.5"}));
    EXPECT_EQ(call.wait(kWaitMs), 0);
    EXPECT_EQ(call.restOfOutput(), "");  // quiet on success
    EXPECT_EQ(call.restOfErrors(), "");
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected 127.0.0.1:"));
    EXPECT_EQ(serve.next(),
              "[1] call setpoint arg1=\"hello\" enabled:b=on level:i=-3 mode=\"eco\" target:f=20.5");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, CallWithoutArgumentsAndWithDashes) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess bare(callArgs(serve, {"reset"}));
    EXPECT_EQ(bare.wait(kWaitMs), 0);
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] call reset");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    ToolProcess dashes(callArgs(serve, {"--", "echo", "--json", "n:i=-1"}));
    EXPECT_EQ(dashes.wait(kWaitMs), 0);
    EXPECT_TRUE(startsWith(serve.next(), "[2] connected "));
    EXPECT_EQ(serve.next(), "[2] call echo arg1=\"--json\" n:i=-1");
    EXPECT_EQ(serve.next(), "[2] disconnected");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, LargestCallsThatFitArriveWhole) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    const std::string text(1481, 'v');
    ToolProcess longest(callArgs(serve, {"f", "s=" + text}));
    EXPECT_EQ(longest.wait(kWaitMs), 0) << longest.restOfErrors();
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] call f s=\"" + text + "\"");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    const std::string name(1478, 'z');  // a float last needs one byte of room more than it writes
    ToolProcess floating(callArgs(serve, {"f", name + ":f=1"}));
    EXPECT_EQ(floating.wait(kWaitMs), 0) << floating.restOfErrors();
    EXPECT_TRUE(startsWith(serve.next(), "[2] connected "));
    EXPECT_EQ(serve.next(), "[2] call f " + name + ":f=1");
    EXPECT_EQ(serve.next(), "[2] disconnected");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, ListShowsStatesSubscribersAndConnections) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    serve.send("set b=x");
    EXPECT_EQ(serve.next(), "set b=\"x\" (sent to 0)");
    serve.send("set a :i=1");
    EXPECT_EQ(serve.next(), "set a:i=1 (sent to 0)");
    ToolProcess sub(subArgs(serve, {"a", "c"}));
    std::string connected = serve.next();
    EXPECT_TRUE(startsWith(connected, "[1] connected 127.0.0.1:")) << connected;
    EXPECT_EQ(serve.next(), "[1] subscribe a");
    EXPECT_EQ(serve.next(), "[1] sent update a:i=1");
    EXPECT_EQ(serve.next(), "[1] subscribe c");
    serve.send("list");
    EXPECT_EQ(serve.next(), "list 2 states, 1 connection");
    EXPECT_EQ(serve.next(), "state a:i=1 subscribers 1");
    EXPECT_EQ(serve.next(), "state b=\"x\" subscribers none");
    EXPECT_EQ(serve.next(), "connection [1] " + connected.substr(14) + " subscribed a,c");
    std::string line;
    ASSERT_TRUE(sub.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "update a:i=1");
    sub.signal(SIGINT);
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(), "");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, JsonLines) {
    ServeProcess serve(transport(), {"--json"});
    ASSERT_NE(serve.port(), 0) << serve.firstLine();
    EXPECT_EQ(serve.firstLine(), "{\"event\":\"listening\",\"transport\":\"" + transport() +
                                     "\",\"address\":\"127.0.0.1\",\"port\":" + serve.portText() + "}");
    serve.send("set msg \"say \\\"hi\\\"\\n\\xff\"");
    const std::string value = "\"say \\\"hi\\\"\\n\\ufffd\"";
    EXPECT_EQ(serve.next(),
              "{\"event\":\"set\",\"name\":\"msg\",\"type\":\"string\",\"value\":" + value + ",\"sent\":0}");

    ToolProcess sub(subArgs(serve, {"--json", "msg", "--count", "1"}));
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(),
              "{\"event\":\"ready\",\"names\":[\"msg\"]}\n"
              "{\"event\":\"update\",\"name\":\"msg\",\"type\":\"string\",\"value\":" +
                  value + "}\n");
    EXPECT_EQ(sub.restOfErrors(), "");
    std::string line = serve.next();
    EXPECT_TRUE(startsWith(line, "{\"event\":\"connected\",\"conn\":1,\"peer\":\"127.0.0.1:")) << line;
    EXPECT_EQ(serve.next(), "{\"event\":\"subscribe\",\"conn\":1,\"name\":\"msg\"}");
    EXPECT_EQ(serve.next(),
              "{\"event\":\"sent\",\"conn\":1,\"command\":\"update\",\"name\":\"msg\",\"type\":\"string\","
              "\"value\":" +
                  value + "}");
    EXPECT_EQ(serve.next(), "{\"event\":\"disconnected\",\"conn\":1,\"reason\":\"closed\"}");

    ToolProcess call(callArgs(serve, {"f", "n:i=5", "b:b=off", "x:f=0.25", "s=\xc3\xa9"}));
    EXPECT_EQ(call.wait(kWaitMs), 0);
    line = serve.next();
    EXPECT_TRUE(startsWith(line, "{\"event\":\"connected\",\"conn\":2,")) << line;
    EXPECT_EQ(serve.next(),
              "{\"event\":\"call\",\"conn\":2,\"name\":\"f\",\"params\":["
              "{\"name\":\"b\",\"type\":\"bool\",\"value\":false},"
              "{\"name\":\"n\",\"type\":\"int\",\"value\":5},"
              "{\"name\":\"s\",\"type\":\"string\",\"value\":\"\xc3\xa9\"},"
              "{\"name\":\"x\",\"type\":\"float\",\"value\":0.25}]}");
    EXPECT_EQ(serve.next(), "{\"event\":\"disconnected\",\"conn\":2,\"reason\":\"closed\"}");

    serve.send("trigger t:b=on");
    EXPECT_EQ(serve.next(),
              "{\"event\":\"trigger\",\"name\":\"t\",\"type\":\"bool\",\"value\":true,\"sent\":0}");
    serve.send("list");
    EXPECT_EQ(serve.next(), "{\"event\":\"list\",\"states\":1,\"connections\":0}");
    EXPECT_EQ(serve.next(), "{\"event\":\"state\",\"name\":\"msg\",\"type\":\"string\",\"value\":" + value +
                                ",\"subscribers\":[]}");
    serve.send("quit");
    EXPECT_EQ(serve.next(), "{\"event\":\"stopping\",\"connections\":0}");
    EXPECT_EQ(serve.next(), "{\"event\":\"stopped\"}");
    EXPECT_EQ(serve.process().wait(kWaitMs), 0);
}

namespace {

const std::string kServeCommands =
    "commands: set NAME VALUE | set NAME[:t]=TEXT | trigger NAME VALUE | trigger NAME[:t]=TEXT | list | "
    "mode CONN send MODE | mode CONN receive MODE | window CONN N | stats [CONN] | quit";

}  // namespace

TEST_P(CliServe, BadInputLinesAreReportedAndServingGoesOn) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"frob", "unknown command 'frob'; " + kServeCommands},
        {"set", "set needs NAME VALUE or NAME[:t]=TEXT"},
        {"set x", "set needs NAME VALUE or NAME[:t]=TEXT"},
        {"set x y z", "set needs NAME VALUE or NAME[:t]=TEXT"},
        {"trigger", "trigger needs NAME VALUE or NAME[:t]=TEXT"},
        {"set x:i=abc", "malformed value 'x:i=abc': 'abc' is not a 32-bit integer"},
        {"set x a:i=1", "the value of set takes no name: 'a:i=1' (write x:i=1)"},
        {"set x \"open", "unterminated \" quote"},
        {"set n " + std::string(1485, 'v'),
         "the message is too large for one TARN message: it needs 1489 bytes of "
         "room, a message carries at most 1488"},
        {"\x01\x02", "unknown command '\x01\x02'; " + kServeCommands},
    };
    for (const auto& c : cases) {
        serve.send(c.first);
        std::string line;
        ASSERT_TRUE(serve.process().nextErrorLine(line, kWaitMs)) << c.first;
        EXPECT_EQ(line, "tarn: " + c.second);
    }
    // Blank lines and comments are ignored; nothing was stored and the server still answers.
    serve.send("");
    serve.send("   # a comment");
    serve.send("list");
    EXPECT_EQ(serve.next(), "list 0 states, 0 connections");
    ToolProcess call({"call", flag(), "127.0.0.1", serve.portText(), "still"});
    EXPECT_EQ(call.wait(kWaitMs), 0);
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] call still");
    EXPECT_EQ(serve.quit(), 0);
    EXPECT_EQ(serve.process().restOfErrors(), "");
}

// Junk lines built from the pieces the syntax cares about; none is a quit.
std::vector<std::string> junkLines(unsigned int seed, int count) {
    static const char* const pieces[] = {
        "set ", "trigger ", "list",        "help",     "sub ",     "call ",    "mode ", "window ", "\"",
        "'",    "\\",       "\\x",         "\\xzz",    "=",        ":",        ":i=",   ":b=",     ":f=",
        ":s=",  ":q=",      "99999999999", "-1",       "nan",      " ",        "name",  "#",       "\x01",
        "\xff", "\xc3",     "send ",       "receive ", "reliable", "realtime", "x",     "0"};
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        std::string line;
        for (int k = 0; k < 1 + i % 9; ++k) {
            seed = seed * 1103515245u + 12345u;
            line += pieces[(seed >> 8) % (sizeof(pieces) / sizeof(pieces[0]))];
        }
        lines.push_back(line);
    }
    return lines;
}

TEST_P(CliServe, JunkInputNeverStopsTheServer) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", flag(), "127.0.0.1", serve.portText()});
    std::string line;
    ASSERT_TRUE(client.nextLine(line, kWaitMs));
    for (const std::string& junk : junkLines(7u, 300)) {
        ASSERT_TRUE(serve.send(junk));
        ASSERT_TRUE(client.send(junk));
    }
    // Both still answer, and end in order.
    serve.send("list");
    EXPECT_TRUE(serve.process().waitForLine([](const std::string& l) { return startsWith(l, "list "); }, line,
                                            kWaitMs));
    client.send("call alive");
    EXPECT_TRUE(client.waitForLine("sent call alive", kWaitMs));
    EXPECT_TRUE(serve.process().waitForLine("[1] call alive", kWaitMs));
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 1);  // junk lines failed
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, EndOfInputKeepsServingUntilSigterm) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    serve.send("set s:b=on");
    EXPECT_EQ(serve.next(), "set s:b=on (sent to 0)");
    serve.process().closeInput();
    ToolProcess sub(subArgs(serve, {"s", "--count", "1"}));
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(), "update s:b=on\n");
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] subscribe s");
    EXPECT_EQ(serve.next(), "[1] sent update s:b=on");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    serve.process().signal(SIGTERM);
    EXPECT_EQ(serve.process().wait(kWaitMs), 0);
}

TEST_P(CliServe, StoppingTheServerEndsItsSubscribers) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess sub(subArgs(serve, {"s"}));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] subscribe s");
    serve.process().signal(SIGTERM);
    EXPECT_EQ(serve.next(), "stopping: closing 1 connection");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    EXPECT_EQ(serve.next(), "stopped");
    EXPECT_EQ(serve.process().wait(kWaitMs), 0);
    EXPECT_EQ(sub.wait(kWaitMs), 6);
    EXPECT_EQ(sub.restOfErrors(), "ready: subscriptions sent for s\ntarn: connection closed by the server\n");
}

TEST_P(CliServe, SubTimeouts) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    // Without --count, running out of time is the normal end.
    std::int64_t start = testsupport::nowMs();
    ToolProcess quiet(subArgs(serve, {"nothing", "--timeout", "0.5"}));
    EXPECT_EQ(quiet.wait(kWaitMs), 0);
    EXPECT_GE(testsupport::nowMs() - start, 450);
    EXPECT_EQ(quiet.restOfOutput(), "");
    EXPECT_EQ(quiet.restOfErrors(), "ready: subscriptions sent for nothing\n");
    // With --count, it is a failure of its own.
    start = testsupport::nowMs();
    ToolProcess counted(subArgs(serve, {"nothing", "--count", "2", "--timeout", "0.5"}));
    EXPECT_EQ(counted.wait(kWaitMs), 5);
    EXPECT_GE(testsupport::nowMs() - start, 450);
    EXPECT_EQ(counted.restOfErrors(),
              "ready: subscriptions sent for nothing\ntarn: timed out after 0.5 s with 0 of 2 messages\n");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliServe, ReliableOneShots) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    serve.send("set r:i=1");
    EXPECT_EQ(serve.next(), "set r:i=1 (sent to 0)");
    ToolProcess sub(subArgs(serve, {"--reliable", "r", "--count", "2"}));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] subscribe r");
    EXPECT_EQ(serve.next(), "[1] sent update r:i=1");
    serve.send("set r:i=2");
    EXPECT_EQ(serve.next(), "set r:i=2 (sent to 1)");
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(), "update r:i=1\nupdate r:i=2\n");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    ToolProcess call(callArgs(serve, {"--reliable", "f", "x:i=1"}));
    EXPECT_EQ(call.wait(kWaitMs), 0) << call.restOfErrors();
    EXPECT_TRUE(startsWith(serve.next(), "[2] connected "));
    EXPECT_EQ(serve.next(), "[2] call f x:i=1");
    EXPECT_EQ(serve.quit(), 0);
}
