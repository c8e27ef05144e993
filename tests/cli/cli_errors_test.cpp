// Usage, help and every error path of the tool: one line on standard error, the documented exit
// status, and no crash whatever the input.
#include <gtest/gtest.h>

#include <csignal>

#include "process.h"
#include "testsupport.h"

using namespace clitest;

namespace {

// The single error line the tool prints, without its "tarn: " prefix.
std::string errorOf(const ToolResult& result) {
    const std::vector<std::string> lines = linesOf(result.err);
    EXPECT_EQ(lines.size(), 1u) << result.err;
    if (lines.empty()) {
        return std::string();
    }
    EXPECT_EQ(lines[0].rfind("tarn: ", 0), 0u) << lines[0];
    return lines[0].substr(6);
}

}  // namespace

TEST(CliUsage, NoCommandPrintsUsageAndFails) {
    const ToolResult r = runToEnd({});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("usage: tarn COMMAND", 0), 0u) << r.err;
}

TEST(CliUsage, HelpAndVersion) {
    ToolResult r = runToEnd({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("usage: tarn COMMAND", 0), 0u);
    EXPECT_NE(r.out.find("7 cannot listen"), std::string::npos);
    r = runToEnd({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("tarn ", 0), 0u);
}

TEST(CliUsage, EverySubcommandHasHelp) {
    for (const char* command : {"demo", "serve", "connect", "call", "sub"}) {
        const ToolResult r = runToEnd({command, "--help"});
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_EQ(r.err, "") << command;
        EXPECT_EQ(r.out.rfind(std::string("usage: tarn ") + command, 0), 0u) << r.out;
        EXPECT_NE(r.out.find("--log-level"), std::string::npos) << command;
        // "tarn help X" is the same text, and so is -h.
        EXPECT_EQ(runToEnd({"help", command}).out, r.out) << command;
        EXPECT_EQ(runToEnd({command, "-h"}).out, r.out) << command;
    }
}

TEST(CliUsage, UnknownCommand) {
    const ToolResult r = runToEnd({"frob"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r),
              "unknown command 'frob' (demo, serve, connect, call, sub, impair, bridge, version, help; see "
              "tarn --help)");
}

TEST(CliUsage, UnknownOptionAndMissingValues) {
    ToolResult r = runToEnd({"sub", "--frob", "127.0.0.1", "1", "x"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "unknown option '--frob'; see 'tarn sub --help'");
    r = runToEnd({"sub", "127.0.0.1", "1", "x", "--count"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "option --count needs a value; see 'tarn sub --help'");
    r = runToEnd({"call", "--tcp", "--eudp", "127.0.0.1", "1", "f"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "--tcp and --eudp exclude each other; see 'tarn call --help'");
    r = runToEnd({"demo", "extra"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "unexpected argument 'extra'; see 'tarn demo --help'");
}

TEST(CliUsage, MissingArguments) {
    ToolResult r = runToEnd({"call", "127.0.0.1", "5555"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "call needs HOST PORT FID; see 'tarn call --help'");
    r = runToEnd({"sub", "127.0.0.1", "5555"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "sub needs HOST PORT NAME...; see 'tarn sub --help'");
    r = runToEnd({"connect", "127.0.0.1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "connect needs HOST PORT; see 'tarn connect --help'");
    r = runToEnd({"serve"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "serve needs --port P (0 picks a free port); see 'tarn serve --help'");
}

TEST(CliUsage, PortOutOfRange) {
    ToolResult r = runToEnd({"call", "127.0.0.1", "70000", "f"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "port out of range: 70000 (1 to 65535); see 'tarn call --help'");
    r = runToEnd({"sub", "127.0.0.1", "0", "x"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "port out of range: 0 (1 to 65535); see 'tarn sub --help'");
    r = runToEnd({"connect", "127.0.0.1", "port"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "not a port number: 'port'; see 'tarn connect --help'");
    r = runToEnd({"serve", "--port", "65536"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "port out of range: 65536 (0 to 65535); see 'tarn serve --help'");
}

TEST(CliUsage, MalformedValuesAreRefusedBeforeConnecting) {
    // Port 1 on loopback has no server: a value error must come first.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"x:i=abc", "malformed value 'x:i=abc': 'abc' is not a 32-bit integer"},
        {"x:i=99999999999", "malformed value 'x:i=99999999999': '99999999999' is not a 32-bit integer"},
        {"x:b=maybe", "malformed value 'x:b=maybe': a boolean is on or off"},
        {"x:f=fast", "malformed value 'x:f=fast': 'fast' is not a number"},
        {"x:q=1", "malformed value 'x:q=1': unknown type 'q' (use i, b, f or s)"},
    };
    for (const auto& c : cases) {
        const ToolResult r = runToEnd({"call", "127.0.0.1", "1", "f", "ok=1", c.first});
        EXPECT_EQ(r.status, 2) << c.first;
        EXPECT_EQ(errorOf(r), c.second + "; see 'tarn call --help'");
    }
    const ToolResult r = runToEnd({"call", "127.0.0.1", "1", "f", "x=1", "x:i=2"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "parameter 'x' is given twice; see 'tarn call --help'");
}

TEST(CliUsage, MessageTooLargeIsRefused) {
    ToolResult r = runToEnd({"call", "127.0.0.1", "1", "f", "s=" + std::string(1482, 'v')});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r),
              "the call is too large for one TARN message: it needs 1489 bytes of room, a message "
              "carries at most 1488; see 'tarn call --help'");
    // A float whose bytes would fit but whose encoder asks for one byte more: refused, not crashed.
    r = runToEnd({"call", "127.0.0.1", "1", "f", std::string(1479, 'z') + ":f=1"});
    EXPECT_EQ(r.status, 2);
    r = runToEnd({"sub", "127.0.0.1", "1", std::string(1488, 'n')});
    EXPECT_EQ(r.status, 2);
}

TEST(CliUsage, BadOptionValues) {
    ToolResult r = runToEnd({"sub", "127.0.0.1", "1", "x", "--count", "0"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "--count needs a whole number of messages, 1 or more; see 'tarn sub --help'");
    r = runToEnd({"sub", "127.0.0.1", "1", "x", "--timeout", "soon"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r),
              "--timeout needs a number of seconds above 0 (at most 86400); see 'tarn sub --help'");
    r = runToEnd({"call", "--log-level", "loud", "127.0.0.1", "1", "f"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r),
              "unknown log level 'loud' (none, error, warning, info or debug); see 'tarn call --help'");
    r = runToEnd({"connect", "--allow-send", "reliable", "127.0.0.1", "1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r), "--allow-send applies to --eudp only; see 'tarn connect --help'");
    r = runToEnd({"connect", "--eudp", "--allow-receive", "fast", "127.0.0.1", "1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(errorOf(r),
              "--allow-receive takes realtime, reliable or realtime,reliable; see 'tarn connect --help'");
}

TEST(CliErrors, UnknownHost) {
    for (const char* command : {"call", "sub", "connect"}) {
        std::vector<std::string> args = {command, "no-such-host.invalid", "5555"};
        if (std::string(command) != "connect") {
            args.push_back("x");
        }
        const ToolResult r = runToEnd(args);
        EXPECT_EQ(r.status, 3) << command;
        EXPECT_EQ(errorOf(r), "unknown host 'no-such-host.invalid'") << command;
        EXPECT_EQ(r.out, "");
    }
}

TEST(CliErrors, TcpConnectionRefused) {
    const testsupport::ClosedTcpPort closed;
    const std::string port = std::to_string(closed.port());
    for (const char* command : {"call", "sub", "connect"}) {
        std::vector<std::string> args = {command, "127.0.0.1", port};
        if (std::string(command) != "connect") {
            args.push_back("x");
        }
        const std::int64_t start = testsupport::nowMs();
        const ToolResult r = runToEnd(args);
        EXPECT_EQ(r.status, 4) << command;
        EXPECT_EQ(errorOf(r), "cannot connect to 127.0.0.1:" + port + " over tcp: connection refused")
            << command;
        EXPECT_LT(testsupport::nowMs() - start, 5000) << "a refused TCP connect fails at once";
    }
}

TEST(CliErrors, EudpConnectTimesOutAfterFiveSeconds) {
    testsupport::RawUdp silent;  // takes the CON and never answers
    const std::string port = std::to_string(silent.port());
    const std::int64_t start = testsupport::nowMs();
    const ToolResult r = runToEnd({"call", "--eudp", "127.0.0.1", port, "f"});
    const std::int64_t took = testsupport::nowMs() - start;
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(errorOf(r),
              "cannot connect to 127.0.0.1:" + port + " over eudp: no answer within 5 s (timed out)");
    EXPECT_GE(took, 4900);
    EXPECT_LT(took, 30000);
    // It did ask: one CON datagram reached the silent peer.
    testsupport::Bytes datagram;
    std::uint16_t from = 0;
    ASSERT_TRUE(silent.receive(datagram, from, 1000));
    EXPECT_EQ(testsupport::hex(testsupport::Bytes(datagram.begin(), datagram.begin() + 4)),
              testsupport::hex({0x01, 'C', 'O', 'N'}));
}

TEST(CliErrors, LogLevelShowsTheLibrarysLines) {
    testsupport::RawUdp silent;
    const std::string port = std::to_string(silent.port());
    const ToolResult r = runToEnd({"call", "--eudp", "--log-level", "error", "127.0.0.1", port, "f"});
    EXPECT_EQ(r.status, 4);
    const std::vector<std::string> lines = linesOf(r.err);
    ASSERT_EQ(lines.size(), 2u) << r.err;
    EXPECT_NE(lines[0].find("failed to connect to 127.0.0.1:" + port + " (timeout)"), std::string::npos)
        << lines[0];
    EXPECT_NE(lines[0].find("ERROR"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1],
              "tarn: cannot connect to 127.0.0.1:" + port + " over eudp: no answer within 5 s (timed out)");
}

TEST(CliErrors, ServeOnATakenPort) {
    testsupport::RawTcpListener tcp;
    ToolResult r = runToEnd({"serve", "--tcp", "--bind", "127.0.0.1", "--port", std::to_string(tcp.port())});
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(errorOf(r), "cannot listen on 127.0.0.1:" + std::to_string(tcp.port()) +
                              " over tcp: address in use or not available");
    testsupport::RawUdp udp;
    r = runToEnd({"serve", "--eudp", "--bind", "127.0.0.1", "--port", std::to_string(udp.port())});
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(errorOf(r), "cannot listen on 127.0.0.1:" + std::to_string(udp.port()) +
                              " over eudp: address in use or not available");
}

TEST(CliErrors, ServeOnABadAddress) {
    ToolResult r = runToEnd({"serve", "--bind", "no-such-host.invalid", "--port", "0"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(errorOf(r), "unknown bind address 'no-such-host.invalid'");
    // A documentation address that is no address of this machine cannot be bound.
    r = runToEnd({"serve", "--bind", "192.0.2.1", "--port", "0"});
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(errorOf(r), "cannot listen on 192.0.2.1:0 over tcp: address in use or not available");
}
