// High-compression LZ4 block encoder: hash chains and, from level 9 up, an optimal
// parse priced in exact LZ4 bytes.
//
// The caller's work buffer holds four areas:
//   heads  32768 x 32-bit: the newest position of each chained string's hash;
//   heads4 32768 x 32-bit: the newest position of each 4-byte hash (levels whose
//          chains link 5-byte strings);
//   chain  65536 x 16-bit: for position p (slot p mod 65536), the distance back to the
//          previous position with the same hash (capped at 65535, where the window
//          ends);
//   nodes  the parser's arrival table for one window of positions.
// Positions are stored biased by 65536, so that an empty head (0) is always farther
// back than the 65535-byte window and needs no separate test.
//
// Levels 1-8 parse lazily: the longest match at p is taken unless p + 1 has a longer
// one or p + 2 one longer by two. Levels 9-12 parse optimally over windows of up to 4096 positions: every
// position's longest match is found (a shorter prefix of it is a match as well, and in
// LZ4 every offset costs the same two bytes, so the longest match stands for all), and
// the cheapest path in bytes is chosen, literals priced with their run-length bytes.
// Levels differ in how many chain links are followed and in the match length that is
// taken at once without parsing around it. The default level takes 64-byte matches at
// once but still walks on for the longest one: a long match cut short by the first
// candidate of 64 bytes costs more than the walk.
#include "lz4_common.h"

