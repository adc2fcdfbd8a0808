// bzip2's initial run-length coding: a run of 4 to 259 equal bytes is written as
// four copies of the byte and one count byte holding the length minus 4 (0..255).
// Shorter runs are plain literals. The byte after a count byte always starts a new
// run, even when it equals the run's byte.
//
// Both directions are resumable through the 264-byte state: the encoder keeps the
// open run (its byte and its length so far, the four copies already written
// included), so a run split across calls codes as if it came in one piece; the
// decoder keeps the copies it still owes when the output room ran out.
#include "bzip2_internal.h"

namespace {

constexpr int kMaxRun = 259;

inline bool runStartsAt(const Ozr8u* p, int last) { return p[0] == last && p[1] == last && p[2] == last; }

// Copies of `last` owed after the run whose first copy was written last: the
// three copies at p, then the count byte. Later complete groups that continue the
// same run (four copies and a count) are merged in while more than four input
// bytes remain. Advances *in.
inline int takeRun(const Ozr8u* src, int srcLen, int* in, int last) {
    int i = *in;
    int owed = src[i + 3] + 3;
    i += 4;
    while (srcLen - i > 4 && src[i] == last && runStartsAt(src + i + 1, last)) {
        owed += src[i + 4] + 4;
        i += 5;
    }
    *in = i;
    return owed;
}

inline void fill(Ozr8u value, Ozr8u* dst, int n) {
    if (n >= 16) {
        m7_ownsSet_8u(value, dst, static_cast<size_t>(n));
    } else {
        for (int k = 0; k < n; ++k) dst[k] = value;
    }
}

}  // namespace

