// The one-pass fastest Deflate coder: hash, probe once, extend, and write the codes
// at once, with no chains and no intermediate sequence.
//
// The head table (hashSize entries, -32768 = empty) holds the last position of each
// 4-byte hash (a multiplicative hash, not the matchers' randVec: the two modes do not
// share tables). A match of 4..258 bytes within winSize - 1 is taken greedily; the
// inner positions of short matches are hashed, long ones skip theirs. After a run of
// misses the step between probes grows, so incompressible data passes quickly. The
// same core counts symbols for ozrsDeflateLZ77FastestGetStat_8u.
#include "deflate_common.h"

namespace m7::deflate {
namespace {

constexpr int kInsertUpTo = 6;    // matches up to this long get their inner positions hashed
constexpr int kSkipTrigger = 5;   // misses >> kSkipTrigger is the extra step

inline Ozr32u fastHash(const Ozr8u* p, int shift) { return (load32(p) * 2654435761u) >> shift; }

struct BitOut {
    Ozr64u buf;
    Ozr32u n;
    Ozr8u* out;
    void put(Ozr32u bits, Ozr32u len) {
        buf |= static_cast<Ozr64u>(bits) << n;
        n += len;
    }
    void flush() {  // 8 bytes of room required
        store64(out, buf);
        out += n >> 3;
        buf >>= (n & ~7u);
        n &= 7;
    }
};

// Writes codes through a 64-bit buffer; room checked once per item (16 bytes).
// Count: also adds each written symbol to the caller's statistics (the next
// block's code).
template <bool Count>
struct CodeSink {
    BitOut w;
    Ozr8u* end;
    const OzrDeflateHuffCode* lc;
    const OzrDeflateHuffCode* dc;
    Ozr32u* litStat;
    Ozr32u* distStat;
    bool room() const { return end - w.out >= 16; }
    void literal(Ozr8u b) {
        if constexpr (Count) ++litStat[b];
        w.put(lc[b].code, lc[b].len);
        if (w.n >= 40) w.flush();
    }
    void match(int len, long dist) {
        w.flush();
        const int c = lenCode(len - 3);
        w.put(lc[257 + c].code | (static_cast<Ozr32u>(len - 3 - kCodes.litBase[c]) << lc[257 + c].len),
              lc[257 + c].len + kCodes.litExtra[c]);
        const int e = static_cast<int>(dist) - 1;
        const int k = distCode(e);
        w.put(dc[k].code | (static_cast<Ozr32u>(e - kCodes.distBase[k]) << dc[k].len), dc[k].len + kCodes.distExtra[k]);
        w.flush();
        if constexpr (Count) {
            ++litStat[257 + c];
            ++distStat[k];
        }
    }
};

struct StatSink {
    Ozr32u* lit;
    Ozr32u* dist;
    bool room() const { return true; }
    void literal(Ozr8u b) { ++lit[b]; }
    void match(int len, long d) {
        ++lit[257 + lenCode(len - 3)];
        ++dist[distCode(static_cast<int>(d - 1))];
    }
};

// Codes positions p .. until `stop` (flushAll: the end; else 261 before it). Returns
// false when the sink ran out of room first.
template <class Sink>
bool fastestCore(const History& h, Ozr32s* head, int shift, long& p, long e, bool flushAll, Sink& sink) {
    const long probeEnd = flushAll ? e - 3 : e - kLookahead;  // a probe needs 4 bytes
    long misses = 0;
    // The head entry of the next position is requested while this one is coded: the
    // loop's cost is mostly the latency of that load.
    Ozr32u nextHv = p < probeEnd ? fastHash(h.at(p), shift) : 0;
    while (p < probeEnd) {
        if (!sink.room()) return false;
        const Ozr8u* pp = h.at(p);
        const Ozr32u hv = nextHv;
        const long cand = head[hv];
        head[hv] = static_cast<Ozr32s>(p);
        const long maxLen = e - p < kMaxMatch ? e - p : kMaxMatch;
        if (cand > p - h.wsize && cand < p) {
            const bool same = cand >= h.start ? load32(h.at(cand)) == load32(pp) : h.length(p, cand, 4) == 4;
            if (same) {
                const int len = 4 + h.length(p + 4, cand + 4, static_cast<int>(maxLen) - 4);
                if (p + len < probeEnd) {
                    nextHv = fastHash(h.at(p + len), shift);
                    __builtin_prefetch(head + nextHv, 1);
                }
                sink.match(len, p - cand);
                if (len <= kInsertUpTo) {
                    for (long q = p + 1; q < p + len && q < probeEnd; ++q)
                        head[fastHash(h.at(q), shift)] = static_cast<Ozr32s>(q);
                } else if (p + len - 1 < probeEnd) {
                    head[fastHash(h.at(p + len - 1), shift)] = static_cast<Ozr32s>(p + len - 1);
                }
                p += len;
                misses = 0;
                continue;
            }
        }
        // Skipping: after a run of misses, code a few literals without probing.
        const long skip = (++misses) >> kSkipTrigger;
        const long q = p + 1 + skip;
        if (q < probeEnd) {
            nextHv = fastHash(h.at(q), shift);
            __builtin_prefetch(head + nextHv, 1);
        }
        sink.literal(*pp);
        p += 1;
        for (long k = 0; k < skip && p < probeEnd && sink.room(); ++k, ++p) sink.literal(*h.at(p));
        if (p != q && p < probeEnd) nextHv = fastHash(h.at(p), shift);  // the skip stopped early
    }
    if (!flushAll) return true;
    while (p < e) {
        if (!sink.room()) return false;
        sink.literal(*h.at(p));
        p += 1;
    }
    return true;
}

int shiftFor(Ozr32u hashSize) {
    int bits = 0;
    while ((1u << (bits + 1)) <= hashSize) ++bits;
    return 32 - bits;
}

}  // namespace
}  // namespace m7::deflate

