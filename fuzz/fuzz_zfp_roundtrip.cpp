// Encodes arbitrary floats (NaN, infinities and subnormals included) with arbitrary
// bounded parameters into a small output that ends before an unmapped page, then
// decodes what was written with the same parameters. Only statuses may come out;
// when every value is finite, each block must also decode without error (a
// non-finite block's header wraps and puts the decoder out of step, so running out
// of input is a legitimate outcome there).
//
// Input layout: 8 parameter bytes (minBits, maxBits 0..8191, maxPrec 0..70, minExp
// -160..95, output room 1..4096 bytes), then up to 4 blocks of 64 floats.
#include <cstdint>
#include <cstring>

#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8 + 256) return 0;
    const int minBits = (data[0] | data[1] << 8) & 0x1FFF;
    const int maxBits = (data[2] | data[3] << 8) & 0x1FFF;
    const int maxPrec = data[4] % 71;
    const int minExp = int(data[5]) - 160;
    const int room = 1 + ((data[6] | data[7] << 8) & 0xFFF);
    data += 8;
    size -= 8;
    const int blocks = int(size / 256) > 4 ? 4 : int(size / 256);
    float values[4 * 64];
    std::memcpy(values, data, size_t(blocks) * 256);

    GuardedBuffer out{size_t(room)};
    OzrsZfpState_32f st;
    if (m7_ozrsEncodeZfpInit_32f(out.data(), room, &st) != ozrOk) __builtin_trap();
    m7_ozrsEncodeZfpSet_32f(minBits, maxBits, maxPrec, minExp, &st);
    int encoded = 0;
    for (; encoded < blocks; ++encoded) {
        OzrResult r = m7_ozrsEncodeZfp444_32f(values + 64 * encoded, 16, 64, &st);
        if (r == ozrErrOutOfRange) break;
        if (r != ozrOk) __builtin_trap();
    }
    OzrResult f = m7_ozrsEncodeZfpFlush_32f(&st);
    if (f != ozrOk && f != ozrErrOutOfRange) __builtin_trap();
    Ozr32u written = 0;
    m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &written);
    if (written > Ozr32u(room)) __builtin_trap();
    if (written == 0 || f != ozrOk || encoded < blocks) return 0;

    GuardedBuffer in(out.data(), written);
    GuardedBuffer dst(64 * sizeof(float));
    if (m7_ozrsDecodeZfpInit_32f(in.data(), int(written), &st) != ozrOk) __builtin_trap();
    m7_ozrsDecodeZfpSet_32f(minBits, maxBits, maxPrec, minExp, &st);
    bool finite = true;
    for (int i = 0; i < blocks * 64; ++i) finite &= __builtin_isfinite(values[i]);
    for (int b = 0; b < blocks; ++b) {
        OzrResult r = m7_ozrsDecodeZfp444_32f(&st, reinterpret_cast<float*>(dst.data()), 16, 64);
        if (r == ozrOk) continue;
        if (finite || r != ozrErrOutOfRange) __builtin_trap();
        break;
    }
    return 0;
}
