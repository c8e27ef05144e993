// The tarn tool over TLS, run as a user runs it: serve --tls with call, sub and connect --tls,
// client certificates, refusals as exit statuses with OpenSSL's reason, usage errors, and
// tarn demo --tls.
#include <gtest/gtest.h>

#include "process.h"
#include "tlstestsupport.h"

using namespace clitest;
using tlstest::certs;

namespace {

std::vector<std::string> serverIdentity() {
    return {"--cert", certs().server, "--key", certs().serverKey};
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(TlsCli, ServeAndCallOverTls) {
    ServeProcess serve("tls", serverIdentity());
    ASSERT_NE(serve.port(), 0) << serve.firstLine();
    EXPECT_EQ(serve.firstLine(), "listening on tls 127.0.0.1:" + serve.portText());
    std::string out, err;
    EXPECT_EQ(
        runTool({"call", "--tls", "--ca", certs().ca, "localhost", serve.portText(), "setpoint", "level:i=3"},
                "", kWaitMs, out, err),
        0)
        << err;
    EXPECT_EQ(out, "");
    std::string line = serve.next();
    EXPECT_TRUE(contains(line, "[1] connected 127.0.0.1:")) << line;
    EXPECT_EQ(serve.next(), "[1] call setpoint level:i=3");
}

TEST(TlsCli, SubWithAClientCertificateGetsUpdatesAndOneWithoutIsRefused) {
    std::vector<std::string> extra = serverIdentity();
    extra.insert(extra.end(), {"--ca", certs().ca, "--require-client-cert"});
    ServeProcess serve("tls", extra);
    ASSERT_NE(serve.port(), 0) << serve.firstLine();
    serve.send("set temperature:f=21.5");

    std::string out, err;
    EXPECT_EQ(runTool({"sub", "--tls", "--ca", certs().ca, "127.0.0.1", serve.portText(), "temperature"}, "",
                      kWaitMs, out, err),
              4);
    EXPECT_TRUE(contains(err, "tarn: cannot connect to 127.0.0.1:" + serve.portText() +
                                  " over tls: TLS handshake failed: ") &&
                contains(err, "certificate required"))
        << err;

    EXPECT_EQ(runTool({"sub", "--tls", "--json", "--ca", certs().ca, "--cert", certs().client, "--key",
                       certs().clientKey, "127.0.0.1", serve.portText(), "temperature", "--count", "1"},
                      "", kWaitMs, out, err),
              0)
        << err;
    const std::vector<std::string> lines = linesOf(out);
    ASSERT_EQ(lines.size(), 2u) << out;
    EXPECT_EQ(lines[0], "{\"event\":\"ready\",\"names\":[\"temperature\"]}");
    EXPECT_TRUE(contains(lines[1], "\"event\":\"update\"") && contains(lines[1], "\"name\":\"temperature\""))
        << lines[1];
}

TEST(TlsCli, AServerFromAnotherCaIsRefusedWithTheReason) {
    ServeProcess serve("tls", {"--cert", certs().otherServer, "--key", certs().otherServerKey});
    ASSERT_NE(serve.port(), 0) << serve.firstLine();
    std::string out, err;
    EXPECT_EQ(runTool({"call", "--tls", "--ca", certs().ca, "127.0.0.1", serve.portText(), "f"}, "", kWaitMs,
                      out, err),
              4);
    EXPECT_TRUE(contains(err, "over tls: TLS handshake failed: ") &&
                contains(err, "certificate verify failed (unable to get local issuer certificate)"))
        << err;
    // --insecure takes any certificate.
    EXPECT_EQ(
        runTool({"call", "--tls", "--insecure", "127.0.0.1", serve.portText(), "f"}, "", kWaitMs, out, err),
        0)
        << err;
}

TEST(TlsCli, ConnectTalksOverTls) {
    ServeProcess serve("tls", serverIdentity());
    ASSERT_NE(serve.port(), 0);
    ToolProcess connect({"connect", "--tls", "--ca", certs().ca, "localhost:" + serve.portText()});
    std::string line;
    ASSERT_TRUE(connect.nextLine(line, kWaitMs)) << connect.restOfErrors();
    EXPECT_EQ(line, "connected tls 127.0.0.1:" + serve.portText());  // the address the name resolved to
    connect.send("sub door");
    ASSERT_TRUE(connect.waitForLine("sent subscribe door", kWaitMs));
    serve.next();  // connected
    EXPECT_EQ(serve.next(), "[1] subscribe door");
    serve.send("trigger door=open");
    EXPECT_TRUE(connect.waitForLine("trigger door=\"open\"", kWaitMs)) << connect.restOfOutput();
    connect.send("quit");
    EXPECT_EQ(connect.wait(kWaitMs), 0);
}

TEST(TlsCli, TlsOptionsAreCheckedBeforeAnythingStarts) {
    std::string out, err;
    EXPECT_EQ(runTool({"call", "--cert", certs().client, "127.0.0.1", "1", "f"}, "", kWaitMs, out, err), 2);
    EXPECT_TRUE(contains(err, "tarn: --cert needs --tls")) << err;
    EXPECT_EQ(runTool({"sub", "--tls", "--eudp", "127.0.0.1", "1", "n"}, "", kWaitMs, out, err), 2);
    EXPECT_TRUE(contains(err, "--tls runs on TCP; it cannot be combined with --eudp")) << err;
    EXPECT_EQ(runTool({"serve", "--tls", "--port", "0"}, "", kWaitMs, out, err), 2);
    EXPECT_TRUE(contains(err, "serve --tls needs --cert and --key")) << err;
    EXPECT_EQ(runTool({"serve", "--tls", "--cert", certs().server, "--key", certs().serverKey,
                       "--require-client-cert", "--port", "0"},
                      "", kWaitMs, out, err),
              2);
    EXPECT_TRUE(contains(err, "--require-client-cert needs --ca")) << err;
    EXPECT_EQ(
        runTool({"connect", "--tls", "--key", certs().clientKey, "127.0.0.1", "1"}, "", kWaitMs, out, err),
        2);
    EXPECT_TRUE(contains(err, "--cert and --key go together")) << err;
}

TEST(TlsCli, ServeWithACertificateThatCannotBeLoadedCannotListen) {
    std::string out, err;
    EXPECT_EQ(runTool({"serve", "--tls", "--cert", certs().dir + "/missing.pem", "--key", certs().serverKey,
                       "--port", "0"},
                      "", kWaitMs, out, err),
              7);
}

TEST(TlsCli, DemoOverTls) {
    std::string out, err;
    EXPECT_EQ(runTool({"demo", "--tls"}, "", 60000, out, err), 0) << err;
    EXPECT_TRUE(contains(out, "over TLS and then over EUDP")) << out;
    EXPECT_TRUE(contains(out, "\n--- tls ---\n$ tarn connect --tls 127.0.0.1 ")) << out;
    EXPECT_TRUE(contains(out, "\nclient: connected tls 127.0.0.1:")) << out;
    EXPECT_TRUE(contains(out, "\nserver: [1] call setpoint")) << out;
    EXPECT_TRUE(contains(out, "tarn demo: done; every step was answered in time.")) << out;
}
