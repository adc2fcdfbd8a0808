// Deflate LZ77: the level dispatch, the caller-owned hash tables (insertion, index
// rebasing, preset dictionary) and the one matcher core behind the greedy
// (ozrsDeflateLZ77Fast_8u) and lazy (ozrsDeflateLZ77Slow_8u) passes.
//
// Positions: the byte at position q is this call's src[q - start] when q >= start
// (start = the source index on entry), else window[q - start + winSize]; a candidate
// is usable while p - winSize < q < p. The head table holds the latest position per
// hash, the previous table (indexed by position mod winSize) the chain link.
#include <emmintrin.h>

#include "deflate_common.h"

namespace m7::deflate {
namespace {

// The level table: {maxChain, goodLength, niceLength, maxLazy} per level 0..29. Three
// tunings of the 0..9 scale, kept as they are, irregular rows included.
constexpr Ozr32u kLevels[30][4] = {
    {0, 0, 0, 0},       {4, 8, 8, 8},       {4, 16, 16, 9},     {4, 16, 16, 12},   {48, 32, 32, 16},
    {32, 8, 32, 16},    {128, 8, 256, 16},  {144, 8, 256, 16},  {192, 32, 258, 128}, {256, 32, 258, 258},
    {0, 0, 0, 0},       {3, 7, 8, 258},     {3, 8, 16, 258},    {5, 8, 16, 258},   {16, 32, 32, 258},
    {24, 6, 32, 16},    {120, 7, 256, 16},  {140, 7, 256, 16},  {192, 32, 258, 128}, {512, 32, 258, 258},
    {0, 0, 0, 0},       {4, 8, 8, 258},     {4, 16, 16, 258},   {4, 16, 16, 258},  {16, 32, 32, 258},
    {32, 8, 32, 16},    {128, 8, 256, 16},  {144, 8, 256, 16},  {192, 32, 258, 128}, {512, 32, 258, 258},
};

// The hash's four rows packed per byte value, row 3 - k in 16-bit lane k: one 8-byte
// load gives a byte's share of the hashes of all four positions whose 4 bytes hold it.
// Shifting a running word down a lane per byte and adding the next byte's entry
// leaves the complete hash of the position 3 bytes back in lane 0.
struct PackedRows {
    Ozr64u v[256];
};
constexpr PackedRows makePackedRows() {
    PackedRows r{};
    for (int b = 0; b < 256; ++b)
        r.v[b] = static_cast<Ozr64u>(randVec.v[768 + b]) | static_cast<Ozr64u>(randVec.v[512 + b]) << 16 |
                 static_cast<Ozr64u>(randVec.v[256 + b]) << 32 | static_cast<Ozr64u>(randVec.v[b]) << 48;
    return r;
}
inline constexpr PackedRows kPackedRows = makePackedRows();

// Enters positions q0 .. q0 + n - 1, whose bytes start at s (the last byte read is
// s[n + 2]), into the head and previous tables. The loop is bound by its loads: each
// position costs one byte and one packed-row load instead of four row loads.
__attribute__((always_inline)) inline void enterRun(const Ozr8u* s, long q0, long n, Ozr32s* hd, Ozr32s* pv,
                                                    Ozr32u hm, Ozr32u wm) {
    if (n <= 0) return;
    const Ozr64u* const t = kPackedRows.v;
    Ozr64u acc = (((t[s[0]] >> 16) ^ t[s[1]]) >> 16) ^ t[s[2]];
    for (long i = 0; i < n; ++i) {
        acc = (acc >> 16) ^ t[s[i + 3]];
        const Ozr32u h = static_cast<Ozr32u>(acc) & hm;
        pv[(q0 + i) & wm] = hd[h];
        hd[h] = static_cast<Ozr32s>(q0 + i);
    }
}

// Counts a match's length and distance symbols. Near and far distances alternate
// unpredictably: the distance code's table slot is picked without a branch.
__attribute__((always_inline)) inline void countMatch(OzrDeflateFreqTable* litFreq, OzrDeflateFreqTable* distFreq,
                                                      int len, long dist) {
    ++litFreq[257 + lenCode(len - 3)].freq;
    const Ozr32u d1 = static_cast<Ozr32u>(dist - 1);
    const Ozr32u slot = d1 < 256 ? 256 + d1 : 512 + (d1 >> 7);
    ++distFreq[kCodes.litCode[slot]].freq;
}

constexpr Ozr32u kMaxPerCall = 1u << 30;  // keeps positions below 2^31 after rebasing

struct Matcher : History {
    Ozr32u wmask;
    Ozr32s* head;
    Ozr32s* prev;
    Ozr32u hmask;
    OzrDeflateFreqTable* litFreq;
    OzrDeflateFreqTable* distFreq;
    Ozr8u* litDst;
    Ozr16u* distDst;
    Ozr32u written;
    Ozr32u nextHash = 0;  // hash of position nextPos, computed ahead
    long nextPos = -1;
    bool joined = false;  // the window lies right in front of the source: src == win

