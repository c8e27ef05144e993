#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

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

TEST(HostAddress, IPv4KeepsItsFamily) {
    HostAddress address("127.0.0.1");
    EXPECT_EQ(HostAddress::eIPv4, address.getFamily());
    EXPECT_TRUE(address.isIPv4());
    EXPECT_FALSE(address.isIPv6());
    EXPECT_FALSE(address.isAny());
    EXPECT_EQ(HostAddress::eNoFamily, HostAddress().getFamily());
    EXPECT_TRUE(HostAddress(HostAddress::eAnyAddress).isIPv4());
}

TEST(HostAddress, IPv6Loopback) {
    HostAddress address("::1");
    ASSERT_TRUE(address.isValid());
    EXPECT_EQ(HostAddress::eIPv6, address.getFamily());
    EXPECT_TRUE(address.isIPv6());
    EXPECT_FALSE(address.isAny());
    EXPECT_EQ("::1", address.getAddressString());
    EXPECT_EQ(0u, address.toUint32());
    EXPECT_EQ(0u, address.getScopeId());
    EXPECT_NE(HostAddress("127.0.0.1"), address);
    EXPECT_NE(HostAddress(), address);
    const std::uint8_t expected[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(0, std::memcmp(expected, address.getIPv6Bytes(), 16));
}

TEST(HostAddress, IPv6PrintsInShortestLowerCaseForm) {
    EXPECT_EQ("2001:db8::1", HostAddress("2001:0DB8:0000:0000:0000:0000:0000:0001").getAddressString());
    EXPECT_EQ("fe80::a:b", HostAddress("FE80:0:0:0:0:0:A:B").getAddressString());
    EXPECT_EQ("2001:db8:1:2:3:4:5:6", HostAddress("2001:db8:1:2:3:4:5:6").getAddressString());
    EXPECT_EQ(HostAddress("2001:db8::1"), HostAddress("2001:0db8::0001"));
}

TEST(HostAddress, BracketedIPv6Literal) {
    EXPECT_EQ(HostAddress("::1"), HostAddress("[::1]"));
    EXPECT_EQ("2001:db8::5", HostAddress("[2001:db8::5]").getAddressString());
    // Brackets hold only an IPv6 literal, and only whole.
    EXPECT_FALSE(HostAddress("[127.0.0.1]").isValid());
    EXPECT_FALSE(HostAddress("[localhost]").isValid());
    EXPECT_FALSE(HostAddress("[::1").isValid());
    EXPECT_FALSE(HostAddress("::1]").isValid());
    EXPECT_FALSE(HostAddress("[]").isValid());
}

TEST(HostAddress, IPv6AnyAddress) {
    HostAddress any("::");
    ASSERT_TRUE(any.isValid());
    EXPECT_TRUE(any.isIPv6());
    EXPECT_TRUE(any.isAny());
    EXPECT_EQ("::", any.getAddressString());
    // The IPv4 any-address stays what it was: its own value, printed dotted.
    EXPECT_TRUE(HostAddress(HostAddress::eAnyAddress).isAny());
    EXPECT_NE(HostAddress(HostAddress::eAnyAddress), any);
    EXPECT_FALSE(HostAddress().isAny());
    EXPECT_FALSE(HostAddress("::1").isAny());
}

TEST(HostAddress, MappedIPv4IsPlainIPv4) {
    HostAddress mapped("::ffff:192.168.1.2");
    ASSERT_TRUE(mapped.isValid());
    EXPECT_TRUE(mapped.isIPv4());
    EXPECT_EQ("192.168.1.2", mapped.getAddressString());
    EXPECT_EQ(0xC0A80102u, mapped.toUint32());
    EXPECT_EQ(HostAddress("192.168.1.2"), mapped);
    EXPECT_EQ(HostAddress("127.0.0.1"), HostAddress("[::ffff:7f00:1]"));
    // An IPv4 address shows the same bytes in its 16-byte form.
    const std::uint8_t expected[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 168, 1, 2};
    EXPECT_EQ(0, std::memcmp(expected, HostAddress("192.168.1.2").getIPv6Bytes(), 16));
}

TEST(HostAddress, FromIPv6BytesRoundTrip) {
    const std::uint8_t bytes[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x42};
    HostAddress address = HostAddress::fromIPv6Bytes(bytes);
    EXPECT_TRUE(address.isIPv6());
    EXPECT_EQ("2001:db8::42", address.getAddressString());
    EXPECT_EQ(address, HostAddress::fromIPv6Bytes(address.getIPv6Bytes()));
    const std::uint8_t mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 10, 0, 0, 7};
    EXPECT_EQ(HostAddress("10.0.0.7"), HostAddress::fromIPv6Bytes(mapped, 3));  // no zone on IPv4
    EXPECT_EQ(0u, HostAddress::fromIPv6Bytes(mapped, 3).getScopeId());
}

