// LZSS encoder: greedy hash-chain matching over a 32 KB history kept across calls.
//
// Every position with three bytes of this call's data from it is hashed
// (randVecLZSS[b0] ^ randVecLZSS[256 + b1] ^ randVecLZSS[512 + b2]) into the head
// table; the head it replaces is linked from chain[position & 0x7FFF]. The search at
// a position walks that chain from the replaced head: at most 16 candidates, none
// 32768 or more bytes back, a candidate counted only if strictly longer than the best
// so far (so the nearest of equally long ones wins), and the walk ends once a match
// reaches the longest allowed length, min(bytes left - 2, 258). A match of 3 or more
// is taken at once (no lazy evaluation) and every position inside it is hashed too.
// The last two bytes of a call's data start no triple: they are always literals, and
// they are not hashed.
//
// Positions are kept in a 32-bit scale that starts at 0 with the stream; the empty
// mark -32768 is always 32768 or more behind. When the scale nears 2^30 the tables
// are shifted down by a multiple of 32768 (so chain slots stay put), clamping what
// falls out of reach to the empty mark.
//
// History: the record's 65536-byte window holds earlier input, the last histLen
// bytes before pWindowEnd being those matches may reach. Each call first copies up to
// 258 bytes of its input right behind them, so that a match from the history may run
// on into the new input with one pointer; consumed input is appended after the call,
// and the kept bytes are moved to the front when the window fills.
//
// Output: bits gather in a 64-bit accumulator and every whole byte is written after
// each token. The call stops after the token that leaves no room, so that each return
// has fewer than 8 bits pending unless the output is full; the caller's next call
// with the unconsumed input then continues exactly the stream a roomier call gives.
#include "hash_rows.h"
#include "lzss_common.h"

namespace m7::lzss {
namespace {

constexpr Ozr32s kEmpty = -32768;
constexpr Ozr32u kChainMask = 0x7FFF;
constexpr unsigned kMaxCandidates = 16;
constexpr size_t kWindowRoom = 65536;
constexpr size_t kLookahead = kMaxMatch;
// Window fill beyond which the kept history is moved to the front: leaves room for
// the lookahead copy and for 16-byte reads past it.
constexpr size_t kWindowFillMax = kWindowRoom - kLookahead - 16;
constexpr Ozr32s kRebaseAt = Ozr32s{1} << 30;
constexpr size_t kSlice = size_t{1} << 28;  // positions between two rebase checks

// randVecLZSS: three rows of 256 values in 0..32767, one row per byte of the hashed
// triple. Only their spread matters to the stream's correctness, but they decide which
// positions share a chain, so they are fixed hash rows (top 15 bits of a SplitMix64
// sequence from a fixed seed).
constexpr auto randVecLZSS = m7::makeHashRows<Ozr16s, 3, 15>(0x4C5A5353u);

inline Ozr32u hash3(const Ozr8u* p) {
    return Ozr32u(randVecLZSS.v[p[0]] ^ randVecLZSS.v[256 + p[1]] ^ randVecLZSS.v[512 + p[2]]);
}

// The three rows side by side, in reverse: byte b's entry of row k at bits 32 - 16k.
// A running value S = (S >> 16) ^ kJoinedRows[b], fed the data's bytes in order,
// holds in its low 16 bits the hash of the triple that ends at the last byte fed.
struct JoinedRows {
    Ozr64u v[256];
};
constexpr JoinedRows kJoinedRows = [] {
    JoinedRows t{};
    for (int b = 0; b < 256; ++b)
        t.v[b] = Ozr64u(Ozr16u(randVecLZSS.v[b])) << 32 | Ozr64u(Ozr16u(randVecLZSS.v[256 + b])) << 16 |
                 Ozr64u(Ozr16u(randVecLZSS.v[512 + b]));
    return t;
}();

inline void setPointers(OzrLZSSEncoderState& s, size_t windowFill) {
    s.pRandVec = randVecLZSS.v;
    s.pChain = s.chain;
    s.pHead = s.head;
    s.pWindow = s.window;
    s.pWindowEnd = s.window + windowFill;
}

// Bit k set where a[k] != b[k], k < 16.
inline unsigned differ16(const Ozr8u* a, const Ozr8u* b) {
    return unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a)),
                                                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(b))))) ^
           0xFFFFu;
}
// commonLength16(a, b, maxLen) for 16 <= maxLen when the first 16 bytes are known to agree.
// The last step compares the 16 bytes that end at maxLen, overlapping bytes already
// known equal: no byte-wise tail, and nothing read before a or from maxLen on.
inline unsigned matchLengthFrom16(const Ozr8u* a, const Ozr8u* b, unsigned maxLen) {
    unsigned k = 16;
    for (; k + 16 <= maxLen; k += 16) {
        const unsigned x = differ16(a + k, b + k);
        if (x != 0) return k + m7::trailingZeros64(x);
    }
    if (k == maxLen) return k;
    const unsigned x = differ16(a + maxLen - 16, b + maxLen - 16);
    return x != 0 ? maxLen - 16 + m7::trailingZeros64(x) : maxLen;
}

