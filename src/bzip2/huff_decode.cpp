// bzip2 block Huffman decoder: the table section and the coded symbols.
//
// The table section (table count, selector count, selectors as unary move-to-front
// ranks, per table a start length and +1/-1 steps per symbol) is read by a small
// state machine whose every step needs at most 18 bits, so that it can stop where
// the input ends and go on when the caller brings more. Each table then becomes a
// 256-entry lookup for codes of up to 8 bits and, for the longer ones, left-aligned
// limits per length with the canonical symbol order behind them.
//
// Bits are read through a 64-bit accumulator inside a call; at the end of a call
// whole bytes beyond the 32 bits of the caller's accumulator are handed back to the
// input, so nothing is lost between calls.
#include <stddef.h>

#include "bzip2_huff.h"

namespace m7::bz2 {
namespace {

constexpr int kFastBits = 8;

struct Table {
    Ozr16u fast[1 << kFastBits];          // symbol << 4 | length for codes of <= 8 bits, else 0
    Ozr64u limit[kDecodeMaxLen + 1];      // limit[L]: first left-aligned 32-bit word past the codes of length <= L
    Ozr16s base[kDecodeMaxLen + 1];       // base[L]: index in perm of the first code of length L
    Ozr16u perm[kMaxAlpha];               // symbols in canonical code order
};

enum Phase : Ozr32s { kHeader = 0, kSelectors, kStartLen, kLengths, kDone };

// The caller's OzrsDecodeHuffState_BZ2: this record, then one selector per group at
// kStateFixedSize.
struct State {
    Ozr32s alphaSize;
    Ozr32s selIndex;      // group being decoded
    Ozr32s groupPos;      // symbols of it decoded so far
    Ozr32s phase;         // table-section progress
    Ozr32s nTables;
    Ozr32s nSelectors;
    Ozr32s item;          // selectors read so far, or the table being read
    Ozr32s sym;           // symbol whose length is being read
    Ozr32s curLen;        // the running length of the table being read
    Ozr32s reserved;
    Table* tables;
    Ozr8u* selectors;
    Ozr8u mtf[256];       // the selectors' move-to-front list while they are read
    Ozr8u lens[kMaxAlpha + 2];
    Table tab[kMaxTables];
};

constexpr int kStateFixedSize = 9364;
static_assert(sizeof(State) <= kStateFixedSize, "the fixed part of the decoder state");

inline State* asState(OzrsDecodeHuffState_BZ2* p) { return reinterpret_cast<State*>(p); }

// Bit reader over the caller's accumulator and input for one call.
struct BitReader {
    Ozr64u acc;      // pending bits, the first at bit 63; bits below `bits` are zero
    int bits;
    const Ozr8u* p;
    const Ozr8u* end;

