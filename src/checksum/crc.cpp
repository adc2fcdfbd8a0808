// CRC-32 (zlib), CRC-32C (Castagnoli) and the bzip2 CRC.
//
// One table-driven kernel serves the three: an aligning prefix of single bytes, a
// wide loop over aligned words (slicing-by-8 for the two CRC-32s, slicing-by-4 for
// CRC-32C) and a bytewise tail. Inputs shorter than a per-CRC threshold skip the
// prefix and the wide loop. The CRCs differ only in tables, thresholds, word step,
// round size and lane count, which are compile-time parameters of the one kernel, and
// in how the caller's running value is conditioned on entry and exit (done by the
// entry points).
#include "checksum.h"
#include "crc_tables.h"
#include "unaligned.h"

namespace {

using m7::load32;

using m7::crc::Tables;
using m7::crc::makeTables;

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


// Single bytes with the one-byte table, two per loop turn.
inline Ozr32u bytewise(const Ozr32u* T0, Ozr32u reg, const Ozr8u* p, size_t n) {
    for (; n >= 2; n -= 2, p += 2) {
        reg = (reg >> 8) ^ T0[(reg ^ p[0]) & 0xFF];
        reg = (reg >> 8) ^ T0[(reg ^ p[1]) & 0xFF];
    }
    if (n) reg = (reg >> 8) ^ T0[(reg ^ p[0]) & 0xFF];
    return reg;
}

// The four bytes of x, lowest first, index the 256-entry sub-tables that start O0,
// O1, O2, O3 words after T; the result is the xor of the four entries, xored into r
// unless Fresh. This is the whole inner loop, so it is spelled out: the bytes come
// out with movzbl from the low and high byte registers and two shifts that consume
// x, and each lookup is one xor with a memory operand whose displacement is the
// sub-table offset (9 instructions). Left to itself the compiler adds a register copy
// or an offset add per byte, about a third more work. x must sit in a register that
// has a high-byte name and the index in one that needs no REX prefix (constraints Q
// and R). The tables are constants that nothing writes, so no memory operand is
// declared for them.
template <int O0, int O1, int O2, int O3, bool Fresh>
inline Ozr32u gather4(const Ozr32u* T, Ozr32u x, Ozr32u r) {
    size_t i;
#define M7_GATHER4_BODY(first)                       \
    "movzbl %b[x], %k[i]\n\t"                        \
    first " %c[o0](%[T],%[i],4), %k[r]\n\t"          \
    "movzbl %h[x], %k[i]\n\t"                        \
    "xorl %c[o1](%[T],%[i],4), %k[r]\n\t"            \
    "shrl $16, %k[x]\n\t"                            \
    "movzbl %b[x], %k[i]\n\t"                        \
    "xorl %c[o2](%[T],%[i],4), %k[r]\n\t"            \
    "shrl $8, %k[x]\n\t"                             \
    "xorl %c[o3](%[T],%q[x],4), %k[r]"
#define M7_GATHER4_IN \
    [T] "r"(T), [o0] "i"(4 * O0), [o1] "i"(4 * O1), [o2] "i"(4 * O2), [o3] "i"(4 * O3)
    if constexpr (Fresh)
        __asm__(M7_GATHER4_BODY("movl") : [r] "=&r"(r), [x] "+Q"(x), [i] "=&R"(i) : M7_GATHER4_IN : "cc");
    else
        __asm__(M7_GATHER4_BODY("xorl") : [r] "+r"(r), [x] "+Q"(x), [i] "=&R"(i) : M7_GATHER4_IN : "cc");
#undef M7_GATHER4_BODY
#undef M7_GATHER4_IN
    return r;
}

// Slicing-by-8: one 8-byte word, read as two little-endian halves. The register
// meets the low half; its bytes, lowest first, index T7..T4 and the high half's
// bytes index T3..T0. The high half does not depend on the register, so its
// lookups go first and only the low half's wait for the previous word.
inline Ozr32u slice8(const Ozr32u* T, Ozr32u reg, const Ozr8u* p) {
    const Ozr32u h = gather4<3 * 256, 2 * 256, 1 * 256, 0, true>(T, load32(p + 4), 0);
    return gather4<7 * 256, 6 * 256, 5 * 256, 4 * 256, false>(T, reg ^ load32(p), h);
}

// Slicing-by-4: one little-endian 4-byte word; the highest byte has no bytes after
// it (S0), the lowest has three (S3).
inline Ozr32u slice4(const Ozr32u* S, Ozr32u reg, const Ozr8u* p) {
    return gather4<3 * 256, 2 * 256, 1 * 256, 0, true>(S, reg ^ load32(p), 0);
}

// A register passed over N zero bytes (see makeAdvance): sub-table k takes byte k.
inline Ozr32u advance(const Tables<4>& Z, Ozr32u r) { return gather4<0, 256, 2 * 256, 3 * 256, true>(Z.v, r, 0); }

// The kernel's parameters per CRC. A group is 8 bytes; a round is kRoundGroups
// groups, passed in kStep-byte steps.
//
// A round's value does not need the register until its end: by linearity, passing a
// round from register r gives A(r) xor (the round passed from a zero register), where
// A moves a register over the round's length of zero bytes (four lookups, see
// makeAdvance). So kRoundsAtOnce consecutive rounds are summed side by side, each
// from zero, in independent dependency chains, and then folded into the register one
// after the other with A. A round may itself be split into kLanes lanes over
// contiguous stretches, joined the same way. Only the four-lookup move of the
// register waits on the previous round; the lookups of the rounds overlap. The value
// is the one of passing every step in order.
//
// CRC-32C gets two lanes per round: its 4-byte steps each wait for the one before, so
// a round is twice as deep as with slicing-by-8 words.
struct CRC32 {
    static constexpr size_t kThreshold = 15;  // below it: bytewise only
    static constexpr size_t kAlign = 8;       // the wide loop reads aligned 8-byte words
    static constexpr size_t kRoundGroups = 10;
    static constexpr size_t kStep = 8;
    static constexpr size_t kLanes = 1;
    static constexpr size_t kRoundsAtOnce = 4;
    static constexpr const Ozr32u* table() { return crc_table_il8.v; }
    static Ozr32u step(Ozr32u reg, const Ozr8u* p) { return slice8(table(), reg, p); }
};

struct CRC32C {
    static constexpr size_t kThreshold = 11;
    static constexpr size_t kAlign = 4;  // 4-byte steps on aligned 4-byte words
    static constexpr size_t kRoundGroups = 10;
    static constexpr size_t kStep = 4;
    static constexpr size_t kLanes = 2;
    static constexpr size_t kRoundsAtOnce = 4;
    static constexpr const Ozr32u* table() { return CRC32CTable.v; }
    static Ozr32u step(Ozr32u reg, const Ozr8u* p) { return slice4(table(), reg, p); }
};

struct BZ2 {
    static constexpr size_t kThreshold = 11;
    static constexpr size_t kAlign = 8;
    static constexpr size_t kRoundGroups = 8;  // 64-byte blocks
    static constexpr size_t kStep = 8;
    static constexpr size_t kLanes = 1;
    static constexpr size_t kRoundsAtOnce = 4;
    static constexpr const Ozr32u* table() { return crc_table.v; }
    static Ozr32u step(Ozr32u reg, const Ozr8u* p) { return slice8(table(), reg, p); }
};

template <class C>
struct Round {
    static constexpr size_t kBytes = 8 * C::kRoundGroups;
    static constexpr size_t kLaneBytes = kBytes / C::kLanes;
    static constexpr size_t kLaneSteps = kLaneBytes / C::kStep;
    static_assert(kLaneBytes * C::kLanes == kBytes && kLaneSteps * C::kStep == kLaneBytes);
    static constexpr Tables<4> overLane = m7::crc::makeAdvance<int(kLaneBytes)>(C::table());
    static constexpr Tables<4> overRound = m7::crc::makeAdvance<int(kBytes)>(C::table());
};

// K consecutive rounds from p, folded into reg.
template <class C, size_t K>
inline Ozr32u crcRounds(Ozr32u reg, const Ozr8u* p) {
    using R = Round<C>;
    Ozr32u lane[K][C::kLanes] = {};
#pragma GCC unroll 20
    for (size_t s = 0; s < R::kLaneSteps; ++s)
#pragma GCC unroll 4
        for (size_t l = 0; l < C::kLanes; ++l)
#pragma GCC unroll 4
            for (size_t k = 0; k < K; ++k)
                lane[k][l] = C::step(lane[k][l], p + k * R::kBytes + l * R::kLaneBytes + s * C::kStep);
#pragma GCC unroll 4
    for (size_t k = 0; k < K; ++k) {
        Ozr32u round = lane[k][0];
        if constexpr (C::kLanes > 1)
#pragma GCC unroll 4
            for (size_t l = 1; l < C::kLanes; ++l) round = advance(R::overLane, round) ^ lane[k][l];
        reg = advance(R::overRound, reg) ^ round;
    }
    return reg;
}

// The register runs through: aligning prefix, rounds of kRoundGroups 8-byte groups
// (kRoundsAtOnce at a time while there are as many), single groups, bytewise tail.
// Short inputs go bytewise from the start.
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
        constexpr size_t kRound = C::kRoundGroups, kMany = C::kRoundsAtOnce * kRound;
        for (; groups >= kMany; groups -= kMany, p += 8 * kMany) reg = crcRounds<C, C::kRoundsAtOnce>(reg, p);
        for (; groups >= kRound; groups -= kRound, p += 8 * kRound) reg = crcRounds<C, 1>(reg, p);
        for (; groups > 0; --groups, p += 8)
            for (size_t s = 0; s < 8; s += C::kStep) reg = C::step(reg, p + s);
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
