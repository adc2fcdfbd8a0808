// The zfp container: raw little-endian float32 arrays compressed with this library's
// 4x4x4 block coder, behind the full header that the zfp command-line tool writes
// and reads with -h, so that either tool decompresses the other's files.
//
// Header (a bit stream, least significant bit first, no alignment before the blocks):
//   32 bits  'z' 'f' 'p' and the codec version 5
//   52 bits  field: scalar type - 1 (2 bits; float = 2), dimensionality - 1
//            (2 bits), then for 3-D nx-1, ny-1, nz-1 (16 bits each)
//   12 bits  mode, short form: fixed rate maxBits-1 (0..2047); fixed precision
//            2048 + maxPrec-1; 2176 reversible; fixed accuracy 2177 + minExp + 1074;
//   or 64    4095 in the low 12 bits, then minBits-1 and maxBits-1 (15 bits each),
//            maxPrec-1 (7 bits), minExp + 16495 (15 bits).
// The blocks follow in raster order (x fastest); a block that crosses the array's
// edge is completed by the published coder's padding rule, along x, then y, then z:
// with n valid values p0.., p1 = p0 (n = 1), p2 = p1 (n <= 2), p3 = p0 (n <= 3).
//
// The coder works on 3-D blocks: a 1-D or 2-D array is written as a 3-D field with
// the missing dimensions 1 (the zfp tool restores the same values from it); zfp
// files of 1-D, 2-D or 4-D fields, of other scalar types or in reversible mode are
// refused.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "codec.h"
#include "ozrdc.h"

