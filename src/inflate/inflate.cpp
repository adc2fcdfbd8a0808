// Inflate: the decoder of one Deflate block's Huffman-coded data, resumable at any
// input or output boundary.
//
// One core serves the two table formats (the single-level short table, and the
// two-level long table that the fixed code also uses). Decoding is a step machine:
//   1 literal/length code, 2 length extra bits, 3 distance code, 4 distance extra bits,
//   5 match copy, 6 a literal waiting for room;
// a call that stops at step 1 reports mode 1, one that stops at steps 2..6 saves the
// step and its values in the state record and reports mode 2. The careful step loop
// takes input a byte at a time and checks every boundary. At step 1, while at least
// kFastInMargin input and kFastOutMargin output bytes remain, a fast loop decodes
// whole symbols with a 64-bit bit buffer refilled eight bytes at a time and blind
// 16-byte match copies. It hands back to the step loop for anything it does not
// finish itself: an invalid code (not consumed, so the step loop meets it again), a
// match reaching before the output buffer or too long for the room left (as step 5),
// the margins. The bit position
// is the same either way, and on return whole bytes that were taken but not consumed
// are given back, so both loops leave the same counts, bits and bytes.
#include "inflate_tables.h"
#include "unaligned.h"

#include <emmintrin.h>

namespace m7::inflate {
namespace {

inline constexpr LongTable kFixedTable = makeFixedTable();

// The fast loop needs 16 input bytes (two eight-byte refills a symbol) and room for
// three literals; a match is copied there only when its blind copy (up to 32 bytes
// past its end) fits, so that small outputs are not left to the step loop.
constexpr size_t kFastInMargin = 16;
constexpr size_t kFastOutMargin = 64;
constexpr size_t kMatchOvershoot = 32;

enum class Table { Short, Long };

inline void copy8(Ozr8u* d, const Ozr8u* s) { store64(d, load64(s)); }
inline void copy16(Ozr8u* d, const Ozr8u* s) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
}
inline Ozr64u lowBits(Ozr64u v, unsigned n) { return v & ((Ozr64u{1} << n) - 1); }

// Where the tables of one call live.
struct Tables {
    const Ozr8u* t;
    unsigned litMask, distMask;  // short table: index masks
    const Ozr8u* distLen;        // short table: distance length bytes
    const Ozr8u* distBase;       // short table: 16-bit distance bases
};

// The literal/length entry for the next code (16-bit short-table form). litRoot reads
// the first level only; litResolve follows a long-table link to the second level (a
// literal never needs it, so the fast loop tests for a literal first). Reads only index
// bits; the code may be longer than the bits held, which the caller checks against the
// entry's length.
template <Table T>
inline unsigned litRoot(const Tables& tb, Ozr64u bits) {
    if constexpr (T == Table::Short) return load16(tb.t + 2 * (bits & tb.litMask));
    else return load16(tb.t + kLongLitPacked + 2 * (bits & ((1u << kRootBits) - 1)));
}
template <Table T>
inline unsigned litResolve(const Tables& tb, Ozr64u bits, unsigned e) {
    if constexpr (T == Table::Long) {
        if (((e >> 4) & 15) == kKindLink) {
            // Masked: a table the builder made never reaches the end of the area, and a
            // record filled by other means still cannot make the lookup leave it.
            const unsigned j = ((e >> 8) * 2 + static_cast<unsigned>(lowBits(bits >> kRootBits, ((e & 15) - kRootBits) & 7))) &
                               (kLongLitSubEntries - 1);
            e = load16(tb.t + kLongLitSubPacked + 2 * j);
        }
    }
    return e;
}
template <Table T>
inline unsigned litEntry(const Tables& tb, Ozr64u bits) {
    return litResolve<T>(tb, bits, litRoot<T>(tb, bits));
}

// The distance entry: length byte in bits 0..7, base in bits 16..31.
template <Table T>
inline unsigned distEntry(const Tables& tb, Ozr64u bits) {
    if constexpr (T == Table::Short) {
        const unsigned i = bits & tb.distMask;
        return tb.distLen[i] | static_cast<unsigned>(load16(tb.distBase + 2 * i)) << 16;
    } else {
        const unsigned i = bits & ((1u << kRootBits) - 1);
        unsigned e = load32(tb.t + kLongDistPacked + 4 * i);
        if (__builtin_expect((e >> 4 & 15) == kDistExtraLink, 0)) {
            const unsigned j =
                ((e >> 16) + static_cast<unsigned>(lowBits(bits >> kRootBits, ((e & 15) - kRootBits) & 7))) &
                (kLongDistSubEntries - 1);
            e = tb.t[kLongDistSubLen + j] | static_cast<unsigned>(load16(tb.t + kLongDistSubBase + 2 * j)) << 16;
        }
        return e;
    }
}

// A literal entry has kind 0 and a code length of 1..15 in its low nibble. The length
// is part of the test because a table the builder did not make may hold a literal of
// length 0: taken as a literal it would be written again and again without consuming a
// bit; left to the step loop it is refused there, as every other loop refuses it.
inline bool isLiteral(unsigned e) { return (e & 0xFF) - 1u < 15u; }

// A repeating pattern of period d (2..7) continues in 8-byte steps read from the
// smallest multiple of d that is at least 8 behind.
constexpr Ozr8u kPatternStride[8] = {0, 8, 8, 9, 8, 10, 12, 14};

// Blind copy of a match of n bytes from op - dist (dist >= 1, inside the output);
// writes up to kMatchOvershoot bytes past op + n (29 for a 3-byte match).
inline void copyMatchWild(Ozr8u* op, size_t dist, size_t n) {
    const Ozr8u* src = op - dist;
    if (dist >= 16) {
        // Most matches are short: 32 bytes without a loop test first.
        copy16(op, src);
        copy16(op + 16, src + 16);
        for (size_t i = 32; i < n; i += 16) copy16(op + i, src + i);
    } else if (dist >= 8) {
        for (size_t i = 0; i < n; i += 8) copy8(op + i, src + i);
    } else if (dist == 1) {
        const Ozr64u v = Ozr64u{*src} * 0x0101010101010101ull;
        for (size_t i = 0; i < n; i += 8) store64(op + i, v);
    } else {
        for (size_t i = 0; i < 8; ++i) op[i] = src[i];
        const size_t stride = kPatternStride[dist];
        for (size_t i = 8; i < n; i += 8) copy8(op + i, op + i - stride);
    }
}

// Exact front-to-back copy of n bytes from d - dist (which may overlap d[0, n)).
inline void copyMatchExact(Ozr8u* d, size_t dist, size_t n) {
    const Ozr8u* s = d - dist;
    size_t i = 0;
    if (dist >= 16)
        for (; i + 16 <= n; i += 16) copy16(d + i, s + i);
    for (; i < n; ++i) d[i] = s[i];
}

// What the fast loop hands back.
enum class FastExit { Margin, EndOfBlock, Careful, Match };

struct Cursor {
    const Ozr8u* ip;
    Ozr64u bits;
    unsigned count;  // valid bits in `bits`
    Ozr8u* op;
};

template <Table T>
__attribute__((always_inline)) inline FastExit fastLoop(Cursor& c, const Tables& tb, const Ozr8u* inEnd,
                                                        Ozr8u* outEnd, const Ozr8u* outBase, Ozr32u& mLen,
                                                        Ozr32u& mDist) {
    const Ozr8u* ip = c.ip;
    Ozr64u bb = c.bits;
    unsigned n = c.count;
    Ozr8u* op = c.op;
    const Ozr8u* const inLimit = inEnd - kFastInMargin;
    Ozr8u* const outLimit = outEnd - kFastOutMargin;
    FastExit ex = FastExit::Margin;
    // Refill: at least 56 valid bits after it. The eight bytes loaded overlap what the
    // next refill ORs in again at the same place.
    auto refill = [&] {
        bb |= load64(ip) << n;
        ip += (63 - n) >> 3;
        n |= 56;
    };
    auto consume = [&](unsigned k) {
        bb >>= k;
        n -= k;
    };
    // The next entry's first level; the literal tests below come before any
    // second-level lookup, which happens once, where the literals end.
    auto next = [&] { return litRoot<T>(tb, bb); };
    // Each entry is looked up as soon as the previous code's bits are consumed, ahead
    // of the refill and of the previous match's copy, so that the lookup is off their
    // path. That is sound because a refill leaves all 64 bits of the buffer holding
    // stream bits and a lookup reads at most 15: up to 48 bits (a length code, its
    // extra bits, a distance code and its extra bits) are consumed before the next
    // lookup, and the refill only ORs the same stream bits in again above them.
    refill();
    unsigned e = next();
    while (ip < inLimit && op < outLimit) {
        refill();
        if (isLiteral(e)) {
            // Three literal codes of up to 15 bits fit in the 56 bits. A literal's kind
            // bits are zero, so its entry & 63 is its length: the mask matches the one
            // a 64-bit shift applies anyway and drops out, one step less per literal.
            consume(e & 63);
            *op++ = static_cast<Ozr8u>(e >> 8);
            e = next();
            if (isLiteral(e)) {
                consume(e & 63);
                *op++ = static_cast<Ozr8u>(e >> 8);
                e = next();
                if (isLiteral(e)) {
                    consume(e & 63);
                    *op++ = static_cast<Ozr8u>(e >> 8);
                    e = next();
                    continue;
                }
            }
            refill();
        }
        // Not a first-level literal: follow a link (no bits were consumed since the
        // lookup, and the refill left the low bits as they were).
        e = litResolve<T>(tb, bb, e);
        if (isLiteral(e)) {
            consume(e & 63);
            *op++ = static_cast<Ozr8u>(e >> 8);
            e = next();
            continue;
        }
        const unsigned kind = (e >> 4) & 15;
        if (__builtin_expect(kind >= kKindLength && kind != kKindEnd, 1)) {
            // Length and distance with their extra bits: at most 15 + 5 + 15 + 13 bits.
            consume(e & 15);
            const unsigned lenExtra = kind & 7;
            const size_t len = (e >> 8) + 3 + static_cast<size_t>(lowBits(bb, lenExtra));
            consume(lenExtra);
            const unsigned d = distEntry<T>(tb, bb);
            const unsigned dExtra = (d >> 4) & 15;
            if (__builtin_expect((d & 15) == 0 || dExtra > 13, 0)) {
                // The step loop meets the distance code again and reports it.
                mLen = static_cast<Ozr32u>(len);
                ex = FastExit::Careful;
                break;
            }
            consume(d & 15);
            const size_t dist = (d >> 16) + static_cast<size_t>(lowBits(bb, dExtra));
            consume(dExtra);
            const unsigned following = next();
            if (__builtin_expect(dist > static_cast<size_t>(op - outBase) ||
                                     len + kMatchOvershoot > static_cast<size_t>(outEnd - op), 0)) {
                mLen = static_cast<Ozr32u>(len);
                mDist = static_cast<Ozr32u>(dist);
                ex = FastExit::Match;
                break;
            }
            copyMatchWild(op, dist, len);
            op += len;
            e = following;
            continue;
        }
        if (kind == kKindEnd) {
            consume(e & 15);
            ex = FastExit::EndOfBlock;
            break;
        }
        // A code no symbol owns: left for the step loop.
        ex = FastExit::Careful;
        mLen = 0;
        break;
    }
    c.ip = ip;
    c.bits = bb;
    c.count = n;
    c.op = op;
    return ex;
}

template <Table T>
OzrResult decodeBlock(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pCode, Ozr32u* pCodeLenBits, Ozr32s winIdx,
                      Ozr8u** ppDst, Ozr32u* pDstLen, Ozr32s dstIdx, OzrInflateMode* pMode,
                      OzrInflateState* pState, const Tables& tb) {
    const Ozr8u* const inStart = *ppSrc;
    const Ozr8u* const inEnd = inStart + *pSrcLen;
    Ozr8u* const outStart = *ppDst;
    Ozr8u* const outEnd = outStart + *pDstLen;
    // Matches may reach back to outBase inside the output, and winIdx bytes further
    // into the window.
    const Ozr8u* const outBase = outStart - (dstIdx > 0 ? dstIdx : 0);
    const Ozr8u* const window = pState->pWindow;
    const size_t winAvail = window != nullptr ? static_cast<size_t>(winIdx) : 0;

    Cursor c;
    c.ip = inStart;
    c.count = *pCodeLenBits;
    c.bits = lowBits(*pCode, c.count);  // count may be 32
    c.op = outStart;

    unsigned step = 1;
    Ozr32u value = 0, aux = 0, extra = 0;  // length or literal; distance; extra-bit count
    if (*pMode == 2) {
        step = pState->savedStep;
        value = pState->savedValue;
        aux = pState->savedAux;
        extra = pState->savedEntry;
        const bool sane = (step >= 2 && step <= 6) && !(step == 2 && extra > 5) && !(step == 4 && extra > 13);
        if (!sane) return ozrErrHuffTable;
    }

    // Writes back every in/out value. Except where the input ran out (then every byte
    // was taken and fewer bits are held than the next field needs), whole bytes taken
    // but not consumed are given back first, so that the stopping point does not depend
    // on which loop read ahead.
    auto finish = [&](OzrResult st, int mode, bool inputOut = false) -> OzrResult {
        while (!inputOut && c.count >= 8 && c.ip > inStart) {
            --c.ip;
            c.count -= 8;
        }
        *ppSrc = c.ip;
        *pSrcLen = static_cast<Ozr32u>(inEnd - c.ip);
        *pCode = static_cast<Ozr32u>(lowBits(c.bits, c.count));
        *pCodeLenBits = c.count;
        *ppDst = c.op;
        *pDstLen = static_cast<Ozr32u>(outEnd - c.op);
        if (mode >= 0) *pMode = static_cast<OzrInflateMode>(mode);
        if (mode == 2) {
            pState->savedStep = step;
            pState->savedValue = value;
            pState->savedAux = aux;
            pState->savedEntry = extra;
        }
        return st;
    };
    auto refill = [&] {
        while (c.count <= 56 && c.ip < inEnd) {
            c.bits |= static_cast<Ozr64u>(*c.ip++) << c.count;
            c.count += 8;
        }
    };
    auto consume = [&](unsigned k) {
        c.bits >>= k;
        c.count -= k;
    };
    auto starved = [&] { return finish(ozrOk, step == 1 ? 1 : 2, true); };
    auto full = [&] { return finish(ozrOk, 2); };
    auto fail = [&] { return finish(ozrErrHuffTable, -1); };

    for (;;) {
        switch (step) {
            case 1: {
                if (static_cast<size_t>(inEnd - c.ip) > kFastInMargin &&
                    static_cast<size_t>(outEnd - c.op) > kFastOutMargin) {
                    const FastExit ex = fastLoop<T>(c, tb, inEnd, outEnd, outBase, value, aux);
                    if (ex == FastExit::EndOfBlock) return finish(ozrOk, 0);
                    if (ex == FastExit::Match) {
                        step = 5;
                        break;
                    }
                    if (ex == FastExit::Careful && value != 0) {
                        step = 3;  // a length decoded; its distance code is invalid
                        break;
                    }
                }
                refill();
                const unsigned e = litEntry<T>(tb, c.bits);
                const unsigned L = e & 15;
                if (L > c.count) return starved();
                const unsigned kind = (e >> 4) & 15;
                if (kind == kKindLiteral && L != 0) {
                    consume(L);
                    if (c.op == outEnd) {
                        value = e >> 8;
                        step = 6;
                        return full();
                    }
                    *c.op++ = static_cast<Ozr8u>(e >> 8);
                    break;
                }
                if (kind == kKindEnd) {
                    consume(L);
                    return finish(ozrOk, 0);
                }
                if (kind < kKindLength || L == 0) return fail();
                consume(L);
                value = (e >> 8) + 3;
                extra = kind & 7;
                step = extra != 0 ? 2 : 3;
                break;
            }
            case 2:
                refill();
                if (c.count < extra) return starved();
                value += static_cast<Ozr32u>(lowBits(c.bits, extra));
                consume(extra);
                step = 3;
                break;
            case 3: {
                refill();
                const unsigned d = distEntry<T>(tb, c.bits);
                const unsigned L = d & 15;
                if (L > c.count) return starved();
                const unsigned dExtra = (d >> 4) & 15;
                if (L == 0 || dExtra > 13) return fail();
                consume(L);
                aux = d >> 16;
                extra = dExtra;
                step = extra != 0 ? 4 : 5;
                break;
            }
            case 4:
                refill();
                if (c.count < extra) return starved();
                aux += static_cast<Ozr32u>(lowBits(c.bits, extra));
                consume(extra);
                step = 5;
                break;
            case 5: {
                // value bytes remain to copy from distance aux.
                const size_t dist = aux;
                if (dist == 0 || dist > static_cast<size_t>(c.op - outBase) + winAvail) return fail();
                while (value != 0 && c.op != outEnd) {
                    const size_t room = static_cast<size_t>(outEnd - c.op);
                    const size_t inOut = static_cast<size_t>(c.op - outBase);
                    size_t k = value < room ? value : room;
                    if (dist > inOut) {
                        // The leading part lies in the window, which ends at winIdx.
                        const size_t back = dist - inOut;
                        if (k > back) k = back;
                        const Ozr8u* s = window + winAvail - back;
                        for (size_t i = 0; i < k; ++i) c.op[i] = s[i];
                    } else {
                        copyMatchExact(c.op, dist, k);
                    }
                    c.op += k;
                    value -= static_cast<Ozr32u>(k);
                }
                if (value != 0) return full();
                step = 1;
                break;
            }
            case 6:
                if (c.op == outEnd) return full();
                *c.op++ = static_cast<Ozr8u>(value);
                step = 1;
                break;
        }
    }
}

}  // namespace
}  // namespace m7::inflate

