// Fixed-width integer names used across the platform layer and the protocol code.
#ifndef SAL_TYPES_H
#define SAL_TYPES_H

#include <cstdint>

typedef std::uint8_t uint8;
typedef std::uint16_t uint16;
typedef unsigned int uint;  // 32 bits on every target we build for

namespace sal {
using ::uint;
using ::uint16;
using ::uint8;

// Wait without a limit (semaphore takes, Thread::shutdown with -1).
constexpr unsigned int WAIT_FOREVER = 0xFFFFFFFFu;
}  // namespace sal

#endif  // SAL_TYPES_H