    BitReader(Ozr32u code, int codeLenBits, const Ozr8u* src, int len)
        : acc(static_cast<Ozr64u>(code) << 32),
          bits(codeLenBits < 0 ? 0 : (codeLenBits > 32 ? 32 : codeLenBits)), p(src), end(src + len) {
        acc &= bits == 0 ? 0 : ~Ozr64u{0} << (64 - bits);
    }
    // Byte by byte up to 56 pending bits.
    inline void refill() {
        while (bits <= 56 && p < end) {
            acc |= static_cast<Ozr64u>(*p++) << (56 - bits);
            bits += 8;
        }
    }
    // Eight bytes at once when the input allows: afterwards at least 56 bits pending.
    inline void refillFast() {
        if (end - p >= 8) {
            Ozr64u v;
            __builtin_memcpy(&v, p, 8);
            v = __builtin_bswap64(v);
            const int take = (63 - bits) >> 3;
            acc |= (v >> bits) & ~(~Ozr64u{0} >> (bits + 8 * take));
            p += take;
            bits += 8 * take;
        } else {
            refill();
        }
    }
    inline Ozr32u peek(int n) const { return static_cast<Ozr32u>(acc >> (64 - n)); }
    inline void skip(int n) { acc <<= n; bits -= n; }
    // Hands whole bytes back to the input until the pending bits fit 32, and stores
    // the accumulator.
    inline void finish(Ozr32u* pCode, int* pCodeLenBits, const Ozr8u** ppSrc, int* pSrcLen) {
        while (bits > 32) {
            bits -= 8;
            --p;
        }
        acc &= bits == 0 ? 0 : ~Ozr64u{0} << (64 - bits);
        *pCode = static_cast<Ozr32u>(acc >> 32);
        *pCodeLenBits = bits;
        *pSrcLen -= static_cast<int>(p - *ppSrc);
        *ppSrc = p;
    }
};

// Builds the decoding structures of one table; the lengths are 1..20. Only complete
// prefix codes are accepted: an over-subscribed set is ambiguous, and bzip2 encoders
// only write complete ones.
bool buildTable(const Ozr8u* lens, int alphaSize, Table& t) {
    int count[kDecodeMaxLen + 1] = {};
    for (int s = 0; s < alphaSize; ++s) count[lens[s]]++;
    Ozr64u kraft = 0;
    for (int len = 1; len <= kDecodeMaxLen; ++len) kraft += static_cast<Ozr64u>(count[len]) << (kDecodeMaxLen - len);
    if (kraft != (Ozr64u{1} << kDecodeMaxLen)) return false;

    int start[kDecodeMaxLen + 2];
    start[1] = 0;
    for (int len = 1; len <= kDecodeMaxLen; ++len) start[len + 1] = start[len] + count[len];
    for (int len = 0; len <= kDecodeMaxLen; ++len) t.base[len] = static_cast<Ozr16s>(len >= 1 ? start[len] : 0);
    {
        int pos[kDecodeMaxLen + 2];
        for (int len = 1; len <= kDecodeMaxLen + 1; ++len) pos[len] = start[len];
        for (int s = 0; s < alphaSize; ++s) t.perm[pos[lens[s]]++] = static_cast<Ozr16u>(s);
    }
    // Left-aligned limits: the canonical code after the last one of each length.
    Ozr64u code = 0;  // first code of the current length, left-aligned in 32 bits
    t.limit[0] = 0;
    for (int len = 1; len <= kDecodeMaxLen; ++len) {
        code += static_cast<Ozr64u>(count[len]) << (32 - len);
        t.limit[len] = code;
    }
    // Direct lookup for codes of up to 8 bits.
    for (int i = 0; i < (1 << kFastBits); ++i) t.fast[i] = 0;
    for (int len = 1; len <= kFastBits; ++len) {
        Ozr32u first = static_cast<Ozr32u>(t.limit[len - 1] >> (32 - kFastBits));
        for (int k = 0; k < count[len]; ++k) {
            const Ozr16u e = static_cast<Ozr16u>(t.perm[start[len] + k] << 4 | len);
            const int span = 1 << (kFastBits - len);
            for (int j = 0; j < span; ++j) t.fast[first + j] = e;
            first += static_cast<Ozr32u>(span);
        }
    }
    return true;
}

}  // namespace
}  // namespace m7::bz2

using namespace m7::bz2;

OzrResult m7_ozrsDecodeHuffGetSize_BZ2_8u16u(int n, int* pSize) {
    OZR_CHECK_NULL(pSize);
    OZR_CHECK_POSITIVE(n);
    *pSize = (n + 49) / 50 + kStateFixedSize;
    return ozrOk;
}

