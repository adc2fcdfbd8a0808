// Differential against zlib's inflate. The input is taken two ways: as a raw Deflate
// stream as it stands (both decoders must agree on whether it is valid and, if it is,
// on every byte), and as data that zlib compresses (level, strategy and sync flushes
// chosen by the first bytes) and that we decode in random input and output chunks.
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../tests/inflate_driver.h"
#include "guarded.h"

namespace {

using Bytes = std::vector<uint8_t>;

// zlib's verdict on a raw stream: complete (Z_STREAM_END) or not, and its output.
bool zlibInflate(const uint8_t* p, size_t n, size_t maxOut, Bytes& out, size_t& end) {
    z_stream z{};
    if (inflateInit2(&z, -15) != Z_OK) std::abort();
    out.assign(maxOut, 0);
    z.next_in = const_cast<Bytef*>(p);
    z.avail_in = static_cast<uInt>(n);
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    const int r = inflate(&z, Z_FINISH);
    out.resize(z.total_out);
    end = z.total_in;
    inflateEnd(&z);
    return r == Z_STREAM_END;
}

Bytes zlibDeflate(const uint8_t* p, size_t n, int level, int strategy, size_t syncEvery) {
    z_stream z{};
    if (deflateInit2(&z, level, Z_DEFLATED, -15, 8, strategy) != Z_OK) std::abort();
    // A sync flush adds at most an empty stored block and a partial byte per piece, and
    // at level 0 each piece becomes stored blocks of its own.
    Bytes out(deflateBound(&z, n) + 64 + (syncEvery ? (n / syncEvery + 1) * 16 : 0));
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    size_t pos = 0;
    do {
        const size_t k = syncEvery ? std::min(syncEvery, n - pos) : n - pos;
        z.next_in = const_cast<Bytef*>(p + pos);
        z.avail_in = static_cast<uInt>(k);
        pos += k;
        const int r = deflate(&z, pos == n ? Z_FINISH : Z_SYNC_FLUSH);
        if (r != Z_OK && r != Z_STREAM_END) std::abort();
    } while (pos < n);
    if (z.avail_out == 0) std::abort();
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    constexpr size_t kMaxOut = 1 << 18;
    static OzrInflateState state;

    // 1. The input as a raw stream.
    {
        GuardedBuffer in(data, size);
        Bytes want;
        size_t wantEnd = 0;
        const bool ok = zlibInflate(in.data(), in.size(), kMaxOut, want, wantEnd);
        inflate_driver::Options o;
        o.maxOut = kMaxOut;
        o.inPiece = data[0] % 9;
        o.outPiece = data[1] % 9 == 0 ? 0 : data[1] % 9 * 97;
        const auto r = inflate_driver::inflateRaw(in.data(), in.size(), o);
        const bool ours = r.error == inflate_driver::Error::None;
        if (ours != ok && !(want.size() == kMaxOut)) std::abort();
        if (ok && (r.out != want || r.end != wantEnd)) std::abort();
        // Whatever we wrote before an error is what zlib wrote too.
        if (!ok && !ours && !std::equal(r.out.begin(), r.out.begin() + std::min(r.out.size(), want.size()), want.begin()))
            std::abort();
    }

    // 2. The input compressed by zlib, decoded in chunks.
    {
        const int level = data[0] % 10;
        const int strategies[] = {Z_DEFAULT_STRATEGY, Z_FILTERED, Z_HUFFMAN_ONLY, Z_RLE, Z_FIXED};
        const int strategy = strategies[data[1] % 5];
        const size_t sync = data[2] % 4 == 0 ? 1 + data[2] : 0;
        const Bytes stream = zlibDeflate(data + 3, size - 3, level, strategy, sync);
        GuardedBuffer in(stream.data(), stream.size());
        inflate_driver::Options o;
        o.inPiece = 1 + data[1] % 13;
        o.outPiece = 1 + data[2] % 31;
        o.windowed = data[0] & 0x80;
        const auto r = inflate_driver::inflateRaw(in.data(), in.size(), o);
        if (r.error != inflate_driver::Error::None || r.out.size() != size - 3 ||
            !std::equal(r.out.begin(), r.out.end(), data + 3) || r.end != stream.size())
            std::abort();
    }
    return 0;
}