using namespace m7::deflate;

extern "C" {

OzrResult m7_ozrsDeflateLZ77Fastest_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx, const Ozr8u* pWindow,
                                       Ozr32u winSize, Ozr32s* pHashHead, Ozr32u hashSize, Ozr8u* pDst, Ozr32u dstLen,
                                       Ozr32u* pDstIdx, Ozr16u* pCode, Ozr32u* pCodeLenBits,
                                       const OzrDeflateHuffCode pLitCodes[286],
                                       const OzrDeflateHuffCode pDistCodes[30], Ozr32u pLitStat[286],
                                       Ozr32u pDistStat[30], int flush) {
    OZR_CHECK_NULL(ppSrc, pSrcLen, pSrcIdx, pWindow, pHashHead, pDst, pDstIdx, pCode, pCodeLenBits, pLitCodes, pDistCodes);
    if ((pLitStat == nullptr) != (pDistStat == nullptr)) return ozrErrNullPointer;
    OZR_CHECK_NULL(*ppSrc);
    if (!winSizeOk(winSize) || !hashSizeOk(hashSize)) return ozrErrSize;
    if (dstLen == 0 || *pDstIdx > dstLen || *pCodeLenBits > 16) return ozrErrSize;

    Ozr32u count = *pSrcLen;
    bool flushAll = flush >= 2;
    if (count > (1u << 30)) {
        count = 1u << 30;
        flushAll = false;
    }
    Ozr32u idx = *pSrcIdx;
    if (static_cast<Ozr64u>(idx) + winSize + 2ull * count >= 0x7FFFFFFFull && idx > winSize) {
        const Ozr32s d = static_cast<Ozr32s>(idx - winSize);
        for (Ozr32u i = 0; i < hashSize; ++i) {
            const Ozr64s v = static_cast<Ozr64s>(pHashHead[i] < -32767 ? -32767 : pHashHead[i]) - d;
            pHashHead[i] = v < -32767 ? kEmpty : static_cast<Ozr32s>(v);
        }
        idx = winSize;
    }
    const History h{*ppSrc, pWindow, static_cast<long>(idx), static_cast<long>(winSize)};
    const Ozr32u pend = *pCodeLenBits;
    BitOut w{*pCode & ((1ull << pend) - 1), pend, pDst + *pDstIdx};
    long p = idx;
    const long e = static_cast<long>(idx) + count;
    const auto code = [&](auto& sink) {
        bool done = false;
        if (sink.room()) {
            sink.w.flush();
            done = fastestCore(h, pHashHead, shiftFor(hashSize), p, e, flushAll, sink);
            if (done && flush >= 3) {  // end of block after everything was coded
                if (sink.room()) sink.w.put(pLitCodes[256].code, pLitCodes[256].len);
                else done = false;
            }
        }
        w = sink.w;
        return done;
    };
    bool done;
    if (pLitStat) {
        CodeSink<true> sink{w, pDst + dstLen, pLitCodes, pDistCodes, pLitStat, pDistStat};
        done = code(sink);
    } else {
        CodeSink<false> sink{w, pDst + dstLen, pLitCodes, pDistCodes, nullptr, nullptr};
        done = code(sink);
    }
    // Whole bytes out, byte by byte (the blind 8-byte store is kept for the loop).
    while (w.n >= 8 && w.out < pDst + dstLen) {
        *w.out++ = static_cast<Ozr8u>(w.buf);
        w.buf >>= 8;
        w.n -= 8;
    }
    const Ozr32u consumed = static_cast<Ozr32u>(p - static_cast<long>(idx));
    *ppSrc += consumed;
    *pSrcLen -= consumed;
    *pSrcIdx = idx + consumed;
    *pDstIdx = static_cast<Ozr32u>(w.out - pDst);
    *pCode = static_cast<Ozr16u>(w.buf);
    *pCodeLenBits = w.n;
    return done ? ozrOk : ozrWarnDstSizeLess;
}

OzrResult m7_ozrsDeflateLZ77FastestGetStat_8u(const Ozr8u* pSrc, Ozr32s srcLen, Ozr32u pLitStat[286],
                                              Ozr32u pDistStat[30]) {
    OZR_CHECK_NULL(pSrc, pLitStat, pDistStat);
    OZR_CHECK_POSITIVE(srcLen);
    constexpr int kBits = 12;
    Ozr32s head[1 << kBits];
    for (Ozr32s& v : head) v = kEmpty;
    long p = 0;
    const long n = srcLen > (1 << 30) ? (1 << 30) : srcLen;
    const History h{pSrc, pSrc, 0, 32768};
    StatSink sink{pLitStat, pDistStat};
    Ozr32s* hp = head;
    // Positions from 0: a candidate is usable once p passes it, within 32 KiB.
    fastestCore(h, hp, 32 - kBits, p, n, true, sink);
    return ozrOk;
}

}  // extern "C"