OzrResult m7_ozrsDecodeHuffInit_BZ2_8u16u(int alphaSize, OzrsDecodeHuffState_BZ2* pState) {
    OZR_CHECK_NULL(pState);
    OZR_CHECK_POSITIVE(alphaSize);
    if (alphaSize > kMaxAlpha) return ozrErrSize;
    State* st = asState(pState);
    st->alphaSize = alphaSize;
    st->selIndex = 0;
    st->groupPos = 0;
    st->phase = kHeader;
    st->nTables = 0;
    st->nSelectors = 0;
    st->item = 0;
    st->sym = 0;
    st->curLen = 0;
    st->reserved = 0;
    st->tables = st->tab;
    st->selectors = reinterpret_cast<Ozr8u*>(pState) + kStateFixedSize;
    return ozrOk;
}

OzrResult m7_ozrsUnpackHuffContext_BZ2_8u16u(Ozr32u* pCode, int* pCodeLenBits, const Ozr8u** ppSrc, int* pSrcLen,
                                             OzrsDecodeHuffState_BZ2* pState) {
    OZR_CHECK_NULL(pCode, pCodeLenBits, ppSrc, pSrcLen, pState);
    OZR_CHECK_NULL(*ppSrc);
    OZR_CHECK_POSITIVE(*pSrcLen);
    State* st = asState(pState);
    BitReader br(*pCode, *pCodeLenBits, *ppSrc, *pSrcLen);
    OzrResult result = ozrOk;
    // Each step looks at the bits it needs before consuming any.
    for (;;) {
        br.refill();
        if (st->phase == kHeader) {
            if (br.bits < 18) { result = ozrWarnSrcSizeLess; break; }
            const Ozr32u v = br.peek(18);
            const int nTables = static_cast<int>(v >> 15), nSel = static_cast<int>(v & 0x7FFF);
            if (nTables < kMinTables || nTables > kMaxTables || nSel == 0 || nSel > kMaxSelectors) {
                result = ozrErrHuffTable;
                break;
            }
            br.skip(18);
            st->nTables = nTables;
            st->nSelectors = nSel;
            st->item = 0;
            for (int i = 0; i < 256; ++i) st->mtf[i] = static_cast<Ozr8u>(i);
            st->phase = kSelectors;
        } else if (st->phase == kSelectors) {
            // Unary ranks into the selector area; a rank is taken only when its
            // zero-bit has arrived. Each full chunk is undone through move-to-front.
            const int nSel = st->nSelectors;
            Ozr8u* const sel = st->selectors;
            bool stop = false;
            while (st->item < nSel) {
                if (br.bits < 8) br.refill();
                const Ozr32u w = br.peek(8);
                int ones = 0;
                while (ones < 7 && (w >> (7 - ones) & 1)) ++ones;
                if (ones >= st->nTables) { result = ozrErrHuffTable; stop = true; break; }
                if (ones + 1 > br.bits) { result = ozrWarnSrcSizeLess; stop = true; break; }
                br.skip(ones + 1);
                sel[st->item++] = static_cast<Ozr8u>(ones);
            }
            if (stop) break;
            // Move-to-front inverse through a local chunk (the stage does not work in place).
            Ozr8u chunk[256];
            for (int i = 0; i < nSel; i += 256) {
                const int len = nSel - i < 256 ? nSel - i : 256;
                m7_ownsCopy_8u(sel + i, chunk, static_cast<size_t>(len));
                m7_ozrsMTFInv_8u(chunk, sel + i, len, st->mtf);
            }
            st->item = 0;
            st->phase = kStartLen;
        } else if (st->phase == kStartLen) {
            if (br.bits < 5) { result = ozrWarnSrcSizeLess; break; }
            const int len = static_cast<int>(br.peek(5));
            if (len < 1 || len > kDecodeMaxLen) { result = ozrErrHuffTable; break; }
            br.skip(5);
            st->curLen = len;
            st->sym = 0;
            st->phase = kLengths;
        } else if (st->phase == kLengths) {
            const int alphaSize = st->alphaSize;
            bool stop = false;
            while (st->sym < alphaSize) {
                if (br.bits < 2) br.refill();
                if (br.bits < 1) { result = ozrWarnSrcSizeLess; stop = true; break; }
                const Ozr32u two = br.peek(2);
                if ((two & 2) == 0) {            // 0: this symbol's length is final
                    br.skip(1);
                    st->lens[st->sym++] = static_cast<Ozr8u>(st->curLen);
                    continue;
                }
                if (br.bits < 2) { result = ozrWarnSrcSizeLess; stop = true; break; }
                br.skip(2);
                st->curLen += (two & 1) ? -1 : 1;
                if (st->curLen < 1 || st->curLen > kDecodeMaxLen) { result = ozrErrHuffTable; stop = true; break; }
            }
            if (stop) break;
            if (!buildTable(st->lens, alphaSize, st->tables[st->item])) { result = ozrErrHuffTable; break; }
            st->phase = ++st->item < st->nTables ? kStartLen : kDone;
        } else {
            st->selIndex = 0;
            st->groupPos = 0;
            break;
        }
    }
    br.finish(pCode, pCodeLenBits, ppSrc, pSrcLen);
    return result;
}

