// Pieces shared by the ZFP block encoder and decoder: the state record's rules, the
// coefficient order, the lifting transform on a block held in SSE2 registers, and the
// conversions between 32-bit coefficients and bit planes.
//
// A block lives in 16 vectors v[4 * z + y] = the row (x = 0..3) at (y, z). A bit
// plane is a 64-bit word whose bit i is bit k of coded coefficient i (coefficients
// in sequency order). The planes are moved through "byte planes": for 16
// coefficients, one vector whose byte j holds one byte of coefficient j, so that a
// movemask picks one bit plane of 16 coefficients at once.
#pragma once

#include <emmintrin.h>

#include "m7.h"

namespace m7::zfp {

constexpr Ozr32u kMagic = 0x4B617398u;
constexpr Ozr32s kDefaultMinBits = 0;
constexpr Ozr32s kDefaultMaxBits = 4171;
constexpr Ozr32s kDefaultMaxPrec = 64;
constexpr Ozr32s kDefaultMinExp = -10740;
constexpr int kHeaderBits = 9;        // 1 "not empty" bit + 8 bits of emax + 127
constexpr int kPlanes = 32;           // coefficients are 32-bit integers
constexpr int kEmptyEmax = -127;      // block exponent of an all-zero block
// Upper bound of the bits of one coded block, padding excluded: per plane the
// verbatim bits and unary positions cover at most 64 positions, plus one group test
// per coefficient that becomes significant (64 in all) and one closing test per
// plane: 9 + 32 * 65 + 64.
constexpr int kMaxBlockBits = kHeaderBits + kPlanes * 65 + 64;

static_assert(sizeof(OzrsZfpState_32f) == 576, "the state record is 576 bytes");
static_assert(__builtin_offsetof(OzrsZfpState_32f, bitBuffer) == 24);
static_assert(__builtin_offsetof(OzrsZfpState_32f, pCur) == 32);
static_assert(__builtin_offsetof(OzrsZfpState_32f, block) == 64);

// The 3-D coefficient order by total sequency x + y + z (then by the published
// coder's tie-break): coded coefficient i is block position permTable[i].
constexpr Ozr8u permTable[64] = {
    0,  1,  4,  16, 20, 17, 5,  2,  8,  32, 21, 6,  18, 24, 9,  33,
    36, 3,  12, 48, 22, 25, 37, 40, 34, 10, 7,  19, 28, 13, 49, 52,
    41, 38, 26, 23, 29, 53, 11, 35, 44, 14, 50, 56, 42, 27, 39, 45,
    30, 54, 57, 60, 51, 15, 43, 46, 58, 61, 55, 31, 62, 59, 47, 63};

struct PermInverse {
    Ozr8u v[64];
};
constexpr PermInverse invert(const Ozr8u (&p)[64]) {
    PermInverse r{};
    for (int i = 0; i < 64; ++i) r.v[p[i]] = static_cast<Ozr8u>(i);
    return r;
}
// Block position j takes coded coefficient permTableDecode[j].
constexpr PermInverse permTableDecode = invert(permTable);

inline bool initialised(const OzrsZfpState_32f* s) { return s->magic == kMagic; }

// Planes coded for a block with exponent emax: min(maxPrec, max(0, emax - minExp + 8)),
// in 64 bits so that no parameter value can overflow; at most 32 exist.
inline int precision(int emax, const OzrsZfpState_32f* s) {
    Ozr64s p = Ozr64s(emax) - s->minExp + 8;
    if (p < 0) p = 0;
    if (p > s->maxPrec) p = s->maxPrec;
    return p < 0 ? 0 : (p > kPlanes ? kPlanes : int(p));
}

// ---- The caller's floating-point modes ---------------------------------------------
// The block coders' float arithmetic (the block maximum, the scaling by powers of
// two, the conversions between integers and floats) gives the published results only
// in MXCSR's default modes: denormals-are-zero would read subnormal values as zero,
// flush-to-zero would drop subnormal results, another rounding mode would round the
// integer-to-float conversion differently, and an unmasked exception would trap. A
// caller may have set any of these. The coders run in the default modes and hand
// MXCSR back as it was, with the status flags their own arithmetic raised. Reading
// MXCSR costs about a cycle; it is written only when a mode differs. The asm
// statements clobber memory so that no load or store of the block moves across them.
class DefaultFloatModes {
public:
    DefaultFloatModes() {
        __asm__ volatile("stmxcsr %0" : "=m"(saved_) : : "memory");
        if ((saved_ & kModes) != kDefault) set((saved_ & ~kModes) | kDefault);
    }
    ~DefaultFloatModes() {
        if ((saved_ & kModes) == kDefault) return;
        Ozr32u now;
        __asm__ volatile("stmxcsr %0" : "=m"(now) : : "memory");
        set(saved_ | (now & kFlags));
    }
    DefaultFloatModes(const DefaultFloatModes&) = delete;
    DefaultFloatModes& operator=(const DefaultFloatModes&) = delete;

private:
    // DAZ (bit 6), the exception masks (7..12), rounding control (13, 14), FTZ (15).
    static constexpr Ozr32u kModes = 0xFFC0, kDefault = 0x1F80, kFlags = 0x3F;
    static void set(Ozr32u v) { __asm__ volatile("ldmxcsr %0" : : "m"(v) : "memory"); }
    Ozr32u saved_;
};

// Float 2^(e - 127) built from its exponent field e (1..254).
inline __m128 powerOfTwo(int field) { return _mm_castsi128_ps(_mm_set1_epi32(field << 23)); }

inline Ozr64u lowMask(int n) { return n >= 64 ? ~Ozr64u(0) : (Ozr64u(1) << n) - 1; }

// ---- Lifting transform ---------------------------------------------------------
// The published coder's non-orthogonal decorrelating transform of 4 values
//        ( 4  4  4  4) (x)
//  1/16  ( 5  1 -1 -5) (y)
//        (-4  4  4 -4) (z)
//        (-2  6 -6  2) (w)
// in integer lifting steps, applied lane-wise to four vectors. Sums wrap modulo 2^32.
inline void fwdLift(__m128i& x, __m128i& y, __m128i& z, __m128i& w) {
    x = _mm_add_epi32(x, w); x = _mm_srai_epi32(x, 1); w = _mm_sub_epi32(w, x);
    z = _mm_add_epi32(z, y); z = _mm_srai_epi32(z, 1); y = _mm_sub_epi32(y, z);
    x = _mm_add_epi32(x, z); x = _mm_srai_epi32(x, 1); z = _mm_sub_epi32(z, x);
    w = _mm_add_epi32(w, y); w = _mm_srai_epi32(w, 1); y = _mm_sub_epi32(y, w);
    w = _mm_add_epi32(w, _mm_srai_epi32(y, 1)); y = _mm_sub_epi32(y, _mm_srai_epi32(w, 1));
}

inline void invLift(__m128i& x, __m128i& y, __m128i& z, __m128i& w) {
    y = _mm_add_epi32(y, _mm_srai_epi32(w, 1)); w = _mm_sub_epi32(w, _mm_srai_epi32(y, 1));
    y = _mm_add_epi32(y, w); w = _mm_slli_epi32(w, 1); w = _mm_sub_epi32(w, y);
    z = _mm_add_epi32(z, x); x = _mm_slli_epi32(x, 1); x = _mm_sub_epi32(x, z);
    y = _mm_add_epi32(y, z); z = _mm_slli_epi32(z, 1); z = _mm_sub_epi32(z, y);
    w = _mm_add_epi32(w, x); x = _mm_slli_epi32(x, 1); x = _mm_sub_epi32(x, w);
}

inline void transpose4(__m128i& a, __m128i& b, __m128i& c, __m128i& d) {
    __m128i t0 = _mm_unpacklo_epi32(a, b), t1 = _mm_unpacklo_epi32(c, d);
    __m128i t2 = _mm_unpackhi_epi32(a, b), t3 = _mm_unpackhi_epi32(c, d);
    a = _mm_unpacklo_epi64(t0, t1); b = _mm_unpackhi_epi64(t0, t1);
    c = _mm_unpacklo_epi64(t2, t3); d = _mm_unpackhi_epi64(t2, t3);
}

// Along x (within rows: transpose, lift, transpose back), then y, then z.
inline void forwardTransform(__m128i (&v)[16]) {
    for (int z = 0; z < 4; ++z) {
        __m128i* r = v + 4 * z;
        transpose4(r[0], r[1], r[2], r[3]);
        fwdLift(r[0], r[1], r[2], r[3]);
        transpose4(r[0], r[1], r[2], r[3]);
    }
    for (int z = 0; z < 4; ++z) fwdLift(v[4 * z], v[4 * z + 1], v[4 * z + 2], v[4 * z + 3]);
    for (int y = 0; y < 4; ++y) fwdLift(v[y], v[4 + y], v[8 + y], v[12 + y]);
}

// The exact inverse: along z, then y, then x.
inline void inverseTransform(__m128i (&v)[16]) {
    for (int y = 0; y < 4; ++y) invLift(v[y], v[4 + y], v[8 + y], v[12 + y]);
    for (int z = 0; z < 4; ++z) invLift(v[4 * z], v[4 * z + 1], v[4 * z + 2], v[4 * z + 3]);
    for (int z = 0; z < 4; ++z) {
        __m128i* r = v + 4 * z;
        transpose4(r[0], r[1], r[2], r[3]);
        invLift(r[0], r[1], r[2], r[3]);
        transpose4(r[0], r[1], r[2], r[3]);
    }
}

// Two's complement <-> negabinary (base -2), so that small magnitudes of either sign
// have few significant bits: u = (c + 0xAAAAAAAA) ^ 0xAAAAAAAA and back.
inline __m128i toNegabinary(__m128i c) {
    const __m128i m = _mm_set1_epi32(int(0xAAAAAAAAu));
    return _mm_xor_si128(_mm_add_epi32(c, m), m);
}
inline __m128i fromNegabinary(__m128i u) {
    const __m128i m = _mm_set1_epi32(int(0xAAAAAAAAu));
    return _mm_sub_epi32(_mm_xor_si128(u, m), m);
}

}  // namespace m7::zfp
