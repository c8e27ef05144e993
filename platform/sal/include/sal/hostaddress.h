// IPv4 host address.
//
// Built from text (a dotted address or a host name, resolved at construction with the system
// resolver; the empty text means the any-address), from the special any-address value, or empty
// (no address). A name that does not resolve gives an invalid address: sockets refuse to bind or
// connect to it. A plain value type; safe to copy between threads.
#ifndef SAL_HOSTADDRESS_H
#define SAL_HOSTADDRESS_H

#include <cstdint>
#include <string>

#include <sal/sal_export.h>

namespace sal {

class SAL_EXPORT HostAddress {
public:
    // The special address values. eAnyAddress (value 0) is INADDR_ANY: "every local interface"
    // when binding; a transport that only listens uses it as its "no peer" address.
    enum ESpecialAddress { eAnyAddress = 0 };

    HostAddress();  // no address: isValid() false, getAddressString() ""
    HostAddress(ESpecialAddress special);
    HostAddress(const std::string& host);
    HostAddress(const char* host);  // a null pointer gives no address

    bool isValid() const { return m_bValid; }

    // Dotted form ("127.0.0.1", "0.0.0.0" for the any-address), "" when there is no address.
    std::string getAddressString() const;

    // The address as a host-order 32-bit number (0 when there is no address).
    std::uint32_t toUint32() const { return m_address; }
    static HostAddress fromUint32(std::uint32_t hostOrder);

    bool operator==(const HostAddress& other) const {
        return m_bValid == other.m_bValid && m_address == other.m_address;
    }
    bool operator!=(const HostAddress& other) const { return !(*this == other); }

private:
    std::uint32_t m_address;  // host byte order
    bool m_bValid;
};

}  // namespace sal

#endif  // SAL_HOSTADDRESS_H