using namespace m7::inflate;

extern "C" OzrResult m7_ozrsInflate_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pCode, Ozr32u* pCodeLenBits,
                                       Ozr32s winIdx, Ozr8u** ppDst, Ozr32u* pDstLen, Ozr32s dstIdx,
                                       OzrInflateMode* pMode, OzrInflateState* pState) {
    OZR_CHECK_NULL(ppSrc, pSrcLen, pCode, pCodeLenBits, ppDst, pDstLen, pMode, pState);
    OZR_CHECK_NULL(*ppSrc, *ppDst);
    if (*pCodeLenBits > 32) return ozrErrSize;
    if (static_cast<Ozr32u>(winIdx) > pState->winSize) return ozrErrSize;

    Tables tb{};
    if (pState->tableType == 2) {
        tb.t = pState->tableBuffer;
        const unsigned litBits = pState->litMaxLen > kShortLitMax ? kShortLitMax : pState->litMaxLen;
        const unsigned distBits = pState->distMaxLen > kShortDistMax ? kShortDistMax : pState->distMaxLen;
        tb.litMask = (1u << litBits) - 1;
        tb.distMask = (1u << distBits) - 1;
        tb.distLen = tb.t + (2u << litBits);
        tb.distBase = tb.distLen + kShortDistBaseGap;
        return decodeBlock<Table::Short>(ppSrc, pSrcLen, pCode, pCodeLenBits, winIdx, ppDst, pDstLen, dstIdx, pMode,
                                         pState, tb);
    }
    if (pState->tableType == 0 || pState->tableType == 1) {
        tb.t = pState->tableType == 0 ? kFixedTable.b : pState->tableBuffer;
        return decodeBlock<Table::Long>(ppSrc, pSrcLen, pCode, pCodeLenBits, winIdx, ppDst, pDstLen, dstIdx, pMode,
                                        pState, tb);
    }
    return ozrErrHuffTable;
}