namespace ozrdc_tool {
namespace {

constexpr int kZfpMinBits = 1, kZfpMaxBits = 16658, kZfpMaxPrec = 64, kZfpMinExp = -1074;
constexpr unsigned kCodecVersion = 5;

struct Params {
    int minBits, maxBits, maxPrec, minExp;
};

// Appends bits least significant first.
struct BitWriter {
    std::vector<unsigned char> bytes;
    uint64_t bits = 0;
    void put(uint64_t v, int n) {
        for (int i = 0; i < n; ++i, ++bits) {
            if (bits % 8 == 0) bytes.push_back(0);
            if ((v >> i) & 1) bytes.back() |= static_cast<unsigned char>(1u << (bits % 8));
        }
    }
};

struct BitReader {
    const unsigned char* p;
    size_t n;
    uint64_t pos = 0;
    uint64_t get(int count) {
        uint64_t v = 0;
        for (int i = 0; i < count; ++i, ++pos) {
            if (pos / 8 >= n) throw ToolError("zfp: truncated header");
            v |= uint64_t((p[pos / 8] >> (pos % 8)) & 1) << i;
        }
        return v;
    }
};

uint64_t modeCode(const Params& p, char kind) {
    if (kind == 'r' && p.maxBits <= 2048) return uint64_t(p.maxBits - 1);
    if (kind == 'p' && p.maxPrec <= 128) return uint64_t(2048 + p.maxPrec - 1);
    if (kind == 'a' && p.minExp <= 843) return uint64_t(2177 + p.minExp - kZfpMinExp);
    auto clampTo = [](long long v, long long lo, long long hi) { return v < lo ? lo : v > hi ? hi : v; };
    uint64_t m = uint64_t(clampTo(p.minExp + 16495LL, 0, 0x7fff));
    m = (m << 7) + uint64_t(clampTo(p.maxPrec, 1, 0x80) - 1);
    m = (m << 15) + uint64_t(clampTo(p.maxBits, 1, 0x8000) - 1);
    m = (m << 15) + uint64_t(clampTo(p.minBits, 1, 0x8000) - 1);
    return (m << 12) + 0xfff;
}

Params decodeMode(BitReader& r) {
    uint64_t code = r.get(12);
    if (code < 2048) return {int(code) + 1, int(code) + 1, kZfpMaxPrec, kZfpMinExp};
    if (code < 2176) return {kZfpMinBits, kZfpMaxBits, int(code) - 2047, kZfpMinExp};
    if (code == 2176) throw ToolError("zfp: reversible mode is not supported");
    if (code < 4095) return {kZfpMinBits, kZfpMaxBits, kZfpMaxPrec, int(code) - 2177 + kZfpMinExp};
    uint64_t m = (r.get(52) << 12) | 0xfff;
    return {int((m >> 12) & 0x7fff) + 1, int((m >> 27) & 0x7fff) + 1, int((m >> 42) & 0x7f) + 1,
            int((m >> 49) & 0x7fff) - 16495};
}

void check(OzrResult r, const char* what) {
    if (r != ozrOk) throw ToolError(std::string("zfp: ") + what + " failed with status " + std::to_string(r));
}

// Completes a partial line of 4 values at stride s, n of them valid.
void padLine(float* p, size_t n, int s) {
    switch (n) {
        case 0: p[0] = 0; [[fallthrough]];
        case 1: p[1 * s] = p[0]; [[fallthrough]];
        case 2: p[2 * s] = p[1 * s]; [[fallthrough]];
        case 3: p[3 * s] = p[0]; [[fallthrough]];
        default: break;
    }
}

void compressZfp(Reader& r, Writer& w, const CompressOptions& o) {
    if (o.dims.empty() || o.dims.size() > 3)
        throw ToolError("zfp: --dims NX[,NY[,NZ]] is required (1 to 3 dimensions)");
    size_t nx = o.dims[0], ny = o.dims.size() > 1 ? o.dims[1] : 1, nz = o.dims.size() > 2 ? o.dims[2] : 1;
    for (size_t d : {nx, ny, nz})
        if (d < 1 || d > 65536) throw ToolError("zfp: each dimension must be 1..65536");
    int modes = int(o.rate.has_value()) + int(o.precision.has_value()) + int(o.accuracy.has_value());
    if (modes != 1) throw ToolError("zfp: give exactly one of --rate, --precision, --accuracy");

    Params p{};
    char kind;
    if (o.rate) {
        if (!(*o.rate > 0) || *o.rate > 260) throw ToolError("zfp: --rate must be in (0, 260]");
        int bits = int(std::floor(64 * *o.rate + 0.5));
        if (bits < 9) bits = 9;  // the header and one more bit
        p = {bits, bits, kZfpMaxPrec, kZfpMinExp};
        kind = 'r';
    } else if (o.precision) {
        if (*o.precision < 1 || *o.precision > 64) throw ToolError("zfp: --precision must be 1..64");
        p = {kZfpMinBits, kZfpMaxBits, *o.precision, kZfpMinExp};
        kind = 'p';
    } else {
        if (!(*o.accuracy > 0)) throw ToolError("zfp: --accuracy must be positive");
        int e;
        std::frexp(*o.accuracy, &e);
        p = {kZfpMinBits, kZfpMaxBits, kZfpMaxPrec, e - 1};
        kind = 'a';
    }

    const size_t count = nx * ny * nz;
    std::vector<float> field(count);
    r.readExact(field.data(), count * 4, "float array (fewer bytes than --dims says)");
    unsigned char extra;
    if (r.read(&extra, 1) != 0) throw ToolError("zfp: the input holds more values than --dims says");

    BitWriter h;
    h.put('z', 8);
    h.put('f', 8);
    h.put('p', 8);
    h.put(kCodecVersion, 8);
    uint64_t meta = ((uint64_t(nz - 1) << 32 | uint64_t(ny - 1) << 16 | uint64_t(nx - 1)) << 4) | (2u << 2) | 2u;
    h.put(meta, 52);
    uint64_t mode = modeCode(p, kind);
    h.put(mode, mode < 4095 ? 12 : 64);

    // The header's whole words go first; its remaining bits seed the encoder's bit
    // buffer, so that the blocks follow without a gap as in the zfp tool's files.
    const size_t bx = (nx + 3) / 4, by = (ny + 3) / 4, bz = (nz + 3) / 4;
    const size_t headWords = h.bits / 64;
    std::vector<unsigned char> out(headWords * 8 + bx * by * bz * (size_t(p.maxBits > 2200 ? p.maxBits : 2200) / 8 + 8) + 64);
    std::memcpy(out.data(), h.bytes.data(), headWords * 8);
    OzrsZfpState_32f st;
    check(ozrsEncodeZfpInitLong_32f(out.data() + headWords * 8, out.size() - headWords * 8, &st), "init");
    check(ozrsEncodeZfpSet_32f(p.minBits, p.maxBits, p.maxPrec, p.minExp, &st), "set");
    uint64_t rest = 0;
    for (size_t i = headWords * 8; i < h.bytes.size(); ++i) rest |= uint64_t(h.bytes[i]) << (8 * (i - headWords * 8));
    st.bitBuffer = rest;
    st.bitCount = int(h.bits % 64);

    float block[64];
    for (size_t z0 = 0; z0 < nz; z0 += 4)
        for (size_t y0 = 0; y0 < ny; y0 += 4)
            for (size_t x0 = 0; x0 < nx; x0 += 4) {
                const float* src = &field[(z0 * ny + y0) * nx + x0];
                size_t mx = std::min<size_t>(4, nx - x0), my = std::min<size_t>(4, ny - y0), mz = std::min<size_t>(4, nz - z0);
                if (mx == 4 && my == 4 && mz == 4) {
                    check(ozrsEncodeZfp444_32f(src, int(nx * 4), int(nx * ny * 4), &st), "block encoding");
                    continue;
                }
                for (size_t z = 0; z < mz; ++z)
                    for (size_t y = 0; y < my; ++y) {
                        for (size_t x = 0; x < mx; ++x) block[16 * z + 4 * y + x] = src[(z * ny + y) * nx + x];
                        padLine(block + 16 * z + 4 * y, mx, 1);
                    }
                for (size_t z = 0; z < mz; ++z)
                    for (int x = 0; x < 4; ++x) padLine(block + 16 * z + x, my, 4);
                for (int y = 0; y < 4; ++y)
                    for (int x = 0; x < 4; ++x) padLine(block + 4 * y + x, mz, 16);
                check(ozrsEncodeZfp444_32f(block, 16, 64, &st), "block encoding");
            }
    Ozr64u bits = 0;
    check(ozrsEncodeZfpGetCompressedBitSize_32f(&st, &bits), "size query");
    check(ozrsEncodeZfpFlush_32f(&st), "flush");
    // As the zfp tool: the stream up to its last byte.
    w.write(out.data(), headWords * 8 + size_t((bits + 7) / 8));
}

void decompressZfp(Reader& r, Writer& w) {
    std::vector<unsigned char> data;
    unsigned char chunk[1 << 16];
    for (size_t n; (n = r.read(chunk, sizeof chunk)) > 0;) data.insert(data.end(), chunk, chunk + n);
    BitReader h{data.data(), data.size()};
    if (h.get(8) != 'z' || h.get(8) != 'f' || h.get(8) != 'p') throw ToolError("zfp: not a zfp file");
    unsigned version = unsigned(h.get(8));
    if (version != kCodecVersion) throw ToolError("zfp: codec version " + std::to_string(version) + " is not supported");
    uint64_t meta = h.get(52);
    if ((meta & 3) != 2) throw ToolError("zfp: only float32 fields are supported");
    if (((meta >> 2) & 3) != 2) throw ToolError("zfp: only 3-D fields are supported (this coder works on 4x4x4 blocks)");
    const size_t nx = ((meta >> 4) & 0xffff) + 1, ny = ((meta >> 20) & 0xffff) + 1, nz = ((meta >> 36) & 0xffff) + 1;
    Params p = decodeMode(h);

    // Start the decoder at the byte holding the first block bit; the bits of that
    // byte that belong to the header are dropped from its buffer. Zero bytes after
    // the end stand for the flush padding.
    const size_t start = size_t(h.pos / 8);
    const int skip = int(h.pos % 8);
    data.resize(data.size() + 16, 0);
    OzrsZfpState_32f st;
    check(ozrsDecodeZfpInitLong_32f(data.data() + start + 1, data.size() - start - 1, &st), "init");
    check(ozrsDecodeZfpSet_32f(p.minBits, p.maxBits, p.maxPrec, p.minExp, &st), "set");
    st.bitBuffer = data[start] >> skip;
    st.bitCount = 8 - skip;

    std::vector<float> field(nx * ny * nz);
    float block[64];
    for (size_t z0 = 0; z0 < nz; z0 += 4)
        for (size_t y0 = 0; y0 < ny; y0 += 4)
            for (size_t x0 = 0; x0 < nx; x0 += 4) {
                float* dst = &field[(z0 * ny + y0) * nx + x0];
                size_t mx = std::min<size_t>(4, nx - x0), my = std::min<size_t>(4, ny - y0), mz = std::min<size_t>(4, nz - z0);
                if (mx == 4 && my == 4 && mz == 4) {
                    if (ozrsDecodeZfp444_32f(&st, dst, int(nx * 4), int(nx * ny * 4)) != ozrOk)
                        throw ToolError("zfp: truncated stream");
                    continue;
                }
                if (ozrsDecodeZfp444_32f(&st, block, 16, 64) != ozrOk) throw ToolError("zfp: truncated stream");
                for (size_t z = 0; z < mz; ++z)
                    for (size_t y = 0; y < my; ++y)
                        for (size_t x = 0; x < mx; ++x) dst[(z * ny + y) * nx + x] = block[16 * z + 4 * y + x];
            }
    w.write(field.data(), field.size() * 4);
}

RegisterFormat reg{{"zfp", ".zfp",
                    "ZFP-compressed float32 arrays with the zfp tool's -h header (3-D; 1-D and 2-D arrays are "
                    "written as 3-D fields)",
                    [](const unsigned char* head, size_t n) { return n >= 3 && std::memcmp(head, "zfp", 3) == 0; },
                    compressZfp, decompressZfp, /*keepsInput=*/true}};  // the zfp tool writes beside its input

}  // namespace
}  // namespace ozrdc_tool
