// The checked decoder on inputs shaped as multi-part containers: the fuzzer's bytes
// become the part streams and a few header fields, the header is built to pass the
// recognition rule most of the time, so the per-part slicing and the part-size checks
// are exercised. Input and output end right before unmapped pages.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    size_t parts = 1 + data[0] % 32;
    size_t total = size_t(data[1]) << 6 | data[2];  // up to 16383 bytes of output
    size_t roomCut = data[3];                       // room = total - roomCut (when positive)
    data += 4;
    size -= 4;
    // Part sizes: split the remaining bytes evenly, each part closed by an end marker.
    std::vector<uint8_t> c = {0x55, uint8_t(parts), uint8_t(parts ^ 0x55)};
    for (int i = 0; i < 4; ++i) c.push_back(uint8_t(total >> (8 * i)));
    size_t per = size / parts;
    std::vector<uint8_t> body;
    for (size_t i = 0; i < parts; ++i) {
        size_t len = i + 1 < parts ? per : size - per * i;
        body.insert(body.end(), data + per * i, data + per * i + len);
        body.insert(body.end(), {17, 0, 0});
        if (i + 1 < parts)
            for (int k = 0; k < 4; ++k) c.push_back(uint8_t((len + 3) >> (8 * k)));
    }
    c.insert(c.end(), body.begin(), body.end());
    size_t room = total > roomCut ? total - roomCut : total;
    GuardedBuffer in(c.data(), c.size());
    GuardedBuffer out(room);
    Ozr32u len = Ozr32u(room);
    OzrResult r = m7_ozrsDecodeLZOSafe_8u(in.data(), Ozr32u(in.size()), out.data(), &len);
    if (r != ozrOk && r != ozrErrLZOBroken) __builtin_trap();
    if (len > room) __builtin_trap();
    return 0;
}