TEST(HostAddress, MalformedIPv6TextIsInvalid) {
    EXPECT_FALSE(HostAddress(":::1").isValid());
    EXPECT_FALSE(HostAddress("1::2::3").isValid());
    EXPECT_FALSE(HostAddress("::g").isValid());
    EXPECT_FALSE(HostAddress("1:2:3:4:5:6:7:8:9").isValid());
    EXPECT_FALSE(HostAddress("12345::1").isValid());
}

TEST(HostAddress, LinkLocalWithZone) {
    const unsigned int loopbackIndex = if_nametoindex("lo");
    ASSERT_NE(0u, loopbackIndex);
    HostAddress address("fe80::1%lo");
    ASSERT_TRUE(address.isValid());
    EXPECT_TRUE(address.isIPv6());
    EXPECT_EQ(loopbackIndex, address.getScopeId());
    EXPECT_EQ("fe80::1%lo", address.getAddressString());
    EXPECT_EQ(address, HostAddress("[fe80::1%lo]"));
    // The zone is part of the address.
    EXPECT_NE(HostAddress("fe80::1"), address);
    EXPECT_FALSE(HostAddress("fe80::1%no-such-interface").isValid());
    // A zone that names no interface prints as its number.
    const std::uint8_t bytes[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ("fe80::1%4000000", HostAddress::fromIPv6Bytes(bytes, 4000000).getAddressString());
}

TEST(HostAddress, SockaddrRoundTripIPv4) {
    sockaddr_storage storage;
    const HostAddress address("10.20.30.40");
    ASSERT_EQ(sizeof(sockaddr_in), address.toSockaddr(4321, storage));
    sockaddr_in v4;
    std::memcpy(&v4, &storage, sizeof(v4));
    EXPECT_EQ(AF_INET, v4.sin_family);
    EXPECT_EQ(htons(4321), v4.sin_port);
    EXPECT_EQ(htonl(0x0A141E28u), v4.sin_addr.s_addr);

    HostAddress back;
    std::uint16_t port = 0;
    ASSERT_TRUE(
        HostAddress::fromSockaddr(reinterpret_cast<const sockaddr*>(&storage), sizeof(v4), back, port));
    EXPECT_EQ(address, back);
    EXPECT_EQ(4321, port);
}

TEST(HostAddress, SockaddrRoundTripIPv6) {
    sockaddr_storage storage;
    const HostAddress address("fe80::7%lo");
    ASSERT_EQ(sizeof(sockaddr_in6), address.toSockaddr(65535, storage));
    sockaddr_in6 v6;
    std::memcpy(&v6, &storage, sizeof(v6));
    EXPECT_EQ(AF_INET6, v6.sin6_family);
    EXPECT_EQ(htons(65535), v6.sin6_port);
    EXPECT_EQ(if_nametoindex("lo"), v6.sin6_scope_id);
    EXPECT_EQ(0, std::memcmp(address.getIPv6Bytes(), v6.sin6_addr.s6_addr, 16));

    HostAddress back;
    std::uint16_t port = 0;
    ASSERT_TRUE(
        HostAddress::fromSockaddr(reinterpret_cast<const sockaddr*>(&storage), sizeof(v6), back, port));
    EXPECT_EQ(address, back);
    EXPECT_EQ(65535, port);
}

TEST(HostAddress, SockaddrOfMappedPeerIsPlainIPv4) {
    sockaddr_in6 v6;
    std::memset(&v6, 0, sizeof(v6));
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(80);
    ASSERT_EQ(1, inet_pton(AF_INET6, "::ffff:127.0.0.1", &v6.sin6_addr));
    HostAddress address;
    std::uint16_t port = 0;
    ASSERT_TRUE(HostAddress::fromSockaddr(reinterpret_cast<const sockaddr*>(&v6), sizeof(v6), address, port));
    EXPECT_TRUE(address.isIPv4());
    EXPECT_EQ("127.0.0.1", address.getAddressString());
    EXPECT_EQ(80, port);
}

TEST(HostAddress, SockaddrRefusesOtherFamiliesAndShortLengths) {
    sockaddr_storage storage;
    EXPECT_EQ(0u, HostAddress().toSockaddr(1, storage));

    HostAddress untouched("10.0.0.1");
    std::uint16_t port = 99;
    sockaddr_un local;
    std::memset(&local, 0, sizeof(local));
    local.sun_family = AF_UNIX;
    EXPECT_FALSE(
        HostAddress::fromSockaddr(reinterpret_cast<const sockaddr*>(&local), sizeof(local), untouched, port));
    HostAddress("::1").toSockaddr(7, storage);
    EXPECT_FALSE(HostAddress::fromSockaddr(reinterpret_cast<const sockaddr*>(&storage),
                                           sizeof(sockaddr_in6) - 1, untouched, port));
    HostAddress("10.0.0.2").toSockaddr(7, storage);
    EXPECT_FALSE(HostAddress::fromSockaddr(reinterpret_cast<const sockaddr*>(&storage),
                                           sizeof(sockaddr_in) - 1, untouched, port));
    EXPECT_FALSE(HostAddress::fromSockaddr(nullptr, sizeof(sockaddr_in6), untouched, port));
    EXPECT_EQ("10.0.0.1", untouched.getAddressString());
    EXPECT_EQ(99, port);
}

// Resolves `names` in a child process that sees `hostsFile` as /etc/hosts (a private mount
// namespace, so nothing outside the child changes). Returns name -> address text ("" when the
// name did not resolve); false with `why` when this system cannot make such a namespace.
bool resolveWithHostsFile(const std::string& hostsFile, const std::vector<std::string>& names,
                          std::map<std::string, std::string>& results, std::string& why) {
    char path[] = "/tmp/tarn-hosts-XXXXXX";
    const int file = mkstemp(path);
    if (file < 0 ||
        write(file, hostsFile.data(), hostsFile.size()) != static_cast<ssize_t>(hostsFile.size())) {
        why = "cannot write a scratch hosts file";
        return false;
    }
    close(file);
    int channel[2];
    if (pipe(channel) != 0) {
        unlink(path);
        why = "no pipe";
        return false;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        std::string out;
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(path, "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
            out = std::string("!") + std::strerror(errno);
        } else {
            for (const std::string& name : names) {
                out += name + "=" + HostAddress(name).getAddressString() + "\n";
            }
        }
        const ssize_t written = write(channel[1], out.data(), out.size());
        _exit(written == static_cast<ssize_t>(out.size()) ? 0 : 1);
    }
    close(channel[1]);
    std::string text;
    char buffer[512];
    ssize_t n;
    while ((n = read(channel[0], buffer, sizeof(buffer))) > 0) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    unlink(path);
    if (!text.empty() && text[0] == '!') {
        why = "no private mount namespace here (" + text.substr(1) + "); run as root";
        return false;
    }
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t equals = line.find('=');
        results[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(HostAddress, NamesResolveToIPv4FirstThenIPv6) {
    const std::string hosts =
        "::1 tarn-six.test\n"
        "::1 tarn-both.test\n"
        "127.0.0.7 tarn-both.test\n"
        "127.0.0.8 tarn-four.test\n";
    std::map<std::string, std::string> results;
    std::string why;
    if (!resolveWithHostsFile(hosts,
                              {"tarn-six.test", "tarn-both.test", "tarn-four.test", "tarn-none.invalid"},
                              results, why)) {
        GTEST_SKIP() << why;
    }
    EXPECT_EQ("::1", results["tarn-six.test"]);         // only IPv6: its address
    EXPECT_EQ("127.0.0.7", results["tarn-both.test"]);  // IPv4 wins, as before IPv6 was known
    EXPECT_EQ("127.0.0.8", results["tarn-four.test"]);
    EXPECT_EQ("", results["tarn-none.invalid"]);
    EXPECT_EQ(4u, results.size());
}

}  // namespace
