// CRC-32 (zlib), CRC-32C (Castagnoli) and the bzip2 CRC.
//
// One table-driven kernel serves the three: an aligning prefix of single bytes, a
// wide loop over aligned words (slicing-by-8 for the two CRC-32s, slicing-by-4 for
// CRC-32C) and a bytewise tail. Inputs shorter than a per-CRC threshold skip the
// prefix and the wide loop. The CRCs differ only in tables, thresholds, word step
// and round size, which are compile-time parameters of the one kernel, and in how the
// caller's running value is conditioned on entry and exit (done by the entry points).
#include <emmintrin.h>

#include "checksum.h"
#include "crc_tables.h"

namespace {

using m7::crc::Tables;
using m7::crc::makeTables;
using m7::crc::ShiftOp;

// CRC-32: the one-byte table and its seven slicing extensions, laid out one after
// the other so that one base register reaches all eight. o32 is T0 ... o88 is T7.
constexpr Tables<8> crc_table_il8 = makeTables<8, false>(m7::crc::kPolyCRC32);
constexpr const Ozr32u* crc_table_il8_o32 = crc_table_il8.slice(0);
constexpr const Ozr32u* crc_table_il8_o40 = crc_table_il8.slice(1);
constexpr const Ozr32u* crc_table_il8_o48 = crc_table_il8.slice(2);
constexpr const Ozr32u* crc_table_il8_o56 = crc_table_il8.slice(3);
constexpr const Ozr32u* crc_table_il8_o64 = crc_table_il8.slice(4);
constexpr const Ozr32u* crc_table_il8_o72 = crc_table_il8.slice(5);
constexpr const Ozr32u* crc_table_il8_o80 = crc_table_il8.slice(6);
constexpr const Ozr32u* crc_table_il8_o88 = crc_table_il8.slice(7);
static_assert(crc_table_il8_o32[1] == 0x77073096u);
static_assert(crc_table_il8_o40 + 256 == crc_table_il8_o48 && crc_table_il8_o56 + 256 == crc_table_il8_o64 &&
              crc_table_il8_o72 + 256 == crc_table_il8_o80 && crc_table_il8_o80 + 256 == crc_table_il8_o88);

// CRC-32C: one-byte table and three slicing extensions (1,024 words).
constexpr Tables<4> CRC32CTable = makeTables<4, false>(m7::crc::kPolyCRC32C);
static_assert(CRC32CTable.v[1] == 0xF26B8303u);

// bzip2 CRC: MSB-first one-byte table and seven extensions, entries byte-reversed.
constexpr Tables<8> crc_table = makeTables<8, true>(m7::crc::kPolyBZ2);
static_assert(crc_table.v[1] == 0xB71DC104u);

inline Ozr32u load32(const Ozr8u* p) {
    Ozr32u w;
    __builtin_memcpy(&w, p, 4);
    return w;
}

// Keeps the compiler from re-associating a balanced xor tree into one serial chain
// (which would put every lookup on the register's critical path).
inline Ozr32u keep(Ozr32u x) {
    __asm__("" : "+r"(x));
    return x;
}

// Single bytes with the one-byte table, two per loop turn.
inline Ozr32u bytewise(const Ozr32u* T0, Ozr32u reg, const Ozr8u* p, size_t n) {
    for (; n >= 2; n -= 2, p += 2) {
        reg = (reg >> 8) ^ T0[(reg ^ p[0]) & 0xFF];
        reg = (reg >> 8) ^ T0[(reg ^ p[1]) & 0xFF];
    }
    if (n) reg = (reg >> 8) ^ T0[(reg ^ p[0]) & 0xFF];
    return reg;
}

// Entry i of slicing table k. The index is widened before the table offset is
// added, so that the offset folds into the load's displacement.
template <int K>
inline Ozr32u at(const Ozr32u* T, Ozr32u i) {
    return T[K * 256 + static_cast<size_t>(i)];
}

// Slicing-by-8: one 8-byte word, read as two little-endian halves. The register
// meets the low half; its bytes, lowest first, index T7..T4 and the high half's
// bytes index T3..T0. The high half does not depend on the register: its four
// lookups are summed apart.
inline Ozr32u slice8(const Ozr32u* T, Ozr32u reg, Ozr32u lo, Ozr32u hi) {
    lo ^= reg;
    const Ozr32u h = keep(keep(at<3>(T, hi & 0xFF) ^ at<2>(T, (hi >> 8) & 0xFF)) ^
                          keep(at<1>(T, (hi >> 16) & 0xFF) ^ at<0>(T, hi >> 24)));
    const Ozr32u l = keep(at<7>(T, lo & 0xFF) ^ at<6>(T, (lo >> 8) & 0xFF)) ^
                     keep(at<5>(T, (lo >> 16) & 0xFF) ^ at<4>(T, lo >> 24));
    return l ^ h;
}

// Slicing-by-4: one little-endian 4-byte word; the highest byte has no bytes after
// it (S0), the lowest has three (S3).
inline Ozr32u slice4(const Ozr32u* S, Ozr32u reg, Ozr32u w) {
    const Ozr32u x = reg ^ w;
    return keep(at<0>(S, x >> 24) ^ at<1>(S, (x >> 16) & 0xFF)) ^ keep(at<2>(S, (x >> 8) & 0xFF) ^ at<3>(S, x & 0xFF));
}

// Applies a ShiftOp to a register with SSE2: lane t of step j tests bit 4j + t,
// turns it into an all-ones mask and keeps column 4j + t under it.
alignas(16) constexpr Ozr32u kBit[32] = {
    1u << 0,  1u << 1,  1u << 2,  1u << 3,  1u << 4,  1u << 5,  1u << 6,  1u << 7,
    1u << 8,  1u << 9,  1u << 10, 1u << 11, 1u << 12, 1u << 13, 1u << 14, 1u << 15,
    1u << 16, 1u << 17, 1u << 18, 1u << 19, 1u << 20, 1u << 21, 1u << 22, 1u << 23,
    1u << 24, 1u << 25, 1u << 26, 1u << 27, 1u << 28, 1u << 29, 1u << 30, 1u << 31};

inline __m128i ld(const Ozr32u* p) { return _mm_load_si128(reinterpret_cast<const __m128i*>(p)); }

// x advanced by op X, xor y advanced by op Y: two registers, one pass.
inline Ozr32u shift2(const ShiftOp& X, Ozr32u x, const ShiftOp& Y, Ozr32u y) {
    const __m128i vx = _mm_set1_epi32(static_cast<int>(x)), vy = _mm_set1_epi32(static_cast<int>(y));
    __m128i a0 = _mm_setzero_si128(), a1 = _mm_setzero_si128();
    for (int j = 0; j < 32; j += 4) {
        const __m128i bit = ld(kBit + j);
        a0 = _mm_xor_si128(a0, _mm_and_si128(_mm_cmpeq_epi32(_mm_and_si128(vx, bit), bit), ld(X.col + j)));
        a1 = _mm_xor_si128(a1, _mm_and_si128(_mm_cmpeq_epi32(_mm_and_si128(vy, bit), bit), ld(Y.col + j)));
    }
    __m128i a = _mm_xor_si128(a0, a1);
    a = _mm_xor_si128(a, _mm_shuffle_epi32(a, _MM_SHUFFLE(1, 0, 3, 2)));
    a = _mm_xor_si128(a, _mm_shuffle_epi32(a, _MM_SHUFFLE(2, 3, 0, 1)));
    return static_cast<Ozr32u>(_mm_cvtsi128_si32(a));
}

// The kernel's parameters per CRC. A group is 8 bytes; a round is kRoundGroups
// groups. Within a round the groups are summed in two independent lanes from a zero
// register, and the incoming register and the first lane are carried to the end
// of the round by ShiftOps: the round's table lookups then do not wait on the
// previous round, only the short ShiftOp step does. The value is the same as
// passing the groups one after the other, by linearity of the CRC.
struct CRC32 {
    static constexpr size_t kThreshold = 15;  // below it: bytewise only
    static constexpr size_t kAlign = 8;       // the wide loop reads aligned 8-byte words
    static constexpr size_t kRoundGroups = 10;
    static constexpr const Ozr32u* table() { return crc_table_il8.v; }
    static Ozr32u group(Ozr32u reg, const Ozr8u* p) { return slice8(table(), reg, load32(p), load32(p + 4)); }
};

struct CRC32C {
    static constexpr size_t kThreshold = 11;
    static constexpr size_t kAlign = 4;  // 4-byte steps on aligned 4-byte words
    static constexpr size_t kRoundGroups = 10;
    static constexpr const Ozr32u* table() { return CRC32CTable.v; }
    static Ozr32u group(Ozr32u reg, const Ozr8u* p) {
        reg = slice4(table(), reg, load32(p));
        return slice4(table(), reg, load32(p + 4));
    }
};

struct BZ2 {
    static constexpr size_t kThreshold = 11;
    static constexpr size_t kAlign = 8;
    static constexpr size_t kRoundGroups = 8;  // 64-byte blocks
    static constexpr const Ozr32u* table() { return crc_table.v; }
    static Ozr32u group(Ozr32u reg, const Ozr8u* p) { return slice8(table(), reg, load32(p), load32(p + 4)); }
};

template <class C>
struct RoundShifts {
    static constexpr ShiftOp whole = m7::crc::makeShift(C::table(), int(8 * C::kRoundGroups));
    static constexpr ShiftOp half = m7::crc::makeShift(C::table(), int(8 * (C::kRoundGroups / 2)));
};

template <class C>
inline Ozr32u crcRound(Ozr32u reg, const Ozr8u* p) {
    constexpr size_t half = C::kRoundGroups / 2;
    static_assert(C::kRoundGroups == 2 * half);
    Ozr32u a = 0, b = 0;
#pragma GCC unroll 8
    for (size_t g = 0; g < half; ++g) {
        a = C::group(a, p + 8 * g);
        b = C::group(b, p + 8 * (half + g));
    }
    return shift2(RoundShifts<C>::whole, reg, RoundShifts<C>::half, a) ^ b;
}

// The register runs through: aligning prefix, rounds of kRoundGroups 8-byte groups,
// single groups, bytewise tail. Short inputs go bytewise from the start.
template <class C>
inline Ozr32u crcKernel(Ozr32u reg, const Ozr8u* p, size_t n) {
    const Ozr32u* T0 = C::table();
    if (n >= C::kThreshold) {
        const size_t head = (0 - reinterpret_cast<uintptr_t>(p)) & (C::kAlign - 1);
        reg = bytewise(T0, reg, p, head);
        p += head;
        n -= head;
        size_t groups = n / 8;
        n %= 8;
        for (; groups >= C::kRoundGroups; groups -= C::kRoundGroups, p += 8 * C::kRoundGroups)
            reg = crcRound<C>(reg, p);
        for (; groups > 0; --groups, p += 8) reg = C::group(reg, p);
    }
    return bytewise(T0, reg, p, n);
}

}  // namespace

