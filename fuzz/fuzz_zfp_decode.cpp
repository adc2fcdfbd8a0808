// Decodes arbitrary bytes as a ZFP block stream with arbitrary (bounded) parameters.
// The input and the output block both end right before an unmapped page: only
// statuses may come out, never an access out of bounds.
//
// Input layout: 8 parameter bytes (minBits 0..8191, maxBits 0..8191, maxPrec 0..70,
// minExp -160..95, a block count 1..16), then the stream.
#include <cstdint>
#include <cstring>

#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8) return 0;
    const int minBits = (data[0] | data[1] << 8) & 0x1FFF;
    const int maxBits = (data[2] | data[3] << 8) & 0x1FFF;
    const int maxPrec = data[4] % 71;
    const int minExp = int(data[5]) - 160;
    const int blocks = 1 + (data[6] & 15);
    const bool accuracy = data[7] & 1;
    data += 8;
    size -= 8;
    if (size == 0) return 0;

    GuardedBuffer in(data, size);
    OzrsZfpState_32f st;
    if (m7_ozrsDecodeZfpInit_32f(in.data(), int(size), &st) != ozrOk) __builtin_trap();
    if (m7_ozrsDecodeZfpSet_32f(minBits, maxBits, maxPrec, minExp, &st) != ozrOk) __builtin_trap();
    if (accuracy) m7_ozrsDecodeZfpSetAccuracy_32f(&st, double(minExp) / 16.0);

    // One block per call into the last 64 floats before the guard page.
    GuardedBuffer out(64 * sizeof(float));
    for (int b = 0; b < blocks; ++b) {
        OzrResult r = m7_ozrsDecodeZfp444_32f(&st, reinterpret_cast<float*>(out.data()), 16, 64);
        if (r == ozrErrOutOfRange) {
            if (st.pCur != st.pEnd) __builtin_trap();
            break;
        }
        if (r != ozrOk) __builtin_trap();
        if (st.pCur < st.pStart || st.pCur > st.pEnd || st.bitCount < 0 || st.bitCount > 64) __builtin_trap();
    }
    return 0;
}
