// What a caller may leave behind must not change what the library computes: the
// floating-point modes in MXCSR (flush-to-zero, denormals-are-zero, rounding), and
// buffers at any byte offset. Every landed family runs its main operations through
// the exported entry points with its buffers 1..15 bytes past a 64-byte boundary
// and under each MXCSR mode, and must give the bytes it gives aligned and in the
// default mode, and leave the caller's MXCSR as it was.
#include <gtest/gtest.h>
#include <xmmintrin.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ozrdc.h"
#include "test_data.h"

namespace {

// A buffer whose data starts `offset` bytes past a 64-byte boundary.
class Placed {
public:
    Placed(size_t n, unsigned offset) : store_(n + 128) {
        auto a = reinterpret_cast<uintptr_t>(store_.data());
        p_ = store_.data() + ((64 - a % 64) % 64) + offset;
    }
    Placed(const Bytes& b, unsigned offset) : Placed(b.size(), offset) {
        if (!b.empty()) std::memcpy(p_, b.data(), b.size());
    }
    Ozr8u* p() { return p_; }

private:
    Bytes store_;
    Ozr8u* p_;
};

void append(Bytes& out, const void* p, size_t n) {
    const auto* b = static_cast<const Ozr8u*>(p);
    out.insert(out.end(), b, b + n);
}

// ---- The families' main operations ----------------------------------------------------
// Each returns every byte it produced (streams, decoded data, checksums, lengths,
// statuses), with its source at srcOff and its destination at dstOff.

const Bytes& text() {
    static const Bytes t = textBytes(20000, 5);
    return t;
}

Bytes checksums(unsigned srcOff, unsigned) {
    Placed src(text(), srcOff);
    Bytes out;
    for (size_t n : {size_t(1), size_t(15), size_t(16), size_t(100), text().size()}) {
        Ozr32u v[4] = {0, 0xFFFFFFFFu, 0, 1};
        OzrResult st[4] = {ozrsCRC32_8u(src.p(), Ozr32s(n), &v[0]), ozrsCRC32C_8u(src.p(), Ozr32u(n), &v[1]),
                           ozrsCRC32_BZ2_8u(src.p(), Ozr32s(n), &v[2]), ozrsAdler32_8u(src.p(), Ozr32s(n), &v[3])};
        append(out, v, sizeof v);
        append(out, st, sizeof st);
    }
    return out;
}

Bytes lz4(unsigned srcOff, unsigned dstOff) {
    const Bytes& in = text();
    int tableSize = 0, hcSize = 0;
    ozrsEncodeLZ4HashTableGetSize_8u(&tableSize);
    ozrsEncodeLZ4HCHashTableGetSize_8u(&hcSize);
    Placed src(in, srcOff), dst(in.size() + in.size() / 255 + 64, dstOff), table(size_t(tableSize), dstOff),
        hc(size_t(hcSize), srcOff);
    Bytes out;
    for (int coder = 0; coder < 2; ++coder) {
        int len = int(in.size() + in.size() / 255 + 64);
        OzrResult st;
        if (coder == 0) {
            ozrsEncodeLZ4HashTableInit_8u(table.p(), int(in.size()));
            st = ozrsEncodeLZ4_8u(src.p(), int(in.size()), dst.p(), &len, table.p());
        } else {
            ozrsEncodeLZ4HCHashTableInit_8u(hc.p());
            int srcLen = int(in.size());
            st = ozrsEncodeLZ4HC_8u(src.p(), &srcLen, dst.p(), &len, hc.p(), 9);
        }
        append(out, &st, 4);
        append(out, dst.p(), size_t(len));
        // Decode the block from srcOff into dstOff.
        Placed block(Bytes(dst.p(), dst.p() + len), srcOff), back(in.size(), dstOff);
        int backLen = int(in.size());
        st = ozrsDecodeLZ4_8u(block.p(), len, back.p(), &backLen);
        append(out, &st, 4);
        append(out, back.p(), size_t(backLen));
    }
    return out;
}

Bytes lzo(unsigned srcOff, unsigned dstOff) {
    const Bytes& in = text();
    Ozr32u stateSize = 0;
    ozrsEncodeLZOGetSize(0, 0, &stateSize);
    Placed src(in, srcOff), dst(in.size() + in.size() / 16 + 128, dstOff), state(stateSize, dstOff);
    auto* s = reinterpret_cast<OzrLZOState*>(state.p());
    Bytes out;
    for (Ozr32u method : {0u, 2u}) {
        ozrsEncodeLZOInit_8u(method, 0, s);
        Ozr32u len = Ozr32u(in.size() + in.size() / 16 + 128);
        OzrResult st = ozrsEncodeLZO_8u(src.p(), Ozr32u(in.size()), dst.p(), &len, s);
        append(out, &st, 4);
        append(out, dst.p(), len);
        Placed block(Bytes(dst.p(), dst.p() + len), srcOff), back(in.size(), dstOff);
        for (int safe = 0; safe < 2; ++safe) {
            Ozr32u backLen = Ozr32u(in.size());
            st = safe ? ozrsDecodeLZOSafe_8u(block.p(), len, back.p(), &backLen)
                      : ozrsDecodeLZO_8u(block.p(), len, back.p(), &backLen);
            append(out, &st, 4);
            append(out, back.p(), backLen);
        }
    }
    return out;
}

// Blocks of 64 floats over the ranges where the float arithmetic could depend on
// the modes: subnormals, blocks whose scale or output is subnormal, ordinary values,
// values near the largest float, and values whose integers do not fit a float exactly.
const std::vector<float>& zfpField() {
    static const std::vector<float> f = [] {
        std::mt19937 rng(99);
        std::uniform_real_distribution<float> uni(-1.f, 1.f);
        const float scales[] = {1e-40f, 1e-38f, 3e-36f, 1e-30f, 1.5f * std::ldexp(1.f, -98), 1e-3f, 1.f, 777.f,
                                3e38f, 1e20f};
        std::vector<float> v;
        for (float s : scales)
            for (int b = 0; b < 2; ++b)
                for (int i = 0; i < 64; ++i)
                    v.push_back(b ? s * uni(rng) : s * std::sin(0.3f * i) * std::cos(0.1f * (i >> 2)));
        for (int i = 0; i < 64; ++i) v.push_back(i % 3 ? std::ldexp(1.f, -149) * float(i) : 0.f);  // subnormal steps
        return v;
    }();
    return f;
}

Bytes zfp(unsigned srcOff, unsigned dstOff) {
    const std::vector<float>& field = zfpField();
    const size_t blocks = field.size() / 64, bytes = field.size() * 4;
    Bytes fieldBytes(bytes);
    std::memcpy(fieldBytes.data(), field.data(), bytes);
    Placed src(fieldBytes, srcOff), stream(bytes * 2 + 64, dstOff);
    struct Setting {
        int minBits, maxBits, maxPrec, minExp;
        double tolerance;  // >= 0: accuracy mode, then this tolerance (0: the default)
    };
    const Setting settings[] = {{512, 512, 64, -10740, -1}, {1024, 1024, 64, -10740, -1}, {0, 4171, 18, -10740, -1},
                                {0, 4171, 64, -10740, 1e-3}, {0, 4171, 64, -10740, 1e-40},
                                {0, 4171, 64, -10740, 4.9e-320 /* a subnormal double */}};
    Bytes out;
    for (const Setting& s : settings) {
        OzrsZfpState_32f st;
        ozrsEncodeZfpInit_32f(stream.p(), Ozr32s(bytes * 2 + 64), &st);
        ozrsEncodeZfpSet_32f(s.minBits, s.maxBits, s.maxPrec, s.minExp, &st);
        if (s.tolerance >= 0) ozrsEncodeZfpSetAccuracy_32f(&st, s.tolerance);
        for (size_t b = 0; b < blocks; ++b) {
            OzrResult r = ozrsEncodeZfp444_32f(reinterpret_cast<const Ozr32f*>(src.p() + 256 * b), 16, 64, &st);
            append(out, &r, 4);
        }
        ozrsEncodeZfpFlush_32f(&st);
        Ozr32u size = 0;
        ozrsEncodeZfpGetCompressedSize_32f(&st, &size);
        append(out, stream.p(), size);

        Placed in(Bytes(stream.p(), stream.p() + size), srcOff), back(bytes, dstOff);
        OzrsZfpState_32f ds;
        ozrsDecodeZfpInit_32f(in.p(), Ozr32s(size), &ds);
        ozrsDecodeZfpSet_32f(s.minBits, s.maxBits, s.maxPrec, s.minExp, &ds);
        if (s.tolerance >= 0) ozrsDecodeZfpSetAccuracy_32f(&ds, s.tolerance);
        for (size_t b = 0; b < blocks; ++b) {
            OzrResult r = ozrsDecodeZfp444_32f(&ds, reinterpret_cast<Ozr32f*>(back.p() + 256 * b), 16, 64);
            append(out, &r, 4);
        }
        append(out, back.p(), bytes);
    }
    return out;
}

struct Family {
    const char* name;
    std::function<Bytes(unsigned, unsigned)> run;
};

const Family kFamilies[] = {{"checksum", checksums}, {"lz4", lz4}, {"lzo", lzo}, {"zfp", zfp}};

// MXCSR: exception masks set (the default 0x1F80) plus the mode bits.
constexpr unsigned kDaz = 1u << 6, kFtz = 1u << 15, kRoundDown = 1u << 13, kRoundUp = 2u << 13,
                   kRoundToZero = 3u << 13;
struct Mode {
    const char* name;
    unsigned mxcsr;
};
const Mode kModes[] = {{"DAZ+FTZ", 0x1F80 | kDaz | kFtz},
                       {"DAZ", 0x1F80 | kDaz},
                       {"FTZ", 0x1F80 | kFtz},
                       {"round down", 0x1F80 | kRoundDown},
                       {"round up", 0x1F80 | kRoundUp},
                       {"round to zero, DAZ+FTZ", 0x1F80 | kRoundToZero | kDaz | kFtz}};

class CallerState : public ::testing::Test {
protected:
    void SetUp() override {
        text();      // the test's own data, made in the default mode
        zfpField();
        saved_ = _mm_getcsr();
    }
    void TearDown() override { _mm_setcsr(saved_); }
    unsigned saved_ = 0;
};

}  // namespace

TEST_F(CallerState, FloatingPointModesChangeNoOutputAndSurviveTheCall) {
    for (const Family& f : kFamilies) {
        _mm_setcsr(0x1F80);
        const Bytes want = f.run(0, 0);
        for (const Mode& m : kModes) {
            _mm_setcsr(m.mxcsr);
            const Bytes got = f.run(0, 0);
            const unsigned after = _mm_getcsr();
            _mm_setcsr(0x1F80);
            EXPECT_TRUE(got == want) << f.name << ": output changes under " << m.name;
            EXPECT_EQ(after & ~0x3Fu, m.mxcsr) << f.name << ": the caller's MXCSR (" << m.name << ") was changed";
        }
    }
}

TEST_F(CallerState, EveryByteOffsetOfSourceAndDestinationGivesTheAlignedResult) {
    for (const Family& f : kFamilies) {
        const Bytes want = f.run(0, 0);
        for (unsigned k = 1; k < 16; ++k) {
            EXPECT_TRUE(f.run(k, k) == want) << f.name << ": source and destination at offset " << k;
            EXPECT_TRUE(f.run(k, (5 * k) % 16) == want)
                << f.name << ": source at offset " << k << ", destination at " << (5 * k) % 16;
        }
    }
}
