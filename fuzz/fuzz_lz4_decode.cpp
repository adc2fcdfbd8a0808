// The LZ4 block decoder without history on arbitrary blocks: input and output end
// right before unmapped pages; the first two bytes choose the output capacity.
#include <cstdint>
#include <cstdlib>

#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const int cap = 1 + (data[0] | data[1] << 8);
    GuardedBuffer in(data + 2, size - 2);
    GuardedBuffer out(static_cast<size_t>(cap));
    int dl = cap;
    OzrResult st = m7_ozrsDecodeLZ4_8u(in.data(), static_cast<int>(in.size()), out.data(), &dl);
    if (st >= 0 && (dl < 0 || dl > cap)) std::abort();
    if (st != ozrOk && st != ozrWarnSrcSizeLess && st != ozrWarnDstSizeLess && st != ozrErrFailed && st != ozrErrSize)
        std::abort();
    return 0;
}
