// The inverse BWT on arbitrary last columns and primary indexes (input, output and
// work buffer each end right before an unmapped page), then the forward transform
// of what came out, in the mode the second byte picks, and the inverse again: the
// forward output must decode back to the block it came from. The block decoder's
// in-place form of the inverse must agree with the plain one.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../src/bzip2/bzip2_internal.h"
#include "guarded.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 20000) return 0;
    // First byte: the index, relative to the end (so that n - 1, n and beyond are
    // reached); 255 stands for a negative index.
    const int n = static_cast<int>(size - 2);
    const int index = data[0] == 255 ? -3 : n - 1 - (data[0] % 8) + (data[0] >= 128 ? 0 : -(data[0] >> 3) * 37);
    const int mode = data[1] % 5 - 1;  // -1: the fixed entry point
    GuardedBuffer last(data + 2, static_cast<size_t>(n));
    GuardedBuffer block(static_cast<size_t>(n));
    int invSize = 0;
    if (m7_ozrsBWTInvGetSize_8u(n, &invSize) != ozrOk) std::abort();
    GuardedBuffer work(static_cast<size_t>(invSize));
    OzrResult r = m7_ozrsBWTInv_8u(last.data(), block.data(), n, index, work.data());
    if (index >= n) {
        if (r != ozrErrSize) std::abort();
        return 0;
    }
    if (r != ozrOk) std::abort();

    // The block decoder's form (the column in the low bytes of the link words)
    // decodes alike.
    {
        std::vector<Ozr32u> linked(static_cast<size_t>(n));
        Ozr32u counts[256] = {};
        for (int i = 0; i < n; ++i) {
            linked[static_cast<size_t>(i)] = last.data()[i];
            ++counts[last.data()[i]];
        }
        GuardedBuffer out(static_cast<size_t>(n));
        m7_ownsBWTInvLinked_8u(linked.data(), out.data(), n, index < 0 ? 0 : index, counts);
        if (std::memcmp(out.data(), block.data(), static_cast<size_t>(n)) != 0) std::abort();
    }

    int fwdSize = 0;
    if (mode < 0) {
        m7_ozrsBWTFwdGetSize_8u(n, &fwdSize);
    } else {
        m7_ozrsBWTFwdGetBufSize_SelectSort_8u(n, &fwdSize, mode);
    }
    GuardedBuffer fwdWork(static_cast<size_t>(fwdSize));
    GuardedBuffer column(static_cast<size_t>(n));
    int primary = -1;
    r = mode < 0 ? m7_ozrsBWTFwd_8u(block.data(), column.data(), n, &primary, fwdWork.data())
                 : m7_ozrsBWTFwd_SelectSort_8u(block.data(), column.data(), n, &primary, fwdWork.data(), mode);
    if (r == ozrWarnBWTSortLimit && mode == 0) return 0;
    if (r != ozrOk || primary < 0 || primary >= n) std::abort();
    GuardedBuffer again(static_cast<size_t>(n));
    if (m7_ozrsBWTInv_8u(column.data(), again.data(), n, primary, work.data()) != ozrOk) std::abort();
    if (std::memcmp(again.data(), block.data(), static_cast<size_t>(n)) != 0) std::abort();
    return 0;
}
