// Inverse Burrows-Wheeler transform.
//
// With C[c] the first sorted row that starts with byte c, the rows that start with c
// are, in order, the rotations that follow the occurrences of c in the last column
// L, in order. So T[C[L[i]]++] = i, taken over i = 0..n-1, maps each row to the row
// of the rotation one byte further on, and walking p = T[p] from the primary index
// spells the block: output[k] = L[p] after the k-th step.
//
// The walk is one dependent load per byte, so its speed is the memory latency of
// the link array. Each link carries the byte it leads to in its low 8 bits
// (link[j] = T[j] << 8 | L[T[j]]), which makes the walk one load per byte from one
// array instead of two from two. That needs n < 2^24; longer blocks use the plain
// form. Below 2^23 the spare top bit marks visited rows, which lets many walks run
// at once (see Pieces).
#include "bzip2_internal.h"

namespace {

constexpr int kMaxPackedLen = 1 << 24;

// Exclusive running sums of the counts: the first row of each leading byte.
void firstRows(const Ozr32u* counts, Ozr32u* start) {
    Ozr32u sum = 0;
    for (int v = 0; v < 256; ++v) {
        start[v] = sum;
        sum += counts[v];
    }
}

// Where the walk's k-th byte goes: p[k] for a walk that spells the block forwards,
// p[-k] for one that spells it backwards (the block decoder's predecessor links).
template <bool Back>
struct Out {
    Ozr8u* p;
    void put(int k, Ozr32u e) const { p[Back ? -k : k] = static_cast<Ozr8u>(e); }
};

// Follows the packed links from row p for n bytes; returns the row reached.
template <bool Back>
inline Ozr32u walkPacked(const Ozr32u* link, Ozr32u p, Out<Back> dst, int n) {
    int k = 0;
    for (; k + 4 <= n; k += 4) {
        Ozr32u e0 = link[p];
        dst.put(k, e0);
        Ozr32u e1 = link[e0 >> 8];
        dst.put(k + 1, e1);
        Ozr32u e2 = link[e1 >> 8];
        dst.put(k + 2, e2);
        Ozr32u e3 = link[e2 >> 8];
        dst.put(k + 3, e3);
        p = e3 >> 8;
    }
    for (; k < n; ++k) {
        Ozr32u e = link[p];
        dst.put(k, e);
        p = e >> 8;
    }
    return p;
}

// Follows the links from row p for n bytes like walkPacked, for links whose top
// bit may carry a visited mark; returns the row reached.
template <bool Back>
inline Ozr32u walkMarked(const Ozr32u* link, Ozr32u p, Out<Back> dst, int n) {
    for (int k = 0; k < n; ++k) {
        Ozr32u e = link[p];
        dst.put(k, e);
        p = (e >> 8) & 0x7FFFFF;
    }
    return p;
}

constexpr int kMaxSplitLen = 1 << 23;  // links of 23 bits leave the top bit free
constexpr int kMinSegment = 4096;      // shorter walks are not worth splitting
constexpr Ozr32u kVisited = 0x80000000u;

// The walk as several walks in flight (K at a time), so that K loads are under way
// instead of one. The first walk starts at the walk's start row; each further walk
// starts at a row that no walk has visited yet. Every walk runs until it reaches a
// marked row, which must be the first row (the head) of another walk's piece: the
// pieces then follow each other in that order. A walk that stops hands its slot to
// a new walk from a fresh row. No piece knows where its bytes belong until the
// chain of pieces is complete, so the bytes go wherever the output has room, in
// fragments: chunks handed out in order, and the unused ends of closed fragments.
// At the end the pieces, followed from the start row's piece, must come back to it
// and cover all n rows exactly once; that holds for any genuine last column. Then
// the links are no longer needed, the output is copied into their space and each
// fragment copied to its place. A column whose links form several cycles fails the
// check (with the links still intact) and is walked again the plain way. A backward
// walk fills each fragment from its top, so that every fragment moves to its place
// in one copy. Past kMaxPieces no new walk starts; running out of fragments fails
// the check like a broken column (neither happens for bzip2's blocks: about 80
// pieces and 210 fragments for 900 000 bytes).
constexpr int kMaxPieces = 256;
constexpr int kMaxFragments = 512;
constexpr int kWalks = 16;

struct Fragment {
    Ozr32u lo, cap;  // the output bytes [lo, lo + cap) handed to it
    Ozr32u len;      // bytes written
    int next;        // the piece's next fragment, -1 at its end
};

struct Piece {
    Ozr32u head;  // first row, marked
    int first, last, next;
    bool followed;  // some piece leads into this one
};

struct Walker {
    Ozr32u row;   // next row to visit
    Ozr8u* at;    // where its next byte goes
    Ozr32u left;  // room left in its fragment
    int piece, frag;
};

// Runs the A walkers in turn until one of them reaches a marked row or has no room
// left; returns that walker. Between those events every walker makes the same
// number of steps, so only the marks are tested inside the loop.
template <bool Back, int A>
int stepWalkers(Ozr32u* link, Walker* w) {
    Ozr32u row[A];
    Ozr8u* at[A];
    Ozr32u room = w[0].left;
    int least = 0;
    for (int i = 0; i < A; ++i) {
        row[i] = w[i].row;
        at[i] = w[i].at;
        if (w[i].left < room) {
            room = w[i].left;
            least = i;
        }
    }
    int stop = least;
    Ozr32u steps = 0;
    for (; steps < room; ++steps) {
        const ptrdiff_t k = Back ? -static_cast<ptrdiff_t>(steps) : static_cast<ptrdiff_t>(steps);
#pragma GCC unroll 4
        for (int i = 0; i < A; ++i) {
            const Ozr32u e = link[row[i]];
            if (e & kVisited) {
                stop = i;
                goto done;
            }
            link[row[i]] = e | kVisited;
            at[i][k] = static_cast<Ozr8u>(e);
            row[i] = (e >> 8) & 0x7FFFFF;
        }
    }
done:
    // Walkers before `stop` made one step more than the others in the last round.
    for (int i = 0; i < A; ++i) {
        const Ozr32u made = steps + (steps < room && i < stop ? 1 : 0);
        w[i].row = row[i];
        w[i].left -= made;
        w[i].at = at[i] + (Back ? -static_cast<ptrdiff_t>(made) : static_cast<ptrdiff_t>(made));
    }
    return stop;
}

// stepWalkers for the number of walkers in flight, A at most.
template <bool Back, int A>
int stepSome(Ozr32u* link, Walker* w, int active) {
    if constexpr (A > 1) {
        if (active < A) return stepSome<Back, A - 1>(link, w, active);
    }
    return stepWalkers<Back, A>(link, w);
}

template <bool Back>
class Pieces {
public:
    Pieces(Ozr32u* link, Ozr8u* dst, int n) : link_(link), dst_(dst), n_(static_cast<Ozr32u>(n)) {
        chunk_ = static_cast<Ozr32u>(n >> 6) + 1;
        if (chunk_ < 4096) chunk_ = 4096;
        seed_ = static_cast<Ozr32u>(n) * 2654435761u;
    }