namespace m7::lz4 {
namespace {

constexpr int kHashLog = 15;
constexpr int kHeads = 1 << kHashLog;
constexpr int kChainSlots = 1 << 16;
constexpr Ozr32u kBias = 65536;
constexpr int kOptWindow = 4096;
constexpr int kMaxSufficient = 4096;
constexpr int kMatchStartMargin = 12;  // the last match starts at least 12 bytes before the end

// Each position keeps its cheapest arrival in two states: by a match (no literals
// pending) and by a literal (with the pending run's length), since a cheaper arrival
// with a long literal run can turn out dearer once more literals follow.
struct Node {
    Ozr32s priceM;  // bytes to reach this position, the last step a match
    Ozr32s priceL;  // bytes to reach it, the last step a literal
    Ozr32s litlen;  // literals pending in the literal state
    Ozr32s mlen;    // the match of the match state
    Ozr32s off;
    Ozr8u mFromL;   // the match starts from the literal state of its start
    Ozr8u lFromL;   // the literal follows the literal state of the position before
    Ozr16u pad;
    Ozr32s selLen;  // after backtracking: a chosen match starts here
    Ozr32s selOff;
    Ozr32s price() const { return priceM <= priceL ? priceM : priceL; }
    bool fromL() const { return priceL < priceM; }  // the cheaper state (a match on ties)
};
constexpr int kNodes = kOptWindow + kMaxSufficient + 8;

constexpr size_t kHeadsBytes = sizeof(Ozr32u) * kHeads;  // each of the two head tables
constexpr size_t kChainBytes = sizeof(Ozr16u) * kChainSlots;
constexpr size_t kNodesBytes = sizeof(Node) * kNodes;
constexpr int kHCTableBytes = static_cast<int>(2 * kHeadsBytes + kChainBytes + kNodesBytes);

struct Level {
    int searches;    // chain links followed per position
    int sufficient;  // a match this long is taken at once
    bool optimal;
    bool fullSearch = false;  // search every position of the window
    int innerSearches = 0;    // chain links inside a parse window (0: as searches)
    int chainBytes = 5;       // length of the strings the chains link
    int searchStop = 0;       // a chain walk stops at a match this long (0: sufficient)
};
constexpr Level kLevels[13] = {
    {0, 0, false},                                                       // 0: unused (default)
    {4, 16, false},     {8, 16, false},    {16, 32, false},  {32, 32, false},
    {64, 64, false},    {128, 64, false},  {256, 64, false}, {512, 128, false},
    {64, 64, true, false, 48, 5, kMaxSufficient},  {256, 256, true, false, 0, 4},  {1024, 1024, true, false, 0, 4},
    {16384, 4096, true, true, 0, 4},
};
constexpr int kDefaultLevel = 9;

inline Ozr32u hash4(const Ozr8u* p) { return (load32(p) * 2654435761u) >> (32 - kHashLog); }
// The 5 bytes at p (the 8-byte load is shifted so that only they count).
inline Ozr32u hash5(const Ozr8u* p) {
    return static_cast<Ozr32u>(((load64(p) << 24) * 0xCF1BBCDCBBull) >> (64 - kHashLog));
}

// Bytes of a literal run of n, with its length bytes (the token is counted with the match).
constexpr int litPrice(int n) { return n + (n >= 15 ? (n - 15) / 255 + 1 : 0); }
// Token, offset and length bytes of a match of length L.
constexpr int matchPrice(int len) { return 3 + (len >= 19 ? (len - 19) / 255 + 1 : 0); }

// The 4 bytes of v read as the same string started `bytes` places later.
inline Ozr32u rotateBytes(Ozr32u v, int bytes) { return (v >> (8 * bytes)) | (v << (32 - 8 * bytes)); }

// How many bytes before p continue the pattern of period `period` that p starts,
// going no lower than `low`.
inline size_t countBackPeriodic(const Ozr8u* p, Ozr32u period, const Ozr8u* low) {
    const Ozr8u* q = p;
    while (q - 8 >= low && load64(q - 8) == load64(q - 8 + period)) q -= 8;
    while (q > low && q[-1] == q[-1 + period]) --q;
    return static_cast<size_t>(p - q);
}

// Equal bytes at p and r, at most up to limit (measured from p).
inline size_t countEqual(const Ozr8u* p, const Ozr8u* r, const Ozr8u* limit) {
    const Ozr8u* const start = p;
    while (p + 8 <= limit) {
        const Ozr64u x = load64(p) ^ load64(r);
        if (x != 0) return static_cast<size_t>(p - start) + (m7::trailingZeros64(x) >> 3);
        p += 8, r += 8;
    }
    while (p < limit && *p == *r) ++p, ++r;
    return static_cast<size_t>(p - start);
}

// ChainBytes: the length of the strings the chains link, 5 (shorter chains, faster;
// 4-byte matches come from a table of newest occurrences) or 4 (every match).
template <int ChainBytes>
class HCEncoder {
public:
    HCEncoder(const Ozr8u* base, int srcIdx, int srcLen, Ozr8u* dst, int dstCap, Ozr8u* work, int dictLimit,
              const Level& lv)
        : base_(base), src_(base + srcIdx), srcEnd_(src_ + srcLen), matchLimit_(srcEnd_ - kLastLiterals),
          mflimit_(srcLen > kMatchStartMargin ? srcEnd_ - kMatchStartMargin + 1 : src_), dst_(dst), op_(dst),
          dstEnd_(dst + dstCap), lv_(lv) {
        heads_ = reinterpret_cast<Ozr32u*>(work);
        heads4_ = reinterpret_cast<Ozr32u*>(work + kHeadsBytes);
        chain_ = reinterpret_cast<Ozr16u*>(work + 2 * kHeadsBytes);
        nodes_ = reinterpret_cast<Node*>(work + 2 * kHeadsBytes + kChainBytes);
        m7_ownsZero_8u(work, 2 * kHeadsBytes);
        // The usable history: from dictLimit, and no more than the window before the block.
        int histStart = srcIdx - kMaxDistance;
        if (histStart < dictLimit) histStart = dictLimit;
        lowIdx_ = static_cast<Ozr32u>(dictLimit) + kBias;
        nextToUpdate_ = static_cast<Ozr32u>(histStart) + kBias;
    }

    // Returns the input bytes covered; *written receives the block length.
    int run(int* written) {
        if (lv_.optimal) parseOptimal();
        else parseLazy();
        lastLiterals();
        *written = static_cast<int>(op_ - dst_);
        return static_cast<int>(anchor_ - src_) + lastLits_;
    }

private:
    static Ozr32u hashChain(const Ozr8u* p) {
        if constexpr (ChainBytes == 5) return hash5(p);
        else return hash4(p);
    }

