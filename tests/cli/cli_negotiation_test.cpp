// Modes and windows asked for from the server's side, the modes a server allows, and the exit
// status of a connect session whose scripted lines failed.
#include <gtest/gtest.h>

#include "process.h"
#include "rawpeers.h"
#include "testsupport.h"

using namespace clitest;
using testsupport::startsWith;

namespace {

std::string next(ToolProcess& process, int timeoutMs = kWaitMs) {
    std::string line;
    process.nextLine(line, timeoutMs);
    return line;
}

std::string nextError(ToolProcess& process) {
    std::string line;
    process.nextErrorLine(line, kWaitMs);
    return line;
}

// The mode word of a MOD: the requested send mode in byte 0, the requested receive mode in byte
// 2, 'D' (leave as it is) elsewhere.
std::uint32_t modWord(char send, char receive) {
    return 0x44004400u | static_cast<std::uint32_t>(static_cast<unsigned char>(send)) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(receive)) << 16);
}

}  // namespace

TEST(CliServeNegotiation, ServerAsksTheClientOverEudp) {
    ServeProcess serve("eudp");
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--eudp", "--json", "127.0.0.1", serve.portText()});
    EXPECT_TRUE(startsWith(next(client), "{\"event\":\"connected\""));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));

    serve.send("mode 1 send reliable");
    EXPECT_EQ(serve.next(), "[1] mode send reliable ok: this side sends realtime, receives reliable");
    serve.send("mode 1 receive reliable");
    EXPECT_EQ(serve.next(), "[1] mode receive reliable ok: this side sends reliable, receives reliable");
    serve.send("window 1 20");
    EXPECT_EQ(serve.next(), "[1] window 20 ok");
    // The client sees the same modes from its side: asking the server to leave its sending as it
    // is ('D' is no mode of the tool, so ask for what it already does) confirms them.
    client.send("mode send reliable");
    EXPECT_EQ(next(client),
              "{\"event\":\"mode\",\"direction\":\"send\",\"mode\":\"reliable\",\"ok\":true,"
              "\"send\":\"reliable\",\"receive\":\"reliable\"}");
    // Traffic still flows both ways.
    client.send("sub t");
    EXPECT_EQ(next(client), "{\"event\":\"sent\",\"command\":\"subscribe\",\"name\":\"t\"}");
    EXPECT_EQ(serve.next(), "[1] subscribe t");
    serve.send("set t:i=3");
    EXPECT_EQ(serve.next(), "set t:i=3 (sent to 1)");
    EXPECT_EQ(next(client), "{\"event\":\"update\",\"name\":\"t\",\"type\":\"int\",\"value\":3}");
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 0);
    EXPECT_EQ(serve.next(), "[1] disconnected");
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliServeNegotiation, JsonLinesNameTheConnection) {
    ServeProcess serve("eudp", {"--json"});
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--eudp", "127.0.0.1", serve.portText()});
    EXPECT_TRUE(startsWith(next(client), "connected eudp "));
    EXPECT_TRUE(startsWith(serve.next(), "{\"event\":\"connected\",\"conn\":1,"));
    serve.send("mode 1 receive reliable");
    EXPECT_EQ(serve.next(),
              "{\"event\":\"mode\",\"conn\":1,\"direction\":\"receive\",\"mode\":\"reliable\","
              "\"ok\":true,\"send\":\"reliable\",\"receive\":\"realtime\"}");
    serve.send("window 1 0");
    EXPECT_EQ(serve.next(), "{\"event\":\"window\",\"conn\":1,\"size\":0,\"ok\":true}");
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 0);
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliServeNegotiation, OverTcpDeliveryIsReliableOnly) {
    ServeProcess serve("tcp");
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "127.0.0.1", serve.portText()});
    EXPECT_TRUE(startsWith(next(client), "connected tcp "));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    serve.send("mode 1 send realtime");
    EXPECT_EQ(serve.next(), "[1] mode send realtime refused: tcp delivers reliably only");
    serve.send("mode 1 receive reliable");
    EXPECT_EQ(serve.next(), "[1] mode receive reliable ok: this side sends reliable, receives reliable");
    serve.send("window 1 20");
    EXPECT_EQ(serve.next(), "[1] window 20 refused: tcp has no window");
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"mode 9 send reliable", "no connection [9]; 'list' shows them"},
        {"mode x send reliable", "'x' is not a connection number"},
        {"mode 0 send reliable", "'0' is not a connection number"},
        {"mode 1 sideways reliable", "mode needs CONN, send|receive and realtime|reliable"},
        {"mode send reliable", "mode needs CONN, send|receive and realtime|reliable"},
        {"window 1", "window needs CONN and a size N from 0 to 4294967295"},
        {"window 1 -1", "window needs CONN and a size N from 0 to 4294967295"},
        {"window 2 5", "no connection [2]; 'list' shows them"},
    };
    for (const auto& c : bad) {
        serve.send(c.first);
        EXPECT_EQ(nextError(serve.process()), "tarn: " + c.second) << c.first;
    }
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 0);
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliServeNegotiation, AllowSendAndReceiveDecideHowTheServerAnswers) {
    ServeProcess serve("eudp", {"--allow-send", "realtime", "--allow-receive", "reliable"});
    ASSERT_NE(serve.port(), 0);
    RawEudpClient client;
    ASSERT_TRUE(client.connect(serve.port()));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected 127.0.0.1:"));
    std::uint32_t word = 0;
    // Asking the server to send reliably: not allowed, so no answer at all.
    ASSERT_TRUE(client.sendTo("MOD", modWord('R', 'D')));
    EXPECT_FALSE(client.receiveMak(word, 1500));
    // Asking it to receive in realtime: not allowed either.
    ASSERT_TRUE(client.sendTo("MOD", modWord('D', 'T')));
    EXPECT_FALSE(client.receiveMak(word, 1500));
    // Asking it to receive reliably: allowed and confirmed; its send mode stays realtime.
    ASSERT_TRUE(client.sendTo("MOD", modWord('D', 'R')));
    ASSERT_TRUE(client.receiveMak(word, kWaitMs));
    EXPECT_EQ((word >> 16) & 0xFF, static_cast<std::uint32_t>('R'));
    EXPECT_EQ((word >> 24) & 0xFF, static_cast<std::uint32_t>('R'));
    EXPECT_EQ((word >> 8) & 0xFF, static_cast<std::uint32_t>('T'));
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliServeNegotiation, AllowedModesMeetARequestSentRightAfterTheHandshake) {
    ServeProcess serve("eudp", {"--allow-send", "realtime"});
    ASSERT_NE(serve.port(), 0);
    RawEudpClient client;
    ASSERT_TRUE(client.connect(serve.port()));
    // Both requests follow the ACK at once, before the tool has taken the connection on.
    ASSERT_TRUE(client.sendTo("MOD", modWord('R', 'D')));
    ASSERT_TRUE(client.sendTo("MOD", modWord('T', 'D')));
    std::uint32_t word = 0;
    ASSERT_TRUE(client.receiveMak(word, kWaitMs));
    // The first answer is the second request's: the refused one got none.
    EXPECT_EQ(word & 0xFF, static_cast<std::uint32_t>('T'));
    EXPECT_EQ((word >> 8) & 0xFF, static_cast<std::uint32_t>('T'));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected 127.0.0.1:"));
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliServeNegotiation, ARefusalCanBeTriedWithTheToolAlone) {
    ServeProcess serve("eudp", {"--allow-send", "realtime"});
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--eudp", "127.0.0.1", serve.portText()});
    EXPECT_TRUE(startsWith(next(client), "connected eudp "));
    client.send("mode send reliable");
    EXPECT_EQ(next(client, 3 * kWaitMs),
              "mode send reliable failed: the server refused or did not answer within 10 s");
    client.send("mode send realtime");
    EXPECT_EQ(next(client), "mode send realtime ok: this side sends realtime, receives realtime");
    client.send("quit");
    EXPECT_EQ(next(client), "disconnected");
    EXPECT_EQ(client.wait(kWaitMs), 1) << "a refused request fails the session";
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliServeNegotiation, TheServerSeesTheClientsRefusal) {
    ServeProcess serve("eudp");
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--eudp", "--allow-receive", "realtime", "127.0.0.1", serve.portText()});
    EXPECT_TRUE(startsWith(next(client), "connected eudp "));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    serve.send("mode 1 receive reliable");  // asks the client to receive reliably, which it does not allow
    EXPECT_EQ(serve.next(3 * kWaitMs),
              "[1] mode receive reliable failed: the client refused or did not answer within 10 s");
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 0);
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliServeNegotiation, AllowOptionsAreForEudpOnly) {
    std::string out;
    std::string err;
    EXPECT_EQ(runTool({"serve", "--allow-send", "reliable", "--port", "0"}, "", kWaitMs, out, err), 2);
    EXPECT_EQ(err, "tarn: --allow-send applies to --eudp only; see 'tarn serve --help'\n");
    EXPECT_EQ(runTool({"serve", "--eudp", "--allow-receive", "both", "--port", "0"}, "", kWaitMs, out, err),
              2);
    EXPECT_EQ(
        err,
        "tarn: --allow-receive takes realtime, reliable or realtime,reliable; see 'tarn serve --help'\n");
}