    bool run(Ozr32u start) {
        if (!spawn(w_[0], start)) return false;
        active_ = 1;
        for (int i = 1; i < kWalks; ++i) {
            Ozr32u x;
            if (!freshRow(x) || !spawn(w_[active_], x)) break;
            ++active_;
        }
        while (active_ > 0) {
            const int i = stepSome<Back, kWalks>(link_, w_, active_);
            Walker& v = w_[i];
            if (v.left == 0 && !(link_[v.row] & kVisited)) {
                close(v);
                if (!open(v)) return false;
                continue;
            }
            // Reached a marked row: the head of the piece that follows.
            int j = 0;
            while (j < nPieces_ && (piece_[j].head != v.row || piece_[j].followed)) ++j;
            if (j == nPieces_) return false;
            piece_[v.piece].next = j;
            piece_[j].followed = true;
            close(v);
            Ozr32u x;
            if (!freshRow(x) || !spawn(v, x)) {
                w_[i] = w_[active_ - 1];
                --active_;
            }
        }
        return place();
    }

private:
    // A row no walk has visited, by random probes (few once most rows are done).
    bool freshRow(Ozr32u& x) {
        if (n_ - written_ < static_cast<Ozr32u>(kMinSegment) || nPieces_ == kMaxPieces) return false;
        for (int probe = 0; probe < 64; ++probe) {
            seed_ = seed_ * 1664525u + 1013904223u;
            const Ozr32u c = static_cast<Ozr32u>((static_cast<Ozr64u>(seed_) * n_) >> 32);
            if (!(link_[c] & kVisited)) {
                x = c;
                return true;
            }
        }
        return false;
    }