    Ozr32u indexOf(const Ozr8u* p) const { return static_cast<Ozr32u>(p - base_) + kBias; }

    void insertUpTo(Ozr32u target) {
        for (Ozr32u i = nextToUpdate_; i < target; ++i) {
            const Ozr8u* p = base_ + (i - kBias);
            if constexpr (ChainBytes == 5) heads4_[hash4(p)] = i;
            const Ozr32u h = hashChain(p);
            const Ozr32u delta = i - heads_[h];
            chain_[i & 0xFFFF] = static_cast<Ozr16u>(delta > 65535 ? 65535 : delta);
            heads_[h] = i;
        }
        if (target > nextToUpdate_) nextToUpdate_ = target;
    }

    // The longest match at ip (0 if none of at least 4 bytes); its distance in *off.
    int longest(const Ozr8u* ip, Ozr32u* off, size_t minLen = 3, int searches = 0) {
        const Ozr32u ipIdx = indexOf(ip);
        insertUpTo(ipIdx);
        // Locals: the stores of insertUpTo are done, and byte loads below must not make
        // the compiler reload the members.
        const Ozr16u* const chain = chain_;
        const Ozr8u* const base = base_;
        const Ozr32u lowIdx = lowIdx_;
        const Ozr8u* const matchLimit = matchLimit_;
        const size_t sufficient = static_cast<size_t>(lv_.searchStop > 0 ? lv_.searchStop : lv_.sufficient);
        const Ozr32u head4 = load32(ip);
        const size_t room = static_cast<size_t>(matchLimit - ip);
        size_t best = minLen < room ? minLen : room;
        Ozr32u bestOff = 0;
        // A 4-byte match is looked for at the newest occurrence only: the chains link
        // 5-byte strings, which keeps them short.
        if (ChainBytes == 5 && best < kMinMatch) {
            const Ozr32u c = heads4_[hash4(ip)];
            if (c >= lowIdx && ipIdx - c <= static_cast<Ozr32u>(kMaxDistance) && load32(base + (c - kBias)) == head4) {
                best = 4 + countEqual(ip + 4, base + (c - kBias) + 4, matchLimit);
                bestOff = ipIdx - c;
                if (best >= sufficient || best >= room) {
                    *off = bestOff;
                    return static_cast<int>(best);
                }
            }
        }
        Ozr32u idx = heads_[hashChain(ip)];
        // Candidates are followed along the chain of the 5 bytes at ip + shift. Once a
        // match of length best is known, any longer one also repeats every 5 bytes
        // inside it, so the walk may follow whichever of those chains skips farthest
        // back at this point: the rarer string, the fewer useless candidates.
        Ozr32u shift = 0;
        // The same holds before any match is found when only matches longer than
        // minLen are wanted: start on the chain of the rarest 5 bytes among a few
        // inside ip[0, minLen], the one whose newest occurrence is oldest.
        if (best >= ChainBytes + 1) {
            Ozr32u oldest = ipIdx - idx;
            for (Ozr32u k = 1; k + ChainBytes - 1 <= best && k <= 12; k += k < 8 ? 1 : 4) {
                const Ozr32u at = heads_[hashChain(ip + k)];
                if (ipIdx + k - at > oldest) oldest = ipIdx + k - at, shift = k, idx = at - k;
            }
        }
        // Runs of a byte or a byte pair: every position of such a run is chained, so a
        // walk would crawl through each run one step per byte. Instead, the first
        // candidate met in a run stands for the whole run: the run's best position is
        // the one whose remaining run equals ip's (after it the bytes may go on
        // matching), and the walk then jumps to the run's start.
        const Ozr32u period = head4 == rotateBytes(head4, 1) ? 1 : head4 == rotateBytes(head4, 2) ? 2 : 0;
        const size_t ipRun = period != 0 ? period + countEqual(ip + period, ip, matchLimit) : 0;
        const Ozr32u lowestIdx = ipIdx - lowIdx > static_cast<Ozr32u>(kMaxDistance) ? ipIdx - kMaxDistance : lowIdx;
        const Ozr8u* const lowest = base + (lowestIdx - kBias);
        for (int n = searches > 0 ? searches : lv_.searches; n > 0; --n) {
            if (idx < lowIdx || ipIdx - idx > static_cast<Ozr32u>(kMaxDistance)) break;
            const Ozr8u* ref = base + (idx - kBias);
            // The next candidate is known before this one is compared: its bytes are
            // on their way while the comparison's branch resolves.
            Ozr32u next = idx + shift - chain[(idx + shift) & 0xFFFF] - shift;
            _mm_prefetch(reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(base) + (next - kBias) + best - 3),
                         _MM_HINT_T0);
            if (period != 0 && shift == 0 && load32(ref) == head4) {
                const Ozr8u* const runEnd = ref + period + countEqual(ref + period, ref, matchLimit);
                const Ozr8u* const runStart = ref - countBackPeriodic(ref, period, lowest);
                // The run's first position in ip's phase of a two-byte pattern: its
                // 4 bytes are ip's, so its chain is the one being walked.
                const Ozr8u* const start = runStart + (ref - runStart) % period;
                const Ozr8u* q = start;
                if (static_cast<size_t>(runEnd - start) > ipRun) {
                    q = runEnd - ipRun;
                    if ((q - start) % period != 0) --q;  // a byte more of run, in phase
                }
                if (q >= ip) q = ip - period;  // ip's own run: the nearest copy
                if (q >= lowest) {
                    const size_t len = countEqual(ip, q, matchLimit);
                    if (len > best) {
                        best = len;
                        bestOff = static_cast<Ozr32u>(ip - q);
                        if (len >= sufficient || len >= room) break;
                    }
                }
                idx = indexOf(start);
                idx -= chain[idx & 0xFFFF];
                continue;
            }
            // Only a candidate that agrees at the current best length can beat it.
            if (load32(ref + best - 3) == load32(ip + best - 3) && load32(ref) == head4) {
                const size_t len = 4 + countEqual(ip + 4, ref + 4, matchLimit);
                if (len > best) {
                    best = len;
                    bestOff = ipIdx - idx;
                    if (len >= sufficient || len >= room) break;
                    // Positions inside the match that are already entered in the chains.
                    const Ozr32u span = static_cast<Ozr32u>(len - ChainBytes + 1) < ipIdx - idx
                                            ? static_cast<Ozr32u>(len - ChainBytes + 1) : ipIdx - idx;
                    Ozr32u far = 0;
                    for (Ozr32u k = 0; k < span; ++k) {
                        const Ozr32u d = chain[(idx + k) & 0xFFFF];
                        if (d > far) far = d, shift = k;
                    }
                    next = idx + shift - chain[(idx + shift) & 0xFFFF] - shift;
                }
            }
            idx = next;
        }
        *off = bestOff;
        return best > minLen && best >= kMinMatch ? static_cast<int>(best) : 0;
    }

