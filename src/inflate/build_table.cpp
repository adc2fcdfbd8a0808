// Inflate table builder: checks that a dynamic block's code lengths form usable prefix
// codes and builds the decoder's lookup tables inside the caller's state record.
//
// A set is accepted when it is complete (the Kraft sum is exactly one), or when it is
// a single code of length 1 (RFC 1951 allows one distance code; a lone literal/length
// code is accepted the same way), or, for distances only, when it is empty. The short
// table, one lookup per code, is used whenever the codes fit it (literal/length codes
// up to 11 bits, distance codes up to 10); otherwise the two-level long table.
#include "inflate_tables.h"

namespace m7::inflate {
namespace {

struct CodeStats {
    unsigned count[16];
    unsigned maxLen;          // 0 when no symbol has a code
    bool complete;            // every index of a table is some code's: no entry needs a default
};

// Counts the lengths; false when one is above 15.
bool countLengths(const Ozr16u* lens, unsigned n, CodeStats& st) {
    for (unsigned L = 0; L < 16; ++L) st.count[L] = 0;
    for (unsigned s = 0; s < n; ++s) {
        if (lens[s] > kMaxCodeLen) return false;
        ++st.count[lens[s]];
    }
    st.maxLen = 0;
    st.complete = false;
    for (unsigned L = kMaxCodeLen; L >= 1; --L)
        if (st.count[L] != 0) { st.maxLen = L; break; }
    return true;
}

// Walks the lengths from the shortest up, doubling the codes in use at each step: over
// the capacity is over-subscribed; below it after the longest is incomplete, which
// only a single 1-bit code may be.
bool prefixCodeValid(CodeStats& st) {
    // Codes in use after length L, counted in units of 2^-L, must stay within 2^L.
    Ozr64u used = 0;
    for (unsigned L = 1; L <= st.maxLen; ++L) {
        used = 2 * used + st.count[L];
        if (used > (Ozr64u{1} << L)) return false;
    }
    st.complete = used == (Ozr64u{1} << st.maxLen);
    return st.complete || (st.maxLen == 1 && used == 1);
}

// Fills every index whose low L bits are the reversed code r, up to `size` entries,
// two replicas a pass.
template <class E>
inline void fillReplicas(E* t, unsigned r, unsigned L, unsigned size, E v) {
    const unsigned step = 1u << L;
    unsigned i = r;
    for (; i + step < size; i += 2 * step) {
        t[i] = v;
        t[i + step] = v;
    }
    if (i < size) t[i] = v;
}

void nextCodes(const CodeStats& st, unsigned* next) {
    for (unsigned L = 1, c = 0; L <= kMaxCodeLen; ++L) {
        c = (c + (L > 1 ? st.count[L - 1] : 0)) << 1;
        next[L] = c;
    }
}

OzrResult buildShort(const Ozr16u* lens, unsigned nLit, unsigned nDist, const CodeStats& lit,
                     const CodeStats& dist, OzrInflateState* s) {
    const unsigned litBits = lit.maxLen, distBits = dist.maxLen;
    s->litMaxLen = litBits;
    s->distMaxLen = distBits;
    if (nLit < kEndOfBlock + 1 || lens[kEndOfBlock] == 0) return ozrErrHuffTable;

    Ozr8u* const buf = s->tableBuffer;
    Ozr16u* const litTab = reinterpret_cast<Ozr16u*>(buf);
    const unsigned litSize = 1u << litBits;
    unsigned next[16];
    nextCodes(lit, next);
    if (!lit.complete)
        for (unsigned i = 0; i < litSize; ++i) litTab[i] = kLitInvalid;
    for (unsigned sym = 0; sym < nLit; ++sym) {
        const unsigned L = lens[sym];
        if (L == 0) continue;
        const unsigned e = sym < 256 ? sym << 8 : sym == kEndOfBlock ? kKindEnd << 4 : LenExtr.e[sym - 256];
        fillReplicas<Ozr16u>(litTab, reverseCode(next[L]++, L), L, litSize, static_cast<Ozr16u>(e | L));
    }

    Ozr8u* const distLen = buf + 2 * litSize;
    Ozr16u* const distBase = reinterpret_cast<Ozr16u*>(distLen + kShortDistBaseGap);
    const unsigned distSize = 1u << distBits;
    // Also without distance codes: a length symbol then meets an invalid entry rather
    // than what an earlier block left.
    if (!dist.complete)
        for (unsigned i = 0; i < distSize; ++i) distLen[i] = kDistInvalid;
    if (nDist > 0) {
        nextCodes(dist, next);
        const Ozr16u* const dl = lens + nLit;
        for (unsigned d = 0; d < nDist; ++d) {
            const unsigned L = dl[d];
            if (L == 0) continue;
            const unsigned r = reverseCode(next[L]++, L);
            fillReplicas<Ozr8u>(distLen, r, L, distSize, static_cast<Ozr8u>(DistExtr.extra[d] | L));
            fillReplicas<Ozr16u>(distBase, r, L, distSize, DistExtr.base[d]);
        }
    }
    s->tableType = 2;
    return ozrOk;
}

}  // namespace
}  // namespace m7::inflate

using namespace m7::inflate;

extern "C" OzrResult m7_ozrsInflateBuildHuffTable(const Ozr16u* pCodeLens, Ozr32u nLitCodeLens,
                                                  Ozr32s nDistCodeLens, OzrInflateState* pState) {
    OZR_CHECK_NULL(pCodeLens, pState);
    if (nLitCodeLens > kNumLitSyms || nDistCodeLens < 0 || nDistCodeLens > static_cast<Ozr32s>(kNumDistSyms))
        return ozrErrSize;
    const unsigned nDist = static_cast<unsigned>(nDistCodeLens);

    CodeStats lit, dist;
    if (!countLengths(pCodeLens, nLitCodeLens, lit) || lit.maxLen == 0 || !prefixCodeValid(lit))
        return ozrErrHuffTable;
    if (!countLengths(pCodeLens + nLitCodeLens, nDist, dist)) return ozrErrHuffTable;
    if (dist.maxLen != 0 && !prefixCodeValid(dist)) return ozrErrHuffTable;

    if (lit.maxLen <= kShortLitMax && dist.maxLen <= kShortDistMax)
        return buildShort(pCodeLens, nLitCodeLens, nDist, lit, dist, pState);

    pState->tableType = 1;
    pState->litMaxLen = lit.maxLen;
    pState->distMaxLen = dist.maxLen;
    if (!buildLongAlphabet<false>(pCodeLens, nLitCodeLens, lit.complete, pState->tableBuffer))
        return ozrErrHuffTable;
    if (!buildLongAlphabet<true>(pCodeLens + nLitCodeLens, nDist, dist.complete, pState->tableBuffer))
        return ozrErrHuffTable;
    return ozrOk;
}
