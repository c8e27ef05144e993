// The mode word of MOD and MAK, the one codec for both sides of the negotiation. Four letters, least
// significant byte first: byte 0 the requester's send direction, byte 2 its receive direction, bytes
// 1 and 3 the answering side's send and receive modes after the request ('T' realtime, 'R'
// reliable, 'D' leave as it is).
#ifndef TARN_SOURCE_EUDPMODEWORD_H
#define TARN_SOURCE_EUDPMODEWORD_H

#include <array>
#include <cstdint>

#include "byteorder.h"

namespace tarn {

using EUDPModeBytes = std::array<std::uint8_t, 4>;

inline EUDPModeBytes unpackModeWord(std::uint32_t word) {
    EUDPModeBytes bytes{};
    storeLe32(bytes.data(), word);
    return bytes;
}

inline std::uint32_t packModeWord(const EUDPModeBytes& bytes) {
    return loadLe32(bytes.data());
}

}  // namespace tarn

#endif  // TARN_SOURCE_EUDPMODEWORD_H
