// Compile-time generation of the CRC lookup tables.
//
// All three CRCs run the same right-shifting, low-byte-indexed step
//     reg = (reg >> 8) ^ T0[(reg ^ byte) & 0xFF]
// For the reflected polynomials (CRC-32, CRC-32C) that is the textbook reflected
// CRC. The MSB-first bzip2 CRC runs it too, on a register that holds the CRC
// byte-reversed, with every table entry stored byte-reversed: reversing the bytes
// turns (crc << 8) into (reg >> 8) and (crc >> 24) into (reg & 0xFF).
//
// Slicing tables extend T0: Tk[i] is the contribution of byte i followed by k more
// bytes, Tk[i] = (Tk-1[i] >> 8) ^ T0[Tk-1[i] & 0xFF] — the same rule for all three,
// byte-reversed entries included.
#pragma once

#include "m7.h"

namespace m7::crc {

// `Slices` one-byte tables of 256 entries each, one after the other.
template <int Slices>
struct Tables {
    alignas(64) Ozr32u v[Slices * 256];
    constexpr const Ozr32u* slice(int k) const { return v + 256 * k; }
};

// T0 of a reflected (LSB-first) polynomial: the CRC of byte i.
constexpr Ozr32u reflectedEntry(Ozr32u poly, Ozr32u i) {
    Ozr32u c = i;
    for (int b = 0; b < 8; ++b) c = (c >> 1) ^ ((c & 1) ? poly : 0);
    return c;
}

constexpr Ozr32u byteSwap(Ozr32u x) {
    return (x >> 24) | ((x >> 8) & 0xFF00) | ((x << 8) & 0xFF0000) | (x << 24);
}

// T0 of an MSB-first polynomial, stored byte-reversed.
constexpr Ozr32u msbFirstEntryReversed(Ozr32u poly, Ozr32u i) {
    Ozr32u c = i << 24;
    for (int b = 0; b < 8; ++b) c = (c << 1) ^ ((c & 0x80000000u) ? poly : 0);
    return byteSwap(c);
}

template <int Slices, bool MsbFirst>
constexpr Tables<Slices> makeTables(Ozr32u poly) {
    Tables<Slices> t{};
    for (Ozr32u i = 0; i < 256; ++i) t.v[i] = MsbFirst ? msbFirstEntryReversed(poly, i) : reflectedEntry(poly, i);
    for (int k = 1; k < Slices; ++k)
        for (int i = 0; i < 256; ++i) {
            Ozr32u prev = t.v[256 * (k - 1) + i];
            t.v[256 * k + i] = (prev >> 8) ^ t.v[prev & 0xFF];
        }
    return t;
}

constexpr Ozr32u kPolyCRC32 = 0xEDB88320u;   // reflected 0x04C11DB7
constexpr Ozr32u kPolyCRC32C = 0x82F63B78u;  // reflected 0x1EDC6F41 (Castagnoli)
constexpr Ozr32u kPolyBZ2 = 0x04C11DB7u;     // MSB-first

}  // namespace m7::crc

namespace m7::crc {

// The map "pass the register over N zero bytes" as four byte tables. With zero data
// the CRC step is linear over GF(2), so the image of a register is the xor of the
// images of its four bytes: sub-table k, entry i, is the register holding byte i at
// byte position k (all other bits clear) after N steps of the one-byte rule. It moves
// a partial CRC summed from a zero register over the bytes that follow it, in four
// lookups.
template <int N>
constexpr Tables<4> makeAdvance(const Ozr32u* T0) {
    Tables<4> a{};
    for (int k = 0; k < 4; ++k)
        for (Ozr32u i = 0; i < 256; ++i) {
            Ozr32u r = i << (8 * k);
            for (int b = 0; b < N; ++b) r = (r >> 8) ^ T0[r & 0xFF];
            a.v[256 * k + i] = r;
        }
    return a;
}

}  // namespace m7::crc
