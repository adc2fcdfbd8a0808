// Code construction for the fastest mode (and for any caller of ozrsDeflateHuff_8u):
// 15-bit-limited Huffman codes from statistics, the dynamic block header that
// describes them, and the copy of a ready header into a stream at any bit.
//
// Lengths: the symbols are sorted by weight (ozrsSortIndexAscend_32s_I) and the
// minimum-redundancy lengths computed in place over the sorted weights (Moffat and
// Katajainen: merge, then parent depths, then leaf depths). A code longer than the
// limit flattens the weights (halved with rounding, ozrsAddC_32s_Sfs, kept >= 1) and
// tries again; each halving brings the weights closer, so a few rounds at most.
#include "deflate_common.h"

namespace m7::deflate {
namespace {

constexpr int kMaxBits = 15;
constexpr Ozr8u kClOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

// In-place minimum-redundancy code lengths: a[0..n-1] ascending weights (n >= 2) in,
// the code length of each (longest first) out.
void minimumRedundancy(Ozr32s* a, int n) {
    a[0] += a[1];
    int root = 0, leaf = 2;
    for (int next = 1; next < n - 1; ++next) {
        if (leaf >= n || a[root] < a[leaf]) {
            a[next] = a[root];
            a[root++] = next;
        } else {
            a[next] = a[leaf++];
        }
        if (leaf >= n || (root < next && a[root] < a[leaf])) {
            a[next] += a[root];
            a[root++] = next;
        } else {
            a[next] += a[leaf++];
        }
    }
    a[n - 2] = 0;
    for (int next = n - 3; next >= 0; --next) a[next] = a[a[next]] + 1;
    int avail = 1, used = 0, depth = 0;
    root = n - 2;
    int next = n - 1;
    while (avail > 0) {
        while (root >= 0 && a[root] == depth) {
            ++used;
            --root;
        }
        while (avail > used) {
            a[next--] = depth;
            --avail;
        }
        avail = 2 * used;
        ++depth;
        used = 0;
    }
}

// Lengths (0 for weight 0) of a code over n <= 286 symbols, none longer than limit.
void buildLengths(const Ozr32s* weight, int n, int limit, Ozr8u* len) {
    Ozr32s w[kLitSyms], key[kLitSyms], idx[kLitSyms];
    int used = 0;
    for (int i = 0; i < n; ++i) {
        len[i] = 0;
        if (weight[i] > 0) {
            w[used] = weight[i];
            idx[used++] = i;
        }
    }
    if (used == 0) return;
    if (used == 1) {
        len[idx[0]] = 1;
        return;
    }
    // Keep the sums of the merge inside 31 bits.
    Ozr32s mx = 0;
    m7_ozrsMax_32s(w, used, &mx);
    while (mx > (1 << 22)) {
        m7_ozrsAddC_32s_Sfs(w, 0, w, used, 1);
        mx = (mx + 1) >> 1;
    }
    for (;;) {
        for (int i = 0; i < used; ++i) {
            if (w[i] < 1) w[i] = 1;
            key[i] = w[i];
        }
        Ozr32s order[kLitSyms];
        m7_ozrsSortIndexAscend_32s_I(key, order, used);
        minimumRedundancy(key, used);
        if (key[0] <= limit) {
            for (int i = 0; i < used; ++i) len[idx[order[i]]] = static_cast<Ozr8u>(key[i]);
            return;
        }
        m7_ozrsAddC_32s_Sfs(w, 0, w, used, 1);
    }
}

inline Ozr32u reverseBits(Ozr32u code, int len) {
    Ozr32u r = 0;
    for (int k = 0; k < len; ++k) r |= ((code >> k) & 1u) << (len - 1 - k);
    return r;
}

// Canonical codes (RFC 1951 3.2.2) for the lengths, bit-reversed.
void canonicalCodes(const Ozr8u* len, int n, OzrDeflateHuffCode* out) {
    int count[kMaxBits + 1] = {}, next[kMaxBits + 2] = {};
    for (int i = 0; i < n; ++i) count[len[i]]++;
    count[0] = 0;
    for (int b = 1, code = 0; b <= kMaxBits; ++b) {
        code = (code + count[b - 1]) << 1;
        next[b] = code;
    }
    for (int i = 0; i < n; ++i) {
        const int l = len[i];
        out[i].len = static_cast<Ozr16u>(l);
        out[i].code = l ? static_cast<Ozr16u>(reverseBits(static_cast<Ozr32u>(next[l]++), l)) : 0;
    }
}

struct HeaderWriter {
    Ozr8u* out;
    Ozr32u room;  // bytes
    Ozr32u bits = 0;
    bool ok = true;
    void put(Ozr32u v, int n) {
        for (int k = 0; k < n; ++k, ++bits) {
            const Ozr32u byte = bits >> 3;
            if (byte >= room) {
                ok = false;
                return;
            }
            if ((bits & 7) == 0) out[byte] = 0;
            out[byte] = static_cast<Ozr8u>(out[byte] | (((v >> k) & 1u) << (bits & 7)));
        }
    }
};

}  // namespace

// The fixed code of RFC 1951 in the coder's form (bit-reversed codes and lengths).
struct FixedCodes {
    OzrDeflateHuffCode lit[288];
    OzrDeflateHuffCode dist[30];
};

constexpr FixedCodes makeFixed() {
    FixedCodes f{};
    // Lengths 8 (0..143), 9 (144..255), 7 (256..279), 8 (280..287); codes canonical.
    for (int s = 0; s < 288; ++s) {
        int len, code;
        if (s < 144) { len = 8; code = 0x30 + s; }
        else if (s < 256) { len = 9; code = 0x190 + (s - 144); }
        else if (s < 280) { len = 7; code = s - 256; }
        else { len = 8; code = 0xC0 + (s - 280); }
        Ozr32u r = 0;
        for (int k = 0; k < len; ++k) r |= ((static_cast<Ozr32u>(code) >> k) & 1u) << (len - 1 - k);
        f.lit[s] = {static_cast<Ozr16u>(r), static_cast<Ozr16u>(len)};
    }
    for (int d = 0; d < 30; ++d) {
        Ozr32u r = 0;
        for (int k = 0; k < 5; ++k) r |= ((static_cast<Ozr32u>(d) >> k) & 1u) << (4 - k);
        f.dist[d] = {static_cast<Ozr16u>(r), 5};
    }
    return f;
}

}  // namespace m7::deflate

