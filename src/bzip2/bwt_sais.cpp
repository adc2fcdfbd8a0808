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
// sorted recursively when names repeat; a second pass from the sorted LMS
// suffixes gives the suffix array.
//
// The passes tell a type without a type table: in the left-to-right pass, the
// entries met are L-type or LMS, and j - 1 is L-type exactly when T[j-1] >= T[j].
// In the right-to-left pass, with equal bytes j - 1 has the type of j, and j is
// S-type exactly when its slot lies in the part of its bucket that this pass has
// filled so far (S-types sort after the L-types of a bucket).
#include "bwt_internal.h"

namespace {

using m7::SaisWorkspace;

inline bool typeS(const Ozr8u* bits, int i) { return (bits[i >> 3] >> (i & 7)) & 1; }
inline bool isLMS(const Ozr8u* bits, int i) { return i > 0 && typeS(bits, i) && !typeS(bits, i - 1); }

template <class C>
void computeTypes(const C* T, int n, Ozr8u* bits) {
    for (int i = 0; i < (n + 7) / 8; ++i) bits[i] = 0;
    bool nextS = false;  // the last suffix is L-type
    for (int i = n - 2; i >= 0; --i) {
        bool s = T[i] < T[i + 1] || (T[i] == T[i + 1] && nextS);
        if (s) bits[i >> 3] = static_cast<Ozr8u>(bits[i >> 3] | (1u << (i & 7)));
        nextS = s;
    }
}

template <class C>
void countSymbols(const C* T, int n, int K, Ozr32s* counts) {
    for (int c = 0; c < K; ++c) counts[c] = 0;
    for (int i = 0; i < n; ++i) ++counts[T[i]];
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

// Left-to-right pass: every L-type suffix placed at the head of its bucket, in
// order, from the entries already in SA (the virtual end marker first).
template <class C>
void induceL(const C* T, Ozr32s* SA, int n, int K, const Ozr32s* counts, Ozr32s* b) {
    bucketHeads(counts, K, b);
    SA[b[T[n - 1]]++] = n - 1;
    constexpr int kAhead = 32;
    for (int i = 0; i < n; ++i) {
        if (i + kAhead < n) __builtin_prefetch(&T[SA[i + kAhead] - 1]);
        Ozr32s j = SA[i];
        if (j <= 0) continue;
        C c0 = T[j - 1];
        if (c0 >= T[j]) SA[b[c0]++] = j - 1;
    }
}

// Right-to-left pass: every S-type suffix placed at the tail of its bucket.
template <class C>
void induceS(const C* T, Ozr32s* SA, int n, int K, const Ozr32s* counts, Ozr32s* b) {
    bucketTails(counts, K, b);
    constexpr int kAhead = 32;
    for (int i = n - 1; i >= 0; --i) {
        if (i >= kAhead) __builtin_prefetch(&T[SA[i - kAhead] - 1]);
        Ozr32s j = SA[i];
        if (j <= 0) continue;
        C c0 = T[j - 1], c1 = T[j];
        if (c0 < c1 || (c0 == c1 && i >= b[c1])) SA[--b[c0]] = j - 1;
    }
}

// Carves `bytes` (rounded up to whole words) from the workspace; null when it
// does not fit.
inline Ozr32s* take(SaisWorkspace* ws, size_t bytes) {
    size_t words = (bytes + 3) / 4;
    if (words > ws->words) return nullptr;
    Ozr32s* p = ws->base;
    ws->base += words;
    ws->words -= words;
    return p;
}

// Suffix array of T[0, n) over the alphabet [0, K) into SA[0, n). Returns false
// when the workspace is too small for a recursion level's tables.
template <class C>
bool sais(const C* T, Ozr32s* SA, int n, int K, SaisWorkspace ws) {
    if (n == 1) {
        SA[0] = 0;
        return true;
    }
    Ozr32s localCounts[256], localB[256];
    Ozr32s* counts = localCounts;
    Ozr32s* b = localB;
    if (K > 256) {
        counts = take(&ws, 4 * static_cast<size_t>(K));
        b = take(&ws, 4 * static_cast<size_t>(K));
        if (!counts || !b) return false;
    }
    Ozr8u* bits = reinterpret_cast<Ozr8u*>(take(&ws, static_cast<size_t>(n) / 8 + 1));
    if (!bits) return false;
    computeTypes(T, n, bits);
    countSymbols(T, n, K, counts);

    // Stage 1: LMS seeds at their bucket tails, induce, and the LMS substrings
    // come out sorted.
    for (int i = 0; i < n; ++i) SA[i] = -1;
    bucketTails(counts, K, b);
    for (int i = n - 1; i >= 1; --i)
        if (isLMS(bits, i)) SA[--b[T[i]]] = i;
    induceL(T, SA, n, K, counts, b);
    induceS(T, SA, n, K, counts, b);

    // Sorted LMS positions to the front.
    // (The loops over SA below touch T, the type bits or SA at the positions SA
    // holds: fetching those some steps ahead keeps several misses in flight.)
    constexpr int kAhead = 16;
    int m = 0;
    for (int i = 0; i < n; ++i) {
        if (i + kAhead < n) __builtin_prefetch(&bits[(SA[i + kAhead] >> 3) & 0x1FFFFFFF]);
        if (isLMS(bits, SA[i])) SA[m++] = SA[i];
    }
    for (int i = m; i < n; ++i) SA[i] = -1;

    // Length of each LMS substring (through the next LMS position; the last one
    // reaches the end marker and equals no other), kept at m + pos / 2: LMS
    // positions are at least two apart, and m <= n / 2.
    {
        int next = n;  // the end marker
        for (int i = n - 1; i >= 1; --i) {
            if (!isLMS(bits, i)) continue;
            SA[m + (i >> 1)] = next == n ? -2 : next - i + 1;
            next = i;
        }
    }
    // Names in sorted order: equal substrings (same length, same bytes) share one.
    int names = 0;
    {
        int prev = -1, prevLen = 0;
        for (int k = 0; k < m; ++k) {
            if (k + kAhead < m) {
                __builtin_prefetch(&SA[m + (SA[k + kAhead] >> 1)]);
                __builtin_prefetch(&T[SA[k + kAhead]]);
            }
            int p = SA[k];
            int len = SA[m + (p >> 1)];
            bool same = prev >= 0 && len > 0 && len == prevLen;
            for (int d = 0; same && d < len; ++d) same = T[p + d] == T[prev + d];
            if (!same) ++names;
            SA[m + (p >> 1)] = names - 1;
            prev = p;
            prevLen = len;
        }
    }
    // The names in text order, packed at the top of SA: the reduced string.
    for (int i = n - 1, j = n - 1; i >= m; --i)
        if (SA[i] >= 0) SA[j--] = SA[i];
    Ozr32s* s1 = SA + n - m;
    Ozr32s* sa1 = SA;

    // Stage 2: order of the LMS suffixes.
    if (names < m) {
        // The gap between the reduced string and its suffix array is free too;
        // the deeper levels take the larger of the two areas.
        SaisWorkspace sub = ws;
        if (static_cast<size_t>(n - 2 * m) > ws.words) sub = SaisWorkspace{SA + m, static_cast<size_t>(n - 2 * m)};
        if (!sais(s1, sa1, m, names, sub)) return false;
    } else {
        for (int i = 0; i < m; ++i) sa1[s1[i]] = i;
    }
    // Map the ranks back to positions: the LMS positions in text order replace
    // the reduced string.
    for (int i = n - 1, j = m - 1; i >= 1; --i)
        if (isLMS(bits, i)) s1[j--] = i;
    for (int k = 0; k < m; ++k) {
        if (k + kAhead < m) __builtin_prefetch(&s1[sa1[k + kAhead]]);
        sa1[k] = s1[sa1[k]];
    }
    for (int i = m; i < n; ++i) SA[i] = -1;

    // Stage 3: sorted LMS suffixes at their bucket tails, last first, then induce.
    bucketTails(counts, K, b);
    for (int k = m - 1; k >= 0; --k) {
        if (k >= kAhead) __builtin_prefetch(&T[SA[k - kAhead]]);
        int j = SA[k];
        SA[k] = -1;
        SA[--b[T[j]]] = j;
    }
    induceL(T, SA, n, K, counts, b);
    induceS(T, SA, n, K, counts, b);
    return true;
}

}  // namespace

extern "C" bool m7_ownsSuffixArray_8u(const Ozr8u* T, Ozr32s* SA, int n, SaisWorkspace ws) {
    return sais(T, SA, n, 256, ws);
}