    // Starts loading the head entry of position p (its 4 bytes lie in the source): the
    // matchers ask for the next position's while they work on this one.
    // The hash is kept for the insertion of that position.
    void prefetchHead(long p) {
        nextHash = hash4(at(p)) & hmask;
        nextPos = p;
        __builtin_prefetch(head + nextHash, 1);
    }

    // Enters position p (its 4 bytes lie in the source) and returns the old head.
    Ozr32s insert(long p) {
        const Ozr32u h = p == nextPos ? nextHash : hash4(at(p)) & hmask;
        const Ozr32s old = head[h];
        prev[p & wmask] = old;
        head[h] = static_cast<Ozr32s>(p);
        return old;
    }
    // The tables and masks go in as values: the table stores could alias the matcher's
    // fields, which would then be reloaded after each.
    void insertRange(long from, long to) {  // positions from .. to - 1
        if (from >= to) return;
        insert(from);  // its hash may be the one computed ahead
        m7::deflate::enterRun(at(from + 1), from + 1, to - from - 1, head, prev, hmask, wmask);
    }
    // Takes position p back out of the chains; positions must be removed newest first.
    void remove(long p) { head[hash4(at(p)) & hmask] = prev[p & wmask]; }

    // The length of the match at cand if it passes the quick test (a longer match than
    // best must repeat tail, the 4 bytes ending at offset best), else 0. Without the
    // joined window, a candidate in the window (before first) is always measured.
    template <bool Joined>
    __attribute__((always_inline)) int measure(const Ozr8u* base, long first, long p, long cand, int best, Ozr32u tail,
                                               int maxLen) const {
        if ((!Joined && cand < first) || load32(base + cand + best - 3) == tail)
            return Joined ? commonLength16(base + p, base + cand, maxLen) : length(p, cand, maxLen);
        return 0;
    }

    // Walks the chain from cand; best is the length to beat (only a strictly longer
    // match replaces it, so ties keep the nearer candidate). Greedy: a match reaching
    // goodLength cuts the remaining chain to a quarter, once. Joined: the window lies
    // right in front of the source, every candidate is addressed from one base. KWin:
    // the window size when known at compile time (0: the caller's).
    // walked, if given: the step the walk ended on (the candidates looked at, one more
    // when the chain ran out first); it only steers when walks are paired.
    template <bool CutOnGood, bool Joined, Ozr32u KWin = 0>
    __attribute__((always_inline)) int search(long p, long cand, int best, Ozr32u limit, Ozr32u maxChain, int good,
                                              int nice, int maxLen, long* matchPos, Ozr32u* walked = nullptr) const {
        // Locals for the chain walk, whose cost is the latency of each link: keep the
        // loop's state in registers.
        const long low = p - (KWin ? KWin : wsize), first = start;
        const Ozr32s* const links = prev;
        const Ozr32u mask = KWin ? KWin - 1 : wmask;
        const Ozr8u* const base = src - start;  // base + q is position q in the source
        const Ozr8u* const pp = base + p;
        Ozr32u tail = load32(pp + best - 3);    // the 4 bytes a longer match must repeat
        bool cut = false;
        Ozr32u steps = 1;
        for (; cand > low && cand < p; ++steps) {
            const long next = links[cand & mask];
            const int len = measure<Joined>(base, first, p, cand, best, tail, maxLen);
            if (len > best) {
                best = len;
                *matchPos = cand;
                if (best >= nice) break;
                tail = load32(pp + best - 3);
                if constexpr (CutOnGood) {
                    if (best >= good && !cut) {
                        cut = true;
                        limit = maxChain / 4;
                    }
                }
            }
            if (steps >= limit) break;
            cand = next;
        }
        if (walked) *walked = steps;
        return best;
    }

