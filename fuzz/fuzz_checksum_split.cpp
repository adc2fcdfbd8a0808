// Checksums over guarded input at any length, offset and split point: each must
// equal its bitwise definition, and two calls must equal one. A one-byte over-read
// past the input faults on the guard page.
#include <cstdint>
#include <cstdlib>

#include "../src/checksum/checksum.h"
#include "../tests/checksum_ref.h"
#include "guarded.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 6) return 0;
    // Header: start value (4 bytes), split point selector (2 bytes); the rest is data.
    Ozr32u start = Ozr32u(data[0]) | Ozr32u(data[1]) << 8 | Ozr32u(data[2]) << 16 | Ozr32u(data[3]) << 24;
    size_t split = (size_t(data[4]) | size_t(data[5]) << 8);
    data += 6;
    size -= 6;
    if (size == 0) return 0;
    split %= size + 1;
    GuardedBuffer in(data, size);
    const Ozr8u* p = in.data();

    Ozr32u v = start;
    if (ozrsCRC32_8u(p, Ozr32s(size), &v) != ozrOk || v != ref::crc32(start, p, size)) abort();
    v = start;
    if (ozrsCRC32C_8u(p, Ozr32u(size), &v) != ozrOk || v != ref::crc32c(start, p, size)) abort();
    v = start;
    if (ozrsCRC32_BZ2_8u(p, Ozr32s(size), &v) != ozrOk || v != ref::bz2(start, p, size)) abort();
    v = start;
    if (ozrsAdler32_8u(p, Ozr32s(size), &v) != ozrOk || v != ref::adler(start, p, size)) abort();

    if (split > 0 && split < size) {
        Ozr32u one = start, two = start;
        ozrsCRC32_8u(p, Ozr32s(size), &one);
        ozrsCRC32_8u(p, Ozr32s(split), &two);
        ozrsCRC32_8u(p + split, Ozr32s(size - split), &two);
        if (one != two) abort();
        one = two = start;
        ozrsCRC32C_8u(p, Ozr32u(size), &one);
        ozrsCRC32C_8u(p, Ozr32u(split), &two);
        ozrsCRC32C_8u(p + split, Ozr32u(size - split), &two);
        if (one != two) abort();
        one = two = start;
        ozrsCRC32_BZ2_8u(p, Ozr32s(size), &one);
        ozrsCRC32_BZ2_8u(p, Ozr32s(split), &two);
        ozrsCRC32_BZ2_8u(p + split, Ozr32s(size - split), &two);
        if (one != two) abort();
        one = two = start;
        ozrsAdler32_8u(p, Ozr32s(size), &one);
        ozrsAdler32_8u(p, Ozr32s(split), &two);
        ozrsAdler32_8u(p + split, Ozr32s(size - split), &two);
        if (one != two) abort();
    }
    return 0;
}
