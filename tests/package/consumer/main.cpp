// A separate project using an installed libtarn: headers by bare name, the platform libraries
// through their umbrella headers.
#include <cstdio>

#include <logging/logging.h>
#include <parameterlist.h>
#include <sal/sal.h>
#include <tarnconnection.h>
#include <tarnlistener.h>
#include <tarnpacket.h>

static_assert(__cplusplus >= 201703L, "libtarn's headers are compiled as C++17 or later");

int main() {
    TARNPacket packet(CMD_TRIGGER);
    packet.appendString("A");
    packet.appendParamValue(ParameterValue(1));
    sal::HostAddress address("127.0.0.1");
    sal::HostAddress address6("::1");
    Corvane::Utilities::Logging::LogManager::getInstance().getCategory("consumer");
    if (packet.m_length != 11 || address.getAddressString() != "127.0.0.1" ||
        address6.getAddressString() != "::1") {
        std::printf("consumer failed: length %u\n", static_cast<unsigned>(packet.m_length));
        return 1;
    }
    std::printf("consumer ok\n");
    return 0;
}
