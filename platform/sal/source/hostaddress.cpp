#include <sal/hostaddress.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace sal {

namespace {

const std::uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

bool isMapped(const std::uint8_t* bytes) {
    return std::memcmp(bytes, kMappedPrefix, sizeof(kMappedPrefix)) == 0;
}

// The first IPv4 address the resolver offers wins; a name without IPv4 addresses gives its first
// IPv6 one.
bool resolveName(const char* host, HostAddress& out) {
    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;  // one entry per address instead of one per socket type
    addrinfo* pResult = nullptr;
    if (::getaddrinfo(host, nullptr, &hints, &pResult) != 0 || pResult == nullptr) {
        return false;
    }
    const addrinfo* pIPv4 = nullptr;
    const addrinfo* pIPv6 = nullptr;
    for (const addrinfo* p = pResult; p != nullptr && pIPv4 == nullptr; p = p->ai_next) {
        if (p->ai_addr == nullptr) {
            continue;
        }
        if (p->ai_family == AF_INET) {
            pIPv4 = p;
        } else if (p->ai_family == AF_INET6 && pIPv6 == nullptr) {
            pIPv6 = p;
        }
    }
    const addrinfo* pChosen = pIPv4 != nullptr ? pIPv4 : pIPv6;
    std::uint16_t port = 0;
    const bool found =
        pChosen != nullptr && HostAddress::fromSockaddr(pChosen->ai_addr, pChosen->ai_addrlen, out, port);
    ::freeaddrinfo(pResult);
    return found;
}

// Literals are taken as they stand (an IPv6 one may be bracketed, as in a URL); anything else goes
// to the system resolver. A literal with a zone ("fe80::1%eth0") is read by the resolver too, in
// numeric mode, which knows the interface names.
bool resolve(const char* host, HostAddress& out) {
    if (*host == '\0') {
        out = HostAddress(HostAddress::eAnyAddress);
        return true;
    }
    in_addr dotted;
    if (::inet_pton(AF_INET, host, &dotted) == 1) {
        out = HostAddress::fromUint32(ntohl(dotted.s_addr));
        return true;
    }
    std::string text(host);
    const bool bracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
    if (bracketed) {
        text = text.substr(1, text.size() - 2);
    }
    in6_addr literal;
    if (::inet_pton(AF_INET6, text.c_str(), &literal) == 1) {
        out = HostAddress::fromIPv6Bytes(literal.s6_addr);
        return true;
    }
    if (!bracketed) {
        return resolveName(host, out);
    }
    addrinfo hints;  // only a literal may stand in brackets
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_INET6;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* pResult = nullptr;
    if (::getaddrinfo(text.c_str(), nullptr, &hints, &pResult) != 0 || pResult == nullptr) {
        return false;
    }
    std::uint16_t port = 0;
    const bool found = HostAddress::fromSockaddr(pResult->ai_addr, pResult->ai_addrlen, out, port);
    ::freeaddrinfo(pResult);
    return found;
}

}  // namespace

HostAddress::HostAddress() : m_bytes(), m_scopeId(0), m_family(eNoFamily) {}

HostAddress::HostAddress(ESpecialAddress special) : HostAddress() {
    *this = fromUint32(static_cast<std::uint32_t>(special));
}

HostAddress::HostAddress(const std::string& host) : HostAddress(host.c_str()) {}

HostAddress::HostAddress(const char* host) : HostAddress() {
    HostAddress resolved;
    if (host != nullptr && resolve(host, resolved)) {
        *this = resolved;
    }
}

bool HostAddress::isAny() const {
    static const std::uint8_t kZero[16] = {};
    if (m_family == eIPv4) {
        return toUint32() == 0;
    }
    return m_family == eIPv6 && std::memcmp(m_bytes, kZero, sizeof(kZero)) == 0;
}

