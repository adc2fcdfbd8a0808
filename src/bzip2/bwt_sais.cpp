// Suffix sorting by induced sorting (SA-IS: Nong, Zhang and Chan, "Two efficient
// algorithms for linear time suffix array construction", 2009), the linear-time
// core of the forward BWT.
//
// The BWT sorts cyclic rotations, not suffixes. The two orders agree on a block
// that is its own least rotation (a power of a Lyndon word): there, the rotation
// order equals the order of the suffixes with an end marker smaller than every
// byte. So the forward transform rotates the block to its least rotation, sorts
// that string's suffixes here, and reads the last column off the suffix order.
//
// Types: suffix i is S-type when it is smaller than suffix i + 1, L-type when
// larger (the last suffix is L-type: the virtual end marker is smallest). An LMS
// position is an S-type position whose predecessor is L-type. One induced pass
// (LMS seeds at their bucket ends -> L-types left to right -> S-types right to
// left) sorts the LMS substrings; they are named, and the string of names is
// sorted recursively when names repeat (by prefix doubling when only a few do); a
// second pass from the sorted LMS suffixes gives the suffix array.
//
// No type table: the passes and scans tell types from neighbouring bytes. In the
// left-to-right pass, the entries met are L-type or LMS, and j - 1 is L-type
// exactly when T[j-1] >= T[j]. In the right-to-left pass, with equal bytes j - 1
// has the type of j, and j is S-type exactly when its slot lies in the part of its
// bucket that this pass has filled so far (S-types sort after the L-types of a
// bucket).
//
// Naming rides on the first pair of passes. Every entry of that pair stands for
// the substring from its position through the next LMS position (types
// included), its class; entries of one class are adjacent, and bit 31 of an entry
// marks where a class starts. An entry induced from a source has the class "its
// byte, then the source's class", so it starts a class in its bucket exactly when
// the previous entry induced into that bucket came from another source class
// (last[] keeps the class counter of that source). The left-to-right pass fills
// buckets rightwards and marks "differs from the left neighbour", the
// right-to-left pass fills the S parts leftwards and marks "differs from the right
// neighbour"; the right-to-left scan reads either kind. An LMS entry met in that
// scan gets the running count of LMS classes as its name, so no substring is
// compared byte by byte.
#include <emmintrin.h>

#include "bwt_internal.h"
#include "unaligned.h"

namespace {

using m7::SaisWorkspace;

constexpr Ozr32s kEmpty = -1;
constexpr Ozr32s kStart = static_cast<Ozr32s>(0x80000000u);  // class-start mark
constexpr Ozr32s kPos = 0x7FFFFFFF;
// An L-part entry of the first pair of passes whose predecessor is L-type has
// nothing left to induce; the left-to-right pass replaces it by kDone (keeping its
// class mark), so the right-to-left pass passes it without reading T.
constexpr Ozr32s kDone = 0x7FFFFFFE;
constexpr int kAhead = 32;  // entries fetched ahead in the loops that follow SA into T

template <class C>
void countSymbols(const C* T, int n, int K, Ozr32s* counts) {
    if constexpr (sizeof(C) == 1) {
        m7::bz2::countBytes(T, n, counts, K);
    } else {
        for (int c = 0; c < K; ++c) counts[c] = 0;
        for (int i = 0; i < n; ++i) ++counts[T[i]];
    }
}

inline void bucketHeads(const Ozr32s* counts, int K, Ozr32s* b) {
    Ozr32s sum = 0;
    for (int c = 0; c < K; ++c) {
        b[c] = sum;
        sum += counts[c];
    }
}

inline void bucketTails(const Ozr32s* counts, int K, Ozr32s* b) {
    Ozr32s sum = 0;
    for (int c = 0; c < K; ++c) {
        sum += counts[c];
        b[c] = sum;
    }
}

// Bit-reversed bytes.
struct ReversedBytes {
    Ozr8u r[256];
    constexpr ReversedBytes() : r() {
        for (int x = 0; x < 256; ++x) {
            int y = 0;
            for (int k = 0; k < 8; ++k) y |= ((x >> k) & 1) << (7 - k);
            r[x] = static_cast<Ozr8u>(y);
        }
    }
};
constexpr ReversedBytes kReversed;

inline unsigned reverse16(unsigned x) { return static_cast<unsigned>(kReversed.r[x & 255]) << 8 | kReversed.r[x >> 8]; }

// For x = base .. base + 15: bit x - base of *below says T[x] < T[x + 1] (as
// unsigned symbols), of *equal T[x] == T[x + 1]. Reads T[base, base + 17).
template <class C>
inline void compareNext16(const C* T, int base, unsigned* below, unsigned* equal) {
    auto load = [T, base](int x) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(T + base + x)); };
    __m128i lt, eq;  // 16 lanes of bytes, all ones where true
    if constexpr (sizeof(C) == 1) {
        const __m128i flip = _mm_set1_epi8(static_cast<char>(0x80));
        __m128i a = load(0), b = load(1);
        lt = _mm_cmpgt_epi8(_mm_xor_si128(b, flip), _mm_xor_si128(a, flip));
        eq = _mm_cmpeq_epi8(a, b);
    } else if constexpr (sizeof(C) == 2) {
        const __m128i flip = _mm_set1_epi16(static_cast<short>(0x8000));
        __m128i a0 = load(0), a1 = load(8), b0 = load(1), b1 = load(9);
        lt = _mm_packs_epi16(_mm_cmpgt_epi16(_mm_xor_si128(b0, flip), _mm_xor_si128(a0, flip)),
                             _mm_cmpgt_epi16(_mm_xor_si128(b1, flip), _mm_xor_si128(a1, flip)));
        eq = _mm_packs_epi16(_mm_cmpeq_epi16(a0, b0), _mm_cmpeq_epi16(a1, b1));
    } else {
        const __m128i flip = _mm_set1_epi32(static_cast<int>(0x80000000u));
        __m128i l[4], e[4];
        for (int q = 0; q < 4; ++q) {
            __m128i a = load(4 * q), b = load(4 * q + 1);
            l[q] = _mm_cmpgt_epi32(_mm_xor_si128(b, flip), _mm_xor_si128(a, flip));
            e[q] = _mm_cmpeq_epi32(a, b);
        }
        lt = _mm_packs_epi16(_mm_packs_epi32(l[0], l[1]), _mm_packs_epi32(l[2], l[3]));
        eq = _mm_packs_epi16(_mm_packs_epi32(e[0], e[1]), _mm_packs_epi32(e[2], e[3]));
    }
    *below = static_cast<unsigned>(_mm_movemask_epi8(lt));
    *equal = static_cast<unsigned>(_mm_movemask_epi8(eq));
}

