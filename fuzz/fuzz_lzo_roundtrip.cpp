// Every coder round trip: the first byte picks the method (0, 1, 2, or the container
// with 1..32 parts) and a room cut; the rest is the input. A full-room encode must
// decode (checked decoder, and the unchecked one on the same valid stream) to the
// input; a short-room encode must stop within its room with ozrWarnDstSizeLess and
// leave a prefix-decodable stream.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "guarded.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint8_t sel = data[0], cut = data[1];
    data += 2;
    size -= 2;
    static std::vector<uint64_t> stateMem(131104 / 8);
    auto* st = reinterpret_cast<OzrLZOState*>(stateMem.data());
    Ozr32u method = sel % 4;
    if (m7_ozrsEncodeLZOInit_8u(method == 3 ? 0 : method, Ozr32u(size), st) != ozrOk) __builtin_trap();
    if (method == 3) {
        st->method = OZR_LZO_METHOD_CONTAINER;
        st->numParts = 1 + (sel >> 2) % 32;
    }
    GuardedBuffer in(data, size);
    size_t full = size + size / 16 + 64 + 3 + 7 * 32 + 4;
    size_t room = cut & 1 ? full : full * (cut >> 1) / 256;
    GuardedBuffer enc(room);
    Ozr32u encLen = Ozr32u(room);
    OzrResult r = m7_ozrsEncodeLZO_8u(in.data(), Ozr32u(size), enc.data(), &encLen, st);
    if (encLen > room) __builtin_trap();
    if (r == ozrWarnDstSizeLess) {
        if (room == full) __builtin_trap();
        if (method == 3 || encLen == 0) return 0;  // a partial container has no final sizes
        GuardedBuffer dec(size);
        Ozr32u decLen = Ozr32u(size);
        if (m7_ozrsDecodeLZOSafe_8u(enc.data(), encLen, dec.data(), &decLen) != ozrOk) __builtin_trap();
        if (decLen > size || std::memcmp(dec.data(), in.data(), decLen) != 0) __builtin_trap();
        return 0;
    }
    if (r != ozrOk) __builtin_trap();
    if (size == 0) return encLen == 0 ? 0 : (__builtin_trap(), 0);
    GuardedBuffer dec(size);
    Ozr32u decLen = Ozr32u(size);
    if (m7_ozrsDecodeLZOSafe_8u(enc.data(), encLen, dec.data(), &decLen) != ozrOk) __builtin_trap();
    if (decLen != size || std::memcmp(dec.data(), in.data(), size) != 0) __builtin_trap();
    GuardedBuffer dec2(size);
    if (m7_ozrsDecodeLZO_8u(enc.data(), encLen, dec2.data(), &decLen) != ozrOk) __builtin_trap();
    if (decLen != size || std::memcmp(dec2.data(), in.data(), size) != 0) __builtin_trap();
    return 0;
}
