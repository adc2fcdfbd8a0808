// The one-pass fastest Deflate coder: hash, probe once, extend, and write the codes
// at once, with no chains and no intermediate sequence.
//
// The head table keeps, per 4-byte hash (a multiplicative hash, not the matchers'
// randVec: the two modes do not share tables), the low 16 bits of the last position
// with that hash, in 16-bit slots laid over the caller's 32-bit entries: 2 x hashSize
// slots, at most 16384 (32 KiB, the size of a first-level data cache; a larger table
// finds a little more, 0.5-1 % smaller output, but its cache misses cost more than
// that). A slot stands for the last position below the probe with those low bits;
// it is used only when that position is at least 0 and within winSize - 1, and only
// when its bytes match, so any slot content (stale, or the caller's -32768 fill) is
// safe, and positions need no rebasing beyond multiples of 65536. A stream starts at
// position 0: positions from 0 on may be referenced.
//
// A match of 4..258 bytes is taken greedily (the fast loop tries the position just
// before when the slot's is out of reach: runs); after a short one the inner positions
// 1..3 are hashed, after a long one its last three. After a run of misses the step
// between probes grows, so incompressible data passes quickly. The same core counts
// symbols for ozrsDeflateLZ77FastestGetStat_8u.
#include "deflate_common.h"

namespace m7::deflate {
namespace {

constexpr int kSkipTrigger = 5;   // misses >> kSkipTrigger is the extra step
constexpr int kMaxSlotBits = 14;  // at most 2^14 slots are used

// A 16-bit view of the caller's 32-bit table (may_alias: the memory is Ozr32s).
typedef Ozr16u __attribute__((may_alias)) Slot;

struct Heads {
    Slot* t;
    int shift;
    Ozr32u hashOf(Ozr32u v) const { return (v * 2654435761u) >> shift; }
    Ozr32u hash(const Ozr8u* q) const { return hashOf(load32(q)); }
    // The candidate of position p from slot hv: the last position below p with the
    // slot's low 16 bits when it is at least 0 and within maxDist, else `none` (p
    // itself, or for p >= 1 the always usable p - 1: the fast loop then needs only
    // the test on the bytes).
    long cand(Ozr32u hv, long p, Ozr64u maxDist, long none) const {
        const Ozr64u dm1 = static_cast<Ozr16u>(static_cast<Ozr16u>(p - 1) - t[hv]);  // distance - 1
        const Ozr64u lim = static_cast<Ozr64u>(p) < maxDist ? static_cast<Ozr64u>(p) : maxDist;
        return dm1 < lim ? p - 1 - static_cast<long>(dm1) : none;
    }
    void set(Ozr32u hv, long p) { t[hv] = static_cast<Ozr16u>(p); }
};

// Writes codes through a 64-bit buffer that holds at most 7 bits between items:
// every item ends with a branch-free flush (an 8-byte store), a match's codes and
// extra bits (at most 20 + 28) fit behind the 7 pending bits. Room is checked once
// per item (16 bytes). The codes of the 256 lengths and the 30 distance codes are
// joined with their extra-bit counts once per call. Count: also adds each written
// symbol to the caller's statistics (the next block's code).
template <bool Count>
struct CodeSink {
    struct LenCode {
        Ozr32u bits;   // Huffman code, then the extra bits
        Ozr8u n;       // total bit count
        Ozr8u sym;     // length code - 257
    };
    struct DistCode {
        Ozr32u code;
        Ozr8u len;     // Huffman code length (the extra bits follow)
        Ozr8u n;       // total bit count
        Ozr16u base;   // distance - 1 of the code's first distance
    };
    BitWriter w;
    Ozr8u* end;
    const OzrDeflateHuffCode* lc;
    Ozr32u* litStat;
    Ozr32u* distStat;
    LenCode lenTab[256];
    DistCode distTab[30];