using namespace m7::deflate;

extern "C" {

// The fixed code, the fallback table pair of the fastest coder.
extern const OzrDeflateHuffCode m7_ozr_static_ltree[288];
extern const OzrDeflateHuffCode m7_ozr_static_dtree[30];
constexpr FixedCodes kFixed = makeFixed();
const OzrDeflateHuffCode m7_ozr_static_ltree[288] = {
#define X8(i) kFixed.lit[i], kFixed.lit[i + 1], kFixed.lit[i + 2], kFixed.lit[i + 3], kFixed.lit[i + 4], \
              kFixed.lit[i + 5], kFixed.lit[i + 6], kFixed.lit[i + 7]
#define X32(i) X8(i), X8(i + 8), X8(i + 16), X8(i + 24)
    X32(0), X32(32), X32(64), X32(96), X32(128), X32(160), X32(192), X32(224), X32(256)};
#undef X32
#undef X8
const OzrDeflateHuffCode m7_ozr_static_dtree[30] = {
    kFixed.dist[0],  kFixed.dist[1],  kFixed.dist[2],  kFixed.dist[3],  kFixed.dist[4],  kFixed.dist[5],
    kFixed.dist[6],  kFixed.dist[7],  kFixed.dist[8],  kFixed.dist[9],  kFixed.dist[10], kFixed.dist[11],
    kFixed.dist[12], kFixed.dist[13], kFixed.dist[14], kFixed.dist[15], kFixed.dist[16], kFixed.dist[17],
    kFixed.dist[18], kFixed.dist[19], kFixed.dist[20], kFixed.dist[21], kFixed.dist[22], kFixed.dist[23],
    kFixed.dist[24], kFixed.dist[25], kFixed.dist[26], kFixed.dist[27], kFixed.dist[28], kFixed.dist[29]};

OzrResult m7_ozrsDeflateLZ77FastestGenHuffTable_8u(const Ozr32u pLitStat[286], const Ozr32u pDistStat[30],
                                                   OzrDeflateHuffCode pLitCodes[286],
                                                   OzrDeflateHuffCode pDistCodes[30], int mode) {
    OZR_CHECK_NULL(pLitCodes, pDistCodes);
    if (mode == 1) {
        for (int i = 0; i < kLitSyms; ++i) pLitCodes[i] = m7_ozr_static_ltree[i];
        for (int i = 0; i < kDistSyms; ++i) pDistCodes[i] = m7_ozr_static_dtree[i];
        return ozrOk;
    }
    OZR_CHECK_NULL(pLitStat, pDistStat);
    if (mode != 0 && mode != 2) return ozrErrBadArgument;
    // Mode 0: every symbol keeps a code (the statistics are a sample, the block may
    // differ). Mode 2: the counts are exact; the end-of-block symbol and one distance
    // code are always given a code.
    const Ozr32s raise = mode == 0 ? 1 : 0;
    Ozr32s w[kLitSyms];
    Ozr8u len[kLitSyms];
    for (int i = 0; i < kLitSyms; ++i) w[i] = pLitStat[i] > (1u << 30) ? (1 << 30) : static_cast<Ozr32s>(pLitStat[i]);
    m7_ozrsAddC_32s_Sfs(w, raise, w, kLitSyms, 0);
    if (w[256] == 0) w[256] = 1;
    buildLengths(w, kLitSyms, kMaxBits, len);
    canonicalCodes(len, kLitSyms, pLitCodes);
    Ozr32s any = 0;
    for (int i = 0; i < kDistSyms; ++i) {
        w[i] = pDistStat[i] > (1u << 30) ? (1 << 30) : static_cast<Ozr32s>(pDistStat[i]);
        any |= w[i];
    }
    m7_ozrsAddC_32s_Sfs(w, raise, w, kDistSyms, 0);
    if (any == 0) w[0] = 1;
    buildLengths(w, kDistSyms, kMaxBits, len);
    canonicalCodes(len, kDistSyms, pDistCodes);
    return ozrOk;
}

OzrResult m7_ozrsDeflateLZ77FastestGenHeader_8u(const OzrDeflateHuffCode pLitCodes[286],
                                                const OzrDeflateHuffCode pDistCodes[30], Ozr8u* pHeader,
                                                Ozr32u headerRoom, Ozr32u* pHeaderBits) {
    OZR_CHECK_NULL(pLitCodes, pDistCodes, pHeader, pHeaderBits);
    if (headerRoom == 0) return ozrErrSize;
    // The lengths of both alphabets, trailing zeros dropped (at least 257 and 1 kept).
    Ozr8u lens[kLitSyms + kDistSyms];
    int nlit = kLitSyms, ndist = kDistSyms;
    for (int i = 0; i < kLitSyms; ++i) lens[i] = static_cast<Ozr8u>(pLitCodes[i].len);
    for (int i = 0; i < kDistSyms; ++i) lens[kLitSyms + i] = static_cast<Ozr8u>(pDistCodes[i].len);
    for (int i = 0; i < kLitSyms + kDistSyms; ++i)
        if (lens[i] > kMaxBits) return ozrErr;
    if (lens[256] == 0) return ozrErr;
    while (nlit > 257 && lens[nlit - 1] == 0) --nlit;
    while (ndist > 1 && lens[kLitSyms + ndist - 1] == 0) --ndist;
    if (nlit < kLitSyms) m7_ownsCopy_8u(lens + kLitSyms, lens + nlit, static_cast<size_t>(ndist));
    const int total = nlit + ndist;
    // Run-length coding of the lengths: 16 repeats the previous length 3..6 times, 17
    // and 18 give runs of zeros of 3..10 and 11..138.
    Ozr8u sym[kLitSyms + kDistSyms], extra[kLitSyms + kDistSyms];
    int nsym = 0;
    Ozr32s clFreq[19];
    m7_ozrsZero_32s(clFreq, 19);
    for (int i = 0; i < total;) {
        int run = 1;
        while (i + run < total && lens[i + run] == lens[i]) ++run;
        if (lens[i] == 0 && run >= 3) {
            const int r = run > 138 ? 138 : run;
            sym[nsym] = r >= 11 ? 18 : 17;
            extra[nsym++] = static_cast<Ozr8u>(r >= 11 ? r - 11 : r - 3);
            i += r;
        } else if (lens[i] != 0 && run >= 4) {
            const int r = run - 1 > 6 ? 6 : run - 1;
            sym[nsym] = lens[i];
            extra[nsym++] = 0;
            sym[nsym] = 16;
            extra[nsym++] = static_cast<Ozr8u>(r - 3);
            i += 1 + r;
        } else {
            sym[nsym] = lens[i];
            extra[nsym++] = 0;
            i += 1;
        }
    }
    for (int k = 0; k < nsym; ++k) clFreq[sym[k]]++;
    Ozr8u clLen[19];
    buildLengths(clFreq, 19, 7, clLen);
    OzrDeflateHuffCode clCode[19];
    canonicalCodes(clLen, 19, clCode);
    int hclen = 19;
    while (hclen > 4 && clLen[kClOrder[hclen - 1]] == 0) --hclen;

    HeaderWriter w{pHeader, headerRoom};
    w.put(0, 1);  // BFINAL, set when the header is placed
    w.put(2, 2);  // BTYPE 10: dynamic codes
    w.put(static_cast<Ozr32u>(nlit - 257), 5);
    w.put(static_cast<Ozr32u>(ndist - 1), 5);
    w.put(static_cast<Ozr32u>(hclen - 4), 4);
    for (int k = 0; k < hclen; ++k) w.put(clLen[kClOrder[k]], 3);
    static constexpr Ozr8u kExtraBits[3] = {2, 3, 7};
    for (int k = 0; k < nsym; ++k) {
        w.put(clCode[sym[k]].code, clCode[sym[k]].len);
        if (sym[k] >= 16) w.put(extra[k], kExtraBits[sym[k] - 16]);
    }
    if (!w.ok) return ozrWarnDstSizeLess;
    *pHeaderBits = w.bits;
    return ozrOk;
}

OzrResult m7_ozrsDeflateLZ77FastestPrecompHeader_8u(const Ozr8u* pHeader, Ozr32u headerBits, Ozr8u* pDst,
                                                    Ozr32u dstLen, Ozr32u* pDstIdx, Ozr16u* pCode,
                                                    Ozr32u* pCodeLenBits, int final) {
    OZR_CHECK_NULL(pHeader, pDst, pDstIdx, pCode, pCodeLenBits);
    if (headerBits < 3 || dstLen == 0) return ozrErrSize;
    if (*pCodeLenBits > 16 || *pDstIdx > dstLen) return ozrErrSize;
    Ozr32u idx = *pDstIdx, pend = *pCodeLenBits;
    Ozr32u code = *pCode & ((1u << pend) - 1);
    // Whole pending bytes first, then header bits behind the 0..7 left.
    const Ozr32u total = pend + headerBits;
    if (dstLen - idx < total / 8 + 1) return ozrWarnDstSizeLess;
    while (pend >= 8) {
        pDst[idx++] = static_cast<Ozr8u>(code);
        code >>= 8;
        pend -= 8;
    }
    pDst[idx] = static_cast<Ozr8u>(code);
    // The first header bit is BFINAL.
    Ozr8u first = static_cast<Ozr8u>((pHeader[0] & ~1u) | (final ? 1u : 0u));
    m7_ozrsCopyBE_1u(&first, 0, pDst + idx, static_cast<int>(pend), 1);
    if (headerBits > 1) {
        const Ozr32u at = pend + 1;
        m7_ozrsCopyBE_1u(pHeader, 1, pDst + idx + (at >> 3), static_cast<int>(at & 7), static_cast<int>(headerBits - 1));
    }
    const Ozr32u end = pend + headerBits;
    idx += end >> 3;
    *pCodeLenBits = end & 7;
    *pCode = static_cast<Ozr16u>(*pCodeLenBits ? pDst[idx] & ((1u << *pCodeLenBits) - 1) : 0);
    *pDstIdx = idx;
    return ozrOk;
}

}  // extern "C"