// LMS positions of T[0, n) in text order into the m words before `end`; returns m.
// The scalar steps are branch-free (about a third of the positions are LMS on
// text, at random): each also writes end[-m-1], which must be writable.
template <class C>
int lmsPositions(const C* T, int n, Ozr32s* end) {
    Ozr32s* p = end;
    int nextS = 0;  // the last suffix is L-type
    int i = n - 2;
    // Sixteen positions x = base .. base + 15 at a time, from the end. With
    // the bits reversed (bit r for x = base + 15 - r), "x is S-type" is the
    // carry chain c_r = below_r | (equal_r & c_{r-1}) with c_{-1} the type of
    // base + 16, which one addition resolves.
    for (; i >= 15; i -= 16) {
        int base = i - 15;
        unsigned below, equal;
        compareNext16(T, base, &below, &equal);
        unsigned g = reverse16(below), x = g | reverse16(equal);
        unsigned sRev = ((x + g + static_cast<unsigned>(nextS)) ^ x ^ g) >> 1;
        // Bit r: type of base + 16 - r, r = 0..16; LMS where S follows L.
        unsigned y = sRev << 1 | static_cast<unsigned>(nextS);
        Ozr64u lms = y & ~(y >> 1) & 0xFFFF;
        while (lms) {
            unsigned r = m7::trailingZeros64(lms);
            *--p = base + 16 - static_cast<int>(r);
            lms &= lms - 1;
        }
        nextS = (y >> 16) & 1;
    }
    // i is S-type when T[i] - T[i+1] < (i + 1 is S-type): below, or equal and
    // followed by an S-type.
    Ozr64s next = T[i + 1];
    for (; i >= 0; --i) {
        Ozr64s c = T[i];
        int s = c - next < nextS;
        p[-1] = i + 1;
        p -= nextS > s;
        nextS = s;
        next = c;
    }
    return static_cast<int>(end - p);
}

// Where the final right-to-left pass writes the last column, when the caller
// wants that rather than the suffix array.
struct LastColumn {
    Ozr8u* dst;
    Ozr32s origin;  // the position whose sorted slot is the primary index
    int* index;
};

// The four induced passes are compiled as functions of their own: inlined into
// the level, their loops' code depended on whatever else the level does (5 %
// either way on text after unrelated changes there).

// First left-to-right pass: L-type entries after the seeds, with class marks.
template <class C>
__attribute__((noinline))
void induceLNamed(const C* T, Ozr32s* SA, int n, int K, const Ozr32s* counts, Ozr32s* b, Ozr32s* last) {
    bucketHeads(counts, K, b);
    for (int c = 0; c < K; ++c) last[c] = -1;
    SA[b[T[n - 1]]++] = (n - 1) | kStart;  // induced by the end marker: a class of its own
    Ozr32s cls = 0;
    for (int i = 0; i < n; ++i) {
        if (i + kAhead < n) __builtin_prefetch(&T[(SA[i + kAhead] & kPos) - 1]);
        Ozr32s e = SA[i];
        if (e == kEmpty) continue;
        cls += e < 0;
        Ozr32s j = e & kPos;
        if (j == 0) {
            SA[i] = kDone | (e & kStart);
            continue;
        }
        C c0 = T[j - 1];
        if (c0 >= T[j]) {
            SA[i] = kDone | (e & kStart);
            Ozr32s mark = last[c0] != cls ? kStart : 0;
            last[c0] = cls;
            SA[b[c0]++] = (j - 1) | mark;
        }
    }
}

