#include <gtest/gtest.h>

#include <sal/hostaddress.h>

namespace {

using sal::HostAddress;

TEST(HostAddress, DefaultHasNoAddress) {
    HostAddress address;
    EXPECT_FALSE(address.isValid());
    EXPECT_EQ("", address.getAddressString());
    EXPECT_EQ(0u, address.toUint32());
}

TEST(HostAddress, AnyAddressValue) {
    HostAddress address(HostAddress::eAnyAddress);
    EXPECT_TRUE(address.isValid());
    EXPECT_EQ("0.0.0.0", address.getAddressString());
    EXPECT_EQ(0u, address.toUint32());
    EXPECT_NE(HostAddress(), address);  // "no address" and "any address" differ
}

TEST(HostAddress, EmptyTextIsTheAnyAddress) {
    EXPECT_EQ(HostAddress(HostAddress::eAnyAddress), HostAddress(""));
    EXPECT_EQ(HostAddress(HostAddress::eAnyAddress), HostAddress(std::string()));
    EXPECT_EQ("0.0.0.0", HostAddress("").getAddressString());
}

TEST(HostAddress, DottedText) {
    HostAddress address("192.168.17.3");
    EXPECT_TRUE(address.isValid());
    EXPECT_EQ("192.168.17.3", address.getAddressString());
    EXPECT_EQ(0xC0A81103u, address.toUint32());
    EXPECT_EQ(address, HostAddress(std::string("192.168.17.3")));
}

TEST(HostAddress, LocalhostResolves) {
    HostAddress address("localhost");
    ASSERT_TRUE(address.isValid());
    // Every 127.x.y.z address is this host; the resolver normally answers 127.0.0.1.
    EXPECT_EQ(127u, address.toUint32() >> 24) << address.getAddressString();
}

TEST(HostAddress, UnresolvableNameIsInvalid) {
    HostAddress address("no-such-host.invalid");
    EXPECT_FALSE(address.isValid());
    EXPECT_EQ("", address.getAddressString());
}

TEST(HostAddress, MalformedDottedTextIsInvalid) {
    EXPECT_FALSE(HostAddress("256.1.1.1").isValid());
    EXPECT_FALSE(HostAddress("1.2.3.4.5").isValid());
}

TEST(HostAddress, NullPointerHasNoAddress) {
    const char* pNothing = nullptr;
    HostAddress address(pNothing);
    EXPECT_FALSE(address.isValid());
    EXPECT_EQ(HostAddress(), address);
}

TEST(HostAddress, FromUint32RoundTrip) {
    HostAddress address = HostAddress::fromUint32(0x7F000001u);
    EXPECT_TRUE(address.isValid());
    EXPECT_EQ("127.0.0.1", address.getAddressString());
    EXPECT_EQ(HostAddress("127.0.0.1"), address);
    EXPECT_NE(HostAddress("127.0.0.2"), address);
}

TEST(HostAddress, CopiesCompareEqual) {
    HostAddress original("10.1.2.3");
    HostAddress copy = original;
    EXPECT_EQ(original, copy);
    HostAddress assigned;
    assigned = original;
    EXPECT_EQ("10.1.2.3", assigned.getAddressString());
}

}  // namespace
