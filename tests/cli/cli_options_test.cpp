// The command line as a newcomer types it: short options, HOST:PORT, --version everywhere, one exit
// status for an unknown host, errors and help in the right place with --json, floats printed short.
#include <gtest/gtest.h>

#include <csignal>

#include "process.h"
#include "testsupport.h"

using namespace clitest;
using testsupport::startsWith;

namespace {

const std::vector<std::string> kCommands = {"demo", "serve",  "connect", "call",
                                            "sub",  "impair", "bridge",  "version"};

}  // namespace

TEST(CliOptions, ShortOptionsForTheCommonFlags) {
    ServeProcess serve("tcp", {"-j"});
    ASSERT_NE(serve.port(), 0) << serve.firstLine();
    EXPECT_TRUE(startsWith(serve.firstLine(), "{\"event\":\"listening\"")) << serve.firstLine();
    serve.send("set a:i=1");
    EXPECT_TRUE(startsWith(serve.next(), "{\"event\":\"set\""));
    // -c and -t, where "sub -c 1 ..." used to be taken for a host named "-c".
    ToolProcess sub({"sub", "-c", "1", "-t", "10", "-j", "127.0.0.1", serve.portText(), "a"});
    EXPECT_EQ(sub.wait(kWaitMs), 0) << sub.restOfErrors();
    EXPECT_EQ(sub.restOfOutput(),
              "{\"event\":\"ready\",\"names\":[\"a\"]}\n"
              "{\"event\":\"update\",\"name\":\"a\",\"type\":\"int\",\"value\":1}\n");
    // Bundled flags and an attached value.
    ToolProcess bundled({"sub", "-jc1", "127.0.0.1", serve.portText(), "a"});
    EXPECT_EQ(bundled.wait(kWaitMs), 0) << bundled.restOfErrors();
    EXPECT_NE(bundled.restOfOutput().find("\"event\":\"update\""), std::string::npos);
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliOptions, ServeTakesShortPortAndBind) {
    ToolProcess serve({"serve", "-b", "127.0.0.1", "-p", "0"});
    std::string line;
    ASSERT_TRUE(serve.nextLine(line, kWaitMs));
    EXPECT_TRUE(startsWith(line, "listening on tcp 127.0.0.1:")) << line;
    serve.send("quit");
    EXPECT_EQ(serve.wait(kWaitMs), 0);
}