// First right-to-left pass: S-type entries, with class marks; names the LMS
// entries into names[pos / 2], counting from 1 at the largest. Returns the number
// of distinct names.
template <class C>
__attribute__((noinline))
int induceSNamed(const C* T, Ozr32s* SA, int n, int K, const Ozr32s* counts, Ozr32s* b, Ozr32s* last,
                 Ozr32s* names) {
    bucketTails(counts, K, b);
    for (int c = 0; c < K; ++c) last[c] = -1;
    Ozr32s cls = 0, lastLMS = -1;
    int count = 0;
    bool carry = true;  // the entry to the right starts a new class relative to this one
    for (int i = n - 1; i >= 0; --i) {
        if (i >= kAhead) __builtin_prefetch(&T[(SA[i - kAhead] & kPos) - 1]);
        Ozr32s e = SA[i];
        Ozr32s j = e & kPos;
        if (j >= kDone) {  // kDone: an L part's entry; kEmpty (not met in practice)
            cls += carry;
            carry = e == kEmpty || e < 0;
            continue;
        }
        C c1 = T[j];
        bool inS = i >= b[c1];
        bool starts = inS ? e < 0 : carry;  // S part: marked towards the right; L part: the left
        carry = inS || e < 0;
        cls += starts;
        if (j == 0) continue;
        C c0 = T[j - 1];
        if (c0 < c1 || (c0 == c1 && inS)) {
            Ozr32s mark = last[c0] != cls ? kStart : 0;
            last[c0] = cls;
            SA[--b[c0]] = (j - 1) | mark;
        } else if (inS) {  // S-type with an L-type predecessor: LMS
            if (cls != lastLMS) {
                ++count;
                lastLMS = cls;
            }
            names[j >> 1] = count;
        }
    }
    return count;
}

// Final left-to-right pass: every L-type suffix placed at the head of its bucket,
// in order, from the entries already in SA (the virtual end marker first).
// For the last column, an entry whose predecessor is L-type is done with after
// this pass: it is replaced by its last-column byte with bit 31 set.
template <class C, bool kLast>
__attribute__((noinline))
void induceL(const C* T, Ozr32s* SA, int n, int K, const Ozr32s* counts, Ozr32s* b, const LastColumn* out) {
    bucketHeads(counts, K, b);
    SA[b[T[n - 1]]++] = n - 1;
    for (int i = 0; i < n; ++i) {
        if (i + kAhead < n) __builtin_prefetch(&T[SA[i + kAhead] - 1]);
        Ozr32s j = SA[i];
        if (j <= 0) continue;
        C c0 = T[j - 1];
        if (c0 >= T[j]) {
            SA[b[c0]++] = j - 1;
            if constexpr (kLast) {
                if (j != out->origin) SA[i] = kStart | static_cast<Ozr32s>(c0);
            }
        }
    }
}

// Final right-to-left pass: every S-type suffix placed at the tail of its bucket.
// Every slot is final when the scan reaches it, so the last column can be written
// on the way.
template <class C, bool kLast>
__attribute__((noinline))
void induceS(const C* T, Ozr32s* SA, int n, int K, const Ozr32s* counts, Ozr32s* b, const LastColumn* out) {
    bucketTails(counts, K, b);
    for (int i = n - 1; i >= 0; --i) {
        if (i >= kAhead) __builtin_prefetch(&T[(SA[i - kAhead] & kPos) - 1]);
        Ozr32s j = SA[i];
        if constexpr (kLast) {
            if (j < 0) {
                out->dst[i] = static_cast<Ozr8u>(j);
                continue;
            }
            out->dst[i] = static_cast<Ozr8u>(T[j > 0 ? j - 1 : n - 1]);
            if (j == out->origin) *out->index = i;
        }
        if (j <= 0) continue;
        C c0 = T[j - 1], c1 = T[j];
        if (c0 < c1 || (c0 == c1 && i >= b[c1])) SA[--b[c0]] = j - 1;
    }
}

inline void fillEmpty(Ozr32s* SA, int n) {
    m7_ownsSet_8u(0xFF, reinterpret_cast<Ozr8u*>(SA), 4 * static_cast<size_t>(n));  // kEmpty = -1
}

// Carves `words` 32-bit words from the workspace; null when they do not fit.
inline Ozr32s* take(SaisWorkspace* ws, size_t words) {
    if (words > ws->words) return nullptr;
    Ozr32s* p = ws->base;
    ws->base += words;
    ws->words -= words;
    return p;
}

// Sorts key[0, size): insertion sort for small groups, heap sort (no quadratic
// case) for the rest.
void sortKeys(Ozr64u* key, int size) {
    if (size <= 16) {
        for (int i = 1; i < size; ++i) {
            Ozr64u v = key[i];
            int j = i;
            for (; j > 0 && key[j - 1] > v; --j) key[j] = key[j - 1];
            key[j] = v;
        }
        return;
    }
    auto sift = [key](int i, int end) {
        Ozr64u v = key[i];
        for (int c = 2 * i + 1; c < end; c = 2 * i + 1) {
            if (c + 1 < end && key[c + 1] > key[c]) ++c;
            if (key[c] <= v) break;
            key[i] = key[c];
            i = c;
        }
        key[i] = v;
    };
    for (int i = size / 2 - 1; i >= 0; --i) sift(i, size);
    for (int end = size - 1; end > 0; --end) {
        Ozr64u v = key[0];
        key[0] = key[end];
        key[end] = v;
        sift(0, end);
    }
}

