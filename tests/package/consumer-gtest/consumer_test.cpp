// A GoogleTest suite of a separate project, built against an installed libtarn.
#include <gtest/gtest.h>

#include <parameterlist.h>
#include <sal/hostaddress.h>
#include <tarnpacket.h>

TEST(InstalledTarn, PacketLength) {
    TARNPacket packet(CMD_SUBSCRIBE);
    packet.appendString("lamp");
    EXPECT_EQ(9u, packet.m_length);  // 4-byte header, "lamp" and its terminating zero
}

TEST(InstalledTarn, ValueText) {
    EXPECT_EQ("ON", ParameterValue(true).getAsString());
}

TEST(InstalledTarn, Addresses) {
    EXPECT_EQ("127.0.0.1", sal::HostAddress("127.0.0.1").getAddressString());
    EXPECT_EQ("::1", sal::HostAddress("[::1]").getAddressString());
}
