#include <sal/hostaddress.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace sal {

namespace {

// Dotted text is taken as it stands; anything else goes to the system resolver, IPv4 only. The
// first address the resolver offers wins.
bool resolve(const char* host, std::uint32_t& hostOrder) {
    if (*host == '\0') {
        hostOrder = 0;  // the empty text means the any-address
        return true;
    }
    in_addr dotted;
    if (::inet_pton(AF_INET, host, &dotted) == 1) {
        hostOrder = ntohl(dotted.s_addr);
        return true;
    }
    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;  // one entry per address instead of one per socket type
    addrinfo* pResult = nullptr;
    if (::getaddrinfo(host, nullptr, &hints, &pResult) != 0 || pResult == nullptr) {
        return false;
    }
    bool found = false;
    for (const addrinfo* p = pResult; p != nullptr; p = p->ai_next) {
        if (p->ai_family == AF_INET && p->ai_addr != nullptr && p->ai_addrlen >= sizeof(sockaddr_in)) {
            sockaddr_in address;
            std::memcpy(&address, p->ai_addr, sizeof(address));
            hostOrder = ntohl(address.sin_addr.s_addr);
            found = true;
            break;
        }
    }
    ::freeaddrinfo(pResult);
    return found;
}

}  // namespace

HostAddress::HostAddress() : m_address(0), m_bValid(false) {}

HostAddress::HostAddress(ESpecialAddress special)
    : m_address(static_cast<std::uint32_t>(special)), m_bValid(true) {}

HostAddress::HostAddress(const std::string& host) : HostAddress(host.c_str()) {}

HostAddress::HostAddress(const char* host) : m_address(0), m_bValid(false) {
    std::uint32_t address = 0;
    if (host != nullptr && resolve(host, address)) {
        m_address = address;
        m_bValid = true;
    }
}

std::string HostAddress::getAddressString() const {
    if (!m_bValid) {
        return std::string();
    }
    in_addr address;
    address.s_addr = htonl(m_address);
    char text[INET_ADDRSTRLEN] = {0};
    if (::inet_ntop(AF_INET, &address, text, sizeof(text)) == nullptr) {
        return std::string();
    }
    return std::string(text);
}

HostAddress HostAddress::fromUint32(std::uint32_t hostOrder) {
    HostAddress address;
    address.m_address = hostOrder;
    address.m_bValid = true;
    return address;
}

}  // namespace sal