// Suffix order of the reduced string when few of its names repeat (prefix doubling,
// Larsson and Sadakane, "Faster suffix sorting", 2007): cheaper than a level of
// induced sorting whose alphabet is nearly as large as its string, since only the
// groups of equal names take part. rank[0, m) holds the names (0 .. distinct - 1,
// rising with the order) and is overwritten; SA[0, m) gets the sorted indices into
// the reduced string. Each entry's rank becomes the last slot of its group; a group
// is split by the rank h places further on (the end of the string below every
// rank), which sorts it by twice as many names, h = 1, 2, 4, ...: at most log2(m)
// rounds over the entries still in groups. Ranks refined earlier in a round only
// order more finely, which keeps the keys consistent. ws holds doublingRoom words.
// Workspace words doublingSort needs: the group starts, two lists of groups of two
// or more (at most m - distinct of them in any round) and the keys of the largest
// group (at most m - distinct + 1 entries, 64 bits each, aligned).
inline size_t doublingRoom(int m, int distinct) {
    size_t dup = static_cast<size_t>(m - distinct);
    return static_cast<size_t>(distinct) + 1 + 4 * dup + 2 * (dup + 1) + 1;
}

void doublingSort(Ozr32s* rank, Ozr32s* SA, int m, int distinct, SaisWorkspace ws) {
    size_t dup = static_cast<size_t>(m - distinct);
    Ozr32s* start = ws.base;
    Ozr32s* cur = start + distinct + 1;
    Ozr32s* nxt = cur + 2 * dup;
    Ozr32s* keyWords = nxt + 2 * dup;
    Ozr64u* key = reinterpret_cast<Ozr64u*>(keyWords + (reinterpret_cast<uintptr_t>(keyWords) & 4 ? 1 : 0));
    for (int c = 0; c <= distinct; ++c) start[c] = 0;
    for (int k = 0; k < m; ++k) ++start[rank[k] + 1];
    for (int c = 0; c < distinct; ++c) start[c + 1] += start[c];
    for (int k = 0; k < m; ++k) SA[start[rank[k]]++] = k;
    // start[c] is now the end of group c.
    int groups = 0;
    for (int c = 0, begin = 0; c < distinct; begin = start[c++]) {
        if (start[c] - begin > 1) {
            cur[2 * groups] = begin;
            cur[2 * groups + 1] = start[c] - 1;
            ++groups;
        }
    }
    for (int k = 0; k < m; ++k) rank[k] = start[rank[k]] - 1;
    for (Ozr64s h = 1; groups > 0; h *= 2) {
        int next = 0;
        for (int g = 0; g < groups; ++g) {
            Ozr32s lo = cur[2 * g], hi = cur[2 * g + 1];
            int size = hi - lo + 1;
            for (int x = 0; x < size; ++x) {
                Ozr32s k = SA[lo + x];
                Ozr64u r = k + h < m ? static_cast<Ozr64u>(rank[k + h]) + 1 : 0;
                key[x] = r << 32 | static_cast<Ozr32u>(k);
            }
            sortKeys(key, size);
            for (int x = 0; x < size;) {
                int y = x;
                while (y + 1 < size && (key[y + 1] >> 32) == (key[x] >> 32)) ++y;
                for (int z = x; z <= y; ++z) {
                    Ozr32s k = static_cast<Ozr32s>(key[z] & 0xFFFFFFFFu);
                    SA[lo + z] = k;
                    rank[k] = lo + y;
                }
                if (y > x) {
                    nxt[2 * next] = lo + x;
                    nxt[2 * next + 1] = lo + y;
                    ++next;
                }
                x = y + 1;
            }
        }
        Ozr32s* t = cur;
        cur = nxt;
        nxt = t;
        groups = next;
    }
}

// Names of the LMS substrings by the first pair of induced passes: LMS seeds at
// their bucket tails (the first of each bucket starts the bucket's one seed
// class), L-types induced left to right, S-types right to left. The m LMS
// positions lie before lmsEnd in text order. Returns the number of names.
template <class C>
__attribute__((always_inline)) inline int sortAndName(const C* T, Ozr32s* SA, int n, int K, const Ozr32s* counts,
                                                      Ozr32s* b, Ozr32s* last, Ozr32s* names, const Ozr32s* lmsEnd,
                                                      int m) {
    fillEmpty(SA, n);
    bucketTails(counts, K, b);
    for (const Ozr32s* p = lmsEnd; p > lmsEnd - m;) {
        // The stores scatter over SA: their lines are fetched some steps ahead.
        if (p - kAhead > lmsEnd - m) __builtin_prefetch(&SA[b[T[p[-kAhead]]] - 1], 1);
        Ozr32s i = *--p;
        SA[--b[T[i]]] = i;
    }
    {
        Ozr32s sum = 0;
        for (int c = 0; c < K; ++c) {
            sum += counts[c];
            if (b[c] != sum) SA[b[c]] |= kStart;
        }
    }
    induceLNamed(T, SA, n, K, counts, b, last);
    return m > 0 ? induceSNamed(T, SA, n, K, counts, b, last, names) : 0;
}