    // The lazy matcher's searches at p and p + 1 walked together, for a p with nothing
    // pending: two independent chains of dependent link loads, which then overlap
    // instead of each waiting on its own. Position p's search is the plain one (length
    // to beat 3, the full chain). The search at p + 1 will have to beat p's final best and follow a
    // quarter of the chain once that best reaches goodLength; while p's best is still
    // growing, p + 1's walk beats the larger of its own best and p's best so far (a
    // candidate not above p's best can never be p + 1's result), and keeps its result
    // after a quarter of the chain aside. Its result is exact whenever that search is
    // made (p's best below maxLazy, which is at most niceLength here): a best above
    // p's final best found by the first candidate reaching it, else nothing.
    // Out of line: inlined, its state crowds the lazy pass's registers, which costs
    // every search (4 % on short chains) whether pairs are made or not.
    struct PairResult {
        int best0, best1;  // best1 > best0: p + 1 found a longer match
        long pos0, pos1;
        Ozr32u walked;     // candidates p's walk looked at
    };
    template <bool Joined>
    __attribute__((noinline)) PairResult searchPair(long p, long c0, long c1, Ozr32u maxChain, int good, int nice,
                                                    int maxLazy) const {
        const long low0 = p - wsize, low1 = low0 + 1, first = start;
        const Ozr32s* const links = prev;
        const Ozr32u mask = wmask;
        const Ozr8u* const base = src - start;
        const Ozr8u* const pp0 = base + p;
        const Ozr8u* const pp1 = pp0 + 1;
        const Ozr32u full = maxChain, quarter = maxChain / 4 ? maxChain / 4 : 1;  // one candidate at least
        int b0 = 3, b1 = 3, t1 = 3;  // t1: what p + 1's candidates must beat, max(b1, b0)
        long m0 = 0, m1 = 0, snapPos = 0;
        int snapBest = 3;
        Ozr32u tail0 = load32(pp0), tail1 = load32(pp1);
        Ozr32u s0 = 0, s1 = 0, lim1 = full;
        bool alive0 = c0 > low0 && c0 < p, alive1 = c1 > low1 && c1 <= p;
        bool need1 = true;
        while (alive0 && alive1) {
            const long n0 = links[c0 & mask];
            const long n1 = links[c1 & mask];
            ++s0;
            if (const int len = measure<Joined>(base, first, p, c0, b0, tail0, kMaxMatch); len > b0) {
                b0 = len;
                m0 = c0;
                tail0 = load32(pp0 + b0 - 3);
                if (b0 >= nice) alive0 = false;
                if (b0 >= maxLazy) {  // no search at p + 1
                    need1 = false;
                    alive1 = false;
                }
                if (b0 >= good) lim1 = quarter;
                if (b0 > t1) {
                    t1 = b0;
                    tail1 = load32(pp1 + t1 - 3);
                }
            }
            if (!alive1) {
                c0 = n0;
                alive0 = alive0 && s0 < full && c0 > low0 && c0 < p;
                break;
            }
            ++s1;
            if (const int len = measure<Joined>(base, first, p + 1, c1, t1, tail1, kMaxMatch); len > t1) {
                b1 = t1 = len;
                m1 = c1;
                tail1 = load32(pp1 + t1 - 3);
                if (b1 >= nice) alive1 = false;
            }
            if (s1 == quarter) {
                snapBest = b1;
                snapPos = m1;
            }
            if (s1 >= lim1) alive1 = false;
            if (s0 >= full) alive0 = false;
            c0 = n0;
            c1 = n1;
            alive0 = alive0 && c0 > low0 && c0 < p;
            alive1 = alive1 && c1 > low1 && c1 <= p;
        }
        if (alive0 && s0 < full) {
            Ozr32u more = 0;
            b0 = search<false, Joined>(p, c0, b0, full - s0, maxChain, good, nice, kMaxMatch, &m0, &more);
            s0 += more;
        }
        if (b0 >= maxLazy) need1 = false;
        if (need1) {
            if (b0 >= good) lim1 = quarter;
            if (b0 > t1) t1 = b0;
            if (alive1 && s1 < lim1) {
                long q = 0;
                const int r = search<false, Joined>(p + 1, c1, t1, lim1 - s1, maxChain, good, nice, kMaxMatch, &q);
                if (r > t1) {
                    b1 = r;
                    m1 = q;
                }
            } else if (s1 > lim1) {  // walked past the quarter before p's best reached goodLength
                b1 = snapBest;
                m1 = snapPos;
            }
        }
        return {b0, need1 && b1 > b0 ? b1 : b0, m0, m1, s0};
    }