    // A new piece from row x (unvisited): its first byte is written and x marked at
    // once, so that a walk arriving at x sees a head.
    bool spawn(Walker& v, Ozr32u x) {
        if (nPieces_ == kMaxPieces) return false;
        Piece& p = piece_[nPieces_];
        p.head = x;
        p.first = p.last = p.next = -1;
        p.followed = false;
        v.piece = nPieces_++;
        if (!open(v)) return false;
        const Ozr32u e = link_[x];
        link_[x] = e | kVisited;
        *v.at = static_cast<Ozr8u>(e);
        v.at += Back ? -1 : 1;
        --v.left;
        v.row = (e >> 8) & 0x7FFFFF;
        return true;
    }

    // Gives the walker a new fragment: an unused end of a closed one, or the next chunk.
    bool open(Walker& v) {
        if (nFrags_ == kMaxFragments) return false;
        Ozr32u lo, cap;
        if (nFree_ > 0) {
            --nFree_;
            lo = free_[nFree_].lo;
            cap = free_[nFree_].cap;
        } else if (bump_ < n_) {
            lo = bump_;
            cap = n_ - bump_ < chunk_ ? n_ - bump_ : chunk_;
            bump_ += cap;
        } else if (!steal(v, lo, cap)) {
            return false;
        }
        Fragment& f = frag_[nFrags_];
        f.lo = lo;
        f.cap = cap;
        f.len = 0;
        f.next = -1;
        Piece& p = piece_[v.piece];
        if (p.last >= 0) frag_[p.last].next = nFrags_;
        else p.first = nFrags_;
        p.last = nFrags_;
        v.frag = nFrags_++;
        v.at = dst_ + (Back ? lo + cap - 1 : lo);
        v.left = cap;
        return true;
    }

    // Near the end the room left lies in the other walkers' fragments: the walker
    // with the most gives half of it (the end it would write last).
    bool steal(const Walker& v, Ozr32u& lo, Ozr32u& cap) {
        Walker* most = nullptr;
        for (int i = 0; i < active_; ++i) {
            Walker& u = w_[i];
            if (&u != &v && u.left > 1 && (most == nullptr || u.left > most->left)) most = &u;
        }
        if (most == nullptr) return false;
        Fragment& f = frag_[most->frag];
        cap = most->left / 2;
        most->left -= cap;
        f.cap -= cap;
        if constexpr (Back) {
            lo = f.lo;
            f.lo += cap;
        } else {
            lo = f.lo + f.cap;
        }
        return true;
    }

    // Ends the walker's fragment; its unused end goes back to the pool.
    void close(const Walker& v) {
        Fragment& f = frag_[v.frag];
        f.len = f.cap - v.left;
        written_ += f.len;
        if (v.left > 0 && nFree_ < kMaxPieces + kWalks) {
            free_[nFree_].lo = Back ? f.lo : f.lo + f.len;
            free_[nFree_].cap = v.left;
            ++nFree_;
        }
    }

    // The pieces in order from the start row's; false unless they close the cycle
    // over all n rows.
    bool place() {
        int count = 0;
        Ozr32u total = 0;
        int j = 0;
        do {
            for (int f = piece_[j].first; f >= 0; f = frag_[f].next) total += frag_[f].len;
            ++count;
            j = piece_[j].next;
        } while (j > 0 && count <= nPieces_);
        if (j != 0 || count != nPieces_ || total != n_) return false;
        Ozr8u* const copy = reinterpret_cast<Ozr8u*>(link_);
        m7_ownsCopy_8u(dst_, copy, n_);
        Ozr32u pos = 0;
        j = 0;
        do {
            for (int f = piece_[j].first; f >= 0; f = frag_[f].next) {
                const Fragment& g = frag_[f];
                const Ozr32u from = Back ? g.lo + g.cap - g.len : g.lo;
                const Ozr32u to = Back ? n_ - pos - g.len : pos;
                m7_ownsCopy_8u(copy + from, dst_ + to, g.len);
                pos += g.len;
            }
            j = piece_[j].next;
        } while (j != 0);
        return true;
    }