    // Writes a sequence: literals [anchor, at), then a match. False when bounded
    // output has no room for it (and a final run of 5 literals after it).
    bool emit(const Ozr8u* at, int ml, Ozr32u off) {
        const size_t lit = static_cast<size_t>(at - anchor_);
        const size_t need = 1 + (lit >= 15 ? (lit - 15) / 255 + 1 : 0) + lit + 2 +
                            (ml >= 19 ? static_cast<size_t>(ml - 19) / 255 + 1 : 0);
        if (need + 1 + kLastLiterals > static_cast<size_t>(dstEnd_ - op_)) return false;
        Ozr8u* op = op_;
        Ozr8u* const token = op++;
        unsigned tok;
        if (lit >= kRunMask) {
            tok = kRunMask << 4;
            op = writeLength(op, lit - kRunMask);
        } else {
            tok = static_cast<unsigned>(lit) << 4;
        }
        copyExact(op, anchor_, lit);
        op += lit;
        store16(op, static_cast<Ozr16u>(off));
        op += 2;
        const size_t code = static_cast<size_t>(ml) - kMinMatch;
        if (code >= kRunMask) {
            tok |= kRunMask;
            op = writeLength(op, code - kRunMask);
        } else {
            tok |= static_cast<unsigned>(code);
        }
        *token = static_cast<Ozr8u>(tok);
        op_ = op;
        anchor_ = at + ml;
        return true;
    }