// Moves every table entry down by r (a multiple of 32768, so chain slots stay put);
// entries that would fall below the empty mark become it (they were out of reach).
void rebase(OzrLZSSEncoderState& s, Ozr32s r) {
    const __m128i shift = _mm_set1_epi32(r);
    const __m128i floor = _mm_set1_epi32(kEmpty + r);
    const __m128i empty = _mm_set1_epi32(kEmpty);
    Ozr32s* const tables[2] = {s.chain, s.head};
    for (Ozr32s* t : tables) {
        for (size_t i = 0; i < 32768; i += 4) {
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(t + i));
            const __m128i dead = _mm_cmplt_epi32(v, floor);
            v = _mm_sub_epi32(v, shift);
            v = _mm_or_si128(_mm_and_si128(dead, empty), _mm_andnot_si128(dead, v));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(t + i), v);
        }
    }
}

// The bit writer: `bits` holds `count` pending bits in its low end (count < 8 between
// tokens while there is room), `dst` / `room` the output.
struct BitWriter {
    Ozr64u bits;
    unsigned count;
    Ozr8u* dst;
    size_t room;

    void put(Ozr32u v, unsigned n) {
        bits = (bits << n) | v;
        count += n;
    }
    // Writes every whole byte that fits; true if the output is not full.
    bool drain() {
        if (room >= 8 && count >= 8) {
            // Blind 8-byte store of the pending bits, top-aligned; only whole bytes count.
            store64(dst, __builtin_bswap64(bits << (64 - count)));
            const unsigned n = count >> 3;
            dst += n;
            room -= n;
            count &= 7;
            return true;
        }
        while (count >= 8 && room > 0) {
            *dst++ = Ozr8u(bits >> (count - 8));
            count -= 8;
            --room;
        }
        return room > 0;
    }
};

// A match search's result is one key, length << 16 | (32767 - distance): the chain
// runs from near to far, so the largest key is the longest match and, of equally long
// ones, the nearest (the first found). A key below 3 << 16 means no match.
constexpr Ozr32u kNoMatch = (kMinMatch - 1) << 16 | 0xFFFF;

// Insertion runs ahead of the parse (see encodeCore): at most kMaxAhead positions past
// the searched one are in the tables. A candidate d back has its chain link replaced
// once position candidate + 32768 is inserted, which can only happen for d beyond
// kEdge; the walk takes such links from the ring of replaced links instead.
constexpr size_t kInsertBlock = 32;
// Enough ahead for the warmed chains (6 on) and for most matches; a search after a
// longer match first inserts up to its position. Further ahead gains nothing and
// costs a call that stops on a full output more to take back.
constexpr size_t kMinAhead = 40;
constexpr size_t kMaxAhead = kMinAhead + kInsertBlock;
constexpr Ozr32u kEdge = kMaxDistance - Ozr32u(kMaxAhead);
constexpr size_t kRing = 512;  // replaced links of the positions inserted ahead
static_assert(kRing > kMaxAhead && (kRing & (kRing - 1)) == 0 && kRing % kInsertBlock == 0);

