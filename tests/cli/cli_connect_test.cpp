// tarn connect: the interactive client against tarn serve, and against a raw EUDP peer for the
// mode permissions it declares.
#include <gtest/gtest.h>

#include <csignal>

#include "process.h"
#include "rawpeers.h"
#include "testsupport.h"

using namespace clitest;
using testsupport::Bytes;
using testsupport::startsWith;

namespace {

class CliConnect : public ::testing::TestWithParam<std::string> {
protected:
    std::string transport() const { return GetParam(); }
    bool eudp() const { return GetParam() == "eudp"; }

    std::string next(ToolProcess& process) {
        std::string line;
        process.nextLine(line, kWaitMs);
        return line;
    }
    std::string nextError(ToolProcess& process) {
        std::string line;
        process.nextErrorLine(line, kWaitMs);
        return line;
    }
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Transports, CliConnect, ::testing::Values("tcp", "eudp"),
                         [](const ::testing::TestParamInfo<std::string>& param) { return param.param; });

TEST_P(CliConnect, InteractiveSession) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--" + transport(), "127.0.0.1", serve.portText()});
    EXPECT_EQ(next(client), "connected " + transport() + " 127.0.0.1:" + serve.portText());
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected 127.0.0.1:"));

    client.send("sub temp");
    EXPECT_EQ(next(client), "sent subscribe temp");
    EXPECT_EQ(serve.next(), "[1] subscribe temp");
    serve.send("set temp:i=5");
    EXPECT_EQ(serve.next(), "set temp:i=5 (sent to 1)");
    EXPECT_EQ(next(client), "update temp:i=5");
    serve.send("trigger temp \"two words\"");
    EXPECT_EQ(serve.next(), "trigger temp=\"two words\" (sent to 1)");
    EXPECT_EQ(next(client), "trigger temp=\"two words\"");

    client.send("call f x:f=1.5 \"two words\" 'a=b' \"n:m\"=\"q\\\"\"");
    EXPECT_EQ(next(client), "sent call f arg2=\"two words\" arg3=\"a=b\" \"n:m\"=\"q\\\"\" x:f=1.5");
    EXPECT_EQ(serve.next(), "[1] call f arg2=\"two words\" arg3=\"a=b\" \"n:m\"=\"q\\\"\" x:f=1.5");

    client.send("unsub temp");
    EXPECT_EQ(next(client), "sent unsubscribe temp");
    EXPECT_EQ(serve.next(), "[1] unsubscribe temp");
    serve.send("set temp:i=6");
    EXPECT_EQ(serve.next(), "set temp:i=6 (sent to 0)");

    if (eudp()) {
        client.send("mode send reliable");
        EXPECT_EQ(next(client), "mode send reliable ok: this side sends realtime, receives reliable");
        client.send("mode receive reliable");
        EXPECT_EQ(next(client), "mode receive reliable ok: this side sends reliable, receives reliable");
        client.send("window 20");
        EXPECT_EQ(next(client), "window 20 ok");
        client.send("mode send realtime");
        EXPECT_EQ(next(client), "mode send realtime ok: this side sends reliable, receives realtime");
    } else {
        client.send("mode send reliable");
        EXPECT_EQ(next(client), "mode send reliable ok: this side sends reliable, receives reliable");
        client.send("mode receive realtime");
        EXPECT_EQ(next(client), "mode receive realtime refused: tcp delivers reliably only");
        client.send("window 20");
        EXPECT_EQ(next(client), "window 20 refused: tcp has no window");
    }
    // Messages still flow both ways after the negotiation.
    client.send("sub temp");
    EXPECT_EQ(next(client), "sent subscribe temp");
    EXPECT_EQ(serve.next(), "[1] subscribe temp");
    EXPECT_EQ(serve.next(), "[1] sent update temp:i=6");
    EXPECT_EQ(next(client), "update temp:i=6");

    client.send("quit");
    EXPECT_EQ(next(client), "disconnected");
    EXPECT_EQ(client.wait(kWaitMs), eudp() ? 0 : 1) << "over TCP, the refused requests fail the session";
    EXPECT_EQ(client.restOfErrors(), "");
    EXPECT_EQ(serve.next(), "[1] disconnected");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliConnect, BadLinesAreReportedAndTheSessionGoesOn) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--" + transport(), "127.0.0.1", serve.portText()});
    EXPECT_TRUE(startsWith(next(client), "connected "));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"frob",
         "unknown command 'frob'; commands: sub NAME | unsub NAME | call FID [ARG...] | mode send MODE | "
         "mode receive MODE | window N | stats | quit"},
        {"sub", "sub needs one NAME"},
        {"unsub a b", "unsub needs one NAME"},
        {"call", "call needs a function FID"},
        {"call f x:b=perhaps", "malformed value 'x:b=perhaps': a boolean is on or off"},
        {"mode sideways reliable", "mode needs send|receive and realtime|reliable"},
        {"mode send fast", "mode needs send|receive and realtime|reliable"},
        {"window -1", "window needs a size N from 0 to 4294967295"},
        {"window 4294967296", "window needs a size N from 0 to 4294967295"},
        {"sub 'open", "unterminated ' quote"},
        {"sub " + std::string(1488, 'n'),
         "the name is too large for one TARN message: it needs 1489 bytes of "
         "room, a message carries at most 1488"},
    };
    for (const auto& c : cases) {
        client.send(c.first);
        EXPECT_EQ(nextError(client), "tarn: " + c.second) << c.first;
    }
    client.send("");
    client.send("# nothing");
    client.send("call ok");
    EXPECT_EQ(next(client), "sent call ok");
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] call ok");
    client.closeInput();  // end of input disconnects
    EXPECT_EQ(next(client), "disconnected");
    EXPECT_EQ(client.wait(kWaitMs), 1) << "lines failed";
    EXPECT_EQ(serve.next(), "[1] disconnected");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliConnect, ServerGoingAwayEndsTheClient) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--" + transport(), "127.0.0.1", serve.portText()});
    EXPECT_TRUE(startsWith(next(client), "connected "));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.quit(), 0);
    EXPECT_EQ(next(client), "disconnected");
    EXPECT_EQ(client.wait(kWaitMs), 6);
    EXPECT_EQ(client.restOfErrors(), "tarn: connection closed by the server\n");
}

