// The checked LZO1X decoder on arbitrary input: input and output each end right before
// an unmapped page, so a read or write one byte past either faults. The first two
// bytes choose the output room; what remains is the stream.
#include <cstddef>
#include <cstdint>

#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    size_t room = size_t(data[0]) << 8 | data[1];
    GuardedBuffer in(data + 2, size - 2);
    GuardedBuffer out(room);
    Ozr32u len = Ozr32u(room);
    OzrResult r = m7_ozrsDecodeLZOSafe_8u(in.data(), Ozr32u(in.size()), out.data(), &len);
    if (r != ozrOk && r != ozrErrLZOBroken) __builtin_trap();
    if (r == ozrOk && len > room) __builtin_trap();
    if (r == ozrErrLZOBroken && len != room) {
        // A container reports the sum of its good parts even when one failed.
        if (!(size >= 6 && data[2] == 0x55) || len > room) __builtin_trap();
    }
    return 0;
}
