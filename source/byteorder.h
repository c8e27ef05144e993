// Little-endian loads and stores for wire fields. Both protocols put multi-byte fields on the wire
// least significant byte first; these helpers read and write them byte by byte, so they are right on
// any host and never make a misaligned access.
#ifndef TARN_SOURCE_BYTEORDER_H
#define TARN_SOURCE_BYTEORDER_H

#include <cstdint>

namespace tarn {

inline std::uint16_t loadLe16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

inline void storeLe16(std::uint8_t* p, std::uint16_t value) {
    p[0] = static_cast<std::uint8_t>(value & 0xFF);
    p[1] = static_cast<std::uint8_t>(value >> 8);
}

inline std::uint32_t loadLe32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

inline void storeLe32(std::uint8_t* p, std::uint32_t value) {
    p[0] = static_cast<std::uint8_t>(value & 0xFF);
    p[1] = static_cast<std::uint8_t>((value >> 8) & 0xFF);
    p[2] = static_cast<std::uint8_t>((value >> 16) & 0xFF);
    p[3] = static_cast<std::uint8_t>(value >> 24);
}

}  // namespace tarn

#endif  // TARN_SOURCE_BYTEORDER_H
