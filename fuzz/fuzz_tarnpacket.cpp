// Fuzzes a received TARNPacket: the input is copied into the packet buffer (up to its 1492 bytes),
// validated with the number of bytes copied, and when valid read as a name, a value and a list, in
// the way the receive loop reads a message. The reads must stay within the packet's own buffer.
#include <tarnpacket.h>

#include <logging/logging.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The failure lines are expected by the thousand; keep them off the fuzzer's output.
    Corvane::Utilities::Logging::LogManager::getInstance().setSink(
        [](Corvane::Utilities::Logging::ELogLevel, const std::string&, const std::string&) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // On the heap so that AddressSanitizer watches the packet's bounds.
    std::unique_ptr<TARNPacket> packet(new TARNPacket());
    const std::size_t copied = std::min<std::size_t>(size, TARNPacket::MAX_LENGTH);
    if (copied > 0) {
        std::memcpy(packet->m_buffer, data, copied);
    }
    packet->m_readPos = TARNPacket::HEADER_LENGTH;
    if (!packet->validatePacket(static_cast<unsigned int>(copied))) {
        return 0;
    }
    check(packet->m_length == copied);
    const std::string name = packet->getString();
    check(packet->m_readPos <= TARNPacket::MAX_LENGTH);
    ParameterValue value;
    packet->getParameterValue(value);
    check(packet->m_readPos <= TARNPacket::MAX_LENGTH + 1);
    ParameterList list;
    packet->getParameterList(list);

    // Built back from what was read, the name and the value fit in a fresh packet when they came
    // from one.
    TARNPacket rebuilt(CMD_TRIGGER);
    if (name.size() + 1 <= TARNPacket::MAX_LENGTH - TARNPacket::HEADER_LENGTH) {
        check(rebuilt.appendString(name));
    }
    return 0;
}
