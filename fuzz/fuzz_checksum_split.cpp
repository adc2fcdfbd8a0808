// Checksums over guarded input at any length, offset and split point: each must
// equal its bitwise definition, and two calls must equal one. A one-byte over-read
// past the input faults on the guard page.
#include <cstdint>
#include <cstdlib>

#include "../src/checksum/checksum.h"
#include "guarded.h"

namespace {

Ozr32u refl(Ozr32u poly, Ozr32u reg, const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        reg ^= p[i];
        for (int b = 0; b < 8; ++b) reg = (reg >> 1) ^ ((reg & 1) ? poly : 0);
    }
    return reg;
}

Ozr32u bz2(Ozr32u crc, const uint8_t* p, size_t n) {
    Ozr32u reg = ~crc;
    for (size_t i = 0; i < n; ++i) {
        reg ^= Ozr32u(p[i]) << 24;
        for (int b = 0; b < 8; ++b) reg = (reg << 1) ^ ((reg & 0x80000000u) ? 0x04C11DB7u : 0);
    }
    return ~reg;
}

Ozr32u adler(Ozr32u v, const uint8_t* p, size_t n) {
    uint64_t a = v & 0xFFFF, b = v >> 16;
    for (size_t i = 0; i < n; ++i) {
        a += p[i];
        b += a;
    }
    return Ozr32u((b % 65521) << 16 | (a % 65521));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 6) return 0;
    // Header: start value (4 bytes), split point selector (2 bytes); the rest is data.
    Ozr32u start = Ozr32u(data[0]) | Ozr32u(data[1]) << 8 | Ozr32u(data[2]) << 16 | Ozr32u(data[3]) << 24;
    size_t split = (size_t(data[4]) | size_t(data[5]) << 8);
    data += 6;
    size -= 6;
    if (size == 0) return 0;
    split %= size + 1;
    GuardedBuffer in(data, size);
    const Ozr8u* p = in.data();

    Ozr32u v = start;
    if (ozrsCRC32_8u(p, Ozr32s(size), &v) != ozrOk || v != ~refl(0xEDB88320u, ~start, p, size)) abort();
    v = start;
    if (ozrsCRC32C_8u(p, Ozr32u(size), &v) != ozrOk || v != refl(0x82F63B78u, start, p, size)) abort();
    v = start;
    if (ozrsCRC32_BZ2_8u(p, Ozr32s(size), &v) != ozrOk || v != bz2(start, p, size)) abort();
    v = start;
    if (ozrsAdler32_8u(p, Ozr32s(size), &v) != ozrOk || v != adler(start, p, size)) abort();

    if (split > 0 && split < size) {
        Ozr32u one = start, two = start;
        ozrsCRC32_8u(p, Ozr32s(size), &one);
        ozrsCRC32_8u(p, Ozr32s(split), &two);
        ozrsCRC32_8u(p + split, Ozr32s(size - split), &two);
        if (one != two) abort();
        one = two = start;
        ozrsCRC32C_8u(p, Ozr32u(size), &one);
        ozrsCRC32C_8u(p, Ozr32u(split), &two);
        ozrsCRC32C_8u(p + split, Ozr32u(size - split), &two);
        if (one != two) abort();
        one = two = start;
        ozrsCRC32_BZ2_8u(p, Ozr32s(size), &one);
        ozrsCRC32_BZ2_8u(p, Ozr32s(split), &two);
        ozrsCRC32_BZ2_8u(p + split, Ozr32s(size - split), &two);
        if (one != two) abort();
        one = two = start;
        ozrsAdler32_8u(p, Ozr32s(size), &one);
        ozrsAdler32_8u(p, Ozr32s(split), &two);
        ozrsAdler32_8u(p + split, Ozr32s(size - split), &two);
        if (one != two) abort();
    }
    return 0;
}