// The walk with at least 16 bytes allowed. Most candidates differ within 16 bytes:
// their length comes from one 16-byte comparison with no branch on it, so the walk
// runs at the pace of its loads; only those that agree on all 16 are measured.
// at(d) gives the bytes d back from ip; edgeLink(c) the link of a candidate beyond kEdge.
template <class At, class Edge>
Ozr32u searchLong(Ozr32s c, Ozr32u p, const Ozr8u* ip, unsigned maxLen, const Ozr32s* chain, const At& at,
                  const Edge& edgeLink) {
    const __m128i head16 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(ip));
    Ozr32u key = kNoMatch;
#pragma GCC unroll 16
    for (unsigned k = 0; k < kMaxCandidates; ++k) {
        const Ozr32u d = p - Ozr32u(c);
        Ozr32s next;
        if (__builtin_expect(d > kEdge, 0)) {
            if (d > kMaxDistance) break;
            next = edgeLink(c);
        } else {
            next = chain[Ozr32u(c) & kChainMask];
        }
        const Ozr8u* const m = at(d);
        const unsigned differ =
            unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(m)), head16))) ^
            0xFFFFu;
        if (__builtin_expect(differ != 0, 1)) {
            const Ozr32u cand = m7::trailingZeros64(differ) << 16 | (kMaxDistance - d);
            key = cand > key ? cand : key;
        } else {
            // Agrees on 16 bytes: measured in full only if it also agrees at the best
            // length so far and the byte before, as any longer match must.
            const unsigned best = key >> 16;
            if (best < 16 || load16(m + best - 1) == load16(ip + best - 1)) {
                const unsigned len = matchLengthFrom16(m, ip, maxLen);
                const Ozr32u cand = len << 16 | (kMaxDistance - d);
                key = cand > key ? cand : key;
                if (len >= maxLen) break;
            }
        }
        c = next;
    }
    return key;
}

// The walk near the end of the data, where fewer than 16 bytes may match: a candidate
// is measured only if it agrees at best - 1 and best, the two bytes a longer one needs.
template <class At, class Edge>
Ozr32u searchShort(Ozr32s c, Ozr32u p, const Ozr8u* ip, unsigned maxLen, const Ozr32s* chain, const At& at,
                   const Edge& edgeLink) {
    unsigned best = kMinMatch - 1;
    Ozr32u key = kNoMatch;
    if (maxLen < kMinMatch) return key;
    for (unsigned k = kMaxCandidates; k > 0; --k) {
        const Ozr32u d = p - Ozr32u(c);
        if (d > kMaxDistance) break;
        const Ozr32s next = d > kEdge ? edgeLink(c) : chain[Ozr32u(c) & kChainMask];
        const Ozr8u* const m = at(d);
        if (load16(m + best - 1) == load16(ip + best - 1)) {
            const unsigned len = unsigned(commonLength16(m, ip, int(maxLen)));
            if (len > best) {
                best = len;
                key = len << 16 | (kMaxDistance - d);
                if (len >= maxLen) break;
            }
        }
        c = next;
    }
    return key;
}

// Loads the first kWarmLinks links of the chains of positions p + 3 .. p + 6 (inserted
// ahead) so that the next search, which most often starts at one of them, finds its
// first links in L1. Only the loads matter; nothing is decided by them.
constexpr unsigned kWarmLinks = 5;
inline void warmChains(const Ozr32s* chain, Ozr32u p) {
    Ozr32s g0 = chain[(p + 3) & kChainMask], g1 = chain[(p + 4) & kChainMask];
    Ozr32s g2 = chain[(p + 5) & kChainMask], g3 = chain[(p + 6) & kChainMask];
#pragma GCC unroll 8
    for (unsigned k = 1; k < kWarmLinks; ++k) {
        g0 = chain[Ozr32u(g0) & kChainMask];
        g1 = chain[Ozr32u(g1) & kChainMask];
        g2 = chain[Ozr32u(g2) & kChainMask];
        g3 = chain[Ozr32u(g3) & kChainMask];
    }
    // Keep the last loads: the values are not used otherwise.
    asm volatile("" ::"r"(g0), "r"(g1), "r"(g2), "r"(g3));
}