TEST_P(CliConnect, SignalDisconnectsInOrder) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--" + transport(), "127.0.0.1", serve.portText()});
    EXPECT_TRUE(startsWith(next(client), "connected "));
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    client.signal(SIGINT);
    EXPECT_EQ(next(client), "disconnected");
    EXPECT_EQ(client.wait(kWaitMs), 0);
    EXPECT_EQ(serve.next(), "[1] disconnected");
    EXPECT_EQ(serve.quit(), 0);
}

TEST_P(CliConnect, JsonLines) {
    ServeProcess serve(transport());
    ASSERT_NE(serve.port(), 0);
    ToolProcess client({"connect", "--json", "--" + transport(), "127.0.0.1", serve.portText()});
    EXPECT_EQ(next(client), "{\"event\":\"connected\",\"transport\":\"" + transport() +
                                "\",\"peer\":\"127.0.0.1:" + serve.portText() + "\"}");
    client.send("sub t");
    EXPECT_EQ(next(client), "{\"event\":\"sent\",\"command\":\"subscribe\",\"name\":\"t\"}");
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] subscribe t");
    serve.send("trigger t:f=-2.5");
    EXPECT_EQ(serve.next(), "trigger t:f=-2.5 (sent to 1)");
    EXPECT_EQ(next(client), "{\"event\":\"trigger\",\"name\":\"t\",\"type\":\"float\",\"value\":-2.5}");
    client.send("call f \"a\tb\"");
    EXPECT_EQ(next(client),
              "{\"event\":\"sent\",\"command\":\"call\",\"name\":\"f\",\"params\":"
              "[{\"name\":\"arg1\",\"type\":\"string\",\"value\":\"a\\tb\"}]}");
    client.send("window 8");
    EXPECT_EQ(next(client),
              std::string("{\"event\":\"window\",\"size\":8,\"ok\":") + (eudp() ? "true" : "false") + "}");
    client.send("mode receive reliable");
    EXPECT_EQ(next(client),
              std::string("{\"event\":\"mode\",\"direction\":\"receive\",\"mode\":\"reliable\",\"ok\":"
                          "true,\"send\":\"reliable\",\"receive\":\"") +
                  (eudp() ? "realtime" : "reliable") + "\"}");
    client.send("quit");
    EXPECT_EQ(next(client), "{\"event\":\"disconnected\",\"reason\":\"local\"}");
    EXPECT_EQ(client.wait(kWaitMs), eudp() ? 0 : 1);
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliConnectModes, AllowSendDecidesHowTheClientAnswersModeRequests) {
    RawEudpServer server;
    ToolProcess client(
        {"connect", "--eudp", "--allow-send", "reliable", "127.0.0.1", std::to_string(server.socket.port())});
    ASSERT_TRUE(server.acceptConnection());
    std::string line;
    ASSERT_TRUE(client.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "connected eudp 127.0.0.1:" + std::to_string(server.socket.port()));

    // Asking the client to send in realtime: not allowed, so no answer at all.
    std::uint32_t word = 0;
    ASSERT_TRUE(server.socket.sendTo(testsupport::eudpDatagram("MOD", 0x44444400u | 'T'), server.clientPort));
    EXPECT_FALSE(server.receiveMak(word, 1500));
    // Asking it to send reliably: allowed and confirmed; its receive mode stays realtime.
    ASSERT_TRUE(server.socket.sendTo(testsupport::eudpDatagram("MOD", 0x44444400u | 'R'), server.clientPort));
    ASSERT_TRUE(server.receiveMak(word, kWaitMs));
    EXPECT_EQ(word & 0xFF, static_cast<std::uint32_t>('R'));
    EXPECT_EQ((word >> 8) & 0xFF, static_cast<std::uint32_t>('R'));
    EXPECT_EQ((word >> 24) & 0xFF, static_cast<std::uint32_t>('T'));
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 0);
}
