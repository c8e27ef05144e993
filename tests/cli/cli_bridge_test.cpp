// tarn bridge without the MQTT bridge itself: its help from the command table, the program that
// takes the tool's place (a script standing in for tarn-bridge beside a copy of the tool: same
// process, the words unchanged, its exit status and signals its own), and the error when there is
// no bridge to run.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include "process.h"

using namespace clitest;

namespace {

const std::string kInstalledBridge = std::string(TARN_INSTALL_BINDIR) + "/tarn-bridge";

// A directory holding a copy of the tool, and whatever a test puts beside it; removed at the end.
class ToolCopy {
public:
    ToolCopy() {
        char pattern[] = "/tmp/tarn-bridge-test-XXXXXX";
        if (::mkdtemp(pattern) != nullptr) {
            m_dir = pattern;
            std::ifstream in(toolPath(), std::ios::binary);
            std::ofstream out(tool(), std::ios::binary);
            out << in.rdbuf();
            out.close();
            m_ok = in && out && ::chmod(tool().c_str(), 0755) == 0;
        }
    }
    ~ToolCopy() {
        if (!m_dir.empty()) {
            const int status = std::system(("rm -rf '" + m_dir + "'").c_str());
            (void)status;
        }
    }
    bool ok() const { return m_ok; }
    const std::string& dir() const { return m_dir; }
    std::string tool() const { return m_dir + "/tarn"; }
    // Writes a file named tarn-bridge beside the copy.
    bool putBridge(const std::string& content, mode_t mode) const {
        const std::string path = m_dir + "/tarn-bridge";
        std::ofstream out(path, std::ios::binary);
        out << content;
        out.close();
        return out && ::chmod(path.c_str(), mode) == 0;
    }

private:
    std::string m_dir;
    bool m_ok = false;
};

std::string missingMessage(const ToolCopy& copy) {
    return "no tarn-bridge in " + copy.dir() + " nor in " + TARN_INSTALL_BINDIR +
           " (the MQTT bridge is built only where libmosquitto is found)";
}

}  // namespace

TEST(CliBridge, HelpComesFromTheToolWithoutTheBridge) {
    ToolCopy copy;
    ASSERT_TRUE(copy.ok());
    const ToolResult help = runToEnd({"bridge", "--help"}, "", kWaitMs, copy.tool());
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.err, "");
    EXPECT_EQ(help.out.rfind("usage: tarn bridge [OPTIONS]\n", 0), 0u) << help.out;
    for (const char* part : {"--device NAME=ADDR", "--sub NAME...", "--broker HOST:PORT", "--qos N",
                             "--tls-insecure", "--log-level LEVEL", "exits with 127"}) {
        EXPECT_NE(help.out.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(runToEnd({"bridge", "-h"}, "", kWaitMs, copy.tool()).out, help.out);
    EXPECT_EQ(runToEnd({"help", "bridge"}, "", kWaitMs, copy.tool()).out, help.out);
    EXPECT_EQ(runToEnd({"help", "bridge"}).out, help.out);
    const ToolResult version = runToEnd({"bridge", "--version"}, "", kWaitMs, copy.tool());
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, runToEnd({"--version"}).out);
    EXPECT_EQ(runToEnd({"bridge", "-V"}, "", kWaitMs, copy.tool()).out, version.out);
    // Listed with the other commands.
    EXPECT_NE(runToEnd({"--help"}).out.find("\n  bridge "), std::string::npos);
    EXPECT_NE(runToEnd({"frob"}).err.find(", impair, bridge, version, help;"), std::string::npos);
}

TEST(CliBridge, MissingBridgeIsStatus127) {
    if (::access(kInstalledBridge.c_str(), F_OK) == 0) {
        GTEST_SKIP() << kInstalledBridge << " is installed, so a bridge is never missing here";
    }
    ToolCopy copy;
    ASSERT_TRUE(copy.ok());
    ToolResult r = runToEnd({"bridge", "--device", "lab=127.0.0.1:5555"}, "", kWaitMs, copy.tool());
    EXPECT_EQ(r.status, 127);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "tarn: " + missingMessage(copy) + "\n");
    // With no words at all, and with --json: the error as an object on standard output.
    EXPECT_EQ(runToEnd({"bridge"}, "", kWaitMs, copy.tool()).status, 127);
    r = runToEnd({"bridge", "--device", "lab=127.0.0.1:5555", "--json"}, "", kWaitMs, copy.tool());
    EXPECT_EQ(r.status, 127);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "{\"event\":\"error\",\"message\":\"" + missingMessage(copy) + "\"}\n");
    // A tarn-bridge that cannot be executed is passed over.
    ASSERT_TRUE(copy.putBridge("#!/bin/sh\nexit 0\n", 0644));
    r = runToEnd({"bridge", "--device", "lab=127.0.0.1:5555"}, "", kWaitMs, copy.tool());
    EXPECT_EQ(r.status, 127);
    EXPECT_EQ(r.err, "tarn: " + missingMessage(copy) + "\n");
}

TEST(CliBridge, TheBridgeBesideTheToolTakesItsPlaceWithTheSameWords) {
    ToolCopy copy;
    ASSERT_TRUE(copy.ok());
    ASSERT_TRUE(
        copy.putBridge("#!/bin/sh\n"
                       "echo \"pid $$\"\n"
                       "for word in \"$@\"; do echo \"[$word]\"; done\n"
                       "echo \"to stderr\" >&2\n"
                       "exit 42\n",
                       0755));
    const std::vector<std::string> words = {
        "--device", "lab=tcp://[::1]:5555", "--sub", "temp", "two words", "", "--help", "-V", "--json"};
    std::vector<std::string> args = {"bridge"};
    args.insert(args.end(), words.begin(), words.end());
    ToolProcess process(args, copy.tool());
    process.closeInput();
    ASSERT_TRUE(process.started());
    EXPECT_EQ(process.wait(kWaitMs), 42);
    const std::vector<std::string> lines = linesOf(process.restOfOutput());
    ASSERT_EQ(lines.size(), words.size() + 1) << process.restOfOutput();
    // The same process: the program ran in the tool's place, not as its child.
    EXPECT_EQ(lines[0], "pid " + std::to_string(process.pid()));
    for (std::size_t i = 0; i < words.size(); ++i) {
        EXPECT_EQ(lines[i + 1], "[" + words[i] + "]");
    }
    EXPECT_EQ(process.restOfErrors(), "to stderr\n");
}

TEST(CliBridge, SignalsReachTheBridge) {
    ToolCopy copy;
    ASSERT_TRUE(copy.ok());
    ASSERT_TRUE(
        copy.putBridge("#!/bin/sh\n"
                       "trap 'echo \"got $1\"; exit 9' TERM\n"
                       "trap 'echo \"got $1\"; exit 8' INT\n"
                       "echo ready\n"
                       "while :; do sleep 0.05; done\n",
                       0755));
    for (const int number : {SIGTERM, SIGINT}) {
        const std::string name = number == SIGTERM ? "term" : "int";
        ToolProcess process({"bridge", name}, copy.tool());
        process.closeInput();
        ASSERT_TRUE(process.waitForLine("ready", kWaitMs)) << process.restOfErrors();
        process.signal(number);
        EXPECT_EQ(process.wait(kWaitMs), number == SIGTERM ? 9 : 8) << name;
        EXPECT_EQ(process.restOfOutput(), "got " + name + "\n");
    }
}
