// The tool's hardened options and `stats` command, run as a user runs them.
#include <gtest/gtest.h>

#include <string>

#include "process.h"
#include "testsupport.h"

using clitest::kWaitMs;
using clitest::runTool;
using clitest::ServeProcess;
using clitest::ToolProcess;
using testsupport::startsWith;

namespace {

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Sends `stats` and returns the first output line that begins with `prefix`.
std::string statsLine(ToolProcess& process, const std::string& prefix) {
    std::string line;
    process.send("stats");
    process.waitForLine([&](const std::string& l) { return startsWith(l, prefix); }, line, kWaitMs);
    return line;
}

}  // namespace

TEST(HardenedCli, OptionsAreCheckedBeforeAnythingStarts) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"serve", "--tcp", "--hardened", "--port", "0"},
         "tarn: --hardened applies to --eudp only; see 'tarn serve --help'"},
        {{"serve", "--eudp", "--max-per-address", "3", "--port", "0"},
         "tarn: --max-per-address applies to --hardened only; see 'tarn serve --help'"},
        {{"serve", "--eudp", "--hardened", "--max-new-per-second", "-1", "--port", "0"},
         "tarn: --max-new-per-second takes a number from 0 to 4294967295; see 'tarn serve --help'"},
        {{"sub", "--hardened", "127.0.0.1", "1", "x"},
         "tarn: --hardened applies to --eudp only; see 'tarn sub --help'"},
        {{"call", "--tcp", "--hardened", "127.0.0.1", "1", "f"},
         "tarn: --hardened applies to --eudp only; see 'tarn call --help'"}};
    for (const auto& c : cases) {
        std::string out;
        std::string err;
        EXPECT_EQ(2, runTool(c.first, "", kWaitMs, out, err)) << c.second;
        EXPECT_EQ(c.second + "\n", err);
    }
}

TEST(HardenedCli, HardenedServeCountsRefusalsInItsStats) {
    ServeProcess serve("eudp", {"--hardened", "--max-per-address", "2"});
    ASSERT_NE(0, serve.port());
    EXPECT_EQ(
        "stats listener eudp hardened: accepted 0, live 0; refused: total limit 0, per address 0, rate 0; "
        "dropped: invalid 0, not CON 0, empty 0, receive errors 0",
        statsLine(serve.process(), "stats listener"));

    testsupport::RawUdp raw;
    for (std::uint32_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(raw.sendTo(testsupport::eudpDatagram("CON", i), serve.port()));
    }
    ASSERT_TRUE(raw.sendTo(testsupport::Bytes(), serve.port()));  // survived when hardened
    std::string line;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(serve.process().waitForLine(
            [](const std::string& l) { return contains(l, "] connected "); }, line, kWaitMs));
    }
    std::string listener;
    ASSERT_TRUE(testsupport::waitUntil(
        [&] {
            listener = statsLine(serve.process(), "stats listener");
            return contains(listener, "per address 1") && contains(listener, "empty 1");
        },
        kWaitMs))
        << listener;
    EXPECT_TRUE(startsWith(listener, "stats listener eudp hardened: accepted 2, live 2;")) << listener;
    std::string connection;
    ASSERT_TRUE(serve.process().waitForLine(
        [](const std::string& l) { return startsWith(l, "stats [1] eudp hardened: "); }, connection,
        kWaitMs));
    EXPECT_TRUE(contains(connection, "sent ACK=1")) << connection;
    serve.send("stats 2");
    ASSERT_TRUE(serve.process().waitForLine(
        [](const std::string& l) { return startsWith(l, "stats [2] eudp hardened: "); }, connection,
        kWaitMs));
    serve.send("stats 9");
    std::string error;
    ASSERT_TRUE(serve.process().nextErrorLine(error, kWaitMs));
    EXPECT_EQ("tarn: no connection [9]; 'list' shows them", error);
    EXPECT_EQ(0, serve.quit());
}

TEST(HardenedCli, ConnectPrintsItsStatsAsTextAndJson) {
    ServeProcess serve("eudp");
    ASSERT_NE(0, serve.port());
    ToolProcess client({"connect", "--eudp", "--hardened", "--json", "127.0.0.1", serve.portText()});
    std::string line;
    ASSERT_TRUE(client.waitForLine(
        [](const std::string& l) { return contains(l, "\"event\":\"connected\""); }, line, kWaitMs));
    client.send("sub temp");
    ASSERT_TRUE(serve.process().waitForLine([](const std::string& l) { return contains(l, "subscribe"); },
                                            line, kWaitMs));
    const std::string json = statsLine(client, "{\"event\":\"stats\"");
    EXPECT_TRUE(startsWith(json, "{\"event\":\"stats\",\"transport\":\"eudp\",\"hardened\":true,\"sent\":{"))
        << json;
    EXPECT_TRUE(contains(json, "\"CON\":{\"datagrams\":1,\"bytes\":0}")) << json;
    EXPECT_TRUE(contains(json, "\"CMD\":{\"datagrams\":1,\"bytes\":9}")) << json;  // S, temp
    EXPECT_TRUE(contains(json,
                         "\"hardened_dropped\":{\"strangers\":0,\"empty\":0,\"receive_errors\":0,"
                         "\"windows_bounded\":0}"))
        << json;
    EXPECT_TRUE(contains(json, "\"send_mode\":\"realtime\"")) << json;
    client.send("quit");
    EXPECT_EQ(0, client.wait(kWaitMs));
}

TEST(HardenedCli, ConnectOverTcpCountsFrames) {
    ServeProcess serve("tcp");
    ASSERT_NE(0, serve.port());
    ToolProcess client({"connect", "127.0.0.1", serve.portText()});
    std::string line;
    ASSERT_TRUE(
        client.waitForLine([](const std::string& l) { return startsWith(l, "connected "); }, line, kWaitMs));
    client.send("sub temp");
    ASSERT_TRUE(serve.process().waitForLine([](const std::string& l) { return contains(l, "subscribe"); },
                                            line, kWaitMs));
    EXPECT_EQ("stats tcp: sent 1 frames (11 bytes); received 0 frames (0 bytes); oversize refused 0",
              statsLine(client, "stats tcp"));
    client.send("stats now");
    std::string error;
    ASSERT_TRUE(client.nextErrorLine(error, kWaitMs));
    EXPECT_EQ("tarn: stats takes no arguments", error);
    client.send("quit");
    EXPECT_EQ(1, client.wait(kWaitMs));  // a line failed
}
