// A byte-at-a-time LZ4 block decoder that follows the stop rules literally and has no
// fast path: the oracle against which the tests and the decode fuzz target check the
// fast loop's statuses, counts and bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "m7.h"

namespace ref {

struct Lz4Result {
    OzrResult st;
    int srcLen, dstLen;  // -1 for the errors that leave the caller's counts alone
    bool selfCopy;       // an offset of 0 was met: those bytes are copied onto themselves
};

// `reach` bytes before dst are history (0: none, else a prefix lying in memory).
inline Lz4Result lz4Decode(const uint8_t* src, size_t srcLen, uint8_t* dst, size_t cap, size_t reach) {
    size_t ip = 0, op = 0;
    bool selfCopy = false;
    const OzrResult last = srcLen == 1 ? ozrWarnSrcSizeLess : ozrOk;
    auto stop = [&](OzrResult st) { return Lz4Result{st, static_cast<int>(ip), static_cast<int>(op), selfCopy}; };
    auto fail = [&](OzrResult st) { return Lz4Result{st, -1, -1, selfCopy}; };
    auto length = [&](size_t len) {
        while (ip < srcLen) {
            const uint8_t b = src[ip++];
            len += b;
            if (b != 255) break;
        }
        return len;
    };
    auto copyLiterals = [&](size_t n) {
        for (; n > 0 && ip < srcLen && op < cap; --n) dst[op++] = src[ip++];
    };
    for (;;) {
        if (ip + 1 >= srcLen) return stop(last);
        const uint8_t token = src[ip++];
        size_t lit = token >> 4;
        if (lit == 15 && (lit = length(lit)) > 0x7FFFFFFF) return fail(ozrErrSize);
        if (lit > cap - op) return copyLiterals(lit), stop(ozrWarnDstSizeLess);
        if (lit != srcLen - ip && lit + 8 > srcLen - ip) return copyLiterals(lit), stop(ozrWarnSrcSizeLess);
        copyLiterals(lit);
        if (ip >= srcLen || op >= cap) return stop(last);
        const size_t off = src[ip] | src[ip + 1] << 8;
        ip += 2;
        if (off > op + reach) return fail(ozrErrFailed);
        selfCopy |= off == 0;
        size_t ml = token & 15;
        if (ml == 15) ml = length(ml);
        if ((ml += 4) > 0x7FFFFFFF) return fail(ozrErrSize);
        for (; ml > 0 && op < cap; --ml, ++op) dst[op] = dst[static_cast<ptrdiff_t>(op) - static_cast<ptrdiff_t>(off)];
        if (ml > 0) return stop(ozrWarnDstSizeLess);
    }
}

}  // namespace ref