// Encodes data[0, n) (this call's input) after the history; stops early when the
// output fills. Returns the bytes consumed and advances s.position by them.
//
// The tables depend only on the data (every position is inserted, in order), not on
// the parse, so insertion runs ahead of it in blocks: positions [0, front) are in the
// tables while the search is at i < front. The search's first candidate is then the
// link stored at its own position, a load from the lines just written, and the work
// of hashing leaves the chain of dependent loads from one search to the next. Each
// insertion keeps the link it replaces (that of the position 32768 back) in `ring`,
// so that the walk near the edge of reach still follows the old links and an early
// return can take back the positions not consumed.
size_t encodeCore(OzrLZSSEncoderState& s, const Ozr8u* const data, const size_t n, BitWriter& w,
                  const Ozr8u* const histEnd) {
    Ozr32s* const chain = s.chain;
    Ozr32s* const head = s.head;
    // base: the position of data[0] (64-bit: after an in-call rebase it may lie far
    // below the 32-bit range, where only out-of-reach entries could point).
    Ozr64s base = s.position;
    size_t i = 0, front = 0;
    Ozr32s ring[kRing];
    const size_t hashEnd = n >= 2 ? n - 2 : 0;  // positions below start a triple
    auto insertTo = [&](size_t end) {
        size_t j = front;
        for (; j < end; ++j) {
            const Ozr32s p = Ozr32s(base + Ozr64s(j));
            Ozr32s* const slot = chain + (Ozr32u(p) & kChainMask);
            Ozr32s* const h = head + hash3(data + j);
            ring[j & (kRing - 1)] = *slot;
            *slot = *h;
            *h = p;
        }
        front = j;
    };
    // insertTo(front + kInsertBlock) with bytes to hash for all of it: one load of
    // joined rows per byte, and chain slots in one piece unless they wrap.
    auto insertBlock = [&] {
        const size_t j = front;
        const Ozr32s p = Ozr32s(base + Ozr64s(j));
        if ((Ozr32u(p) & kChainMask) > kChainMask + 1 - kInsertBlock) return insertTo(j + kInsertBlock);
        const Ozr8u* const q = data + j;
        Ozr32s* const r = ring + (j & (kRing - 1));
        Ozr32s* const slot = chain + (Ozr32u(p) & kChainMask);
#pragma GCC unroll 8
        for (size_t k = 0; k < kInsertBlock; k += 4)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(r + k), _mm_loadu_si128(reinterpret_cast<const __m128i*>(slot + k)));
        Ozr64u run = (kJoinedRows.v[q[0]] >> 16) ^ kJoinedRows.v[q[1]];
#pragma GCC unroll 32
        for (size_t k = 0; k < kInsertBlock; ++k) {
            run = (run >> 16) ^ kJoinedRows.v[q[k + 2]];
            Ozr32s* const h = head + Ozr16u(run);
            slot[k] = *h;
            *h = p + Ozr32s(k);
        }
        front = j + kInsertBlock;
    };
    // Takes the insertions of [end, front) back, newest first.
    auto retractTo = [&](size_t end) {
        while (front > end) {
            --front;
            const Ozr32s p = Ozr32s(base + Ozr64s(front));
            Ozr32s* const slot = chain + (Ozr32u(p) & kChainMask);
            head[hash3(data + front)] = *slot;
            *slot = ring[front & (kRing - 1)];
        }
    };
    // The tables as a parse ending at `consumed` leaves them.
    auto done = [&](size_t consumed) {
        const size_t end = consumed < hashEnd ? consumed : hashEnd;
        if (front > end) retractTo(end); else insertTo(end);
        s.position = Ozr32s(base + Ozr64s(consumed));
        return consumed;
    };
    // The link of candidate c when it may have been replaced: by then position
    // c + 32768 is inserted and its ring entry holds the link.
    auto edgeLink = [&](Ozr32s c) -> Ozr32s {
        const Ozr64s q = Ozr64s(c) + 32768 - base;
        return q < Ozr64s(front) ? ring[size_t(q) & (kRing - 1)] : chain[Ozr32u(c) & kChainMask];
    };

    while (i < hashEnd) {
        if (base + Ozr64s(i) > kRebaseAt) {
            retractTo(i);
            const Ozr32s r = Ozr32s(((base + Ozr64s(i)) >> 15) - 1) << 15;
            rebase(s, r);
            base -= r;
            // Blocks start at multiples of kInsertBlock (their ring entries in one piece).
            const size_t aligned = (i | (kInsertBlock - 1)) + 1;
            insertTo(aligned < hashEnd ? aligned : hashEnd);
        }
        const size_t sliceEnd = hashEnd - i > kSlice ? i + kSlice : hashEnd;
        while (i < sliceEnd) {
            // Keep kMinAhead positions inserted ahead of the search (a search needs
            // its own position in, the warmed chains six more).
            while (front < i + kMinAhead && front < hashEnd) {
                if (front + kInsertBlock <= hashEnd) insertBlock(); else insertTo(hashEnd);
            }
            const Ozr8u* const ip = data + i;
            const Ozr32s p = Ozr32s(base + Ozr64s(i));
            const Ozr32s c = chain[Ozr32u(p) & kChainMask];
            // The next search starts where this one's match ends, most often 3 to 6
            // bytes on: fetch the first links of those chains into L1 meanwhile.
            warmChains(chain, Ozr32u(p));

            const size_t left = n - i - 2;
            const unsigned maxLen = left < kMaxMatch ? unsigned(left) : kMaxMatch;
            Ozr32u key;
            // A candidate d back lies in this call's data when d <= i, else in the
            // history; from kMaxDistance on, every reachable one is in the data.
            const uintptr_t histIp = uintptr_t(histEnd) + i;
            auto atAny = [ip, i, histIp](Ozr32u d) {
                return d <= i ? ip - d : reinterpret_cast<const Ozr8u*>(histIp - d);
            };
            auto atData = [ip](Ozr32u d) { return ip - d; };
            if (maxLen < 16) {
                key = searchShort(c, Ozr32u(p), ip, maxLen, chain, atAny, edgeLink);
            } else if (i >= kMaxDistance) {
                key = searchLong(c, Ozr32u(p), ip, maxLen, chain, atData, edgeLink);
            } else {
                key = searchLong(c, Ozr32u(p), ip, maxLen, chain, atAny, edgeLink);
            }
            const unsigned best = key >> 16;
            if (best >= kMinMatch) {
                const Ozr32u dist = kMaxDistance - (key & 0xFFFF);
                w.put((dist << 8) | (best - kMinMatch), kMatchBits);
                i += best;
            } else {
                w.put(0x100u | *ip, kLiteralBits);
                ++i;
            }
            if (!w.drain()) return done(i);
        }
    }
    // The last two bytes (or fewer): literals.
    while (i < n) {
        w.put(0x100u | data[i], kLiteralBits);
        ++i;
        if (!w.drain()) return done(i);
    }
    return done(i);
}