// Naming by hashing, for strings made of few distinct LMS substrings (periodic
// and near-periodic data, and the reduced strings they give): there the induced
// naming passes cost as much as on random data, a cache miss per entry, while a
// table of the distinct substrings stays in cache. Substring k runs from lms[k]
// through lms[k + 1]; the last one runs to the end of the string and the end
// marker, so it equals no other. Substrings are equal when their symbols are
// (the types follow from the symbols when both end at an LMS position), and they
// order by their symbols, then, when one is a prefix of the other, the longer one
// first (its symbol where the shorter one ends is L-type, the shorter one's
// LMS end S-type), except that the last one, whose end marker comes first, is the
// smaller. The table gives up when it fills or, unless the string repeats itself,
// when new substrings keep coming (more than one in 16 beyond the first 1024:
// early on text and random data, which the induced passes name faster). A string
// that repeats itself with a long period brings a period's worth of new
// substrings first and none after.
constexpr int kHashMinBits = 8, kHashMaxBits = 15;
// Multiplier of the substring hashes (2^64 over the golden ratio, odd): spreads the
// low-order differences of packed symbols into the top bits that pick a slot.
constexpr Ozr64u kMix = 0x9E3779B97F4A7C15ull;

// The shift P < 2^16 at which T mostly repeats itself, or 0: P is where its first
// 16 symbols occur again, and 28 of 32 probes spread over T must find their 16
// symbols again P further on (a long period with a few changes). Reads at most
// 2^16 + 48 symbols for the shift.
template <class C>
int repeatShift(const C* T, int n) {
    constexpr int kProbe = 16, kMaxShift = 1 << 16;
    if (n < 64 * kProbe) return 0;
    auto same = [T](int a, int b) {
        for (int x = 0; x < kProbe; ++x) {
            if (T[a + x] != T[b + x]) return false;
        }
        return true;
    };
    int limit = n / 2 - kProbe < kMaxShift ? n / 2 - kProbe : kMaxShift;
    int shift = 1;
    while (shift < limit && (T[shift] != T[0] || !same(0, shift))) ++shift;
    if (shift >= limit) return 0;
    int hits = 0, step = (n - shift - kProbe) / 32;
    for (int s = 0; s < 32; ++s) hits += same(s * step, s * step + shift);
    return hits >= 28 ? shift : 0;
}

// The first position i >= from (from >= shift) with T[i] != T[i - shift], or n.
template <class C>
int nextMismatch(const C* T, int n, int from, int shift) {
    const Ozr8u* a = reinterpret_cast<const Ozr8u*>(T + from);
    const Ozr8u* b = reinterpret_cast<const Ozr8u*>(T + from - shift);
    size_t bytes = sizeof(C) * static_cast<size_t>(n - from), x = 0;
    for (; x + 16 <= bytes; x += 16) {
        __m128i u = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + x));
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + x));
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(u, v)) != 0xFFFF) break;
    }
    while (x < bytes && a[x] == b[x]) ++x;
    return from + static_cast<int>(x / sizeof(C));
}

// Naming from the substrings one shift earlier, for a string that repeats itself.
// `mismatch` is the next position whose symbol differs from the one a shift
// earlier, `back` the index of the LMS position a shift before the current one.
struct ShiftedRun {
    int shift, mismatch, back;
};

// Substring k equals the one a shift earlier when that one also lies between
// consecutive LMS positions and no symbol in between differs from the one a shift
// earlier. Names substrings k, k + 1, ... (not the last one) that way as long as
// they do; returns the first one it leaves. Kept out of the hashing loop, whose
// registers it would crowd.
template <class C>
__attribute__((noinline))
int nameShifted(const C* T, int n, const Ozr32s* lms, int m, Ozr32s* id, int k, ShiftedRun* r) {
    Ozr32s p = lms[k], shift = r->shift;
    if (r->mismatch < p) r->mismatch = nextMismatch(T, n, p, shift);
    Ozr32s mismatch = r->mismatch;
    int back = r->back;
    while (lms[back] < p - shift) ++back;
    if (lms[back] == p - shift) {
        for (; k + 1 < m && lms[k + 1] < mismatch && lms[back + 1] == lms[k + 1] - shift; ++k, ++back) id[k] = id[back];
    }
    r->back = back;
    return k;
}

struct HashSlot {
    Ozr64u key;   // the symbols packed when they fit in 8 bytes, else a hash
    Ozr32s len;   // in symbols; 0: free slot
    Ozr32s name;  // provisional: order of first appearance
};

// Words of workspace a table of 2^bits slots needs: the slots (aligned) and five
// arrays by name.
inline size_t hashRoom(int bits) {
    size_t slots = size_t(1) << bits;
    return 4 * slots + 1 + 7 * (slots / 2 + 1);
}

