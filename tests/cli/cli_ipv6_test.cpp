// The tool over IPv6 loopback: a server bound to ::1, and clients that name it as ::1 PORT or
// [::1]:PORT, over both transports. Skipped where this machine has no ::1.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "process.h"
#include "testsupport.h"

using namespace clitest;
using testsupport::startsWith;

namespace {

bool hasIpv6Loopback() {
    const int fd = ::socket(AF_INET6, SOCK_DGRAM, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in6 local = {};
    local.sin6_family = AF_INET6;
    local.sin6_addr = in6addr_loopback;
    const bool ok = ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
    ::close(fd);
    return ok;
}

class CliIpv6 : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (!hasIpv6Loopback()) {
            GTEST_SKIP() << "no IPv6 loopback here";
        }
    }
    std::string transport() const { return GetParam(); }
    std::string flag() const { return "--" + GetParam(); }
};

// The port of "listening on tcp [::1]:41234".
std::string portOf(const std::string& listening) {
    const std::size_t colon = listening.rfind("]:");
    return colon == std::string::npos ? std::string() : listening.substr(colon + 2);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Transports, CliIpv6, ::testing::Values("tcp", "eudp"),
                         [](const ::testing::TestParamInfo<std::string>& param) { return param.param; });

TEST_P(CliIpv6, ServeOnIpv6LoopbackAndEveryClientForm) {
    ToolProcess serve({"serve", flag(), "--bind", "::1", "-p", "0"});
    std::string line;
    ASSERT_TRUE(serve.nextLine(line, kWaitMs));
    ASSERT_TRUE(startsWith(line, "listening on " + transport() + " [::1]:")) << line;
    const std::string port = portOf(line);
    serve.send("set t:f=10");
    ASSERT_TRUE(serve.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "set t:f=10 (sent to 0)");

    ToolProcess sub({"sub", flag(), "[::1]:" + port, "t", "-c", "1"});
    EXPECT_EQ(sub.wait(kWaitMs), 0) << sub.restOfErrors();
    EXPECT_EQ(sub.restOfOutput(), "update t:f=10\n");
    ASSERT_TRUE(serve.nextLine(line, kWaitMs));
    EXPECT_TRUE(startsWith(line, "[1] connected [::1]:")) << line;

    ToolProcess call({"call", flag(), "::1", port, "f", "a:i=1"});
    EXPECT_EQ(call.wait(kWaitMs), 0) << call.restOfErrors();
    EXPECT_TRUE(serve.waitForLine("[2] call f a:i=1", kWaitMs));

    ToolProcess client({"connect", flag(), "--json", "[::1]:" + port});
    ASSERT_TRUE(client.nextLine(line, kWaitMs));
    EXPECT_EQ(line, "{\"event\":\"connected\",\"transport\":\"" + transport() +
                        "\",\"peer\":\"[::1]:" + port + "\"}");
    client.send("quit");
    EXPECT_EQ(client.wait(kWaitMs), 0);
    serve.send("quit");
    EXPECT_EQ(serve.wait(kWaitMs), 0);
}

TEST_P(CliIpv6, BindTakesTheAddressInBracketsToo) {
    ToolProcess serve({"serve", flag(), "--json", "-b", "[::1]", "-p", "0"});
    std::string line;
    ASSERT_TRUE(serve.nextLine(line, kWaitMs));
    EXPECT_TRUE(startsWith(
        line, "{\"event\":\"listening\",\"transport\":\"" + transport() + "\",\"address\":\"::1\",\"port\":"))
        << line;
    serve.send("quit");
    EXPECT_EQ(serve.wait(kWaitMs), 0);
}