    static Ozr8u* writeLength(Ozr8u* op, size_t rest) {
        for (; rest >= 255; rest -= 255) *op++ = 255;
        *op++ = static_cast<Ozr8u>(rest);
        return op;
    }

    // Extends a match at ip (source ip - off) backwards over pending literals.
    const Ozr8u* extendBack(const Ozr8u* ip, int* len, Ozr32u off) const {
        const Ozr8u* const low = base_ + (lowIdx_ - kBias);
        while (ip > anchor_ && ip - off > low && ip[-1] == ip[-1 - static_cast<ptrdiff_t>(off)]) --ip, ++*len;
        return ip;
    }

    // Moves ip on to the next position that has a match (len, off); false when the
    // search limit comes first.
    bool nextMatch(const Ozr8u*& ip, int& len, Ozr32u& off) {
        for (; ip < mflimit_; ++ip) {
            off = 0;
            len = longest(ip, &off);
            if (len != 0) return true;
        }
        return false;
    }

    void parseLazy() {
        const Ozr8u* ip = src_;
        Ozr32u off;
        int len;
        while (nextMatch(ip, len, off)) {
            ip = extendBack(ip, &len, off);
            // Lookahead: a match one byte on that is longer, or two bytes on that is
            // longer by two, wins over this one (it pays for the literals it adds).
            while (len < lv_.sufficient && ip + 1 < mflimit_) {
                Ozr32u off2 = 0;
                int len2 = longest(ip + 1, &off2, static_cast<size_t>(len));
                if (len2 > len) {
                    ++ip, len = len2, off = off2;
                    continue;
                }
                if (ip + 2 >= mflimit_) break;
                len2 = longest(ip + 2, &off2, static_cast<size_t>(len + 1));
                if (len2 <= len + 1) break;
                ip += 2, len = len2, off = off2;
            }
            if (!emit(ip, len, off)) return;
            ip += len;
        }
    }

    void parseOptimal() {
        const Ozr8u* ip = src_;
        Ozr32u off;
        int len;
        while (nextMatch(ip, len, off)) {
            if (len >= lv_.sufficient) {
                if (!emit(ip, len, off)) return;
                ip += len;
                continue;
            }
            ip = parseWindow(ip, len, off);
            if (ip == nullptr) return;
        }
    }

    void relaxMatch(int at, Ozr32s price, Ozr32s mlen, Ozr32s off, bool fromL) {
        Node& n = nodes_[at];
        if (price < n.priceM) {
            n.priceM = price;
            n.mlen = mlen;
            n.off = off;
            n.mFromL = fromL;
        }
    }

