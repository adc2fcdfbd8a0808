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
// the lookahead copy and for 8-byte reads past it.
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

inline void setPointers(OzrLZSSEncoderState& s, size_t windowFill) {
    s.pRandVec = randVecLZSS.v;
    s.pChain = s.chain;
    s.pHead = s.head;
    s.pWindow = s.window;
    s.pWindowEnd = s.window + windowFill;
}

// Number of equal bytes from a and b, at most maxLen; reads nothing beyond. Long
// matches (the runs of repetitive data) are measured 16 bytes a step.
inline unsigned matchLength(const Ozr8u* a, const Ozr8u* b, unsigned maxLen) {
    unsigned k = 0;
    while (k + 16 <= maxLen) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + k));
        const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + k));
        const unsigned differ = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(x, y))) ^ 0xFFFFu;
        if (differ != 0) return k + m7::trailingZeros64(differ);
        k += 16;
    }
    while (k + 8 <= maxLen) {
        const Ozr64u x = load64(a + k) ^ load64(b + k);
        if (x != 0) return k + (m7::trailingZeros64(x) >> 3);
        k += 8;
    }
    while (k < maxLen && a[k] == b[k]) ++k;
    return k;
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

// The walk with at least 8 bytes allowed. Most candidates differ within 8 bytes:
// their length comes from one 8-byte comparison with no branch on it, so the walk
// runs at the pace of its loads; only those that agree on all 8 are measured.
// at(d) gives the bytes d back from ip.
template <class At>
Ozr32u searchLong(Ozr32s c, Ozr32u p, const Ozr8u* ip, unsigned maxLen, const Ozr32s* chain, const At& at) {
    const Ozr64u head8 = load64(ip);
    Ozr32u key = kNoMatch;
#pragma GCC unroll 16
    for (unsigned k = 0; k < kMaxCandidates; ++k) {
        const Ozr32u d = p - Ozr32u(c);
        if (d > kMaxDistance) break;
        const Ozr8u* const m = at(d);
        const Ozr64u x = load64(m) ^ head8;
        if (__builtin_expect(x != 0, 1)) {
            const Ozr32u cand = (m7::trailingZeros64(x) >> 3) << 16 | (kMaxDistance - d);
            key = cand > key ? cand : key;
        } else {
            const unsigned len = 8 + matchLength(m + 8, ip + 8, maxLen - 8);
            const Ozr32u cand = len << 16 | (kMaxDistance - d);
            key = cand > key ? cand : key;
            if (len >= maxLen) break;
        }
        c = chain[Ozr32u(c) & kChainMask];
    }
    return key;
}

// The walk near the end of the data, where fewer than 8 bytes may match: a candidate
// is measured only if it agrees at best - 1 and best, the two bytes a longer one needs.
template <class At>
Ozr32u searchShort(Ozr32s c, Ozr32u p, const Ozr8u* ip, unsigned maxLen, const Ozr32s* chain, const At& at) {
    unsigned best = kMinMatch - 1;
    Ozr32u key = kNoMatch;
    if (maxLen < kMinMatch) return key;
    for (unsigned k = kMaxCandidates; k > 0; --k) {
        const Ozr32u d = p - Ozr32u(c);
        if (d > kMaxDistance) break;
        const Ozr8u* const m = at(d);
        if (load16(m + best - 1) == load16(ip + best - 1)) {
            const unsigned len = matchLength(m, ip, maxLen);
            if (len > best) {
                best = len;
                key = len << 16 | (kMaxDistance - d);
                if (len >= maxLen) break;
            }
        }
        c = chain[Ozr32u(c) & kChainMask];
    }
    return key;
}

// Encodes data[0, n) (this call's input) after the history; stops early when the
// output fills. Returns the bytes consumed and advances s.position by them.
size_t encodeCore(OzrLZSSEncoderState& s, const Ozr8u* const data, const size_t n, BitWriter& w,
                  const Ozr8u* const histEnd) {
    Ozr32s* const chain = s.chain;
    Ozr32s* const head = s.head;
    // base: the position of data[0] (64-bit: after an in-call rebase it may lie far
    // below the 32-bit range, where only out-of-reach entries could point).
    Ozr64s base = s.position;
    size_t i = 0;
    const size_t hashEnd = n >= 2 ? n - 2 : 0;  // positions below start a triple
    // A candidate's bytes: in this call's data, or in the history followed by the
    // lookahead copy of the data.
    // Position c lies at dataAt + c in this call's data (c >= base), else at histAt + c.
    uintptr_t dataAt = uintptr_t(data) - uintptr_t(base), histAt = uintptr_t(histEnd) - uintptr_t(base);
    auto at = [&](Ozr32s c) -> const Ozr8u* {
        return reinterpret_cast<const Ozr8u*>((Ozr64s(c) >= base ? dataAt : histAt) + uintptr_t(Ozr64s(c)));
    };
    auto done = [&](size_t consumed) {
        s.position = Ozr32s(base + Ozr64s(consumed));
        return consumed;
    };
    auto insert = [&](size_t j) {
        const Ozr32s p = Ozr32s(base + Ozr64s(j));
        const Ozr32u h = hash3(data + j);
        chain[Ozr32u(p) & kChainMask] = head[h];
        head[h] = p;
    };

    while (i < hashEnd) {
        if (base + Ozr64s(i) > kRebaseAt) {
            const Ozr32s r = Ozr32s(((base + Ozr64s(i)) >> 15) - 1) << 15;
            rebase(s, r);
            base -= r;
            dataAt = uintptr_t(data) - uintptr_t(base);
            histAt = uintptr_t(histEnd) - uintptr_t(base);
        }
        const size_t sliceEnd = hashEnd - i > kSlice ? i + kSlice : hashEnd;
        while (i < sliceEnd) {
            const Ozr8u* const ip = data + i;
            const Ozr32s p = Ozr32s(base + Ozr64s(i));
            const Ozr32u h = hash3(ip);
            const Ozr32s c = head[h];
            chain[Ozr32u(p) & kChainMask] = c;
            head[h] = p;
            // The next position's head, needed next if this one is a literal.
            if (i + 1 < hashEnd) __builtin_prefetch(head + hash3(ip + 1));

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
            if (maxLen < 8) {
                key = searchShort(c, Ozr32u(p), ip, maxLen, chain, atAny);
            } else if (i >= kMaxDistance) {
                key = searchLong(c, Ozr32u(p), ip, maxLen, chain, atData);
            } else {
                key = searchLong(c, Ozr32u(p), ip, maxLen, chain, atAny);
            }
            const unsigned best = key >> 16;
            if (best >= kMinMatch) {
                const Ozr32u dist = kMaxDistance - (key & 0xFFFF);
                w.put((dist << 8) | (best - kMinMatch), kMatchBits);
                if (i + best < hashEnd) {
                    // The next search's first candidate (unless the insertions below
                    // put a newer one in front): its chain link and bytes, fetched
                    // while they run.
                    const Ozr32s next = head[hash3(ip + best)];
                    __builtin_prefetch(chain + (Ozr32u(next) & kChainMask));
                    __builtin_prefetch(at(next));
                }
                for (size_t j = i + 1; j < i + best; ++j) insert(j);
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
