// CRC-32 (zlib), CRC-32C (Castagnoli) and the bzip2 CRC.
//
// One table-driven kernel serves the three: an aligning prefix of single bytes, a
// wide loop over aligned words (slicing-by-8 for the two CRC-32s, slicing-by-4 for
// CRC-32C) and a bytewise tail. Inputs shorter than a per-CRC threshold skip the
// prefix and the wide loop. The CRCs differ only in tables, thresholds, word step
// and round size, which are compile-time parameters of the one kernel, and in how the
// caller's running value is conditioned on entry and exit (done by the entry points).
#include "checksum.h"
#include "crc_tables.h"

namespace {

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

inline Ozr64u load64(const Ozr8u* p) {
    Ozr64u w;
    __builtin_memcpy(&w, p, 8);
    return w;
}

inline Ozr32u load32(const Ozr8u* p) {
    Ozr32u w;
    __builtin_memcpy(&w, p, 4);
    return w;
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

// Slicing-by-8: one little-endian 8-byte word. The register meets the low half;
// its bytes, lowest first, index T7..T4 and the high half's bytes index T3..T0.
inline Ozr32u slice8(const Ozr32u* T, Ozr32u reg, Ozr64u w) {
    const Ozr32u lo = static_cast<Ozr32u>(w) ^ reg, hi = static_cast<Ozr32u>(w >> 32);
    return T[7 * 256 + (lo & 0xFF)] ^ T[6 * 256 + ((lo >> 8) & 0xFF)] ^ T[5 * 256 + ((lo >> 16) & 0xFF)] ^
           T[4 * 256 + (lo >> 24)] ^ T[3 * 256 + (hi & 0xFF)] ^ T[2 * 256 + ((hi >> 8) & 0xFF)] ^
           T[1 * 256 + ((hi >> 16) & 0xFF)] ^ T[hi >> 24];
}

// Slicing-by-4: one little-endian 4-byte word; the highest byte has no bytes after
// it (S0), the lowest has three (S3).
inline Ozr32u slice4(const Ozr32u* S, Ozr32u reg, Ozr32u w) {
    const Ozr32u x = reg ^ w;
    return S[x >> 24] ^ S[256 + ((x >> 16) & 0xFF)] ^ S[512 + ((x >> 8) & 0xFF)] ^ S[768 + (x & 0xFF)];
}

// The kernel's parameters per CRC.
struct CRC32 {
    static constexpr size_t kThreshold = 15;  // below it: bytewise only
    static constexpr size_t kAlign = 8;       // the wide loop reads aligned 8-byte words
    static constexpr size_t kRoundGroups = 10;
    static constexpr const Ozr32u* table() { return crc_table_il8.v; }
    static Ozr32u group(Ozr32u reg, const Ozr8u* p) { return slice8(table(), reg, load64(p)); }
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
    static Ozr32u group(Ozr32u reg, const Ozr8u* p) { return slice8(table(), reg, load64(p)); }
};

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
        for (; groups >= C::kRoundGroups; groups -= C::kRoundGroups)
            for (size_t g = 0; g < C::kRoundGroups; ++g, p += 8) reg = C::group(reg, p);
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