    void literal(Ozr8u b) {
        litDst[written] = b;
        distDst[written] = 0;
        ++written;
        ++litFreq[b].freq;
    }
    void match(int len, long dist) {
        litDst[written] = static_cast<Ozr8u>(len - 3);
        distDst[written] = static_cast<Ozr16u>(dist);
        ++written;
        countMatch(litFreq, distFreq, len, dist);
    }
    void unLiteral() {
        --written;
        --litFreq[litDst[written]].freq;
    }
};

// Lowers every hash entry by d; entries at or below the empty mark stay empty.
void rebase(Ozr32s* t, Ozr32u n, Ozr32s d) {
    for (Ozr32u i = 0; i < n; ++i) {
        Ozr32s v = t[i] < -32767 ? -32767 : t[i];
        const Ozr64s r = static_cast<Ozr64s>(v) - d;
        t[i] = r < -32767 ? kEmpty : static_cast<Ozr32s>(r);
    }
}

struct Params {
    Ozr32u maxChain;
    int good, nice, maxLazy;
};
// Level 1's row of the table, which the greedy pass has an instance of its own for.
constexpr Params kLevel1{kLevels[1][0], int(kLevels[1][1]), int(kLevels[1][2]), int(kLevels[1][3])};

// The greedy main phase (p + 261 <= e: every match may be 258 long), the hot loop of
// the low levels, with the walk's and the writer's state in locals. Joined: the window
// lies right in front of the source, so every candidate is addressed from one base.
// The hash of the next position is computed while the current one is searched (a
// literal moves there) and that of the position after a match before the match's
// inner insertions, so that their head entries are on the way when needed.
// Level1: the parameters of level 1 (kLevel1: goodLength = niceLength = maxLazy)
// with a 32 KiB window and a hash table of 32768 slots or more (hash values are below
// 32768, so a larger table masks alike) known at compile time: the fastest table level
// is the one whose loop is short enough for the immediates to free the registers that
// the limits and masks would hold (+2-3 % on text).
template <bool Joined, bool Cut, bool Level1>
void greedyMain(Matcher& m, long& pRef, long end, Ozr32u freeEntries, const Params prm) {
    const Ozr8u* const base = m.src - m.start;  // base + q is position q (q >= start, or any with Joined)
    Ozr32s* const head = m.head;
    Ozr32s* const prev = m.prev;
    const Ozr32u hmask = Level1 ? 32767 : m.hmask, wmask = Level1 ? 32767 : m.wmask;
    Ozr8u* const litDst = m.litDst;
    Ozr16u* const distDst = m.distDst;
    OzrDeflateFreqTable* const litFreq = m.litFreq;
    OzrDeflateFreqTable* const distFreq = m.distFreq;
    const Ozr32u maxChain = Level1 ? kLevel1.maxChain : prm.maxChain;
    const int good = Level1 ? kLevel1.good : prm.good, nice = Level1 ? kLevel1.nice : prm.nice;
    const int maxLazy = Level1 ? kLevel1.maxLazy : prm.maxLazy;
    Ozr32u written = m.written;
    long p = pRef;
    const auto hashAt = [&](long q) { return hash4(base + q) & hmask; };
    // Hashes of p .. p + 2, their head entries requested: three positions ahead, so
    // that a match's first inner insertions and the positions after a literal find
    // their entries on the way.
    Ozr32u h = 0, h1 = 0, h2 = 0;
    const auto ahead = [&](long q) {
        h = hashAt(q);
        h1 = hashAt(q + 1);
        h2 = hashAt(q + 2);
        __builtin_prefetch(head + h, 1);
        __builtin_prefetch(head + h1, 1);
        __builtin_prefetch(head + h2, 1);
    };
    if (p < end) ahead(p);
    while (p < end && written < freeEntries) {
        long cand = head[h];
        prev[p & wmask] = static_cast<Ozr32s>(cand);
        head[h] = static_cast<Ozr32s>(p);
        const Ozr32u h3 = hashAt(p + 3);
        __builtin_prefetch(head + h3, 1);
        {
            // After a literal, p + 1 is searched next: ask for its first candidate's
            // bytes and link now (prefetches only: a candidate out of reach or changed
            // by this position's insertion costs nothing but the request).
            const long c1 = head[h1];
            __builtin_prefetch(base + c1);
            __builtin_prefetch(prev + (c1 & wmask));
        }

        const Ozr8u* const pp = base + p;
        long matchPos = 0;
        const int best = m.search<Cut, Joined, Level1 ? 32768 : 0>(p, cand, 3, maxChain, maxChain, good, nice, kMaxMatch, &matchPos);

        if (best >= kMinMatch) {
            const long q = p + best;
            const Ozr32u i1 = h1, i2 = h2;
            if (q < end) ahead(q);
            const long dist = p - matchPos;
            litDst[written] = static_cast<Ozr8u>(best - 3);
            distDst[written] = static_cast<Ozr16u>(dist);
            ++written;
            countMatch(litFreq, distFreq, best, dist);
            if (best <= maxLazy) {
                const auto enter = [&](long r, Ozr32u hr) {
                    prev[r & wmask] = head[hr];
                    head[hr] = static_cast<Ozr32s>(r);
                };
                enter(p + 1, i1);  // best >= 4: p + 1 .. p + 3 lie inside the match
                enter(p + 2, i2);
                enter(p + 3, h3);
                // The rest one hash at a time: these runs are short, and enterRun's
                // three-load start measured slower here than it saves.
                for (long r = p + 4; r < q; ++r) {
                    const Ozr32u hr = hashAt(r);
                    prev[r & wmask] = head[hr];
                    head[hr] = static_cast<Ozr32s>(r);
                }
            }
            p = q;
        } else {
            const Ozr8u b = *pp;
            litDst[written] = b;
            distDst[written] = 0;
            ++written;
            ++litFreq[b].freq;
            p += 1;
            h = h1;
            h1 = h2;
            h2 = h3;
        }
    }
    m.written = written;
    m.nextPos = -1;
    pRef = p;
}

// The greedy pass. Main phase: every match may be 258 long; tail (flush >= 2): matches
// stop 3 bytes before the end, no goodLength cut; then literals.
void runGreedy(Matcher& m, long& p, long e, Ozr32u freeEntries, Params prm, bool flushAll) {
    long mainEnd = e - kLookahead;
    if (flushAll && p == mainEnd) {
        mainEnd += 1;
        if (prm.maxLazy > 257) prm.maxLazy = 257;
    }
    // The walk stops at niceLength; with goodLength not below it (levels 1-4) the cut
    // never comes, and the walk without it keeps fewer values live.
    if (prm.good < prm.nice) {
        if (m.joined) greedyMain<true, true, false>(m, p, mainEnd, freeEntries, prm);
        else greedyMain<false, true, false>(m, p, mainEnd, freeEntries, prm);
    } else if (prm.maxChain == kLevel1.maxChain && prm.good == kLevel1.good && prm.nice == kLevel1.nice &&
               prm.maxLazy == kLevel1.maxLazy && m.wmask == 32767 && m.hmask >= 32767) {
        if (m.joined) greedyMain<true, false, true>(m, p, mainEnd, freeEntries, prm);
        else greedyMain<false, false, true>(m, p, mainEnd, freeEntries, prm);
    } else {
        if (m.joined) greedyMain<true, false, false>(m, p, mainEnd, freeEntries, prm);
        else greedyMain<false, false, false>(m, p, mainEnd, freeEntries, prm);
    }
    for (int phase = 1; phase < 2; ++phase) {
        const bool tail = phase == 1;
        if (tail && !flushAll) return;
        const long end = tail ? e - 3 : mainEnd;
        while (p < end && m.written < freeEntries) {
            const long cand = m.insert(p);
            if (p + 1 < end) m.prefetchHead(p + 1);
            const int maxLen = tail ? (e - 3 - p < kMaxMatch ? static_cast<int>(e - 3 - p) : kMaxMatch) : kMaxMatch;
            long pos = 0;
            const int best = tail ? m.search<false, false>(p, cand, 3, prm.maxChain, prm.maxChain, prm.good, prm.nice, maxLen, &pos)
                                  : m.search<true, false>(p, cand, 3, prm.maxChain, prm.maxChain, prm.good, prm.nice, maxLen, &pos);
            if (best >= kMinMatch) {
                // The next search starts after the match: ask for its head entry now,
                // the inner insertions and the match's entry hide the wait.
                if (p + best < end) m.prefetchHead(p + best);
                m.match(best, p - pos);
                if (best <= prm.maxLazy) m.insertRange(p + 1, p + best);
                p += best;
            } else {
                m.literal(*m.at(p));
                p += 1;
            }
        }
    }
    while (p < e && m.written < freeEntries) {
        m.literal(*m.at(p));
        p += 1;
    }
}

// The lazy pass. The item of the previous position is pending as (P, D, B): P = 0
// nothing, 3 the byte B as a literal, >= 4 a match of length P at distance D.
template <bool Joined>
__attribute__((always_inline)) inline void lazyPass(Matcher& m, long& p, long e, Ozr32u freeEntries, const Params prm,
                                                    bool flushAll) {
    if (freeEntries < 2) return;
    const Ozr32u room = freeEntries - 1;  // one entry stays for the pending item
    int P = 0;
    long D = 0;
    Ozr8u B = 0;
    // The last position entered with nothing but a literal pending: a call that stops
    // before the end backs up to it, so that the next call decides from there exactly
    // as one call over all the data would.
    // Searches at p and p + 1 walked as a pair (searchPair) need the search at p + 1
    // to end at niceLength whenever it is made: niceLength at least maxLazy. Pairs are
    // made right after a match (nothing pending at p), where p + 1 is searched unless
    // p finds a match of maxLazy or more: only after a match shorter than that (the
    // next one is likely short too), and only while the walks are long (walkAvg, eight
    // times their running mean, at least 64): on short chains setting up the pair
    // costs more than the overlap saves.
    const bool pairOk = prm.nice >= prm.maxLazy;
    typename Matcher::PairResult paired{};
    long pairedPos = -1;  // the position paired.best1 / pos1 are for
    Ozr32u walkAvg = 0, walked = 0;
    int lastLen = 0;
    long cleanPos = p;
    Ozr32u cleanWritten = m.written;
    bool stoppedByRoom = false;
    for (int phase = 0; phase < 2; ++phase) {
        const bool tail = phase == 1;
        if (tail && (!flushAll || stoppedByRoom)) break;
        const long end = tail ? e - 3 : e - kLookahead;
        while (p < end) {
            if (m.written >= room) {
                stoppedByRoom = true;
                break;
            }
            if (P == 0 || P == 3) {
                cleanPos = p;
                cleanWritten = m.written + (P == 3);
            }
            const long cand = m.insert(p);
            if (p + 1 < end) m.prefetchHead(p + 1);
            int best = P;
            long pos = 0;
            if (P < prm.maxLazy) {
                if (p == pairedPos) {
                    best = paired.best1;
                    pos = paired.pos1;
                } else if (pairOk && !tail && P == 0 && lastLen < prm.maxLazy && p + 1 < end && walkAvg >= 64) {
                    // p + 1's chain as its insertion will find it: nothing is entered
                    // in between, no match being written at p.
                    const long cand1 = m.head[m.nextHash];
                    paired = m.searchPair<Joined>(p, cand, cand1, prm.maxChain, prm.good, prm.nice, prm.maxLazy);
                    walkAvg += paired.walked - (walkAvg >> 3);
                    pairedPos = p + 1;
                    best = paired.best0;
                    pos = paired.pos0;
                } else {
                    const int maxLen = tail ? (e - 3 - p < kMaxMatch ? static_cast<int>(e - 3 - p) : kMaxMatch) : kMaxMatch;
                    const Ozr32u limit = P < prm.good ? prm.maxChain : prm.maxChain / 4;
                    best = m.search<false, Joined>(p, cand, P > 3 ? P : 3, limit, prm.maxChain, prm.good, prm.nice, maxLen,
                                                   &pos, &walked);
                    walkAvg += walked - (walkAvg >> 3);
                }
            }
            if (P > 1) {
                if (P < best || P < kMinMatch) {
                    m.literal(B);
                } else {
                    // The next search is at the match's last byte: ask for its head
                    // entry before the inner insertions.
                    if (p + P - 1 < end) m.prefetchHead(p + P - 1);
                    m.match(P, D);
                    lastLen = P;
                    m.insertRange(p + 1, p + P - 1);
                    p += P - 2;
                    best = 0;
                }
            }
            if (best >= kMinMatch) D = p - pos;
            P = best;
            B = *m.at(p);
            p += 1;
        }
    }
    if (P >= kMinMatch && !flushAll && !stoppedByRoom) {
        // Back up: drop the literals written since the clean point and take the
        // positions entered since then out of the chains.
        while (m.written > cleanWritten) m.unLiteral();
        for (long q = p - 1; q >= cleanPos; --q) m.remove(q);
        p = cleanPos;
        return;
    }
    if (P >= kMinMatch) {
        m.match(P, D);
        const long last = p - 1 + P;  // first byte after the match
        const long hashEnd = last < e - 3 ? last : e - 3;
        m.insertRange(p, hashEnd);
        p = last;
    } else if (P == 3) {
        m.literal(B);
    }
    if (stoppedByRoom) return;
    if (flushAll)
        while (p < e && m.written < freeEntries) {
            m.literal(*m.at(p));
            p += 1;
        }
}

// The lazy pass on a local copy of the matcher: the byte stores into the sequence
// buffers could alias a matcher in memory, whose fields would then be reloaded after
// each of them.
template <bool Joined>
void runLazy(Matcher& matcher, long& p, long e, Ozr32u freeEntries, const Params prm, bool flushAll) {
    Matcher m = matcher;
    lazyPass<Joined>(m, p, e, freeEntries, prm, flushAll);
    matcher.written = m.written;
}

template <bool Lazy>
OzrResult lz77(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx, const Ozr8u* pWindow, Ozr32u winSize,
               Ozr32s* pHashHead, Ozr32s* pHashPrev, Ozr32u hashSize, OzrDeflateFreqTable* pLitFreq,
               OzrDeflateFreqTable* pDistFreq, Ozr8u* pLitDst, Ozr16u* pDistDst, Ozr32u* pDstLen,
               const Ozr32u* pParams, int flush) {
    OZR_CHECK_NULL(ppSrc, pSrcLen, pSrcIdx, pWindow, pHashHead, pHashPrev, pLitFreq, pDistFreq, pLitDst, pDistDst, pDstLen);
    OZR_CHECK_NULL(*ppSrc, pParams);
    if (!winSizeOk(winSize) || !hashSizeOk(hashSize)) return ozrErrSize;
    const Ozr32u maxChain = pParams[0];
    if (static_cast<Ozr32s>(maxChain) < 0) return ozrErrBadArgument;
    if (maxChain != 0 && (pParams[1] < 4 || pParams[2] < 4 || pParams[3] < 4)) return ozrErrBadArgument;

    Ozr32u count = *pSrcLen;
    bool flushAll = flush >= 2;
    if (count > kMaxPerCall) {
        count = kMaxPerCall;
        flushAll = false;
    }
    Ozr32u idx = *pSrcIdx;
    if (static_cast<Ozr64u>(idx) + winSize + 2ull * count >= 0x7FFFFFFFull && idx > winSize) {
        const Ozr32s d = static_cast<Ozr32s>(idx - winSize);
        rebase(pHashHead, hashSize, d);
        if (maxChain > 0) rebase(pHashPrev, winSize, d);
        idx = winSize;
    }

    // A window that ends where the source starts (a caller keeping its history in front
    // of the unread bytes) is one address range with it: the matchers then see every
    // candidate as source bytes and give window candidates the quick test too.
    const bool joined = pWindow + winSize == *ppSrc;
    const History hist = joined ? History{pWindow, pWindow, static_cast<long>(idx) - winSize, static_cast<long>(winSize)}
                                : History{*ppSrc, pWindow, static_cast<long>(idx), static_cast<long>(winSize)};
    Matcher m{hist, winSize - 1, pHashHead, pHashPrev, hashSize - 1, pLitFreq, pDistFreq, pLitDst, pDistDst, 0};
    m.joined = joined;
    const Ozr32u freeEntries = *pDstLen;
    long p = idx;
    const long e = static_cast<long>(idx) + count;
    if (maxChain == 0) {
        while (p < e && m.written < freeEntries) {
            m.literal(*m.at(p));
            p += 1;
        }
    } else {
        const auto clampParam = [](Ozr32u v) { return v > 65536 ? 65536 : static_cast<int>(v); };
        const Params prm{maxChain, clampParam(pParams[1]), clampParam(pParams[2]), clampParam(pParams[3])};
        if constexpr (Lazy) {
            if (m.joined) runLazy<true>(m, p, e, freeEntries, prm, flushAll);
            else runLazy<false>(m, p, e, freeEntries, prm, flushAll);
        }
        else runGreedy(m, p, e, freeEntries, prm, flushAll);
    }
    const Ozr32u consumed = static_cast<Ozr32u>(p - static_cast<long>(idx));
    *ppSrc += consumed;
    *pSrcLen -= consumed;
    *pSrcIdx = idx + consumed;
    *pDstLen -= m.written;
    return ozrOk;
}

// Enters positions 0 .. n - 1 of src (as positions base + i) into the tables.
void enterPositions(const Ozr8u* src, Ozr32u base, Ozr32u n, Ozr32s* head, Ozr32u hashSize, Ozr32s* prev,
                    Ozr32u winSize, int level) {
    const Ozr32u hmask = hashSize - 1, wmask = winSize - 1;
    if (level > 0) {
        enterRun(src, base, n, head, prev, hmask, wmask);
        return;
    }
    // Level 0: the 3-byte rolling hash, heads only.
    Ozr32u h = src[0];
    h = ((h << 5) ^ src[1]) & hmask;
    for (Ozr32u i = 0; i < n; ++i) {
        h = ((h << 5) ^ src[i + 2]) & hmask;
        head[h] = static_cast<Ozr32s>(base + i);
    }
}

}  // namespace
}  // namespace m7::deflate