    struct Span {
        Ozr32u lo, cap;
    };

    Ozr32u* link_;
    Ozr8u* dst_;
    Ozr32u n_;
    Ozr32u chunk_;
    Ozr32u seed_;
    Ozr32u bump_ = 0;
    Ozr32u written_ = 0;
    int nPieces_ = 0, nFrags_ = 0, nFree_ = 0;
    int active_ = 0;  // walkers in flight: w_[0, active_)
    Walker w_[kWalks];
    Piece piece_[kMaxPieces];
    Fragment frag_[kMaxFragments];
    Span free_[kMaxPieces + kWalks];
};

// The whole walk from row `start`: n bytes, ending back at `start`. dst is the
// output's first byte.
template <bool Back>
void walk(Ozr32u* link, Ozr32u start, Ozr8u* dst, int n) {
    const Out<Back> out{Back ? dst + n - 1 : dst};
    if (n < kMaxSplitLen) {
        if (n >= kMinSegment) {
            Pieces<Back> pieces(link, dst, n);
            if (pieces.run(start)) return;
        }
        walkMarked(link, start, out, n);
    } else {
        walkPacked(link, start, out, n);
    }
}

}  // namespace

extern "C" {

void m7_ownsBWTInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int index, const Ozr32u* counts, Ozr32u* pLink) {
    Ozr32u start[256];
    firstRows(counts, start);
    if (n < kMaxPackedLen) {
        for (int i = 0; i < n; ++i) {
            Ozr8u c = pSrc[i];
            pLink[start[c]++] = static_cast<Ozr32u>(i) << 8 | c;
        }
        walk<false>(pLink, static_cast<Ozr32u>(index), pDst, n);
        return;
    }
    for (int i = 0; i < n; ++i) pLink[start[pSrc[i]]++] = static_cast<Ozr32u>(i);
    Ozr32u p = static_cast<Ozr32u>(index);
    for (int k = 0; k < n; ++k) {
        p = pLink[p];
        pDst[k] = pSrc[p];
    }
}

void m7_ownsBWTInvLinked_8u(Ozr32u* pLink, Ozr8u* pDst, int n, int index, const Ozr32u* counts) {
    Ozr32u start[256];
    firstRows(counts, start);
    for (int i = 0; i < n; ++i) pLink[start[pLink[i] & 0xFF]++] |= static_cast<Ozr32u>(i) << 8;
    walk<false>(pLink, pLink[index] >> 8, pDst, n);
}

void m7_ownsBWTInvWalkBack_8u(Ozr32u* pLink, Ozr8u* pDst, int n, int index) {
    walk<true>(pLink, static_cast<Ozr32u>(index), pDst, n);
}

OzrResult m7_ozrsBWTInvGetSize_8u(int n, int* pSize) {
    OZR_CHECK_NULL(pSize);
    OZR_CHECK_POSITIVE(n);
    *pSize = 4 * n + 1024;
    return ozrOk;
}

OzrResult m7_ozrsBWTInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int index, Ozr8u* pBuffer) {
    OZR_CHECK_NULL(pSrc, pDst, pBuffer);
    OZR_CHECK_POSITIVE(n);
    if (index >= n) return ozrErrSize;
    if (n == 1) return m7_ozrsCopy_8u(pSrc, pDst, 1);
    if (index < 0) index = 0;
    // The 1024 bytes of counters are kept on the stack; the slack serves to align
    // the link array for 32-bit access.
    Ozr32u counts[256];
    m7::bz2::countBytes(pSrc, n, counts);
    Ozr8u* aligned = pBuffer + ((4 - (reinterpret_cast<uintptr_t>(pBuffer) & 3)) & 3);
    m7_ownsBWTInv_8u(pSrc, pDst, n, index, counts, reinterpret_cast<Ozr32u*>(aligned));
    return ozrOk;
}

}  // extern "C"