TEST(CliOptions, HostAndPortInOneWord) {
    ServeProcess serve("tcp");
    ASSERT_NE(serve.port(), 0);
    const std::string target = "127.0.0.1:" + serve.portText();
    ToolProcess call({"call", target, "f", "x:i=1"});
    EXPECT_EQ(call.wait(kWaitMs), 0) << call.restOfErrors();
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected 127.0.0.1:"));
    EXPECT_EQ(serve.next(), "[1] call f x:i=1");
    EXPECT_EQ(serve.next(), "[1] disconnected");

    ToolProcess client({"connect", target});
    std::string line;
    ASSERT_TRUE(client.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "connected tcp " + target);
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 0);
    EXPECT_TRUE(startsWith(serve.next(), "[2] connected "));
    EXPECT_EQ(serve.next(), "[2] disconnected");

    serve.send("set n:f=1500");
    EXPECT_EQ(serve.next(), "set n:f=1500 (sent to 0)");
    ToolProcess sub({"sub", target, "n", "-c", "1"});
    EXPECT_EQ(sub.wait(kWaitMs), 0);
    EXPECT_EQ(sub.restOfOutput(), "update n:f=1500\n");
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliOptions, MalformedTargets) {
    ToolResult r = runToEnd({"call", "127.0.0.1:99999", "f"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tarn: port out of range: 99999 (1 to 65535); see 'tarn call --help'\n");
    r = runToEnd({"sub", "[::1", "5", "x"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err,
              "tarn: malformed address '[::1' (write [ADDR]:PORT or ADDR PORT); see 'tarn sub --help'\n");
    r = runToEnd({"connect", "127.0.0.1:"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tarn: not a port number: ''; see 'tarn connect --help'\n");
    r = runToEnd({"connect", "127.0.0.1:5", "extra"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tarn: unexpected argument 'extra'; see 'tarn connect --help'\n");
    r = runToEnd({"call", "127.0.0.1:5"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tarn: call needs HOST PORT FID; see 'tarn call --help'\n");
}

TEST(CliOptions, UnknownOptionsAreReportedAsSuch) {
    ToolResult r = runToEnd({"sub", "-x", "127.0.0.1", "1", "a"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tarn: unknown option '-x'; see 'tarn sub --help'\n");
    r = runToEnd({"sub", "127.0.0.1", "1", "a", "-c"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tarn: option -c needs a value; see 'tarn sub --help'\n");
    r = runToEnd({"call", "--count", "1", "127.0.0.1", "1", "f"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tarn: unknown option '--count'; see 'tarn call --help'\n");
    r = runToEnd({"impair", "-q"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tarn: unknown option '-q'; see 'tarn impair --help'\n");
    // A dash and a digit is a word, not an option: a negative number passes as an argument.
    ServeProcess serve("tcp");
    ASSERT_NE(serve.port(), 0);
    r = runToEnd({"call", "127.0.0.1", serve.portText(), "f", "-5"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(startsWith(serve.next(), "[1] connected "));
    EXPECT_EQ(serve.next(), "[1] call f arg1=\"-5\"");
    EXPECT_EQ(serve.quit(), 0);
}

TEST(CliOptions, VersionEverywhere) {
    const ToolResult reference = runToEnd({"--version"});
    EXPECT_EQ(reference.status, 0);
    ASSERT_TRUE(startsWith(reference.out, "tarn ")) << reference.out;
    EXPECT_EQ(reference.out.back(), '\n');
    EXPECT_EQ(runToEnd({"-V"}).out, reference.out);
    EXPECT_EQ(runToEnd({"version"}).out, reference.out);
    for (const std::string& command : kCommands) {
        for (const char* flag : {"--version", "-V"}) {
            const ToolResult r = runToEnd({command, flag});
            EXPECT_EQ(r.status, 0) << command << " " << flag;
            EXPECT_EQ(r.out, reference.out) << command << " " << flag;
            EXPECT_EQ(r.err, "") << command << " " << flag;
        }
    }
    const ToolResult extra = runToEnd({"version", "now"});
    EXPECT_EQ(extra.status, 2);
    EXPECT_EQ(extra.err, "tarn: unexpected argument 'now'; see 'tarn version --help'\n");
}

TEST(CliOptions, UnknownHostIsStatusThreeInEveryCommand) {
    const std::string host = "no-such-host.invalid";
    const std::vector<std::vector<std::string>> commands = {
        {"call", host, "5555", "f"}, {"call", host + ":5555", "f"},
        {"sub", host, "5555", "x"},  {"sub", "--eudp", host + ":5555", "x"},
        {"connect", host, "5555"},   {"impair", "--listen", "0", "--to", host + ":5555"},
    };
    for (const auto& args : commands) {
        const ToolResult r = runToEnd(args);
        EXPECT_EQ(r.status, 3) << args[0];
        EXPECT_EQ(r.err, "tarn: unknown host '" + host + "'\n") << args[0];
        EXPECT_EQ(r.out, "") << args[0];
    }
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"serve", "--bind", host, "--port", "0"},
             {"impair", "--bind", host, "--listen", "0", "--to", "127.0.0.1:9"}}) {
        const ToolResult r = runToEnd(args);
        EXPECT_EQ(r.status, 3) << args[0];
        EXPECT_EQ(r.err, "tarn: unknown bind address '" + host + "'\n") << args[0];
    }
}

TEST(CliOptions, ImpairIsListedAndDocumentedInItsHelp) {
    ToolResult r = runToEnd({"frob"});
    EXPECT_NE(r.err.find("impair"), std::string::npos) << r.err;
    r = runToEnd({"--help"});
    EXPECT_NE(r.out.find("\n  impair "), std::string::npos) << r.out;
    r = runToEnd({"impair", "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(startsWith(r.out, "usage: tarn impair [OPTIONS]")) << r.out;
    for (const char* option :
         {"--listen P", "--to HOST:PORT", "--loss PCT", "--dup PCT", "--reorder PCT", "--delay MS",
          "--jitter MS", "--seed N", "--data-only", "--duration S", "--bind ADDR"}) {
        EXPECT_NE(r.out.find(option), std::string::npos) << option;
    }
    // The relay speaks IPv4; an IPv6 address is refused as such, not as an unknown host.
    r = runToEnd({"impair", "--listen", "0", "--to", "[::1]:5555"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err,
              "tarn: the relay speaks IPv4 only, and '::1' is an IPv6 address; see 'tarn impair --help'\n");
}

TEST(CliOptions, HelpGoesToStandardErrorWithJson) {
    for (const std::string& command : {std::string("serve"), std::string("connect"), std::string("sub")}) {
        const ToolResult plain = runToEnd({command, "--help"});
        EXPECT_EQ(plain.status, 0);
        EXPECT_EQ(plain.err, "");
        ASSERT_TRUE(startsWith(plain.out, "usage: tarn " + command)) << plain.out;
        const ToolResult json = runToEnd({command, "--json", "--help"});
        EXPECT_EQ(json.status, 0);
        EXPECT_EQ(json.out, "") << command;
        EXPECT_EQ(json.err, plain.out) << command;
        EXPECT_EQ(runToEnd({command, "-jh"}).err, plain.out) << command;
    }
}

TEST(CliOptions, JsonErrorsAreObjectsOnStandardOutput) {
    // A usage error, with --json given even after the bad word.
    ToolResult r = runToEnd({"sub", "--frob", "--json", "127.0.0.1", "1", "x"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out,
              "{\"event\":\"error\",\"message\":\"unknown option '--frob'; see 'tarn sub --help'\"}\n");
    // A connection that fails.
    const testsupport::ClosedTcpPort closed;
    const std::string port = std::to_string(closed.port());
    r = runToEnd({"sub", "-j", "127.0.0.1", port, "x"});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "{\"event\":\"error\",\"message\":\"cannot connect to 127.0.0.1:" + port +
                         " over tcp: connection refused\"}\n");
    r = runToEnd({"connect", "--json", "no-such-host.invalid", "1"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "{\"event\":\"error\",\"message\":\"unknown host 'no-such-host.invalid'\"}\n");
    // A bad line typed into a server, and the lost connection of a client.
    ServeProcess serve("tcp", {"--json"});
    ASSERT_NE(serve.port(), 0);
    serve.send("frob");
    const std::string line = serve.next();
    EXPECT_TRUE(
        startsWith(line, "{\"event\":\"error\",\"message\":\"unknown command 'frob'; commands: set NAME"))
        << line;
    ToolProcess client({"connect", "-j", "127.0.0.1", serve.portText()});
    std::string connected;
    ASSERT_TRUE(client.nextLine(connected, kWaitMs));
    EXPECT_TRUE(startsWith(serve.next(), "{\"event\":\"connected\",\"conn\":1,"));
    client.send("window 5");  // refused over TCP
    EXPECT_TRUE(client.waitForLine("{\"event\":\"window\",\"size\":5,\"ok\":false}", kWaitMs));
    serve.send("quit");
    EXPECT_TRUE(client.waitForLine("{\"event\":\"disconnected\",\"reason\":\"closed\"}", kWaitMs));
    EXPECT_TRUE(
        client.waitForLine("{\"event\":\"error\",\"message\":\"connection closed by the server\"}", kWaitMs));
    EXPECT_EQ(client.wait(kWaitMs), 6);
    EXPECT_EQ(client.restOfErrors(), "");
    EXPECT_EQ(serve.process().wait(kWaitMs), 0);
}

TEST(CliOptions, FloatsPrintShortAndNonFiniteOnesStayApartInJson) {
    ServeProcess serve("eudp", {"--json"});
    ASSERT_NE(serve.port(), 0);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"10", "10"},      {"30", "30"},       {"1500", "1500"},   {"21.5", "21.5"},    {"0.1", "0.1"},
        {"1e20", "1e+20"}, {"nan", "\"nan\""}, {"inf", "\"inf\""}, {"-inf", "\"-inf\""}};
    for (const auto& c : cases) {
        serve.send("set x:f=" + c.first);
        EXPECT_EQ(serve.next(), "{\"event\":\"set\",\"name\":\"x\",\"type\":\"float\",\"value\":" + c.second +
                                    ",\"sent\":0}");
    }
    ServeProcess text("tcp");
    ASSERT_NE(text.port(), 0);
    for (const auto& c : cases) {
        text.send("set x:f=" + c.first);
        const std::string printed = c.second[0] == '"' ? c.second.substr(1, c.second.size() - 2) : c.second;
        EXPECT_EQ(text.next(), "set x:f=" + printed + " (sent to 0)");
    }
    EXPECT_EQ(serve.quit(), 0);
    EXPECT_EQ(text.quit(), 0);
}

namespace {

std::string readFile(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    std::string text;
    if (file) {
        char buffer[4096];
        std::size_t n = 0;
        while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
            text.append(buffer, n);
        }
        std::fclose(file);
    }
    return text;
}

// The long option names that `tarn COMMAND --help` lists under "Options:".
std::vector<std::string> helpOptions(const std::string& help) {
    std::vector<std::string> names;
    const std::size_t start = help.find("\nOptions:\n");
    for (const std::string& line : linesOf(help.substr(start == std::string::npos ? help.size() : start))) {
        const std::size_t dashes = line.find("--");
        if (line.rfind("  -", 0) == 0 || line.rfind("      --", 0) == 0) {
            names.push_back(line.substr(dashes, line.find(' ', dashes) - dashes));
        }
    }
    return names;
}

}  // namespace

TEST(CliOptions, HelpManPageAndCompletionListTheSameOptions) {
    const std::string page = readFile(std::string(TARN_SOURCE_DIR) + "/tools/share/tarn.1");
    const std::string completion = readFile(std::string(TARN_SOURCE_DIR) + "/tools/share/tarn.bash");
    ASSERT_FALSE(page.empty());
    ASSERT_FALSE(completion.empty());
    for (const std::string& command : kCommands) {
        const ToolResult help = runToEnd({command, "--help"});
        ASSERT_EQ(help.status, 0) << command;
        const std::vector<std::string> options = helpOptions(help.out);
        EXPECT_GE(options.size(), 3u) << help.out;
        const std::size_t arm = completion.find("\n        " + command + ")\n");
        ASSERT_NE(arm, std::string::npos) << command;
        // The command's arm ends with its own ";;" at the arm's indentation.
        const std::string armText = completion.substr(arm, completion.find("\n            ;;\n", arm) - arm);
        for (const std::string& option : options) {
            std::string escaped;
            for (const char c : option) {
                escaped += c == '-' ? "\\-" : std::string(1, c);
            }
            EXPECT_NE(page.find("\\fB" + escaped + "\\fR"), std::string::npos) << command << " " << option;
            bool listed = false;
            for (const char* before : {" ", "\""}) {
                for (const char* after : {" ", "\""}) {
                    listed = listed || armText.find(before + option + after) != std::string::npos;
                }
            }
            EXPECT_TRUE(listed) << command << " " << option;
        }
    }
}

TEST(CliOptions, ImpairOnATakenPortCannotListen) {
    testsupport::RawUdp taken;
    const ToolResult r =
        runToEnd({"impair", "--listen", std::to_string(taken.port()), "--to", "127.0.0.1:9"});
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(r.err.rfind("tarn: cannot bind 127.0.0.1:" + std::to_string(taken.port()) + ": ", 0), 0u)
        << r.err;
    EXPECT_EQ(r.out, "");
}