using namespace m7::deflate;

extern "C" {

OzrResult m7_ozrsDeflateLZ77Fast_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx, const Ozr8u* pWindow,
                                    Ozr32u winSize, Ozr32s* pHashHead, Ozr32s* pHashPrev, Ozr32u hashSize,
                                    OzrDeflateFreqTable pLitFreqTable[286], OzrDeflateFreqTable pDistFreqTable[30],
                                    Ozr8u* pLitDst, Ozr16u* pDistDst, Ozr32u* pDstLen, const Ozr32u* pParams,
                                    int flush) {
    return lz77<false>(ppSrc, pSrcLen, pSrcIdx, pWindow, winSize, pHashHead, pHashPrev, hashSize, pLitFreqTable,
                       pDistFreqTable, pLitDst, pDistDst, pDstLen, pParams, flush);
}

OzrResult m7_ozrsDeflateLZ77Slow_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx, const Ozr8u* pWindow,
                                    Ozr32u winSize, Ozr32s* pHashHead, Ozr32s* pHashPrev, Ozr32u hashSize,
                                    OzrDeflateFreqTable pLitFreqTable[286], OzrDeflateFreqTable pDistFreqTable[30],
                                    Ozr8u* pLitDst, Ozr16u* pDistDst, Ozr32u* pDstLen, const Ozr32u* pParams,
                                    int flush) {
    return lz77<true>(ppSrc, pSrcLen, pSrcIdx, pWindow, winSize, pHashHead, pHashPrev, hashSize, pLitFreqTable,
                      pDistFreqTable, pLitDst, pDistDst, pDstLen, pParams, flush);
}