extern "C" {

void m7_ownsCRC32_8u(const Ozr8u* pSrc, size_t len, Ozr32u* pCRC) {
    *pCRC = ~crcKernel<CRC32>(~*pCRC, pSrc, len);
}

void m7_ownsCRC32C_8u(const Ozr8u* pSrc, size_t len, Ozr32u* pCRC) {
    *pCRC = crcKernel<CRC32C>(*pCRC, pSrc, len);
}

void m7_ownsCRC32_BZ2_8u(const Ozr8u* pSrc, size_t len, Ozr32u* pCRC) {
    *pCRC = ~m7::crc::byteSwap(crcKernel<BZ2>(~m7::crc::byteSwap(*pCRC), pSrc, len));
}

OzrResult m7_ozrsCRC32_8u(const Ozr8u* pSrc, Ozr32s len, Ozr32u* pCRC) {
    OZR_CHECK_NULL(pSrc, pCRC);
    OZR_CHECK_POSITIVE(len);
    m7_ownsCRC32_8u(pSrc, static_cast<size_t>(len), pCRC);
    return ozrOk;
}

OzrResult m7_ozrsCRC32C_8u(const Ozr8u* pSrc, Ozr32u len, Ozr32u* pCRC) {
    OZR_CHECK_NULL(pSrc, pCRC);
    if (len == 0) return ozrErrSize;  // unsigned: only zero is refused
    m7_ownsCRC32C_8u(pSrc, len, pCRC);
    return ozrOk;
}

OzrResult m7_ozrsCRC32_BZ2_8u(const Ozr8u* pSrc, Ozr32s len, Ozr32u* pCRC) {
    OZR_CHECK_NULL(pSrc, pCRC);
    OZR_CHECK_POSITIVE(len);
    m7_ownsCRC32_BZ2_8u(pSrc, static_cast<size_t>(len), pCRC);
    return ozrOk;
}

}  // extern "C"