std::string HostAddress::getAddressString() const {
    char text[INET6_ADDRSTRLEN + IF_NAMESIZE + 1] = {0};
    if (m_family == eIPv4) {
        if (::inet_ntop(AF_INET, m_bytes + 12, text, sizeof(text)) == nullptr) {
            return std::string();
        }
        return std::string(text);
    }
    if (m_family != eIPv6 || ::inet_ntop(AF_INET6, m_bytes, text, sizeof(text)) == nullptr) {
        return std::string();
    }
    std::string result(text);
    if (m_scopeId != 0) {
        char name[IF_NAMESIZE] = {0};
        result += '%';
        result +=
            ::if_indextoname(m_scopeId, name) != nullptr ? std::string(name) : std::to_string(m_scopeId);
    }
    return result;
}

std::uint32_t HostAddress::toUint32() const {
    if (m_family != eIPv4) {
        return 0;
    }
    return (static_cast<std::uint32_t>(m_bytes[12]) << 24) | (static_cast<std::uint32_t>(m_bytes[13]) << 16) |
           (static_cast<std::uint32_t>(m_bytes[14]) << 8) | static_cast<std::uint32_t>(m_bytes[15]);
}

HostAddress HostAddress::fromUint32(std::uint32_t hostOrder) {
    HostAddress address;
    std::memcpy(address.m_bytes, kMappedPrefix, sizeof(kMappedPrefix));
    address.m_bytes[12] = static_cast<std::uint8_t>(hostOrder >> 24);
    address.m_bytes[13] = static_cast<std::uint8_t>(hostOrder >> 16);
    address.m_bytes[14] = static_cast<std::uint8_t>(hostOrder >> 8);
    address.m_bytes[15] = static_cast<std::uint8_t>(hostOrder);
    address.m_family = eIPv4;
    return address;
}

HostAddress HostAddress::fromIPv6Bytes(const std::uint8_t* bytes, std::uint32_t scopeId) {
    HostAddress address;
    std::memcpy(address.m_bytes, bytes, sizeof(address.m_bytes));
    if (isMapped(bytes)) {
        address.m_family = eIPv4;
    } else {
        address.m_family = eIPv6;
        address.m_scopeId = scopeId;
    }
    return address;
}

unsigned int HostAddress::toSockaddr(std::uint16_t port, sockaddr_storage& out) const {
    std::memset(&out, 0, sizeof(out));
    if (m_family == eIPv4) {
        sockaddr_in address;
        std::memset(&address, 0, sizeof(address));
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        std::memcpy(&address.sin_addr, m_bytes + 12, 4);
        std::memcpy(&out, &address, sizeof(address));
        return sizeof(address);
    }
    if (m_family == eIPv6) {
        sockaddr_in6 address;
        std::memset(&address, 0, sizeof(address));
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        std::memcpy(&address.sin6_addr, m_bytes, sizeof(m_bytes));
        address.sin6_scope_id = m_scopeId;
        std::memcpy(&out, &address, sizeof(address));
        return sizeof(address);
    }
    return 0;
}

bool HostAddress::fromSockaddr(const sockaddr* address, unsigned int length, HostAddress& out,
                               std::uint16_t& port) {
    if (address == nullptr) {
        return false;
    }
    if (address->sa_family == AF_INET && length >= sizeof(sockaddr_in)) {
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof(v4));
        out = fromUint32(ntohl(v4.sin_addr.s_addr));
        port = ntohs(v4.sin_port);
        return true;
    }
    if (address->sa_family == AF_INET6 && length >= sizeof(sockaddr_in6)) {
        sockaddr_in6 v6;
        std::memcpy(&v6, address, sizeof(v6));
        out = fromIPv6Bytes(v6.sin6_addr.s6_addr, v6.sin6_scope_id);
        port = ntohs(v6.sin6_port);
        return true;
    }
    return false;
}

bool HostAddress::operator==(const HostAddress& other) const {
    return m_family == other.m_family && m_scopeId == other.m_scopeId &&
           std::memcmp(m_bytes, other.m_bytes, sizeof(m_bytes)) == 0;
}

}  // namespace sal
