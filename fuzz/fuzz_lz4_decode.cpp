// The LZ4 block decoder without history on arbitrary blocks: input and output end
// right before unmapped pages; the first two bytes choose the output capacity. The
// status, both counts and the bytes written must be those of the byte-at-a-time
// reference, whichever of the decoder's loops handled each sequence.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../tests/lz4_ref.h"
#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const int cap = 1 + (data[0] | data[1] << 8);
    GuardedBuffer in(data + 2, size - 2);
    GuardedBuffer out(static_cast<size_t>(cap));
    int sl = static_cast<int>(in.size()), dl = cap;
    OzrResult st = m7_ozrsDecodeLZ4Dict_8u(in.data(), &sl, out.data(), 0, &dl, nullptr, 0);
    if (st >= 0 && (dl < 0 || dl > cap)) std::abort();
    if (st != ozrOk && st != ozrWarnSrcSizeLess && st != ozrWarnDstSizeLess && st != ozrErrFailed && st != ozrErrSize)
        std::abort();

    std::vector<uint8_t> want(static_cast<size_t>(cap));
    const ref::Lz4Result m = ref::lz4Decode(in.data(), in.size(), want.data(), want.size(), 0);
    if (st != m.st) std::abort();
    if (m.srcLen < 0) {
        // Errors leave the caller's counts as they were.
        if (sl != static_cast<int>(in.size()) || dl != cap) std::abort();
        return 0;
    }
    if (sl != m.srcLen || dl != m.dstLen) std::abort();
    // Bytes copied onto themselves (offset 0) hold whatever the buffer held.
    if (!m.selfCopy && std::memcmp(out.data(), want.data(), static_cast<size_t>(dl)) != 0) std::abort();

    // The plain entry point decodes the same way.
    int dl2 = cap;
    if (m7_ozrsDecodeLZ4_8u(in.data(), static_cast<int>(in.size()), out.data(), &dl2) != st) std::abort();
    if (st >= 0 && dl2 != dl) std::abort();
    return 0;
}
