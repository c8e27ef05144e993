// IPv4 or IPv6 host address.
//
// Built from text (a dotted IPv4 address, an IPv6 literal with or without brackets and with an
// optional "%zone", or a host name resolved at construction with the system resolver; the empty
// text means the any-address), from the special any-address value, or empty (no address). A name
// that does not resolve gives an invalid address: sockets refuse to bind or connect to it. A name
// that has IPv4 addresses gives the first of them, so a name that worked before IPv6 keeps its
// address; a name with only IPv6 addresses gives the first IPv6 one.
//
// An IPv4-mapped IPv6 address (::ffff:a.b.c.d), from text or from a dual-stack socket, is the IPv4
// address it carries: one address has one value, and it prints as dotted IPv4.
//
// A plain value type of fixed size; copying and converting it never allocates. Safe to copy
// between threads.
#ifndef SAL_HOSTADDRESS_H
#define SAL_HOSTADDRESS_H

#include <cstdint>
#include <string>

#include <sal/sal_export.h>

struct sockaddr;
struct sockaddr_storage;

namespace sal {

class SAL_EXPORT HostAddress {
public:
    // The special address values. eAnyAddress (value 0) is the IPv4 any-address 0.0.0.0: "every
    // local interface" when binding (IPv6 ones too where the system has IPv6); a transport that
    // only listens uses it as its "no peer" address.
    enum ESpecialAddress { eAnyAddress = 0 };

    enum EFamily { eNoFamily = 0, eIPv4 = 4, eIPv6 = 6 };

    HostAddress();  // no address: isValid() false, getAddressString() ""
    HostAddress(ESpecialAddress special);
    HostAddress(const std::string& host);
    HostAddress(const char* host);  // a null pointer gives no address

    bool isValid() const { return m_family != eNoFamily; }
    EFamily getFamily() const { return static_cast<EFamily>(m_family); }
    bool isIPv4() const { return m_family == eIPv4; }
    bool isIPv6() const { return m_family == eIPv6; }
    bool isAny() const;  // 0.0.0.0 or ::

    // Dotted form for IPv4 ("127.0.0.1", "0.0.0.0" for the any-address), the shortest standard
    // form for IPv6 ("::1", "fe80::1%lo" with its zone), "" when there is no address.
    std::string getAddressString() const;

    // The IPv4 address as a host-order 32-bit number; 0 for IPv6 and when there is no address.
    std::uint32_t toUint32() const;
    static HostAddress fromUint32(std::uint32_t hostOrder);

    // The address as 16 bytes in network order: IPv6 as it is, IPv4 in its mapped form
    // (::ffff:a.b.c.d); all zero when there is no address. The zone (interface index) of a
    // link-local IPv6 address is apart, 0 when there is none.
    const std::uint8_t* getIPv6Bytes() const { return m_bytes; }
    std::uint32_t getScopeId() const { return m_scopeId; }
    // From 16 network-order bytes: a mapped IPv4 address gives that IPv4 address.
    static HostAddress fromIPv6Bytes(const std::uint8_t* bytes, std::uint32_t scopeId = 0);

    // The system's socket address of this address and `port`, in this address's own family
    // (sockaddr_in for IPv4, sockaddr_in6 for IPv6); returns its length, 0 when there is no address.
    unsigned int toSockaddr(std::uint16_t port, sockaddr_storage& out) const;
    // From a system socket address of either family; false (nothing written) for another family
    // or a short length.
    static bool fromSockaddr(const sockaddr* address, unsigned int length, HostAddress& out,
                             std::uint16_t& port);

    bool operator==(const HostAddress& other) const;
    bool operator!=(const HostAddress& other) const { return !(*this == other); }

private:
    std::uint8_t m_bytes[16];  // network byte order; IPv4 in mapped form
    std::uint32_t m_scopeId;   // IPv6 zone, 0 for none and for IPv4
    std::uint8_t m_family;     // an EFamily value
};

}  // namespace sal

#endif  // SAL_HOSTADDRESS_H
