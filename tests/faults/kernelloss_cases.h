// The loss cases shared by the short and the full-size kernel-loss suites: each test process gets
// a network namespace of its own whose input hook drops a share of the packets.
#ifndef TARN_TESTS_FAULTS_KERNELLOSS_CASES_H
#define TARN_TESTS_FAULTS_KERNELLOSS_CASES_H

#include <sstream>

#include <gtest/gtest.h>

#include "kernelloss.h"

namespace faults {

inline std::string describeRun(const char* what, int permille, const StreamOptions& options,
                               const StreamResult& result) {
    std::ostringstream out;
    out << what << " at " << permille / 10.0 << " % kernel loss, " << options.messages
        << " messages each way: " << result.seconds << " s (connect attempts " << result.connectAttempts
        << ", connections negotiated on " << result.modeAttempts << ")";
    return out.str();
}

#define TARN_ENTER_LOSSY_NAMESPACE(protocol, permille)                      \
    do {                                                                    \
        std::string why;                                                    \
        if (!faults::enterOwnNetworkNamespace(why)) {                       \
            GTEST_SKIP() << why;                                            \
        }                                                                   \
        ASSERT_TRUE(faults::setKernelLoss(protocol, permille, why)) << why; \
    } while (false)

// Reliable both ways: complete, in order, no duplicates, both directions.
inline void expectReliable(ETransport kind, int permille, int messages, int timeoutMs) {
    TestServer server(kind);
    ASSERT_NE(0, server.start());
    StreamOptions options;
    options.kind = kind;
    options.reliable = true;
    options.messages = messages;
    options.timeoutMs = timeoutMs;
    const StreamResult result = runStream(server, server.port(), options);
    ASSERT_EQ("", result.setupError);
    EXPECT_EQ("", checkComplete(result.toServer, messages)) << "client to server";
    EXPECT_EQ("", checkComplete(result.toClient, messages)) << "server to client";
    figure(describeRun(kind == eTransportTCP ? "TCP" : "EUDP reliable", permille, options, result));
}

// Realtime both ways: strictly increasing (so never duplicated), with most of it arriving.
inline void expectRealtime(int permille, int messages) {
    TestServer server(eTransportEUDP);
    ASSERT_NE(0, server.start());
    StreamOptions options;
    options.reliable = false;
    options.messages = messages;
    const StreamResult result = runStream(server, server.port(), options);
    ASSERT_EQ("", result.setupError);
    EXPECT_EQ("", checkIncreasing(result.toServer)) << "client to server";
    EXPECT_EQ("", checkIncreasing(result.toClient)) << "server to client";
    EXPECT_GT(result.toServer.size(), static_cast<std::size_t>(messages / 2));
    EXPECT_GT(result.toClient.size(), static_cast<std::size_t>(messages / 2));
    std::ostringstream out;
    out << "; arrived " << result.toServer.size() << " up, " << result.toClient.size() << " down";
    figure(describeRun("EUDP realtime", permille, options, result) + out.str());
}

}  // namespace faults

#endif  // TARN_TESTS_FAULTS_KERNELLOSS_CASES_H
