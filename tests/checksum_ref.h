// Bitwise checksum references, one bit per step straight from the definitions: the
// oracles of the checksum tests and of the checksum fuzz target.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ref {

inline uint32_t reflected(uint32_t poly, uint32_t reg, const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        reg ^= p[i];
        for (int b = 0; b < 8; ++b) reg = (reg >> 1) ^ ((reg & 1) ? poly : 0);
    }
    return reg;
}

// zlib convention: start 0, the stored value is the finished CRC.
inline uint32_t crc32(uint32_t crc, const uint8_t* p, size_t n) { return ~reflected(0xEDB88320u, ~crc, p, n); }
// Register as it is (no inversion).
inline uint32_t crc32c(uint32_t reg, const uint8_t* p, size_t n) { return reflected(0x82F63B78u, reg, p, n); }
// MSB-first polynomial 0x04C11DB7, bzip2's init/xorout of all ones.
inline uint32_t bz2(uint32_t crc, const uint8_t* p, size_t n) {
    uint32_t reg = ~crc;
    for (size_t i = 0; i < n; ++i) {
        reg ^= uint32_t(p[i]) << 24;
        for (int b = 0; b < 8; ++b) reg = (reg << 1) ^ ((reg & 0x80000000u) ? 0x04C11DB7u : 0);
    }
    return ~reg;
}
// Adler-32 from any incoming value, halves unreduced, in 64 bits.
inline uint32_t adler(uint32_t v, const uint8_t* p, size_t n) {
    uint64_t a = v & 0xFFFF, b = v >> 16;
    for (size_t i = 0; i < n; ++i) {
        a += p[i];
        b += a;
    }
    return uint32_t((b % 65521) << 16 | (a % 65521));
}

}  // namespace ref
