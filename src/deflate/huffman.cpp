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

// A code merged with the extra bits that follow it: one field, one put.
struct Field {
    Ozr32u bits;
    Ozr32u len;
};

// A distance code with what its extra bits are counted from: the field of distance
// d is code | (d - 1 - base) << len, total bits long, which is (d - 1) << len plus
// adj = code - (base << len) (modulo 2^64: the extra bits lie above the code, so
// nothing carries). Entry 0 (no distance: a literal) gives the empty field: d - 1 is
// all ones in 32 bits, which adj takes back to 0.
struct DistField {
    Ozr64u adj;
    Ozr32u len;
    Ozr32u total;
};

// Writes entries 0 .. count - 1 with one(i, writer): a blind 8-byte store after each
// while two entries remain beyond it, byte stores for the last two. The writer is a
// local copy: the output stores could alias a writer in memory, which would then be
// stored and reloaded around each of them.
template <class One>
__attribute__((always_inline)) inline void writeEntries(Ozr32u count, BitWriter& writer, One one) {
    BitWriter w = writer;
    Ozr32u i = 0;
    for (; i + 2 < count; ++i) {
        one(i, w);
        w.flushBlind();
    }
    for (; i < count; ++i) {
        one(i, w);
        w.flushBytes();
    }
    writer = w;
}

// Narrow path: the tables as they come, one branch per entry.
void encodeNarrow(const Ozr8u* lit, const Ozr16u* dist, Ozr32u count, const OzrDeflateHuffCode* lc,
                  const OzrDeflateHuffCode* dc, BitWriter& writer) {
    const auto one = [&](Ozr32u i, BitWriter& w) {
        const Ozr32u d = dist[i];
        const Ozr32u v = lit[i];
        if (d == 0) {
            w.put(lc[v].code, lc[v].len);
            return;
        }
        const int c = lenCode(static_cast<int>(v));
        w.put(lc[257 + c].code, lc[257 + c].len);
        w.put(v - kCodes.litBase[c], kCodes.litExtra[c]);
        const int e = static_cast<int>(d) - 1;
        const int k = distCode(e);
        w.put(dc[k].code | (static_cast<Ozr32u>(e - kCodes.distBase[k]) << dc[k].len),
              dc[k].len + kCodes.distExtra[k]);
    };
    writeEntries(count, writer, one);
}

// Wide path: per entry one literal-or-length field (literal v at [v], length byte v
// with its extra bits at [256 + v]) and one distance field (index d for d <= 256,
// 256 + (d - 1) / 128 above; a literal's distance 0 selects the empty field), chosen
// by index arithmetic instead of a branch: literals and matches alternate too
// irregularly for a branch to be predicted.
void encodeWide(const Ozr8u* lit, const Ozr16u* dist, Ozr32u count, const OzrDeflateHuffCode* lc,
                const OzrDeflateHuffCode* dc, BitWriter& writer) {
    Field ll[512];
    DistField df[512];
    for (int v = 0; v < 256; ++v) {
        ll[v] = {lc[v].code, lc[v].len};
        const int c = lenCode(v);
        const OzrDeflateHuffCode& h = lc[257 + c];
        ll[256 + v] = {h.code | (static_cast<Ozr32u>(v - kCodes.litBase[c]) << h.len),
                       static_cast<Ozr32u>(h.len + kCodes.litExtra[c])};
    }
    const auto distField = [&](int k) {
        return DistField{dc[k].code - (static_cast<Ozr64u>(kCodes.distBase[k]) << dc[k].len), dc[k].len,
                         static_cast<Ozr32u>(dc[k].len + kCodes.distExtra[k])};
    };
    df[0] = {0 - static_cast<Ozr64u>(0xFFFFFFFFu), 0, 0};  // (d - 1) + adj = 0 for d = 0
    for (int d = 1; d <= 256; ++d) df[d] = distField(distCode(d - 1));
    df[257] = df[0];  // not reached: (d - 1) / 128 >= 2 above 256
    for (int b = 2; b < 256; ++b) df[256 + b] = distField(distCode(b << 7));
    const auto one = [&](Ozr32u i, BitWriter& w) {
        const Ozr32u d = dist[i];
        const Ozr32u v = lit[i];
        const Field& f = ll[v + (d != 0 ? 256u : 0u)];
        w.put(f.bits, f.len);
        const DistField& g = df[d <= 256 ? d : 256 + ((d - 1) >> 7)];
        w.put64((static_cast<Ozr64u>(d - 1) << g.len) + g.adj, g.total);
    };
    writeEntries(count, writer, one);
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
    if (srcLen >= 2048) encodeWide(pLitSrc, pDistSrc, srcLen, pLitHuffCodes, pDistHuffCodes, w);
    else encodeNarrow(pLitSrc, pDistSrc, srcLen, pLitHuffCodes, pDistHuffCodes, w);
    w.flushBytes();
    *pDstIdx = static_cast<Ozr32u>(w.out - pDst);
    *pCode = static_cast<Ozr16u>(w.buf);
    *pCodeLenBits = w.n;
    return ozrOk;
}