// The first symbols of a substring as one big-endian number, padded with ones:
// two substrings whose prefixes differ order as their prefixes do (a substring
// that ends within the prefix sorts after its extensions, as the order above
// wants), so most comparisons of the sort read this compact array and not T.
template <class C>
inline Ozr64u sortPrefix(const C* T, Ozr32s p, Ozr32s len) {
    constexpr int kFit = 8 / sizeof(C), kBits = 8 * sizeof(C);
    constexpr Ozr64u kPad = (Ozr64u(1) << kBits) - 1;
    Ozr64u v = 0;
    for (int x = 0; x < kFit; ++x) v = v << kBits | (x < len ? static_cast<Ozr64u>(T[p + x]) : kPad);
    return v;
}

template <class C>
inline Ozr64u packedOrHash(const C* T, int n, Ozr32s p, Ozr32s len) {
    constexpr int kFit = 8 / sizeof(C);
    if (len <= kFit) {
        if (p + kFit <= n) {
            const Ozr64u key = m7::load64(reinterpret_cast<const Ozr8u*>(T + p));
            return len == kFit ? key : key & ((Ozr64u(1) << (8 * sizeof(C) * len)) - 1);
        }
        Ozr64u key = 0;
        for (int x = len - 1; x >= 0; --x) key = key << (8 * sizeof(C)) | static_cast<Ozr64u>(T[p + x]);
        return key;
    }
    Ozr64u h = static_cast<Ozr64u>(len);
    for (int x = 0; x < len; ++x) h = (h ^ static_cast<Ozr64u>(T[p + x])) * kMix;
    return h ^ h >> 29;
}

// Order of two distinct substrings (a, la) and (b, lb); `lastStart` is the start of
// the one that runs to the end marker. True when a's sorts first.
template <class C>
inline bool substringBefore(const C* T, Ozr32s a, Ozr32s la, Ozr32s b, Ozr32s lb, Ozr32s lastStart) {
    Ozr32s common = la < lb ? la : lb;
    for (Ozr32s x = 0; x < common; ++x) {
        if (T[a + x] != T[b + x]) return T[a + x] < T[b + x];
    }
    if (a == lastStart) return true;
    if (b == lastStart) return false;
    return la > lb;
}

// The table of distinct substrings and what is kept by provisional name.
struct NameTable {
    HashSlot* slot;
    Ozr64u* prefix;  // sort prefix
    Ozr32s* first;   // start of the first occurrence
    Ozr32s* size;    // ... and its length
    int bits, cap, allowance;
};

// Provisional names of substrings 0 .. m - 2 into id by the table (and, with
// kShifted, from the substrings a shift earlier where they repeat); returns the
// number of names, or -1 when the table gives up. The variant without a shift is
// compiled apart: the shifted check alone cost it 8 % on a block that does not
// repeat.
template <class C, bool kShifted>
__attribute__((noinline))
int hashNames(const C* T, int n, const Ozr32s* lms, int m, Ozr32s* id, const NameTable& t, int shift) {
    // The table's fields in locals: the stores below could alias them.
    HashSlot* slot = t.slot;
    Ozr64u* prefix = t.prefix;
    Ozr32s* first = t.first;
    Ozr32s* size = t.size;
    const int bits = t.bits, cap = t.cap, allowance = t.allowance;
    const unsigned mask = (1u << bits) - 1;
    int names = 0;
    Ozr32s p = lms[0];
    ShiftedRun run{shift, 0, 0};
    for (int k = 0; k + 1 < m; ++k) {
        if (kShifted && p >= shift) {
            int end = nameShifted(T, n, lms, m, id, k, &run);
            if (end > k) {
                k = end - 1;
                p = lms[end];
                continue;
            }
        }
        Ozr32s q = lms[k + 1], len = q - p + 1;
        Ozr64u key = packedOrHash(T, n, p, len);
        Ozr64u mixed = (key ^ static_cast<Ozr64u>(len) << 56) * kMix;
        unsigned s = static_cast<unsigned>(mixed >> (64 - bits));
        for (;; s = (s + 1) & mask) {
            HashSlot& e = slot[s];
            if (e.len == 0) {
                if (names == cap || names > (k >> 4) + allowance) return -1;
                e.key = key;
                e.len = len;
                e.name = names;
                first[names] = p;
                size[names] = len;
                prefix[names] = sortPrefix(T, p, len);
                id[k] = names++;
                break;
            }
            if (e.key == key && e.len == len) {
                bool same = true;
                if (len * static_cast<Ozr32s>(sizeof(C)) > 8) {
                    Ozr32s f = first[e.name];
                    for (Ozr32s x = 0; x < len && same; ++x) same = T[f + x] == T[p + x];
                }
                if (same) {
                    id[k] = e.name;
                    break;
                }
            }
        }
        p = q;
    }
    return names;
}

