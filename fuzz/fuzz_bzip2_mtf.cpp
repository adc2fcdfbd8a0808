// Move-to-front both ways on blocks long enough to be coded in segments, against
// unmapped guard pages after the source and the destination. The first two bytes
// choose the length (up to ~40 KB, past both segment thresholds) and the start
// state; the rest, repeated with a twist per pass, is the block. Ranks and final
// states must equal a plain list reference, in place and apart, and the inverse
// must give the block back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../src/bzip2/bzip2_internal.h"
#include "guarded.h"

namespace {

void refFwd(const uint8_t* in, size_t n, uint8_t* out, uint8_t* list) {
    for (size_t i = 0; i < n; ++i) {
        uint8_t r = 0;
        while (list[r] != in[i]) ++r;
        out[i] = r;
        std::memmove(list + 1, list, r);
        list[0] = in[i];
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const size_t n = 1 + (static_cast<size_t>(data[0]) << 8 | data[1]) % 40000;
    const uint8_t* body = data + 2;
    const size_t m = size - 2;
    std::vector<uint8_t> block(n);
    for (size_t i = 0; i < n; ++i) block[i] = static_cast<uint8_t>(body[i % m] + (data[0] & 1 ? i / m : 0));
    // Start list: 0..255 rotated by data[1] (a permutation, so both forms exist).
    uint8_t list[256], rank[256];
    for (int r = 0; r < 256; ++r) list[r] = static_cast<uint8_t>(r + data[1]);
    for (int r = 0; r < 256; ++r) rank[list[r]] = static_cast<uint8_t>(r);
    std::vector<uint8_t> want(n);
    uint8_t wantList[256];
    std::memcpy(wantList, list, 256);
    refFwd(block.data(), n, want.data(), wantList);
    for (int inPlace = 0; inPlace < 2; ++inPlace) {
        GuardedBuffer src(block.data(), n), dst(n);
        uint8_t* out = inPlace ? src.data() : dst.data();
        uint8_t st[256];
        std::memcpy(st, rank, 256);
        if (m7_ozrsMTFFwd_8u(src.data(), out, static_cast<int>(n), st) != ozrOk) std::abort();
        if (std::memcmp(out, want.data(), n) != 0) std::abort();
        for (int r = 0; r < 256; ++r)
            if (st[wantList[r]] != r) std::abort();
        GuardedBuffer ranks(want.data(), n), back(n);
        uint8_t* bytes = inPlace ? ranks.data() : back.data();
        std::memcpy(st, list, 256);
        if (m7_ozrsMTFInv_8u(ranks.data(), bytes, static_cast<int>(n), st) != ozrOk) std::abort();
        if (std::memcmp(bytes, block.data(), n) != 0 || std::memcmp(st, wantList, 256) != 0) std::abort();
    }
    return 0;
}
