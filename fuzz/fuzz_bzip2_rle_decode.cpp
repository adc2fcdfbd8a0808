// The bzip2 RLE decoder on arbitrary input, against unmapped guard pages on the
// input and on every output piece. The first byte chooses the room of each call.
// Decoding in one call with room for everything, then flushing, must give the same
// bytes as decoding into small rooms call after call and flushing at the end; every
// call's counts must be consistent.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../src/bzip2/bzip2_internal.h"
#include "guarded.h"

namespace {

// Decodes all of `in` with rooms of `room` bytes; the output is appended to out.
void decodeAll(const uint8_t* in, int inLen, int room, std::vector<uint8_t>& out) {
    OzrsRLEState_BZ2 st;
    m7_ozrsDecodeRLEStateInit_BZ2_8u(&st);
    const Ozr8u* p = in;
    int left = inLen;
    while (left > 0) {
        GuardedBuffer piece(static_cast<size_t>(room));
        Ozr8u* q = piece.data();
        int srcLen = left, dstLen = room;
        OzrResult r = m7_ozrsDecodeRLEState_BZ2_8u(&p, &srcLen, &q, &dstLen, &st);
        if (r != ozrOk && r != ozrWarnDstSizeLess) std::abort();
        if (srcLen < 0 || srcLen > left || p != in + (inLen - srcLen)) std::abort();
        if (dstLen < 0 || q != piece.data() + (room - dstLen)) std::abort();
        if (srcLen == left && dstLen == room && st.runLen == 0) std::abort();  // no progress
        out.insert(out.end(), piece.data(), q);
        left = srcLen;
        // Copies still owed are drained by the next call or by the flush below.
    }
    for (;;) {
        GuardedBuffer piece(static_cast<size_t>(room));
        Ozr8u* q = piece.data();
        int dstLen = room;
        OzrResult r = m7_ozrsDecodeRLEStateFlush_BZ2_8u(&st, &q, &dstLen);
        out.insert(out.end(), piece.data(), q);
        if (r == ozrOk) break;
        if (r != ozrWarnDstSizeLess || q == piece.data()) std::abort();
    }
    if (st.runLen != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 4096) return 0;
    const int room = 1 + data[0] % 64;
    GuardedBuffer in(data + 1, size - 1);
    const int n = static_cast<int>(in.size());
    // The largest expansion: every five bytes make 259.
    std::vector<uint8_t> whole, pieces;
    decodeAll(in.data(), n, 52 * n + 16, whole);
    decodeAll(in.data(), n, room, pieces);
    if (whole != pieces) std::abort();
    return 0;
}