class CliScripted : public ::testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(Transports, CliScripted, ::testing::Values("tcp", "eudp"),
                         [](const ::testing::TestParamInfo<std::string>& param) { return param.param; });

TEST_P(CliScripted, ConnectExitsNonZeroWhenALineFailed) {
    ServeProcess serve(GetParam());
    ASSERT_NE(serve.port(), 0);
    const std::vector<std::string> args = {"connect", "--" + GetParam(), "127.0.0.1", serve.portText()};
    std::string out;
    std::string err;
    // Every line good: 0.
    EXPECT_EQ(runTool(args, "sub a\ncall f x:i=1\n# a comment\n\nunsub a\n", kWaitMs, out, err), 0) << err;
    EXPECT_EQ(err, "");
    const std::vector<std::pair<std::string, std::string>> failing = {
        {"frob\n", "unknown command 'frob'"},     {"call f x:i=many\n", "malformed value 'x:i=many'"},
        {"sub\n", "sub needs one NAME"},          {"sub 'open\n", "unterminated ' quote"},
        {"window -1\n", "window needs a size N"},
    };
    for (const auto& c : failing) {
        EXPECT_EQ(runTool(args, "sub a\n" + c.first + "call g\n", kWaitMs, out, err), 1) << c.first;
        EXPECT_NE(err.find(c.second), std::string::npos) << err;
        // The lines after the bad one still ran.
        EXPECT_NE(out.find("sent call g"), std::string::npos) << out;
    }
    // Over TCP a realtime mode or a window is refused, and that is a failed line too.
    if (GetParam() == "tcp") {
        EXPECT_EQ(runTool(args, "mode send realtime\n", kWaitMs, out, err), 1);
        EXPECT_EQ(runTool(args, "window 8\n", kWaitMs, out, err), 1);
        EXPECT_EQ(runTool(args, "mode send reliable\n", kWaitMs, out, err), 0);
    }
    EXPECT_EQ(serve.quit(), 0);
}