    // The cheapest path through the positions from ip, which has a match (len, off).
    // Emits the chosen matches and returns where parsing goes on (null: output full).
    const Ozr8u* parseWindow(const Ozr8u* ip, int len, Ozr32u off) {
        Node* const nd = nodes_;
        constexpr Ozr32s kInf = 0x3FFFFFFF;
        const Ozr32s pending = static_cast<Ozr32s>(ip - anchor_);
        nd[0].priceM = pending == 0 ? 0 : kInf;
        nd[0].priceL = pending == 0 ? kInf : 0;
        nd[0].litlen = pending;
        int last = 0;  // positions 0..last are initialised
        auto extend = [&](int to) {
            for (int k = last + 1; k <= to; ++k) nd[k].priceM = nd[k].priceL = kInf;
            if (to > last) last = to;
        };
        int end = -1;
        const Ozr8u* forcedAt = nullptr;
        int forcedLen = 0;
        Ozr32u forcedOff = 0;
        for (int i = 0;; ++i) {
            int mlen = 0;
            Ozr32u moff = 0;
            if (i == 0) {
                mlen = len, moff = off;
            } else {
                // A window ends where no arrival reaches further. Past its length
                // nothing new is searched, but the arrivals already made are followed
                // to where the furthest one ends.
                if (i >= last) {
                    end = i;
                    break;
                }
                // Below the top level, a position is not searched when the next one
                // costs no more: a match from here reaching past `last` (at least 5
                // bytes, as last - i >= 4) has its tail one byte shorter starting at
                // i + 1, which ends at the same place for no more bytes.
                // With every match length wanted (top level), also a 4-byte match from here
                // must be unable to improve the position it reaches.
                const bool skip = i + kMinMatch <= last && nd[i + 1].price() <= nd[i].price() &&
                                  (!lv_.fullSearch || nd[i + kMinMatch].price() < nd[i].price() + matchPrice(kMinMatch));
                // Below the top level only matches that reach past every arrival so far
                // are looked for: they are what moves the window on.
                const size_t minLen = lv_.fullSearch ? 3 : static_cast<size_t>(last - i) < 3 ? 3 : last - i;
                if (!skip && i < kOptWindow && ip + i < mflimit_)
                    mlen = longest(ip + i, &moff, minLen, lv_.innerSearches);
                if (mlen >= lv_.sufficient) {
                    // Taken at once: the path ends here and this match follows it.
                    end = i;
                    forcedAt = ip + i, forcedLen = mlen, forcedOff = moff;
                    break;
                }
            }
            const Node& cur = nd[i];
            const Ozr32s curM = cur.priceM, curL = cur.priceL, curLit = cur.litlen;
            const Ozr32s price = cur.price();
            const bool curFromL = cur.fromL();
            extend(i + (mlen > 0 ? mlen : 1));
            // A literal: from the match state it starts a run, from the literal state
            // it lengthens one (and may need a length byte).
            {
                Node& nx = nd[i + 1];
                const Ozr32s viaM = curM + 1;
                const Ozr32s viaL = curL + litPrice(curLit + 1) - litPrice(curLit);
                const bool useL = viaL < viaM || (viaL == viaM && curLit + 1 < 1);
                const Ozr32s p = useL ? viaL : viaM;
                const Ozr32s run = useL ? curLit + 1 : 1;
                if (p < nx.priceL || (p == nx.priceL && run < nx.litlen)) {
                    nx.priceL = p;
                    nx.litlen = run;
                    nx.lFromL = useL;
                }
            }
            // Matches up to 18 bytes cost 3 bytes; longer ones add their length bytes.
            int L = kMinMatch;
            for (const Ozr32s p3 = price + 3; L <= mlen && L < 19; ++L)
                relaxMatch(i + L, p3, L, static_cast<Ozr32s>(moff), curFromL);
            for (; L <= mlen; ++L) relaxMatch(i + L, price + matchPrice(L), L, static_cast<Ozr32s>(moff), curFromL);
        }

        // Back from the end: mark where the chosen matches start.
        for (int k = 0; k <= end; ++k) nd[k].selLen = 0;
        bool inL = nd[end].fromL();
        for (int k = end; k > 0;) {
            if (inL) {
                inL = nd[k].lFromL;
                --k;
                continue;
            }
            const int from = k - nd[k].mlen;
            nd[from].selLen = nd[k].mlen;
            nd[from].selOff = nd[k].off;
            inL = nd[k].mFromL;
            k = from;
        }
        for (int k = 0; k < end;) {
            if (nd[k].selLen == 0) {
                ++k;
                continue;
            }
            if (!emit(ip + k, nd[k].selLen, static_cast<Ozr32u>(nd[k].selOff))) return nullptr;
            k += nd[k].selLen;
        }
        if (forcedAt != nullptr) {
            if (!emit(forcedAt, forcedLen, forcedOff)) return nullptr;
            return forcedAt + forcedLen;
        }
        return ip + end;
    }