// Appends the consumed input to the window, keeping at least the last 32768 bytes.
size_t keepHistory(OzrLZSSEncoderState& s, size_t fill, const Ozr8u* src, size_t consumed) {
    Ozr8u* const win = s.window;
    if (consumed >= kHistory) {
        m7_ownsCopy_8u(src + consumed - kHistory, win, kHistory);
        fill = kHistory;
    } else if (fill + consumed <= kWindowFillMax) {
        m7_ownsCopy_8u(src, win + fill, consumed);
        fill += consumed;
    } else {
        const size_t keep = s.histLen < kHistory - consumed ? s.histLen : kHistory - consumed;
        m7_ownsMove_8u_M7(win + fill - keep, win, keep);
        m7_ownsCopy_8u(src, win + keep, consumed);
        fill = keep + consumed;
    }
    const size_t hist = s.histLen + consumed;
    s.histLen = Ozr32u(hist < kHistory ? hist : kHistory);
    return fill;
}

}  // namespace
}  // namespace m7::lzss

using namespace m7::lzss;

extern "C" {

OzrResult m7_ozrsLZSSGetSize_8u(int* pLZSSStateSize) {
    OZR_CHECK_NULL(pLZSSStateSize);
    *pLZSSStateSize = kStateSize;
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZSSInit_8u(OzrLZSSState* pLZSSState) {
    OZR_CHECK_NULL(pLZSSState);
    OzrLZSSEncoderState& s = pLZSSState->u.enc;
    setPointers(s, 0);
    s.histLen = 0;
    s.bitCount = 0;
    s.bitBuf = 0;
    s.bitBufExt = 0;
    s.position = 0;
    s.reserved = 0;
    for (size_t i = 0; i < 32768; ++i) s.chain[i] = kEmpty;
    for (size_t i = 0; i < 32768; ++i) s.head[i] = kEmpty;
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZSS_8u(Ozr8u** ppSrc, int* pSrcLen, Ozr8u** ppDst, int* pDstLen,
                               OzrLZSSState* pLZSSState) {
    OZR_CHECK_NULL(ppSrc, pSrcLen, ppDst, pDstLen, pLZSSState);
    OZR_CHECK_NULL(*ppSrc, *ppDst);
    if (*pSrcLen < 0 || *pDstLen < 0) return ozrErrSize;
    if (*pDstLen == 0) return ozrWarnDstSizeLess;
    if (*pSrcLen == 0) return ozrOk;

    OzrLZSSEncoderState& s = pLZSSState->u.enc;
    // The record may have been moved: only the distance between the two window
    // pointers is taken from them.
    size_t fill = size_t(s.pWindowEnd - s.pWindow);
    if (fill > kWindowFillMax) fill = kWindowFillMax;
    if (s.histLen > fill) s.histLen = Ozr32u(fill);
    const unsigned pending = s.bitCount < 32 ? s.bitCount : 31;

    const Ozr8u* const src = *ppSrc;
    const size_t n = size_t(*pSrcLen);
    BitWriter w{s.bitBuf, pending, *ppDst, size_t(*pDstLen)};
    size_t consumed = 0;
    OzrResult st = ozrOk;
    if (!w.drain() && w.count >= 8) {
        st = ozrWarnDstSizeLess;  // earlier bits still do not fit
    } else if (w.room == 0) {
        st = ozrWarnDstSizeLess;  // they fit exactly: nothing more can go out
    } else {
        m7_ownsCopy_8u(src, s.window + fill, n < kLookahead ? n : kLookahead);
        consumed = encodeCore(s, src, n, w, s.window + fill);
        if (consumed < n || w.count >= 8) st = ozrWarnDstSizeLess;
        fill = keepHistory(s, fill, src, consumed);
    }
    setPointers(s, fill);
    s.bitCount = w.count;
    s.bitBuf = Ozr32u(w.bits & ((Ozr64u{1} << w.count) - 1));
    s.bitBufExt = 0;
    *ppSrc += consumed;
    *pSrcLen -= int(consumed);
    *ppDst = w.dst;
    *pDstLen = int(w.room);
    return st;
}

OzrResult m7_ozrsEncodeLZSSFlush_8u(Ozr8u** ppDst, int* pDstLen, OzrLZSSState* pLZSSState) {
    OZR_CHECK_NULL(ppDst, pDstLen, pLZSSState);
    OZR_CHECK_NULL(*ppDst);
    OZR_CHECK_POSITIVE(*pDstLen);
    OzrLZSSEncoderState& s = pLZSSState->u.enc;
    unsigned count = s.bitCount < 32 ? s.bitCount : 31;
    Ozr32u bits = s.bitBuf;
    Ozr8u* dst = *ppDst;
    int room = *pDstLen;
    while (count > 0 && room > 0) {
        // The last byte is padded with zero bits.
        *dst++ = Ozr8u(count >= 8 ? bits >> (count - 8) : bits << (8 - count));
        count = count >= 8 ? count - 8 : 0;
        --room;
    }
    s.bitCount = count;
    s.bitBuf = bits & ((Ozr32u{1} << count) - 1);
    *ppDst = dst;
    *pDstLen = room;
    return count > 0 ? ozrWarnDstSizeLess : ozrOk;
}

}  // extern "C"
