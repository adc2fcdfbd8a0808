// The LZ4 block decoder with an external dictionary. The dictionary and the input
// end before unmapped pages; the output buffer (virtual dictionary area plus
// capacity) is a heap block checked by AddressSanitizer. Bytes 0-1: capacity;
// byte 2: dictionary size / 2; byte 3: where writing starts relative to the
// dictionary size (usually exactly there).
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5) return 0;
    const int cap = 1 + (data[0] | data[1] << 8);
    const int dictSize = data[2] * 2 + 1;
    const int shift = data[3] < 200 ? 0 : (data[3] - 200) % 16;  // write start at or after the dictionary's end
    GuardedBuffer dict(static_cast<size_t>(dictSize));
    for (int i = 0; i < dictSize; ++i) dict.data()[i] = static_cast<uint8_t>(i * 13 + 1);
    GuardedBuffer in(data + 4, size - 4);
    const int dstIdx = dictSize + shift;
    std::vector<uint8_t> buf(static_cast<size_t>(dstIdx + cap));
    int sl = static_cast<int>(in.size()), dl = cap;
    OzrResult st = m7_ozrsDecodeLZ4Dict_8u(in.data(), &sl, buf.data(), dstIdx, &dl, dict.data(), dictSize);
    if (st >= 0 && (dl < 0 || dl > cap || sl < 0 || sl > static_cast<int>(in.size()))) std::abort();
    return 0;
}