    // The final literal run: everything from the anchor, or as much as fits.
    void lastLiterals() {
        size_t n = static_cast<size_t>(srcEnd_ - anchor_);
        const size_t room = static_cast<size_t>(dstEnd_ - op_);
        auto size = [](size_t k) { return 1 + k + (k >= 15 ? (k - 15) / 255 + 1 : 0); };
        if (size(n) > room) {
            n = room - 1;
            while (n > 0 && size(n) > room) --n;
        }
        Ozr8u* op = op_;
        if (n >= kRunMask) {
            *op++ = static_cast<Ozr8u>(kRunMask << 4);
            op = writeLength(op, n - kRunMask);
        } else {
            *op++ = static_cast<Ozr8u>(n << 4);
        }
        copyExact(op, anchor_, n);
        op_ = op + n;
        lastLits_ = static_cast<int>(n);
    }

    const Ozr8u* const base_;
    const Ozr8u* const src_;
    const Ozr8u* const srcEnd_;
    const Ozr8u* const matchLimit_;
    const Ozr8u* const mflimit_;
    Ozr8u* const dst_;
    Ozr8u* op_;
    Ozr8u* const dstEnd_;
    const Level lv_;
    const Ozr8u* anchor_ = src_;
    Ozr32u* heads_;   // 5-byte strings, heads of the chains
    Ozr32u* heads4_;  // 4-byte strings, newest occurrence only
    Ozr16u* chain_;
    Node* nodes_;
    Ozr32u lowIdx_;
    Ozr32u nextToUpdate_;
    int lastLits_ = 0;
};

}  // namespace
}  // namespace m7::lz4

using namespace m7::lz4;

extern "C" {

OzrResult m7_ozrsEncodeLZ4HCHashTableGetSize_8u(int* pHashTableSize) {
    OZR_CHECK_NULL(pHashTableSize);
    *pHashTableSize = kHCTableBytes;
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZ4HCHashTableInit_8u(Ozr8u* pHashTable) {
    OZR_CHECK_NULL(pHashTable);
    m7_ownsZero_8u(pHashTable, static_cast<size_t>(kHCTableBytes));
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZ4HCDictLimit_8u(const Ozr8u* pSrc, int srcIdx, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                                         Ozr8u* pHashTable, int dictLimit, int level) {
    OZR_CHECK_NULL(pSrc, pSrcLen, pDst, pDstLen, pHashTable);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    if (srcIdx < 0 || dictLimit < 0 || dictLimit > srcIdx) return ozrErrSize;
    if (level < 0 || level > 12) return ozrErrBadArgument;
    const Level& lv = kLevels[level == 0 ? kDefaultLevel : level];
    int written = 0;
    const int covered = lv.chainBytes == 5
        ? HCEncoder<5>(pSrc, srcIdx, *pSrcLen, pDst, *pDstLen, pHashTable, dictLimit, lv).run(&written)
        : HCEncoder<4>(pSrc, srcIdx, *pSrcLen, pDst, *pDstLen, pHashTable, dictLimit, lv).run(&written);
    const bool whole = covered == *pSrcLen;
    *pSrcLen = covered;
    *pDstLen = written;
    return whole ? ozrOk : ozrWarnDstSizeLess;
}

OzrResult m7_ozrsEncodeLZ4HC_8u(const Ozr8u* pSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable,
                                int level) {
    OZR_CHECK_NULL(pSrc, pSrcLen, pDst, pDstLen, pHashTable);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    if (level < 0 || level > 12) return ozrErrBadArgument;
    return m7_ozrsEncodeLZ4HCDictLimit_8u(pSrc, 0, pSrcLen, pDst, pDstLen, pHashTable, 0, level);
}

}  // extern "C"
