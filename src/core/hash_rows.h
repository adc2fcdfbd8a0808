// Hash rows of the dictionary coders (Deflate, LZO, LZSS): one row of 256 values per
// byte of the hashed string, the hash being the XOR of the rows' entries. Only their
// spread matters to a stream's validity, but they decide which positions share a
// chain, and so which matches a coder finds: each coder fixes its rows as the top
// `Bits` bits of successive SplitMix64 outputs from a seed of its own.
#pragma once

#include "ozrdc.h"

namespace m7 {

template <class T, int Rows>
struct HashRows {
    T v[Rows * 256];  // row k at v[256 * k]
};

template <class T, int Rows, int Bits>
constexpr HashRows<T, Rows> makeHashRows(Ozr64u seed) {
    static_assert(Bits > 0 && Bits <= 8 * int(sizeof(T)) && (Bits < 8 * int(sizeof(T)) || T(-1) > 0));
    HashRows<T, Rows> r{};
    for (int i = 0; i < Rows * 256; ++i) {
        seed += 0x9E3779B97F4A7C15ull;
        Ozr64u z = seed;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        z ^= z >> 31;
        r.v[i] = static_cast<T>(z >> (64 - Bits));
    }
    return r;
}

}  // namespace m7