extern "C" {

OzrResult m7_ozrsRLEGetSize_BZ2_8u(int* pSize) {
    OZR_CHECK_NULL(pSize);
    *pSize = static_cast<int>(sizeof(OzrsRLEState_BZ2));
    return ozrOk;
}

OzrResult m7_ozrsEncodeRLEInit_BZ2_8u(OzrsRLEState_BZ2* pState) {
    OZR_CHECK_NULL(pState);
    m7_ownsZero_8u(pState->inUse, sizeof(pState->inUse));
    pState->lastSym = -1;
    pState->runLen = 0;
    return ozrOk;
}

OzrResult m7_ozrsEncodeRLE_BZ2_8u(const Ozr8u** ppSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                                  OzrsRLEState_BZ2* pState) {
    OZR_CHECK_NULL(ppSrc, pDst, pSrcLen, pDstLen);
    OZR_CHECK_NULL(*ppSrc, pState);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    const Ozr8u* src = *ppSrc;
    const int n = *pSrcLen;
    const int room = *pDstLen;
    Ozr8u* inUse = pState->inUse;
    int in = 0, out = 0;
    int run = pState->runLen;
    int last = pState->lastSym;
    for (;;) {
        // Literals until a run reaches its fourth copy. Two different bytes at a
        // run length below 2 cannot complete a run, so they go as a pair.
        if (run < 4) {
            while (in < n && out < room) {
                if (run < 2 && n - in >= 2 && room - out >= 2 && src[in] != src[in + 1]) {
                    Ozr8u a = src[in], b = src[in + 1];
                    pDst[out] = a;
                    pDst[out + 1] = b;
                    inUse[a] = 1;
                    inUse[b] = 1;
                    in += 2;
                    out += 2;
                    run = 1;
                    last = b;
                    continue;
                }
                Ozr8u b = src[in++];
                pDst[out++] = b;
                run = b == last ? run + 1 : 1;
                inUse[b] = 1;
                last = b;
                if (run == 4) break;
            }
        }
        if (out >= room) break;
        // Past the fourth copy only the length grows.
        while (in < n && src[in] == last && run < kMaxRun) {
            ++in;
            ++run;
        }
        if (in >= n) break;
        // A different byte follows or the run is full: close it with its count.
        Ozr8u count = static_cast<Ozr8u>(run - 4);
        pDst[out++] = count;
        inUse[count] = 1;
        run = 0;
    }
    pState->lastSym = last;
    pState->runLen = run;
    *ppSrc = src + in;
    *pSrcLen = n - in;
    *pDstLen = out;
    return in < n ? ozrWarnDstSizeLess : ozrOk;
}

OzrResult m7_ozrsEncodeRLEFlush_BZ2_8u(Ozr8u* pDst, int* pDstLen, OzrsRLEState_BZ2* pState) {
    OZR_CHECK_NULL(pDst, pDstLen, pState);
    OZR_CHECK_POSITIVE(*pDstLen);
    if (pState->runLen < 4) {
        *pDstLen = 0;
        return ozrOk;
    }
    Ozr8u count = static_cast<Ozr8u>(pState->runLen - 4);
    pDst[0] = count;
    pState->inUse[count] = 1;
    pState->runLen = 0;
    *pDstLen = 1;
    return ozrOk;
}

OzrResult m7_ozrsDecodeRLEStateInit_BZ2_8u(OzrsRLEState_BZ2* pState) {
    OZR_CHECK_NULL(pState);
    pState->lastSym = -1;
    pState->runLen = 0;
    return ozrOk;
}

OzrResult m7_ozrsDecodeRLEState_BZ2_8u(const Ozr8u** ppSrc, int* pSrcLen, Ozr8u** ppDst, int* pDstLen,
                                       OzrsRLEState_BZ2* pState) {
    OZR_CHECK_NULL(ppSrc, pSrcLen, ppDst, pDstLen);
    OZR_CHECK_NULL(*ppSrc, *ppDst, pState);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    const Ozr8u* src = *ppSrc;
    const int n = *pSrcLen;
    Ozr8u* dst = *ppDst;
    int room = *pDstLen;
    int in = 0, out = 0;
    int last = pState->lastSym;
    int owed = pState->runLen;
    OzrResult status = ozrOk;
    // Writes the owed copies; false when the room ran out first (the rest stays
    // owed and the run's byte is kept).
    auto payOwed = [&]() {
        if (owed <= room - out) {
            fill(static_cast<Ozr8u>(last), dst + out, owed);
            out += owed;
            owed = 0;
            last = -1;
            return true;
        }
        fill(static_cast<Ozr8u>(last), dst + out, room - out);
        owed -= room - out;
        out = room;
        return false;
    };
    if (owed > 0 && !payOwed()) {
        status = ozrWarnDstSizeLess;
    } else if (out < room) {
        // Run detection needs the current byte and three more.
        while (n - in >= 4) {
            if (runStartsAt(src + in, last)) {
                owed = takeRun(src, n, &in, last);
                if (!payOwed()) {
                    status = ozrWarnDstSizeLess;
                    break;
                }
                if (out == room) break;  // filled exactly at a run's end: ozrOk
                continue;
            }
            Ozr8u b = src[in++];
            dst[out++] = b;
            last = b;
            if (out == room) {
                // Full during literals: a run starting here is taken into the state
                // so that the next call (or Flush) writes it.
                if (n - in >= 4 && runStartsAt(src + in, last)) owed = takeRun(src, n, &in, last);
                status = ozrWarnDstSizeLess;
                break;
            }
        }
        // The last three bytes or fewer: literals, as far as the room goes.
        if (status == ozrOk && n - in < 4) {
            while (in < n && out < room) dst[out++] = src[in++];
        }
    }
    pState->lastSym = last;
    pState->runLen = owed;
    *ppSrc = src + in;
    *pSrcLen = n - in;
    *ppDst = dst + out;
    *pDstLen = room - out;
    return status;
}

OzrResult m7_ozrsDecodeRLEStateFlush_BZ2_8u(OzrsRLEState_BZ2* pState, Ozr8u** ppDst, int* pDstLen) {
    OZR_CHECK_NULL(pState, ppDst, pDstLen);
    OZR_CHECK_NULL(*ppDst);
    int n = pState->runLen < 0 ? 0 : pState->runLen;
    const Ozr8u value = static_cast<Ozr8u>(pState->lastSym);
    OzrResult status = ozrOk;
    if (n > *pDstLen) {
        n = *pDstLen < 0 ? 0 : *pDstLen;
        status = ozrWarnDstSizeLess;
    } else {
        pState->lastSym = -1;
    }
    fill(value, *ppDst, n);
    pState->runLen -= n;
    *ppDst += n;
    *pDstLen -= n;
    return status;
}

OzrResult m7_ozrsRLEGetInUseTable_8u(Ozr8u inUse[256], const OzrsRLEState_BZ2* pRLEState) {
    OZR_CHECK_NULL(inUse, pRLEState);
    m7_ownsMove_8u_M7(pRLEState->inUse, inUse, 256);
    return ozrOk;
}

}  // extern "C"
