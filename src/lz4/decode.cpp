// LZ4 block decoder.
//
// A block is a run of sequences: a token byte (high nibble literal length, low nibble
// match length - 4; a nibble of 15 is continued by bytes that add up, 255 meaning
// "another byte follows"), the literals, a 2-byte little-endian offset and the match
// length's extension bytes. The last sequence stops after its literals.
//
// One core serves the three history arrangements (none, a prefix lying in memory
// before the output, an external dictionary standing virtually at the start of the
// output buffer). It runs a fast loop while at least 64 input and 64 output bytes are
// left, where copies may overrun a run, and a careful loop near the ends that stops at
// well-defined points:
//   - a lone trailing byte at a token boundary is never read;
//   - output that fills inside a run writes what fits and warns ozrWarnDstSizeLess;
//   - a literal run cut off by the input's end, or ending in the last 7 input bytes
//     without being the block's last, writes what is there and warns
//     ozrWarnSrcSizeLess;
//   - output that fills exactly at the end of a literal run ends the call with ozrOk.
// The fast loop decodes a sequence only when it cannot meet any of these conditions;
// otherwise it hands the sequence, from its token, to the careful loop, so the two
// loops give the same statuses, counts and bytes.
#include "lz4_common.h"

namespace m7::lz4 {
namespace {

enum class History { None, Prefix, ExtDict };

struct HistoryView {
    // How far before the write start a match may reach: 0 without history, the
    // prefix size, or (external dictionary) the write start's index in the buffer.
    ptrdiff_t reach = 0;
    Ozr8u* base = nullptr;          // external dictionary: the buffer's base
    const Ozr8u* dict = nullptr;    // external dictionary: its bytes
    size_t dictSize = 0;
};

constexpr size_t kMaxLength = 0x7FFFFFFF;

// The fast loop keeps this many bytes between its position and either end, so that its
// blind copies (up to 64 bytes from a run's start, or 31 past a run's end) stay inside
// both buffers.
constexpr size_t kFastSrcMargin = 64;
constexpr size_t kFastDstMargin = 64;

// Copies a match of length n that starts `off` bytes behind op. Exact: writes only
// op[0, n). For an external dictionary the virtual bytes pDst[0, dictSize) are read
// from the dictionary, and a match that runs past its end continues front to back
// from pDst + dictSize.
template <History H>
inline void copyMatchExact(Ozr8u* op, size_t off, size_t n, const HistoryView& h) {
    if constexpr (H == History::ExtDict) {
        ptrdiff_t virt = (op - h.base) - static_cast<ptrdiff_t>(off);
        if (virt < static_cast<ptrdiff_t>(h.dictSize)) {
            const Ozr8u* s = h.dict + virt;
            size_t inDict = h.dictSize - static_cast<size_t>(virt);
            if (n <= inDict) return copyExact(op, s, n);
            copyExact(op, s, inDict);
            return copyFrontToBack(op + inDict, h.base + h.dictSize, n - inDict);
        }
        return copyFrontToBack(op, h.base + virt, n);
    } else {
        if (off == 0) return;  // the bytes are copied onto themselves
        if (off >= n) return copyExact(op, op - off, n);
        copyOverlapExact(op, off, n);
    }
}

// Blind forward copy of n bytes in 16-byte steps: four steps without a loop (most long
// runs and long matches are below 65 bytes, and the "longer than 48" test is as
// unpredictable as the extension itself on record-like data), then 32 bytes a turn.
// Writes up to 64 bytes, or n rounded up to 32, from d; reads as much from s. Correct
// for a match source when s is at least 16 bytes behind d.
inline void copyWild64(Ozr8u* d, const Ozr8u* s, size_t n) {
    copy16(d, s);
    copy16(d + 16, s + 16);
    copy16(d + 32, s + 32);
    copy16(d + 48, s + 48);
    for (size_t i = 64; i < n; i += 32) {
        copy16(d + i, s + i);
        copy16(d + i + 16, s + i + 16);
    }
}

// Reads the extension bytes of a length field; `len` holds the nibble (15) on entry.
// Stops at `end` if the run of 255s reaches it.
inline size_t readLengthExt(const Ozr8u*& ip, const Ozr8u* end, size_t len) {
    while (ip < end) {
        unsigned b = *ip++;
        len += b;
        if (b != 255) break;
    }
    return len;
}

template <History H>
OzrResult decodeCore(const Ozr8u* const src, int* pSrcLen, Ozr8u* const dstStart, int* pDstLen,
                     const HistoryView& h) {
    const size_t srcLen = static_cast<size_t>(*pSrcLen);
    const size_t dstCap = static_cast<size_t>(*pDstLen);
    const Ozr8u* ip = src;
    const Ozr8u* const srcEnd = src + srcLen;
    Ozr8u* op = dstStart;
    Ozr8u* const dstEnd = dstStart + dstCap;
    const OzrResult finalStatus = srcLen == 1 ? ozrWarnSrcSizeLess : ozrOk;
    // Held in locals: byte stores through op could alias the caller's record, which
    // would make the compiler reload it after every copy.
    const HistoryView hv = h;
    // A match source q = op - off is valid when off <= (op - dstStart) + reach.
    const ptrdiff_t reach = H == History::None ? 0 : hv.reach;
    auto offsetValid = [=](const Ozr8u* o, size_t off) -> bool {
        return static_cast<ptrdiff_t>(off) <= (o - dstStart) + reach;
    };
    // External dictionary: does the match start in the dictionary's virtual bytes?
    auto inDict = [&hv](const Ozr8u* o, size_t off) -> bool {
        return (o - hv.base) - static_cast<ptrdiff_t>(off) < static_cast<ptrdiff_t>(hv.dictSize);
    };
    // In the fast loop, a match that starts in the external dictionary is copied
    // exactly and op advanced; false (and nothing done) otherwise or without one.
    auto dictMatch = [&](Ozr8u*& o, size_t off, size_t n) -> bool {
        if constexpr (H == History::ExtDict) {
            if (inDict(o, off)) {
                copyMatchExact<H>(o, off, n, hv);
                o += n;
                return true;
            }
        }
        return false;
    };

    // ---- Fast loop: at least kFastSrcMargin input and kFastDstMargin output bytes left. ----
    if (srcLen > kFastSrcMargin && dstCap > kFastDstMargin) {
        const Ozr8u* const srcFastEnd = srcEnd - kFastSrcMargin;
        Ozr8u* const dstFastEnd = dstEnd - kFastDstMargin;
        while (ip < srcFastEnd && op < dstFastEnd) {
            const Ozr8u* const seqIp = ip;
            Ozr8u* const seqOp = op;
            const unsigned token = *ip;
            size_t lit = token >> 4;
            if (__builtin_expect(lit < kRunMask, 1)) {
                // At most 14 literals; they end at least 50 bytes before the input's end,
                // so a match follows. The step past the token and the offset is added
                // before the literal length, which keeps the token-to-token chain at a
                // load, a shift and an add.
                copy16(op, ip + 1);
                ip += 3;
            } else {
                // The first extension byte lies inside the input (ip <= srcFastEnd).
                ++ip;
                const unsigned b = *ip++;
                lit += b;
                if (__builtin_expect(b == 255, 0)) lit = readLengthExt(ip, srcFastEnd, lit);
                // Signed: ip may stand one byte past srcFastEnd after the first
                // extension byte.
                if (static_cast<ptrdiff_t>(lit) > srcFastEnd - ip || static_cast<ptrdiff_t>(lit) > dstFastEnd - op) {
                    ip = seqIp, op = seqOp;
                    break;
                }
                // At least 15 bytes; the checks above leave 64 bytes of room past the run.
                copyWild64(op, ip, lit);
                ip += 2;
            }
            op += lit;
            ip += lit;

            const size_t off = load16(ip - 2);
            if (__builtin_expect(!offsetValid(op, off), 0)) return ozrErrFailed;
            size_t ml = token & kRunMask;
            if (__builtin_expect(ml != kRunMask, 1)) {
                // A short match (at most 18 bytes) after at most 14 literals from a
                // token below dstFastEnd: even a 24-byte blind copy stays 26 bytes
                // inside the output, so no room check is needed.
                ml += kMinMatch;
                if (dictMatch(op, off, ml)) continue;
                if (__builtin_expect(off >= 16, 1)) {
                    // 18 bytes at once cover every short match; they read only bytes
                    // before op, so no load waits on the store just made.
                    const Ozr8u* q = op - off;
                    copy16(op, q);
                    store16(op + 16, load16(q + 16));
                } else if (off != 0) {
                    copyOverlapWild(op, off, ml);
                }
            } else {
                // The first extension byte lies inside the input (ip <= srcEnd - 47).
                const unsigned b = *ip++;
                ml += b;
                if (__builtin_expect(b == 255, 0)) ml = readLengthExt(ip, srcFastEnd, ml);
                ml += kMinMatch;
                // op may stand up to 14 bytes past dstFastEnd after short literals.
                if (ip >= srcFastEnd || static_cast<ptrdiff_t>(ml) > dstFastEnd - op) {
                    ip = seqIp, op = seqOp;
                    break;
                }
                if (dictMatch(op, off, ml)) continue;
                if (__builtin_expect(off >= 16, 1)) {
                    // At least 19 bytes; the room check above leaves 64 bytes past
                    // the match.
                    copyWild64(op, op - off, ml);
                } else if (off != 0) {
                    copyOverlapWild(op, off, ml);
                }
            }
            op += ml;
        }
    }

    // ---- Careful loop: exact copies, every stop condition checked. ----
    auto report = [&](OzrResult st) {
        *pSrcLen = static_cast<int>(ip - src);
        *pDstLen = static_cast<int>(op - dstStart);
        return st;
    };
    for (;;) {
        if (ip >= srcEnd - 1) return report(finalStatus);
        const unsigned token = *ip++;
        size_t lit = token >> 4;
        if (lit == kRunMask) {
            lit = readLengthExt(ip, srcEnd, lit);
            if (lit > kMaxLength) return ozrErrSize;
        }
        const size_t inLeft = static_cast<size_t>(srcEnd - ip);
        const size_t outLeft = static_cast<size_t>(dstEnd - op);
        if (lit > outLeft) {
            const size_t n = outLeft < inLeft ? outLeft : inLeft;
            copyExact(op, ip, n);
            op += n, ip += n;
            return report(ozrWarnDstSizeLess);
        }
        if (lit != inLeft && lit + 8 > inLeft) {
            const size_t n = lit < inLeft ? lit : inLeft;
            copyExact(op, ip, n);
            op += n, ip += n;
            return report(ozrWarnSrcSizeLess);
        }
        copyExact(op, ip, lit);
        op += lit, ip += lit;
        if (ip >= srcEnd || op >= dstEnd) return report(finalStatus);

        const size_t off = load16(ip);
        ip += 2;
        if (!offsetValid(op, off)) return ozrErrFailed;
        size_t ml = token & kRunMask;
        if (ml == kRunMask) ml = readLengthExt(ip, srcEnd, ml);
        ml += kMinMatch;
        if (ml > kMaxLength) return ozrErrSize;
        const size_t room = static_cast<size_t>(dstEnd - op);
        if (ml > room) {
            copyMatchExact<H>(op, off, room, hv);
            op += room;
            return report(ozrWarnDstSizeLess);
        }
        copyMatchExact<H>(op, off, ml, hv);
        op += ml;
    }
}

}  // namespace
}  // namespace m7::lz4

