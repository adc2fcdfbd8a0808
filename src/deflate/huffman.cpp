// Deflate Huffman coder: the intermediate sequence (literal or length - 3, distance or
// 0) written as RFC 1951 codes and extra bits, least significant bit first.
//
// Bits collect in a 64-bit buffer that is stored 8 bytes at a time and advanced by
// the whole bytes it held. The caller guarantees 6 bytes of room per entry (a match
// is at most 15 + 5 + 15 + 13 = 48 bits) plus the pending bits, so a blind 8-byte
// store is in bounds while at least two entries remain after the current one; the
// last entries and the final partial buffer are stored a byte at a time. The bytes
// are those of any LSB-first packing of the same fields.
#include "deflate_common.h"

namespace m7::deflate {
namespace {

struct BitWriter {
    Ozr64u buf;
    Ozr32u n;  // valid bits in buf, below 64 - 48 before each entry
    Ozr8u* out;

    void put(Ozr32u bits, Ozr32u len) {
        buf |= static_cast<Ozr64u>(bits) << n;
        n += len;
    }
    void flushBlind() {
        store64(out, buf);
        out += n >> 3;
        buf = (n & ~7u) == 64 ? 0 : buf >> (n & ~7u);
        n &= 7;
    }
    void flushBytes() {
        while (n >= 8) {
            *out++ = static_cast<Ozr8u>(buf);
            buf >>= 8;
            n -= 8;
        }
    }
};

// A code merged with the extra bits that follow it: one field, one put.
struct Field {
    Ozr32u bits;
    Ozr32u len;
};

template <bool Wide>
void encode(const Ozr8u* lit, const Ozr16u* dist, Ozr32u count, const OzrDeflateHuffCode* lc,
            const OzrDeflateHuffCode* dc, BitWriter& w) {
    // Wide: per length byte, the length code with its extra bits in one field.
    Field lenField[Wide ? 256 : 1];
    if constexpr (Wide) {
        for (int v = 0; v < 256; ++v) {
            const int c = lenCode(v);
            const OzrDeflateHuffCode& h = lc[257 + c];
            lenField[v] = {h.code | (static_cast<Ozr32u>(v - kCodes.litBase[c]) << h.len),
                           static_cast<Ozr32u>(h.len + kCodes.litExtra[c])};
        }
    }
    const auto one = [&](Ozr32u i) {
        const Ozr32u d = dist[i];
        const Ozr32u v = lit[i];
        if (d == 0) {
            w.put(lc[v].code, lc[v].len);
            return;
        }
        if constexpr (Wide) {
            w.put(lenField[v].bits, lenField[v].len);
        } else {
            const int c = lenCode(static_cast<int>(v));
            w.put(lc[257 + c].code, lc[257 + c].len);
            w.put(v - kCodes.litBase[c], kCodes.litExtra[c]);
        }
        const int e = static_cast<int>(d) - 1;
        const int k = distCode(e);
        w.put(dc[k].code | (static_cast<Ozr32u>(e - kCodes.distBase[k]) << dc[k].len),
              dc[k].len + kCodes.distExtra[k]);
    };
    Ozr32u i = 0;
    for (; i + 2 < count; ++i) {
        one(i);
        w.flushBlind();
    }
    for (; i < count; ++i) {
        one(i);
        w.flushBytes();
    }
}

}  // namespace
}  // namespace m7::deflate

using namespace m7::deflate;

extern "C" OzrResult m7_ozrsDeflateHuff_8u(const Ozr8u* pLitSrc, const Ozr16u* pDistSrc, Ozr32u srcLen,
                                           Ozr16u* pCode, Ozr32u* pCodeLenBits,
                                           OzrDeflateHuffCode pLitHuffCodes[286],
                                           OzrDeflateHuffCode pDistHuffCodes[30], Ozr8u* pDst, Ozr32u* pDstIdx) {
    OZR_CHECK_NULL(pLitSrc, pDistSrc, pCode, pCodeLenBits, pLitHuffCodes, pDistHuffCodes, pDst, pDstIdx);
    Ozr32u pending = *pCodeLenBits > 16 ? 16 : *pCodeLenBits;
    BitWriter w{*pCode & ((1ull << pending) - 1), pending, pDst + *pDstIdx};
    w.flushBytes();
    if (srcLen >= 2048) encode<true>(pLitSrc, pDistSrc, srcLen, pLitHuffCodes, pDistHuffCodes, w);
    else encode<false>(pLitSrc, pDistSrc, srcLen, pLitHuffCodes, pDistHuffCodes, w);
    w.flushBytes();
    *pDstIdx = static_cast<Ozr32u>(w.out - pDst);
    *pCode = static_cast<Ozr16u>(w.buf);
    *pCodeLenBits = w.n;
    return ozrOk;
}