// Reduced string by hashing into id[0, m) (names 0 .. distinct - 1 rising with
// the order); returns distinct, or -1 when there are too many distinct substrings
// or no room (id is then clobbered).
template <class C>
int nameByHash(const C* T, int n, const Ozr32s* lms, int m, Ozr32s* id, SaisWorkspace ws) {
    int shift = repeatShift(T, n);
    // Slots for up to m names at half load, within the workspace.
    int bits = kHashMinBits;
    while (bits < kHashMaxBits && (1 << (bits - 1)) < m) ++bits;
    while (bits >= kHashMinBits && hashRoom(bits) > ws.words) --bits;
    if (m < 2 || bits < kHashMinBits) return -1;
    int slots = 1 << bits, cap = slots / 2;
    Ozr32s* w = ws.base + (reinterpret_cast<uintptr_t>(ws.base) & 4 ? 1 : 0);
    HashSlot* slot = reinterpret_cast<HashSlot*>(w);
    Ozr64u* prefix = reinterpret_cast<Ozr64u*>(w + 4 * slots);  // by provisional name
    Ozr32s* first = w + 4 * slots + 2 * (cap + 1);  // by provisional name: start of the first occurrence
    Ozr32s* size = first + cap + 1;  // ... and its length
    Ozr32s* order = size + cap + 1;
    Ozr32s* merged = order + cap + 1;
    Ozr32s* rankOf = merged + cap + 1;
    for (int x = 0; x < slots; ++x) slot[x].len = 0;
    NameTable table{slot, prefix, first, size, bits, cap, shift ? m : 1024};
    int names = shift ? hashNames<C, true>(T, n, lms, m, id, table, shift) : hashNames<C, false>(T, n, lms, m, id, table, 0);
    if (names < 0) return -1;
    Ozr32s p = lms[m - 1];
    // The last substring: a name of its own.
    first[names] = p;
    size[names] = n - p;
    prefix[names] = sortPrefix(T, p, n - p);
    Ozr32s lastName = names;
    id[m - 1] = names++;
    // Merge sort of the distinct substrings, then provisional names to ranks.
    for (int x = 0; x < names; ++x) order[x] = x;
    for (int width = 1; width < names; width *= 2) {
        for (int lo = 0; lo < names; lo += 2 * width) {
            int mid = lo + width < names ? lo + width : names, hi = lo + 2 * width < names ? lo + 2 * width : names;
            int a = lo, b = mid, o = lo;
            while (a < mid && b < hi) {
                Ozr32s x = order[a], y = order[b];
                bool yFirst = prefix[x] != prefix[y] && x != lastName && y != lastName
                                  ? prefix[y] < prefix[x]
                                  : substringBefore(T, first[y], size[y], first[x], size[x], p);
                if (yFirst) {
                    merged[o++] = y;
                    ++b;
                } else {
                    merged[o++] = x;
                    ++a;
                }
            }
            while (a < mid) merged[o++] = order[a++];
            while (b < hi) merged[o++] = order[b++];
        }
        Ozr32s* swap = order;
        order = merged;
        merged = swap;
    }
    for (int r = 0; r < names; ++r) rankOf[order[r]] = r;
    for (int k = 0; k < m; ++k) id[k] = rankOf[id[k]];
    return names;
}