    CodeSink(const BitWriter& out, Ozr8u* e, const OzrDeflateHuffCode* litCodes, const OzrDeflateHuffCode* distCodes,
             Ozr32u* ls, Ozr32u* ds)
        : w(out), end(e), lc(litCodes), litStat(ls), distStat(ds) {
        for (int l = 0; l < 256; ++l) {
            const int c = lenCode(l);
            const OzrDeflateHuffCode hc = litCodes[257 + c];
            lenTab[l] = {hc.code | (static_cast<Ozr32u>(l - kCodes.litBase[c]) << hc.len),
                         static_cast<Ozr8u>(hc.len + kCodes.litExtra[c]), static_cast<Ozr8u>(c)};
        }
        for (int k = 0; k < 30; ++k)
            distTab[k] = {distCodes[k].code, static_cast<Ozr8u>(distCodes[k].len),
                          static_cast<Ozr8u>(distCodes[k].len + kCodes.distExtra[k]), kCodes.distBase[k]};
    }
    bool room() const { return end - w.out >= 16; }
    void literal(Ozr8u b) {
        if constexpr (Count) ++litStat[b];
        w.put(lc[b].code, lc[b].len);
        w.flushBlind();
    }
    void match(int len, long dist) {
        const LenCode& lt = lenTab[len - 3];
        const int e = static_cast<int>(dist) - 1;
        // The distance code, without a branch: small distances index it directly.
        const int k = kCodes.litCode[e < 256 ? 256 + e : 512 + (e >> 7)];
        const DistCode& dt = distTab[k];
        w.put(lt.bits, lt.n);
        w.put(dt.code | (static_cast<Ozr32u>(e - dt.base) << dt.len), dt.n);
        w.flushBlind();
        if constexpr (Count) {
            ++litStat[257 + lt.sym];
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

// Length of the match of the bytes at a and b when their first 8 bytes agree, at
// most 258; reads whole 8-byte words, up to a + 263.
__attribute__((always_inline)) inline int flatLength(const Ozr8u* a, const Ozr8u* b) {
    int len = 8;
    for (;;) {
        const Ozr64u y = load64(a + len) ^ load64(b + len);
        if (y) {
            len += static_cast<int>(m7::trailingZeros64(y) >> 3);
            break;
        }
        len += 8;
        if (len >= kMaxMatch) break;
    }
    return len < kMaxMatch ? len : kMaxMatch;
}

// Codes positions p .. until `e` (flushAll: the end; else 261 before it). Returns
// false when the sink ran out of room first. Flat: the window lies right before the
// source in memory, so every position is base + q and the fast loop compares words
// without asking which buffer holds the candidate; it runs while a longest match
// plus 16 bytes still lies inside the source, the careful loop does the rest.
template <bool Flat, class Sink>
bool fastestCore(const History& h, Heads hd, long& pos, long e, bool flushAll, Sink& out) {
    // The position and the sink live in locals: the slot stores (16-bit views that may
    // alias anything) would otherwise force them back to memory at every store.
    long p = pos;
    Sink sink = out;
    const auto leave = [&](bool done) {
        pos = p;
        out = sink;
        return done;
    };
    const long probeEnd = flushAll ? e - 3 : e - kLookahead;  // a probe needs 4 bytes
    const Ozr64u maxDist = static_cast<Ozr64u>(h.wsize - 1);
    long misses = 0;
    if constexpr (Flat) {
        const Ozr8u* const base = h.src - h.start;
        const long fastEnd = e - (kMaxMatch + 16);
        // The loop is bound by the latency of hash -> slot -> candidate bytes ->
        // match test. Each step also reads the slot of the next position, in case this
        // one turns out a literal, before the test is known (a mispredicted test then
        // does not wait for it); a short match takes the next position's bytes from a
        // word loaded before its length is known. cand0 is the current position's
        // candidate, or the position before it when the slot's is out of reach.
        Ozr32u hv = 0;
        long cand0 = p;
        const auto probe = [&] {
            hv = hd.hash(base + p);
            cand0 = hd.cand(hv, p, maxDist, p - 1);
        };
        if (p == 0 && fastEnd > 0) {  // position 0 has nothing before it
            if (!sink.room()) return leave(false);
            hd.set(hd.hash(base), 0);
            sink.literal(base[0]);
            p = 1;
        }
        if (p < fastEnd) probe();
        while (p < fastEnd) {
            if (!sink.room()) return leave(false);
            const Ozr64u cur = load64(base + p);
            const Ozr32u hv1 = hd.hashOf(static_cast<Ozr32u>(cur >> 8));
            long cand1 = hd.cand(hv1, p + 1, maxDist, p);
            hd.set(hv, p);
            cand1 = hv1 == hv ? p : cand1;  // the slot was read before p went in
            const Ozr64u x = cur ^ load64(base + cand0);
            if (static_cast<Ozr32u>(x) == 0) {
                if (x != 0) {
                    // A match of 4..7 bytes: the next position's 4 bytes are in `ahead`,
                    // the inner positions' in `cur`.
                    const Ozr64u ahead = load64(base + p + 4);
                    const int len = static_cast<int>(m7::trailingZeros64(x) >> 3);
                    hv = hd.hashOf(static_cast<Ozr32u>(ahead >> ((len - 4) * 8)));
                    __builtin_prefetch(hd.t + hv, 1);
                    sink.match(len, p - cand0);
                    hd.set(hd.hashOf(static_cast<Ozr32u>(cur >> 8)), p + 1);
                    hd.set(hd.hashOf(static_cast<Ozr32u>(cur >> 16)), p + 2);
                    hd.set(hd.hashOf(static_cast<Ozr32u>(cur >> 24)), p + 3);
                    p += len;
                    cand0 = hd.cand(hv, p, maxDist, p - 1);
                    misses = 0;
                    continue;
                }
                const int len = flatLength(base + p, base + cand0);
                // The next position's slot is requested before the codes are written.
                const long next = p + len;
                hv = hd.hash(base + next);
                __builtin_prefetch(hd.t + hv, 1);
                sink.match(len, p - cand0);
                for (long q = next - 3; q < next; ++q) hd.set(hd.hash(base + q), q);
                p = next;
                cand0 = hd.cand(hv, p, maxDist, p - 1);
                misses = 0;
                continue;
            }
            // Skipping: after a run of misses, code a few literals without probing.
            const long skip = (++misses) >> kSkipTrigger;
            sink.literal(static_cast<Ozr8u>(cur));
            p += 1;
            if (skip == 0) {
                hv = hv1;
                cand0 = cand1;
                continue;
            }
            for (long k = 0; k < skip && p < fastEnd && sink.room(); ++k, ++p) sink.literal(base[p]);
            probe();
        }
    }
    // The careful loop: any window, up to the end. The head slot of the next position
    // is requested while this one is coded.
    Ozr32u nextHv = p < probeEnd ? hd.hash(h.at(p)) : 0;
    while (p < probeEnd) {
        if (!sink.room()) return leave(false);
        const Ozr8u* pp = h.at(p);
        const Ozr32u hv = nextHv;
        const long cand = hd.cand(hv, p, maxDist, p);
        hd.set(hv, p);
        const long maxLen = e - p < kMaxMatch ? e - p : kMaxMatch;
        if (cand != p) {
            const bool same = cand >= h.start ? load32(h.at(cand)) == load32(pp) : h.length(p, cand, 4) == 4;
            if (same) {
                const int len = 4 + h.length(p + 4, cand + 4, static_cast<int>(maxLen) - 4);
                if (p + len < probeEnd) {
                    nextHv = hd.hash(h.at(p + len));
                    __builtin_prefetch(hd.t + nextHv, 1);
                }
                sink.match(len, p - cand);
                const long from = len < 8 ? p + 1 : p + len - 3;  // as in the fast loop
                for (long q = from; q < from + 3 && q < probeEnd; ++q) hd.set(hd.hash(h.at(q)), q);
                p += len;
                misses = 0;
                continue;
            }
        }
        // Skipping: after a run of misses, code a few literals without probing.
        const long skip = (++misses) >> kSkipTrigger;
        const long q = p + 1 + skip;
        if (q < probeEnd) {
            nextHv = hd.hash(h.at(q));
            __builtin_prefetch(hd.t + nextHv, 1);
        }
        sink.literal(*pp);
        p += 1;
        for (long k = 0; k < skip && p < probeEnd && sink.room(); ++k, ++p) sink.literal(*h.at(p));
        if (p != q && p < probeEnd) nextHv = hd.hash(h.at(p));  // the skip stopped early
    }
    if (!flushAll) return leave(true);
    while (p < e) {
        if (!sink.room()) return leave(false);
        sink.literal(*h.at(p));
        p += 1;
    }
    return leave(true);
}

// The slots over a table of hashSize 32-bit entries: the largest power of two up to
// 2 x hashSize and 2^kMaxSlotBits.
Heads headsOver(Ozr32s* table, Ozr32u hashSize) {
    int bits = 0;
    while (bits < kMaxSlotBits && (1u << bits) <= hashSize) ++bits;
    return {reinterpret_cast<Slot*>(table), 32 - bits};
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
    if (static_cast<Ozr64u>(idx) + winSize + 2ull * count >= 0x7FFFFFFFull && idx > winSize)
        idx -= (idx - winSize) & ~0xFFFFu;  // the slots hold positions modulo 65536
    const History h{*ppSrc, pWindow, static_cast<long>(idx), static_cast<long>(winSize)};
    const Ozr32u pend = *pCodeLenBits;
    BitWriter w{*pCode & ((1ull << pend) - 1), pend, pDst + *pDstIdx};
    long p = idx;
    const long e = static_cast<long>(idx) + count;
    // The caller's window may be the bytes right before the source (one buffer).
    const bool flat = reinterpret_cast<Ozr64u>(pWindow) + winSize == reinterpret_cast<Ozr64u>(*ppSrc);
    const auto code = [&](auto& sink) {
        bool done = false;
        if (sink.room()) {
            sink.w.flushBlind();
            const Heads hd = headsOver(pHashHead, hashSize);
            done = flat ? fastestCore<true>(h, hd, p, e, flushAll, sink) : fastestCore<false>(h, hd, p, e, flushAll, sink);
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
        CodeSink<true> sink(w, pDst + dstLen, pLitCodes, pDistCodes, pLitStat, pDistStat);
        done = code(sink);
    } else {
        CodeSink<false> sink(w, pDst + dstLen, pLitCodes, pDistCodes, nullptr, nullptr);
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
    constexpr int kBits = 13;
    Ozr16u slots[1 << kBits];
    for (Ozr16u& v : slots) v = 0;
    long p = 0;
    const long n = srcLen > (1 << 30) ? (1 << 30) : srcLen;
    const History h{pSrc, pSrc, 0, 32768};
    StatSink sink{pLitStat, pDistStat};
    // Positions from 0, the source its own window: nothing below 0 is referenced.
    fastestCore<true>(h, Heads{slots, 32 - kBits}, p, n, true, sink);
    return ozrOk;
}

}  // extern "C"
