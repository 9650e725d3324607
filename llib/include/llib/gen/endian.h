// Byte-order reversal in place, for values read from or written to files and the network in the
// other byte order.
#pragma once

#include <cstdint>

inline void LEndianReverse(uint16_t& value) {
    value = static_cast<uint16_t>(value << 8 | value >> 8);
}

inline void LEndianReverse(uint32_t& value) {
    value = __builtin_bswap32(value);
}

// Swaps the two 32-bit halves and reverses each.
inline void LEndianReverse(unsigned long& value) {
    static_assert(sizeof(unsigned long) == 8, "64-bit long");
    value = __builtin_bswap64(value);
}

inline void LEndianReverse(unsigned long long& value) {
    value = __builtin_bswap64(value);
}
