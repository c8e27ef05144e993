// tarn demo: runs to its end and prints its transcript, the same on every run but for ports.
#include <gtest/gtest.h>

#include <cctype>

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

// Every port number after "127.0.0.1:" or "127.0.0.1 " becomes PORT.
std::string withoutPorts(const std::string& text) {
    const std::string host = "127.0.0.1";
    std::string out;
    std::size_t pos = 0;
    for (;;) {
        const std::size_t found = text.find(host, pos);
        if (found == std::string::npos) {
            return out + text.substr(pos);
        }
        std::size_t end = found + host.size();
        out += text.substr(pos, end - pos);
        if (end < text.size() && (text[end] == ':' || text[end] == ' ') && end + 1 < text.size() &&
            std::isdigit(static_cast<unsigned char>(text[end + 1]))) {
            out += text[end];
            out += "PORT";
            ++end;
            while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) {
                ++end;
            }
        }
        pos = end;
    }
}

// The port in "listening on <transport> 127.0.0.1:<port>".
std::string listeningPort(const std::string& text, const std::string& transport) {
    const std::string marker = "listening on " + transport + " 127.0.0.1:";
    const std::size_t found = text.find(marker);
    if (found == std::string::npos) {
        return std::string();
    }
    const std::size_t start = found + marker.size();
    return text.substr(start, text.find('\n', start) - start);
}

}  // namespace

TEST(CliDemo, TranscriptIsTheSameOnEveryRunButForPorts) {
    std::string out;
    std::string err;
    const int status = runTool({"demo"}, "", 120000, out, err);
    EXPECT_EQ(status, 0) << out << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ(withoutPorts(out), kTranscript);

    // The ports printed are the ports used: each client connects to the port its server named.
    for (const std::string transport : {"tcp", "eudp"}) {
        const std::string port = listeningPort(out, transport);
        ASSERT_FALSE(port.empty()) << transport;
        EXPECT_NE(port, "0");
        EXPECT_NE(out.find("$ tarn connect --" + transport + " 127.0.0.1 " + port + "\n"), std::string::npos)
            << transport;
        EXPECT_NE(out.find("client: connected " + transport + " 127.0.0.1:" + port + "\n"), std::string::npos)
            << transport;
    }
}

TEST(CliDemo, RunsAgainWhileAnotherRuns) {
    // Ephemeral ports only: two demos side by side do not disturb each other.
    ToolProcess first({"demo"});
    ToolProcess second({"demo"});
    EXPECT_EQ(first.wait(120000), 0) << first.restOfErrors();
    EXPECT_EQ(second.wait(120000), 0) << second.restOfErrors();
}