using m7::lz4::History;
using m7::lz4::HistoryView;
using m7::lz4::decodeCore;

extern "C" {

// No history: matches reach back to the write start at most.
OzrResult m7_ownsDecodeLZ4_8u(const Ozr8u* pSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen) {
    OZR_CHECK_NULL(pSrc, pSrcLen, pDst, pDstLen);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    return decodeCore<History::None>(pSrc, pSrcLen, pDst, pDstLen, HistoryView{});
}

// Prefix history: the prefixSize bytes right before pDst are earlier output.
OzrResult m7_ownsDecodeLZ4WithPrefix_8u(const Ozr8u* pSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                                        Ozr32u prefixSize) {
    OZR_CHECK_NULL(pSrc, pSrcLen, pDst, pDstLen);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    HistoryView h;
    h.reach = static_cast<ptrdiff_t>(prefixSize);
    return decodeCore<History::Prefix>(pSrc, pSrcLen, pDst, pDstLen, h);
}

OzrResult m7_ozrsDecodeLZ4_8u(const Ozr8u* pSrc, int srcLen, Ozr8u* pDst, int* pDstLen) {
    OZR_CHECK_NULL(pSrc, pDst, pDstLen);
    OZR_CHECK_POSITIVE(srcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    int consumed = srcLen;  // the consumed count is not handed back
    return decodeCore<History::None>(pSrc, &consumed, pDst, pDstLen, HistoryView{});
}

OzrResult m7_ozrsDecodeLZ4Dict_8u(const Ozr8u* pSrc, int* pSrcLen, Ozr8u* pDst, int dstIdx, int* pDstLen,
                                  const Ozr8u* pDict, int dictSize) {
    OZR_CHECK_NULL(pSrc, pSrcLen, pDst, pDstLen);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    Ozr8u* const start = pDst + dstIdx;
    if (pDict == nullptr || dictSize == 0) return m7_ownsDecodeLZ4_8u(pSrc, pSrcLen, start, pDstLen);
    if (pDict + dictSize == start)
        return m7_ownsDecodeLZ4WithPrefix_8u(pSrc, pSrcLen, start, pDstLen, static_cast<Ozr32u>(dictSize));
    // External dictionary, standing virtually in place of pDst[0, dictSize): the
    // history starts at the buffer's base whatever dstIdx is.
    OZR_CHECK_POSITIVE(dictSize);
    HistoryView h;
    h.reach = dstIdx;
    h.base = pDst;
    h.dict = pDict;
    h.dictSize = static_cast<size_t>(dictSize);
    return decodeCore<History::ExtDict>(pSrc, pSrcLen, start, pDstLen, h);
}

}  // extern "C"