OzrResult m7_ozrsDecodeHuff_BZ2_8u16u(Ozr32u* pCode, int* pCodeLenBits, const Ozr8u** ppSrc, int* pSrcLen,
                                      Ozr16u* pDst, int* pDstLen, OzrsDecodeHuffState_BZ2* pState) {
    OZR_CHECK_NULL(pCode, pCodeLenBits, ppSrc, pSrcLen);
    OZR_CHECK_NULL(*ppSrc, pDst, pDstLen, pState);
    OZR_CHECK_POSITIVE(*pDstLen);
    State* st = asState(pState);
    if (st->phase != kDone) return ozrErrFailed;
    const int srcLen = *pSrcLen > 0 ? *pSrcLen : 0;
    BitReader br(*pCode, *pCodeLenBits, *ppSrc, srcLen);
    const int room = *pDstLen;
    const Ozr16u eob = static_cast<Ozr16u>(st->alphaSize - 1);
    int out = 0;
    OzrResult result = ozrOk;
    int selIndex = st->selIndex, groupPos = st->groupPos;
    for (;;) {
        if (groupPos == kGroupSize) { groupPos = 0; ++selIndex; }
        if (selIndex >= st->nSelectors) { result = ozrErrFailed; break; }
        if (out == room) { result = ozrWarnDstSizeLess; break; }
        const Table& t = st->tables[st->selectors[selIndex]];
        int todo = kGroupSize - groupPos;
        if (todo > room - out) todo = room - out;
        bool stop = false;
        while (todo > 0) {
            if (br.bits < kDecodeMaxLen) br.refillFast();
            const Ozr32u w = static_cast<Ozr32u>(br.acc >> 32);
            int len;
            Ozr16u sym;
            if (w < t.limit[kFastBits]) {
                const Ozr16u e = t.fast[w >> (32 - kFastBits)];
                len = e & 15;
                sym = static_cast<Ozr16u>(e >> 4);
            } else {
                len = kFastBits + 1;
                while (w >= t.limit[len]) ++len;  // the code is complete: limit[20] = 2^32
                sym = t.perm[t.base[len] + static_cast<int>((w - t.limit[len - 1]) >> (32 - len))];
            }
            if (len > br.bits) { result = ozrWarnSrcSizeLess; stop = true; break; }
            br.skip(len);
            pDst[out++] = sym;
            ++groupPos;
            --todo;
            if (sym == eob) {
                // End of block: the next block starts with its table section.
                st->selIndex = 0;
                st->groupPos = 0;
                st->phase = kHeader;
                br.finish(pCode, pCodeLenBits, ppSrc, pSrcLen);
                *pDstLen = out;
                return ozrOk;
            }
        }
        if (stop) break;
    }
    st->selIndex = selIndex;
    st->groupPos = groupPos;
    br.finish(pCode, pCodeLenBits, ppSrc, pSrcLen);
    *pDstLen = out;
    return result;
}