OzrResult m7_ozrsDeflateLZ77_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx, const Ozr8u* pWindow,
                                Ozr32u winSize, Ozr32s* pHashHead, Ozr32s* pHashPrev, Ozr32u hashSize,
                                OzrDeflateFreqTable pLitFreqTable[286], OzrDeflateFreqTable pDistFreqTable[30],
                                Ozr8u* pLitDst, Ozr16u* pDistDst, Ozr32u* pDstLen, int comprLevel, int flush) {
    if (comprLevel < 0 || comprLevel > 29) return ozrErrSize;
    Ozr32u params[4];
    for (int i = 0; i < 4; ++i) params[i] = kLevels[comprLevel][i];
    const auto matcher = comprLevel % 10 > 4 ? m7_ozrsDeflateLZ77Slow_8u : m7_ozrsDeflateLZ77Fast_8u;
    return matcher(ppSrc, pSrcLen, pSrcIdx, pWindow, winSize, pHashHead, pHashPrev, hashSize, pLitFreqTable,
                   pDistFreqTable, pLitDst, pDistDst, pDstLen, params, flush);
}

OzrResult m7_ozrsDeflateUpdateHash_8u(const Ozr8u* pSrc, Ozr32u srcIdx, Ozr32u srcLen, Ozr32s* pHashHeadDst,
                                      Ozr32u hashSize, Ozr32s* pHashPrevDst, Ozr32u winSize, int comprLevel) {
    OZR_CHECK_NULL(pSrc, pHashHeadDst, pHashPrevDst);
    if (!winSizeOk(winSize) || !hashSizeOk(hashSize)) return ozrErrSize;
    const Ozr32u span = comprLevel > 0 ? 4 : 3;
    if (srcLen < span) return ozrOk;
    enterPositions(pSrc, srcIdx, srcLen - (span - 1), pHashHeadDst, hashSize, pHashPrevDst, winSize, comprLevel);
    return ozrOk;
}

OzrResult m7_ozrsDeflateDictionarySet_8u(const Ozr8u* pDictSrc, Ozr32u dictLen, Ozr32s* pHashHeadDst,
                                         Ozr32u hashSize, Ozr32s* pHashPrevDst, Ozr8u* pWindow, Ozr32u winSize,
                                         int comprLevel) {
    OZR_CHECK_NULL(pDictSrc, pHashHeadDst, pHashPrevDst, pWindow);
    if (!winSizeOk(winSize) || !hashSizeOk(hashSize)) return ozrErrSize;
    if (dictLen < (comprLevel != 0 ? 4u : 3u)) return ozrOk;
    const Ozr32u n = dictLen < winSize ? dictLen : winSize;
    m7_ownsCopy_8u(pDictSrc + (dictLen - n), pWindow, n);
    if (n < 258) return ozrOk;
    enterPositions(pWindow, 0, n - 257, pHashHeadDst, hashSize, pHashPrevDst, winSize, comprLevel);
    return ozrOk;
}

}  // extern "C"
