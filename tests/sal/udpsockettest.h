// What the UDP socket suites share: the loopback address and a socket bound to it.
#ifndef TARN_TESTS_SAL_UDPSOCKETTEST_H
#define TARN_TESTS_SAL_UDPSOCKETTEST_H

#include <memory>

#include <gtest/gtest.h>
#include <sal/udpsocket.h>

#include "testsupport.h"

namespace udpsockettest {

inline const sal::HostAddress& loopback() {
    static const sal::HostAddress address("127.0.0.1");
    return address;
}

// A socket bound to 127.0.0.1 on an ephemeral port.
inline std::unique_ptr<sal::UdpSocket> makeBound() {
    std::unique_ptr<sal::UdpSocket> socket(new sal::UdpSocket);
    EXPECT_TRUE(socket->bind(loopback(), 0));
    EXPECT_NE(0, socket->getLocalPort());
    return socket;
}

}  // namespace udpsockettest

#endif  // TARN_TESTS_SAL_UDPSOCKETTEST_H
