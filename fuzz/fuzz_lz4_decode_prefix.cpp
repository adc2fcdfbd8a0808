// The LZ4 block decoder with a prefix (history right before the output): the
// prefix and output share one heap block, so a read before the prefix or a write
// past the capacity is caught by AddressSanitizer; the input ends before an
// unmapped page. Bytes 0-1: capacity; byte 2: prefix size / 4. Status, counts and
// bytes must be those of the byte-at-a-time reference with the same history.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../tests/lz4_ref.h"
#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const int cap = 1 + (data[0] | data[1] << 8);
    const int prefix = data[2] * 4 + 1;
    GuardedBuffer in(data + 3, size - 3);
    std::vector<uint8_t> buf(static_cast<size_t>(prefix + cap));
    for (int i = 0; i < prefix; ++i) buf[i] = static_cast<uint8_t>(i * 7);
    int sl = static_cast<int>(in.size()), dl = cap;
    OzrResult st = m7_ozrsDecodeLZ4Dict_8u(in.data(), &sl, buf.data(), prefix, &dl, buf.data(), prefix);
    if (st >= 0 && (dl < 0 || dl > cap || sl < 0 || sl > static_cast<int>(in.size()))) std::abort();

    std::vector<uint8_t> want(static_cast<size_t>(prefix + cap));
    std::memcpy(want.data(), buf.data(), static_cast<size_t>(prefix));
    const ref::Lz4Result m = ref::lz4Decode(in.data(), in.size(), want.data() + prefix, static_cast<size_t>(cap),
                                            static_cast<size_t>(prefix));
    if (st != m.st) std::abort();
    if (m.srcLen < 0) return 0;
    if (sl != m.srcLen || dl != m.dstLen) std::abort();
    if (!m.selfCopy && std::memcmp(buf.data() + prefix, want.data() + prefix, static_cast<size_t>(dl)) != 0)
        std::abort();
    return 0;
}
