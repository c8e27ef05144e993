// tarn demo: runs to its end and prints its transcript, the same on every run but for ports.
#include <gtest/gtest.h>

#include <regex>

#include "process.h"

using namespace clitest;

namespace {

const char kTranscript[] =
    R"(tarn demo: a TARN server and a client in one process, over TCP and then over EUDP.
Lines "$" start a tool, lines "server>" and "client>" are typed into tarn serve and
tarn connect, and lines "server:" and "client:" are what those print.

$ tarn serve --tcp --bind 127.0.0.1 --port 0
server: listening on tcp 127.0.0.1:PORT
$ tarn serve --eudp --bind 127.0.0.1 --port 0
server: listening on eudp 127.0.0.1:PORT

--- tcp ---
$ tarn connect --tcp 127.0.0.1 PORT
client: connected tcp 127.0.0.1:PORT
server: [1] connected 127.0.0.1:PORT
server> set temperature:f=21.5
server: set temperature:f=21.5 (sent to 0)
client> sub temperature
client: sent subscribe temperature
server: [1] subscribe temperature
server: [1] sent update temperature:f=21.5
client: update temperature:f=21.5
server> set temperature:f=22.5
server: set temperature:f=22.5 (sent to 1)
client: update temperature:f=22.5
client> sub door
client: sent subscribe door
server: [1] subscribe door
server> trigger door=open
server: trigger door="open" (sent to 1)
client: trigger door="open"
client> call setpoint mode=eco level:i=3 enabled:b=on target:f=20.5
client: sent call setpoint enabled:b=on level:i=3 mode="eco" target:f=20.5
server: [1] call setpoint enabled:b=on level:i=3 mode="eco" target:f=20.5
client> unsub temperature
client: sent unsubscribe temperature
server: [1] unsubscribe temperature
server> set temperature:f=24
server: set temperature:f=24 (sent to 0)
server> list
server: list 1 state, 1 connection
server: state temperature:f=24 subscribers none
server: connection [1] 127.0.0.1:PORT subscribed door
client> quit
client: disconnected
server: [1] disconnected

--- eudp ---
$ tarn connect --eudp 127.0.0.1 PORT
client: connected eudp 127.0.0.1:PORT
server: [1] connected 127.0.0.1:PORT
server> set temperature:f=21.5
server: set temperature:f=21.5 (sent to 0)
client> sub temperature
client: sent subscribe temperature
server: [1] subscribe temperature
server: [1] sent update temperature:f=21.5
client: update temperature:f=21.5
server> set temperature:f=22.5
server: set temperature:f=22.5 (sent to 1)
client: update temperature:f=22.5
client> sub door
client: sent subscribe door
server: [1] subscribe door
server> trigger door=open
server: trigger door="open" (sent to 1)
client: trigger door="open"
client> call setpoint mode=eco level:i=3 enabled:b=on target:f=20.5
client: sent call setpoint enabled:b=on level:i=3 mode="eco" target:f=20.5
server: [1] call setpoint enabled:b=on level:i=3 mode="eco" target:f=20.5
client> mode send reliable
client: mode send reliable ok: this side sends realtime, receives reliable
client> mode receive reliable
client: mode receive reliable ok: this side sends reliable, receives reliable
client> window 32
client: window 32 ok
server> set temperature:f=23
server: set temperature:f=23 (sent to 1)
client: update temperature:f=23
client> call setpoint level:i=4
client: sent call setpoint level:i=4
server: [1] call setpoint level:i=4
client> unsub temperature
client: sent unsubscribe temperature
server: [1] unsubscribe temperature
server> set temperature:f=24
server: set temperature:f=24 (sent to 0)
server> list
server: list 1 state, 1 connection
server: state temperature:f=24 subscribers none
server: connection [1] 127.0.0.1:PORT subscribed door
client> quit
client: disconnected
server: [1] disconnected

tarn demo: done; every step was answered in time.
)";

}  // namespace

TEST(CliDemo, TranscriptIsTheSameOnEveryRunButForPorts) {
    std::string out;
    std::string err;
    const int status = runTool({"demo"}, "", 120000, out, err);
    EXPECT_EQ(status, 0) << out << err;
    EXPECT_EQ(err, "");
    const std::string normalised =
        std::regex_replace(out, std::regex("(127\\.0\\.0\\.1[: ])[0-9]+"), "$1PORT");
    EXPECT_EQ(normalised, kTranscript);

    // The ports printed are the ports used: each client connects to the port its server named.
    std::smatch match;
    for (const char* transport : {"tcp", "eudp"}) {
        const std::string name(transport);
        ASSERT_TRUE(
            std::regex_search(out, match, std::regex("listening on " + name + " 127\\.0\\.0\\.1:([0-9]+)")));
        const std::string port = match[1];
        EXPECT_NE(port, "0");
        EXPECT_NE(out.find("$ tarn connect --" + name + " 127.0.0.1 " + port + "\n"), std::string::npos)
            << name;
        EXPECT_NE(out.find("client: connected " + name + " 127.0.0.1:" + port + "\n"), std::string::npos)
            << name;
    }
}

TEST(CliDemo, RunsAgainWhileAnotherRuns) {
    // Ephemeral ports only: two demos side by side do not disturb each other.
    ToolProcess first({"demo"});
    ToolProcess second({"demo"});
    EXPECT_EQ(first.wait(120000), 0) << first.restOfErrors();
    EXPECT_EQ(second.wait(120000), 0) << second.restOfErrors();
}
