// Inflate lookup tables: their layout inside OzrInflateState::tableBuffer, the entry
// encodings shared by the table builder and the decoder, the constant tables of the
// Deflate alphabets, and the fixed-code table (built at compile time in the long-code
// layout).
//
// Literal/length entries (16 bits; the long-code table keeps the two bytes in separate
// arrays): bits 0..3 the code length L, bits 4..7 the kind, bits 8..15 the value.
//   kind 0        literal, value = the byte
//   kind 8 + e    length symbol with e (0..5) extra bits, value = base length - 3
//   kind 0xF      end of block
//   kind 4        long table, first level only: link to a sub-table; L = 10 + the
//                 sub-table's index bits, value = its offset / 2
//   kind 7        no symbol owns this code (L is its length where known, else 0)
// Distance entries: a byte with L in bits 0..3 and the extra bits (0..13) in bits 4..7,
// and a 16-bit base (the distance for the code with zero extra bits).
//   extra 0xE     long table, first level only: link, L = 10 + index bits, base = the
//                 sub-table's offset
//   extra 0xF     no symbol owns this code
#pragma once

#include "m7.h"

namespace m7::inflate {

// ---- Entry encodings ---------------------------------------------------------------
constexpr unsigned kKindLiteral = 0x0;
constexpr unsigned kKindLink = 0x4;
constexpr unsigned kKindInvalid = 0x7;
constexpr unsigned kKindLength = 0x8;
constexpr unsigned kKindEnd = 0xF;
constexpr Ozr16u kLitInvalid = kKindInvalid << 4;
constexpr unsigned kDistExtraLink = 0xE;
constexpr unsigned kDistExtraInvalid = 0xF;
constexpr Ozr8u kDistInvalid = kDistExtraInvalid << 4;

// ---- Layout ------------------------------------------------------------------------
constexpr unsigned kMaxCodeLen = 15;
constexpr unsigned kShortLitMax = 11;   // short table: literal/length codes up to 11 bits
constexpr unsigned kShortDistMax = 10;  // and distance codes up to 10 bits
constexpr unsigned kRootBits = 10;      // long table: first-level index bits

// Short table: 2^litMaxLen 16-bit literal/length entries from offset 0, then the
// distance length bytes, and 1024 bytes behind them the 16-bit distance bases.
constexpr unsigned kShortDistBaseGap = 1024;

// Long table (byte offsets).
constexpr unsigned kLongLitValue = 0x000;
constexpr unsigned kLongLitSubValue = 0x400;
constexpr unsigned kLongLitKind = 0x600;
constexpr unsigned kLongLitSubKind = 0xA00;
constexpr unsigned kLongDistBase = 0xC00;
constexpr unsigned kLongDistLen = 0x1600;
constexpr unsigned kLongDistSubBase = 0x1A00;
constexpr unsigned kLongDistSubLen = 0x1C00;
constexpr unsigned kLongLitSubEntries = 512;
constexpr unsigned kLongDistSubEntries = 256;
// Behind the layout above, the first-level entries once more in one word each, so that
// the decoder finds one with one load: literal/length as 16 bits (kind/length byte |
// value << 8), distance as 32 bits (length/extra byte | base << 16).
constexpr unsigned kLongLitPacked = kLongDistSubLen + kLongDistSubEntries;
constexpr unsigned kLongDistPacked = kLongLitPacked + 2 * 1024;
constexpr unsigned kLongLitSubPacked = kLongDistPacked + 4 * 1024;  // and the second level
constexpr unsigned kLongTableBytes = kLongLitSubPacked + 2 * kLongLitSubEntries;

static_assert(kLongTableBytes <= OZR_INFLATE_TABLE_BYTES);
static_assert((2u << kShortLitMax) + kShortDistBaseGap + (2u << kShortDistMax) <= OZR_INFLATE_TABLE_BYTES);

// ---- The Deflate alphabets ---------------------------------------------------------
constexpr unsigned kNumLitSyms = 288;
constexpr unsigned kNumDistSyms = 30;
constexpr unsigned kEndOfBlock = 256;

struct LengthTable { Ozr16u e[32]; };
struct DistTable { Ozr16u extra[30], base[30]; };

// Per length symbol 256..287: ((base length - 3) << 8) | 0x80 | (extra bits << 4).
// Symbols 257..264 add no bits, then every four symbols add one more; 285 is 258 with
// none. 256 (0x0080), 286 and 287 (0) are fillers.
constexpr LengthTable makeLenExtr() {
    LengthTable t{};
    t.e[0] = 0x0080;
    unsigned base = 3;
    for (unsigned s = 257; s < 285; ++s) {
        const unsigned extra = s < 265 ? 0 : (s - 261) / 4;
        t.e[s - 256] = static_cast<Ozr16u>((base - 3) << 8 | 0x80 | extra << 4);
        base += 1u << extra;
    }
    t.e[285 - 256] = static_cast<Ozr16u>((258 - 3) << 8 | 0x80);
    return t;
}
inline constexpr LengthTable LenExtr = makeLenExtr();

// Per distance symbol 0..29: extra bits (pre-shifted by 4) and base distance. Codes 0..3
// add no bits, then every two codes add one more.
constexpr DistTable makeDistExtr() {
    DistTable t{};
    unsigned base = 1;
    for (unsigned d = 0; d < 30; ++d) {
        const unsigned extra = d < 4 ? 0 : d / 2 - 1;
        t.extra[d] = static_cast<Ozr16u>(extra << 4);
        t.base[d] = static_cast<Ozr16u>(base);
        base += 1u << extra;
    }
    return t;
}
inline constexpr DistTable DistExtr = makeDistExtr();

static_assert(LenExtr.e[285 - 256] == 0xFF80 && LenExtr.e[284 - 256] == ((227 - 3) << 8 | 0xD0));
static_assert(DistExtr.base[29] == 24577 && DistExtr.extra[29] == 13 << 4);

// Bit reversal of each byte, from which codes up to 16 bits are reversed.
struct Swap8Table { Ozr8u v[256]; };
constexpr Swap8Table makeSwap8() {
    Swap8Table t{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned r = 0;
        for (unsigned b = 0; b < 8; ++b) r |= ((i >> b) & 1u) << (7 - b);
        t.v[i] = static_cast<Ozr8u>(r);
    }
    return t;
}
inline constexpr Swap8Table swap8 = makeSwap8();

// The L-bit code c in stream order (its first bit at bit 0).
constexpr unsigned reverseCode(unsigned c, unsigned L) {
    const unsigned r16 = static_cast<unsigned>(swap8.v[c & 0xFF]) << 8 | swap8.v[(c >> 8) & 0xFF];
    return r16 >> (16 - L);
}

// ---- Long-table builder --------------------------------------------------------------
// Written for constant evaluation too (it builds the fixed-code table): plain loops,
// bytes stored one at a time.
struct LongTable { Ozr8u b[kLongTableBytes]; };

constexpr void put16(Ozr8u* t, unsigned off, unsigned v) {
    t[off] = static_cast<Ozr8u>(v);
    t[off + 1] = static_cast<Ozr8u>(v >> 8);
}

template <bool Dist>
constexpr void packLongTables(Ozr8u* t, unsigned subUsed) {
    if constexpr (!Dist)
        for (unsigned j = 0; j < subUsed; ++j)
            put16(t, kLongLitSubPacked + 2 * j, t[kLongLitSubKind + j] | t[kLongLitSubValue + j] << 8);
    for (unsigned i = 0; i < (1u << kRootBits); ++i) {
        if constexpr (Dist) {
            put16(t, kLongDistPacked + 4 * i, t[kLongDistLen + i]);
            put16(t, kLongDistPacked + 4 * i + 2, t[kLongDistBase + 2 * i] | t[kLongDistBase + 2 * i + 1] << 8);
        } else {
            put16(t, kLongLitPacked + 2 * i, t[kLongLitKind + i] | t[kLongLitValue + i] << 8);
        }
    }
}

// One alphabet of the long table: the literal/length part (Dist false) or the distance
// part. Lengths must be 0..15 and form a code the builder accepted. Returns false when
// the sub-table area would overflow (complete codes of up to 15 bits stay well inside).
template <bool Dist>
constexpr bool buildLongAlphabet(const Ozr16u* lens, unsigned n, bool complete, Ozr8u* t) {
    constexpr unsigned rootSize = 1u << kRootBits;
    constexpr unsigned subEntries = Dist ? kLongDistSubEntries : kLongLitSubEntries;
    // Canonical first code per length (RFC 1951).
    unsigned count[16] = {}, next[16] = {};
    for (unsigned s = 0; s < n; ++s) ++count[lens[s]];
    count[0] = 0;
    for (unsigned L = 1, c = 0; L <= kMaxCodeLen; ++L) {
        c = (c + count[L - 1]) << 1;
        next[L] = c;
    }
    // Entries start out invalid, unless the code is complete and covers them all.
    for (unsigned i = 0; i < rootSize && !complete; ++i) {
        if constexpr (Dist) {
            t[kLongDistLen + i] = kDistInvalid;
            put16(t, kLongDistBase + 2 * i, 0);
        } else {
            t[kLongLitKind + i] = static_cast<Ozr8u>(kLitInvalid);
            t[kLongLitValue + i] = 0;
        }
    }
    // Longest code under each 10-bit prefix (in stream order), for sizing sub-tables.
    Ozr8u subMax[rootSize] = {};
    unsigned code[16] = {};
    for (unsigned L = 1; L <= kMaxCodeLen; ++L) code[L] = next[L];
    for (unsigned s = 0; s < n; ++s) {
        const unsigned L = lens[s];
        if (L <= kRootBits) continue;
        const unsigned r = reverseCode(code[L]++, L) & (rootSize - 1);
        if (subMax[r] < L) subMax[r] = static_cast<Ozr8u>(L);
    }
    unsigned subUsed = 0;
    unsigned subStart[rootSize];  // read only where subMax is set
    for (unsigned r = 0; r < rootSize; ++r) {
        if (subMax[r] == 0) continue;
        const unsigned bits = subMax[r] - kRootBits;
        const unsigned size = 1u << bits;
        if (subUsed + size > subEntries) return false;
        subStart[r] = subUsed;
        for (unsigned j = 0; j < size && !complete; ++j) {
            if constexpr (Dist) {
                t[kLongDistSubLen + subUsed + j] = kDistInvalid;
                put16(t, kLongDistSubBase + 2 * (subUsed + j), 0);
            } else {
                t[kLongLitSubKind + subUsed + j] = static_cast<Ozr8u>(kLitInvalid);
                t[kLongLitSubValue + subUsed + j] = 0;
            }
        }
        if constexpr (Dist) {
            t[kLongDistLen + r] = static_cast<Ozr8u>(kDistExtraLink << 4 | (kRootBits + bits));
            put16(t, kLongDistBase + 2 * r, subUsed);
        } else {
            t[kLongLitKind + r] = static_cast<Ozr8u>(kKindLink << 4 | (kRootBits + bits));
            t[kLongLitValue + r] = static_cast<Ozr8u>(subUsed / 2);
        }
        subUsed += size;
    }
    for (unsigned s = 0; s < n; ++s) {
        const unsigned L = lens[s];
        if (L == 0) continue;
        const unsigned r = reverseCode(next[L]++, L);
        unsigned lo = 0, hi = 0;  // the entry's byte pair (kind/length byte, value or base)
        if constexpr (Dist) {
            lo = DistExtr.extra[s] | L;
            hi = DistExtr.base[s];
        } else {
            const unsigned e = s < 256 ? s << 8 : s == kEndOfBlock ? kKindEnd << 4 : LenExtr.e[s - 256];
            lo = (e & 0xF0) | L;
            hi = e >> 8;
        }
        if (L <= kRootBits) {
            for (unsigned i = r; i < rootSize; i += 1u << L) {
                if constexpr (Dist) {
                    t[kLongDistLen + i] = static_cast<Ozr8u>(lo);
                    put16(t, kLongDistBase + 2 * i, hi);
                } else {
                    t[kLongLitKind + i] = static_cast<Ozr8u>(lo);
                    t[kLongLitValue + i] = static_cast<Ozr8u>(hi);
                }
            }
        } else {
            const unsigned root = r & (rootSize - 1);
            const unsigned size = 1u << (subMax[root] - kRootBits);
            const unsigned base = subStart[root];
            for (unsigned i = r >> kRootBits; i < size; i += 1u << (L - kRootBits)) {
                if constexpr (Dist) {
                    t[kLongDistSubLen + base + i] = static_cast<Ozr8u>(lo);
                    put16(t, kLongDistSubBase + 2 * (base + i), hi);
                } else {
                    t[kLongLitSubKind + base + i] = static_cast<Ozr8u>(lo);
                    t[kLongLitSubValue + base + i] = static_cast<Ozr8u>(hi);
                }
            }
        }
    }
    packLongTables<Dist>(t, subUsed);
    return true;
}

// The fixed code of RFC 1951: literals 0..143 in 8 bits, 144..255 in 9, 256..279 in 7,
// 280..287 in 8; all 32 distance codes in 5 bits. Symbols 286, 287 and distances 30,
// 31 have codes but no meaning: their entries are marked invalid.
constexpr LongTable makeFixedTable() {
    LongTable t{};
    Ozr16u lens[kNumLitSyms + 32] = {};
    for (unsigned s = 0; s < kNumLitSyms; ++s) lens[s] = s < 144 ? 8 : s < 256 ? 9 : s < 280 ? 7 : 8;
    for (unsigned d = 0; d < 32; ++d) lens[kNumLitSyms + d] = 5;
    // Lit: build all 288, then mark 286/287 (codes 0xC6, 0xC7 in 8 bits).
    buildLongAlphabet<false>(lens, kNumLitSyms, true, t.b);
    for (unsigned c = 0xC6; c <= 0xC7; ++c)
        for (unsigned i = reverseCode(c, 8); i < (1u << kRootBits); i += 256) {
            t.b[kLongLitKind + i] = static_cast<Ozr8u>(kLitInvalid | 8);
            put16(t.b, kLongLitPacked + 2 * i, kLitInvalid | 8);
        }
    // Dist: codes 0..29 from the builder, 30 and 31 invalid with their 5-bit length.
    buildLongAlphabet<true>(lens + kNumLitSyms, kNumDistSyms, false, t.b);
    for (unsigned c = 30; c <= 31; ++c)
        for (unsigned i = reverseCode(c, 5); i < (1u << kRootBits); i += 32)
            t.b[kLongDistLen + i] = static_cast<Ozr8u>(kDistInvalid | 5);
    packLongTables<true>(t.b, 0);
    return t;
}

}  // namespace m7::inflate
