// Internal pieces of the bzip2 block Huffman coder and decoder: the format's
// constants, the MSB-first bit writer shared by the table-section packer and the
// symbol coder, and the stages they call.
#pragma once

#include "bzip2_internal.h"
#include "m7.h"

namespace m7::bz2 {

constexpr int kMaxAlpha = 258;       // 256 byte values + RUNA/RUNB - 1 + end-of-block
constexpr int kMaxTables = 6;
constexpr int kMinTables = 2;
constexpr int kGroupSize = 50;       // symbols per selector
constexpr int kMaxSelectors = 18002; // 2 + 900000 / 50: the most a bzip2 block needs
constexpr int kMaxSelectorField = 32767;  // the 15-bit selector count
constexpr int kEncodeMaxLen = 17;    // the encoder's code-length limit
constexpr int kDecodeMaxLen = 20;    // the longest code the table section can describe

// The MSB-first bit writer of the encoder side. The caller's accumulator (32 bits,
// left-aligned, with its count) is widened to 64 bits for the call; whole 32-bit
// words go out while room allows, single bytes near the end of the room. When the
// room is exhausted bits keep being counted (not stored), so that the caller sees
// the pending count pass 32 and is told to retry.
struct BitWriter {
    Ozr64u acc;    // pending bits, the first at bit 63
    Ozr64s bits;   // pending bit count, may exceed 64 once the room is gone
    Ozr8u* p;
    Ozr8u* end;

    BitWriter(Ozr32u code, int codeLenBits, Ozr8u* dst, int room)
        : acc(static_cast<Ozr64u>(code) << 32),
          bits(codeLenBits < 0 ? 0 : (codeLenBits > 32 ? 32 : codeLenBits)), p(dst), end(dst + room) {
        acc &= bits == 0 ? 0 : ~Ozr64u{0} << (64 - bits);
    }

    // Writes whole bytes while at least `keep` + 8 bits are pending and room remains.
    inline void drain(int keep) {
        while (bits >= keep + 8 && bits <= 64 && p < end) {
            *p++ = static_cast<Ozr8u>(acc >> 56);
            acc <<= 8;
            bits -= 8;
        }
    }

    // Appends the n low bits of v (1 <= n <= 32; v has no bits above them).
    inline void put(Ozr32u v, int n) {
        if (bits + n > 64) {
            drain(0);
            if (bits + n > 64) { bits += n; return; }  // room gone: count only
        }
        acc |= static_cast<Ozr64u>(v) << (64 - bits - n);
        bits += n;
        if (bits >= 32) {
            if (end - p >= 4) {
                const Ozr32u w = static_cast<Ozr32u>(acc >> 32);
                p[0] = static_cast<Ozr8u>(w >> 24);
                p[1] = static_cast<Ozr8u>(w >> 16);
                p[2] = static_cast<Ozr8u>(w >> 8);
                p[3] = static_cast<Ozr8u>(w);
                p += 4;
                acc <<= 32;
                bits -= 32;
            } else {
                drain(0);
            }
        }
    }

    // Writes out what whole bytes it can and hands the accumulator back.
    inline OzrResult finish(Ozr32u* pCode, int* pCodeLenBits, Ozr8u* dst, int* pDstLen) {
        drain(0);
        *pDstLen = static_cast<int>(p - dst);
        *pCode = static_cast<Ozr32u>(acc >> 32);
        *pCodeLenBits = bits > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(bits);
        return bits >= 33 ? ozrWarnDstSizeLess : ozrOk;
    }
};

}  // namespace m7::bz2