// Suffix array of T[0, n) over the alphabet [0, K) into SA[0, n), or, with `out`,
// its last column. Returns false when the workspace is too small for a level's
// tables (above 256 symbols K words three times, n / 2 + 1 words for names, and at
// the byte level as many again for the LMS positions).
template <class C>
bool sais(const C* T, Ozr32s* SA, int n, int K, SaisWorkspace ws, const LastColumn* out) {
    if (n == 1) {
        SA[0] = 0;
        if (out) {
            out->dst[0] = static_cast<Ozr8u>(T[0]);
            *out->index = 0;
        }
        return true;
    }
    Ozr32s localCounts[256], localB[256], localLast[256];
    Ozr32s* counts = localCounts;
    Ozr32s* b = localB;
    Ozr32s* last = localLast;
    if (K > 256) {
        counts = take(&ws, static_cast<size_t>(K));
        b = take(&ws, static_cast<size_t>(K));
        if (!counts || !b) return false;
    }
    // The LMS positions in text order are kept through the recursion when the
    // workspace has room for them and for any deeper levels: a level that keeps
    // nothing needs at most 4n words with its descendants (2K for counts and
    // buckets, then the larger of its names and last[] or its child's share, the
    // child at most half as long). Else they are found again.
    Ozr32s* kept = nullptr;
    size_t half = static_cast<size_t>(n) / 2 + 1, lastWords = K > 256 ? static_cast<size_t>(K) : 0;
    if (ws.words >= half + (half + lastWords > 4 * half ? half + lastWords : 4 * half) + 64) {
        kept = take(&ws, static_cast<size_t>(n) / 2 + 1);
        if (!kept) return false;
    }
    // Names by position / 2 (LMS positions are at least two apart), and last[]:
    // free again once the reduced string is built, so the recursion reuses them.
    SaisWorkspace rest = ws;
    Ozr32s* names = take(&ws, static_cast<size_t>(n) / 2 + 1);
    if (K > 256) last = take(&ws, static_cast<size_t>(K));
    if (!names || !last) return false;
    countSymbols(T, n, K, counts);

    // Stage 1: the LMS substrings named. (Unless kept, the LMS positions pass
    // through the names area, free until the induced naming pass.)
    Ozr32s* lmsEnd = (kept ? kept : names) + n / 2 + 1;
    int m = lmsPositions(T, n, lmsEnd);
    // Few distinct LMS substrings: named by hashing, the reduced string straight
    // into its place at the top of SA.
    Ozr32s* s1 = SA + n - m;
    int distinct = nameByHash(T, n, lmsEnd - m, m, s1, ws);
    bool hashed = distinct >= 0;
    if (!hashed) distinct = sortAndName(T, SA, n, K, counts, b, last, names, lmsEnd, m);

    // Stage 2: order of the LMS suffixes into SA[0, m). Induced names count down
    // from the largest class; flipped here so that they rise with the order. Unless
    // kept or hashed, the LMS positions go to the top of SA, SA[n - m, n)
    // (m <= n / 2).
    const Ozr32s* lms = kept || hashed ? lmsEnd - m : s1;
    if (!kept && !hashed) lmsPositions(T, n, SA + n);
    // Name of substring k; a hashed name is read before the narrowing loops below
    // overwrite its word (byte or half-word k lies in word k / 4 or k / 2).
    auto nameAt = [&](int k) -> Ozr32s { return hashed ? s1[k] : distinct - names[lms[k] >> 1]; };
    if (distinct == m) {
        for (int k = 0; k < m; ++k) SA[nameAt(k)] = lms[k];
    } else if (!hashed && 4 * static_cast<Ozr64s>(m - distinct) <= m && doublingRoom(m, distinct) <= ws.words) {
        // Few names repeat: prefix doubling on them, the ranks in place of the names
        // (lms[k] / 2 >= k, so rank k overwrites a name already read).
        for (int k = 0; k < m; ++k) names[k] = nameAt(k);
        doublingSort(names, SA, m, distinct, ws);
        for (int r = 0; r < m; ++r) {
            if (r + kAhead < m) __builtin_prefetch(&lms[SA[r + kAhead]]);
            SA[r] = lms[SA[r]];
        }
    } else {
        // The deeper levels take the larger of the workspace and the gap between
        // the reduced string and its suffix array.
        SaisWorkspace sub = rest;
        if (static_cast<size_t>(n - 2 * m) > rest.words) sub = SaisWorkspace{SA + m, static_cast<size_t>(n - 2 * m)};
        // The reduced string (names in text order) at the top of SA; in bytes or
        // 16 bits when the names fit, which shrinks what its random reads cover.
        if (distinct <= 256) {
            Ozr8u* s8 = reinterpret_cast<Ozr8u*>(s1);
            for (int k = 0; k < m; ++k) s8[k] = static_cast<Ozr8u>(nameAt(k));
            if (!sais(s8, SA, m, distinct, sub, nullptr)) return false;
        } else if (distinct <= 65536) {
            Ozr16u* s16 = reinterpret_cast<Ozr16u*>(s1);
            for (int k = 0; k < m; ++k) s16[k] = static_cast<Ozr16u>(nameAt(k));
            if (!sais(s16, SA, m, distinct, sub, nullptr)) return false;
        } else {
            if (!hashed) {
                for (int k = 0; k < m; ++k) s1[k] = nameAt(k);
            }
            if (!sais(s1, SA, m, distinct, sub, nullptr)) return false;
        }
        // Ranks back to positions. The scan's spare write below s1 may fall into
        // SA[0, m) when m = n / 2: kept aside.
        if (!kept) {
            Ozr32s below = SA[n - m - 1];
            lmsPositions(T, n, SA + n);
            SA[n - m - 1] = below;
            lms = s1;
        }
        for (int r = 0; r < m; ++r) {
            if (r + kAhead < m) __builtin_prefetch(&lms[SA[r + kAhead]]);
            SA[r] = lms[SA[r]];
        }
    }
    fillEmpty(SA + m, n - m);

    // Stage 3: sorted LMS suffixes at their bucket tails, last first, then induce.
    bucketTails(counts, K, b);
    for (int r = m - 1; r >= 0; --r) {
        if (r >= kAhead) __builtin_prefetch(&T[SA[r - kAhead]]);
        Ozr32s j = SA[r];
        SA[r] = kEmpty;
        SA[--b[T[j]]] = j;
    }
    if (out) {
        induceL<C, true>(T, SA, n, K, counts, b, out);
        induceS<C, true>(T, SA, n, K, counts, b, out);
    } else {
        induceL<C, false>(T, SA, n, K, counts, b, nullptr);
        induceS<C, false>(T, SA, n, K, counts, b, nullptr);
    }
    return true;
}

}  // namespace

extern "C" bool m7_ownsSuffixArray_8u(const Ozr8u* T, Ozr32s* SA, int n, SaisWorkspace ws) {
    return sais(T, SA, n, 256, ws, nullptr);
}

extern "C" bool m7_ownsLastColumn_8u(const Ozr8u* T, Ozr32s* SA, int n, SaisWorkspace ws, Ozr8u* pDst, int origin,
                                     int* pIndex) {
    LastColumn out{pDst, origin, pIndex};
    return sais(T, SA, n, 256, ws, &out);
}
