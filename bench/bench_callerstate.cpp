// What a calling program leaves behind, measured: buffers at byte offsets 1..15 from
// a 64-byte boundary (suite "offsets"), a dirty upper register state next to a clean
// one, measured in turn (suite "upper"), and the first call of each entry point in a
// fresh process and after the process has been idle (suite "cold"). They run only
// when named in --only; "cold" must be the first suite of its process to see first
// calls, so run it alone: `ozrdc bench --only cold`.
#include <libdeflate.h>
#include <lz4.h>
#include <lzo/lzo1x.h>
#include <zfp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "bench.h"
#include "ozrdc.h"

namespace ozrdc_bench {
namespace {

// Room for n bytes starting `offset` bytes past a 64-byte boundary.
struct Placed {
    std::vector<uint8_t> store;
    uint8_t* p;
    Placed(size_t n, unsigned offset) : store(n + 128) {
        auto a = reinterpret_cast<uintptr_t>(store.data());
        p = store.data() + (64 - a % 64) % 64 + offset;
    }
};

constexpr int ZN = 64;  // the ZFP field is ZN^3 floats

std::vector<float> zfpField() {
    std::vector<float> f(size_t(ZN) * ZN * ZN);
    for (int z = 0; z < ZN; ++z)
        for (int y = 0; y < ZN; ++y)
            for (int x = 0; x < ZN; ++x)
                f[(size_t(z) * ZN + y) * ZN + x] = std::sin(0.07f * x) * std::cos(0.05f * y) + 0.5f * std::sin(0.11f * z);
    return f;
}

// ---- The families' main operations, ours beside a peer's -----------------------------

// Receives one operation: its name, the implementation, whether it is ours, the input
// bytes of one call of fn, a note, and fn.
using AddFn = std::function<void(const char* name, const char* impl, bool ours, uint64_t bytes, const char* note,
                                 const std::function<void()>& fn)>;

// Hands each landed family's main operations to add, every buffer k bytes past a
// 64-byte boundary: the sample s for the byte codecs, a 64^3 float field for ZFP.
void eachOperation(const Sample& s, unsigned k, const AddFn& add) {
    const size_t n = s.data.size();
    const int cap = LZ4_compressBound(int(n));
    int tableSize = 0;
    ozrsEncodeLZ4HashTableGetSize_8u(&tableSize);
    std::vector<uint8_t> table(static_cast<size_t>(tableSize)), lz4State(static_cast<size_t>(LZ4_sizeofState()));
    Ozr32u lzoStateSize = 0;
    ozrsEncodeLZOGetSize(0, 0, &lzoStateSize);
    std::vector<uint64_t> lzoState(lzoStateSize / 8 + 1);
    std::vector<uint8_t> lzoWork(LZO1X_1_MEM_COMPRESS);
    auto* st = reinterpret_cast<OzrLZOState*>(lzoState.data());
    lzo_init();
    const std::vector<float> field = zfpField();
    const size_t fieldBytes = field.size() * 4;
    volatile uint32_t sink = 0;

    Placed src(n, k), dst(size_t(cap) + n / 16 + 64, k), back(n, k);
    std::memcpy(src.p, s.data.data(), n);
    char note[48];
    std::snprintf(note, sizeof note, "%s, offset %u", s.name.c_str(), k);
    char fieldNote[48];
    std::snprintf(fieldNote, sizeof fieldNote, "%d^3 floats, offset %u", ZN, k);
    auto op = [&](const char* name, const char* impl, bool ours, uint64_t bytes, const std::function<void()>& fn) {
        add(name, impl, ours, bytes, std::strncmp(name, "zfp", 3) == 0 ? fieldNote : note, fn);
    };

    op("crc32", "ozrdc", true, n, [&] { Ozr32u v = 0; ozrsCRC32_8u(src.p, int(n), &v); sink = v; });
    op("crc32", "libdeflate", false, n, [&] { sink = libdeflate_crc32(0, src.p, n); });
    op("adler32", "ozrdc", true, n, [&] { Ozr32u v = 1; ozrsAdler32_8u(src.p, int(n), &v); sink = v; });
    op("adler32", "libdeflate", false, n, [&] { sink = libdeflate_adler32(1, src.p, n); });

    int lz4Len = 0;
    op("lz4 compress", "ozrdc", true, n, [&] { ozrsEncodeLZ4_8u(src.p, int(n), dst.p, &lz4Len, table.data()); });
    op("lz4 compress", "liblz4", false, n, [&] {
        lz4Len = LZ4_compress_fast_extState(lz4State.data(), reinterpret_cast<const char*>(src.p),
                                            reinterpret_cast<char*>(dst.p), int(n), cap, 1);
    });
    op("lz4 decompress", "ozrdc", true, n, [&] { int len = int(n); ozrsDecodeLZ4_8u(dst.p, lz4Len, back.p, &len); });
    op("lz4 decompress", "liblz4", false, n, [&] {
        LZ4_decompress_safe(reinterpret_cast<const char*>(dst.p), reinterpret_cast<char*>(back.p), lz4Len, int(n));
    });

    Ozr32u lzoLen = 0;
    op("lzo1x compress", "ozrdc", true, n, [&] {
        ozrsEncodeLZOInit_8u(0, 0, st);
        lzoLen = Ozr32u(cap + n / 16);
        ozrsEncodeLZO_8u(src.p, Ozr32u(n), dst.p, &lzoLen, st);
    });
    op("lzo1x compress", "liblzo2", false, n, [&] {
        lzo_uint len = lzo_uint(cap) + n / 16;
        lzo1x_1_compress(src.p, n, dst.p, &len, lzoWork.data());
        lzoLen = Ozr32u(len);
    });
    op("lzo1x decompress safe", "ozrdc", true, n, [&] {
        Ozr32u len = Ozr32u(n);
        ozrsDecodeLZOSafe_8u(dst.p, lzoLen, back.p, &len);
    });
    op("lzo1x decompress safe", "liblzo2", false, n, [&] {
        lzo_uint len = n;
        lzo1x_decompress_safe(dst.p, lzoLen, back.p, &len, nullptr);
    });

    // ZFP at rate 8 on a 64^3 field whose floats start k bytes past the boundary.
    Placed fsrc(fieldBytes, k), fdst(fieldBytes, k), zbuf(fieldBytes + 1024, k);
    std::memcpy(fsrc.p, field.data(), fieldBytes);
    auto* in = reinterpret_cast<const Ozr32f*>(fsrc.p);
    auto* outF = reinterpret_cast<Ozr32f*>(fdst.p);
    const int row = ZN * 4, plane = ZN * ZN * 4;
    size_t zsize = 0;
    op("zfp compress rate 8", "ozrdc", true, fieldBytes, [&] {
        OzrsZfpState_32f zs;
        ozrsEncodeZfpInitLong_32f(zbuf.p, fieldBytes + 1024, &zs);
        ozrsEncodeZfpSet_32f(512, 512, 64, -10740, &zs);
        for (int z = 0; z < ZN; z += 4)
            for (int y = 0; y < ZN; y += 4)
                for (int x = 0; x < ZN; x += 4) ozrsEncodeZfp444_32f(in + (size_t(z) * ZN + y) * ZN + x, row, plane, &zs);
        ozrsEncodeZfpFlush_32f(&zs);
        Ozr64u len = 0;
        ozrsEncodeZfpGetCompressedSizeLong_32f(&zs, &len);
        zsize = size_t(len);
    });
    op("zfp decompress rate 8", "ozrdc", true, fieldBytes, [&] {
        OzrsZfpState_32f zs;
        ozrsDecodeZfpInitLong_32f(zbuf.p, zsize, &zs);
        ozrsDecodeZfpSet_32f(512, 512, 64, -10740, &zs);
        for (int z = 0; z < ZN; z += 4)
            for (int y = 0; y < ZN; y += 4)
                for (int x = 0; x < ZN; x += 4) ozrsDecodeZfp444_32f(&zs, outF + (size_t(z) * ZN + y) * ZN + x, row, plane);
    });
    zfp_field* zf = zfp_field_3d(const_cast<Ozr32f*>(in), zfp_type_float, ZN, ZN, ZN);
    zfp_field* zo = zfp_field_3d(outF, zfp_type_float, ZN, ZN, ZN);
    zfp_stream* zp = zfp_stream_open(nullptr);
    zfp_stream_set_rate(zp, 8, zfp_type_float, 3, zfp_false);
    bitstream* bs = stream_open(zbuf.p, fieldBytes + 1024);
    zfp_stream_set_bit_stream(zp, bs);
    op("zfp compress rate 8", "libzfp", false, fieldBytes, [&] { zfp_stream_rewind(zp); zfp_compress(zp, zf); });
    op("zfp decompress rate 8", "libzfp", false, fieldBytes, [&] { zfp_stream_rewind(zp); zfp_decompress(zp, zo); });
    zfp_field_free(zf);
    zfp_field_free(zo);
    zfp_stream_close(zp);
    stream_close(bs);
}

// ---- offsets ---------------------------------------------------------------------------

void runOffsets(const Corpus& c, const Options& o, Table& t) {
    for (unsigned k = 0; k < 16; ++k)
        eachOperation(c.files.front(), k,
                      [&](const char* name, const char* impl, bool ours, uint64_t bytes, const char* note,
                          const std::function<void()>& fn) {
                          t.add({std::string(name) + " @" + std::to_string(k), impl, ours, measure(o, bytes, fn),
                                 bytes, 0, note});
                      });
}

// ---- upper -------------------------------------------------------------------------------
// Each operation with a clean and with a dirty upper register state, the two measured
// in turn three times so that the machine's drift hits both alike.

void runUpper(const Corpus& c, const Options& o, Table& t) {
    Options clean = o, dirty = o;
    clean.dirtyUpper = false;
    dirty.dirtyUpper = true;
    clean.minSeconds = dirty.minSeconds = o.minSeconds / 3;
    clean.repeats = dirty.repeats = 1;
    const char* how = hasAvx2() ? "upper halves dirtied before each pass" : "no AVX2 here: both clean";
    std::vector<Row> rows;
    eachOperation(c.files.front(), 0,
                  [&](const char* name, const char* impl, bool ours, uint64_t bytes, const char*,
                      const std::function<void()>& fn) {
                      double bestClean = 0, bestDirty = 0;
                      for (int r = 0; r < 3; ++r) {
                          bestClean = std::max(bestClean, measure(clean, bytes, fn));
                          bestDirty = std::max(bestDirty, measure(dirty, bytes, fn));
                      }
                      rows.push_back({std::string(name) + ", clean", impl, ours, bestClean, bytes, 0, ""});
                      rows.push_back({std::string(name) + ", dirty", impl, ours, bestDirty, bytes, 0, how});
                  });
    // Each operation's rows together: ours and the peer, clean, then dirty.
    std::vector<std::string> ops;
    for (const Row& r : rows)
        if (std::find(ops.begin(), ops.end(), r.op) == ops.end()) ops.push_back(r.op);
    for (const std::string& op : ops)
        for (const Row& r : rows)
            if (r.op == op) t.add(r);
}


// ---- cold --------------------------------------------------------------------------------

using Clock = std::chrono::steady_clock;

double nanos(const std::function<void()>& fn) {
    auto t0 = Clock::now();
    fn();
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
}

void runCold(const Corpus& c, const Options&, Table& t) {
    const Sample& s = c.files.front();
    const size_t n = std::min<size_t>(s.data.size(), 4096);
    const uint8_t* src = s.data.data();
    // Each codec writes its own stream, which its decoder reads in every phase.
    std::vector<uint8_t> lz4Out(n * 2 + 64), hcOut(n * 2 + 64), lzoOut(n * 2 + 64), back(n);
    int tableSize = 0, hcSize = 0;
    ozrsEncodeLZ4HashTableGetSize_8u(&tableSize);
    ozrsEncodeLZ4HCHashTableGetSize_8u(&hcSize);
    std::vector<uint8_t> table(static_cast<size_t>(tableSize)), hc(static_cast<size_t>(hcSize));
    Ozr32u lzoStateSize = 0;
    ozrsEncodeLZOGetSize(0, 0, &lzoStateSize);
    std::vector<uint64_t> lzoState(lzoStateSize / 8 + 1);
    auto* st = reinterpret_cast<OzrLZOState*>(lzoState.data());
    // ZFP: one block of a smooth field at rate 8 (64 bytes a block), 256 blocks of room.
    std::vector<float> block(64), blockBack(64);
    for (int i = 0; i < 64; ++i) block[size_t(i)] = std::sin(0.3f * float(i)) * std::cos(0.1f * float(i >> 2));
    std::vector<uint8_t> zfpOut(64 * 256 + 64);
    OzrsZfpState_32f zs, zd;
    int encoded = 0, decoded = 0;  // blocks in zfpOut since the encoder's Init, read since the decoder's
    int lz4Len = 0, hcLen = 0;
    Ozr32u lzoLen = 0;
    volatile uint32_t sink = 0;

    struct Call {
        const char* name;
        std::function<void()> fn;
    };
    // In the order a program would make them; a decoder reads what its encoder wrote.
    const Call calls[] = {
        {"ozrdcGetLibVersion", [&] { sink = uint32_t(ozrdcGetLibVersion()->major); }},
        {"ozrsCRC32_8u 4 KiB", [&] { Ozr32u v = 0; ozrsCRC32_8u(src, int(n), &v); sink = v; }},
        {"ozrsCRC32C_8u 4 KiB", [&] { Ozr32u v = 0; ozrsCRC32C_8u(src, Ozr32u(n), &v); sink = v; }},
        {"ozrsCRC32_BZ2_8u 4 KiB", [&] { Ozr32u v = 0; ozrsCRC32_BZ2_8u(src, int(n), &v); sink = v; }},
        {"ozrsAdler32_8u 4 KiB", [&] { Ozr32u v = 1; ozrsAdler32_8u(src, int(n), &v); sink = v; }},
        {"ozrsEncodeLZ4HashTableInit_8u", [&] { ozrsEncodeLZ4HashTableInit_8u(table.data(), int(n)); }},
        {"ozrsEncodeLZ4_8u 4 KiB", [&] { ozrsEncodeLZ4_8u(src, int(n), lz4Out.data(), &lz4Len, table.data()); }},
        {"ozrsDecodeLZ4_8u 4 KiB", [&] { int len = int(n); ozrsDecodeLZ4_8u(lz4Out.data(), lz4Len, back.data(), &len); }},
        {"ozrsEncodeLZ4HCHashTableInit_8u", [&] { ozrsEncodeLZ4HCHashTableInit_8u(hc.data()); }},
        {"ozrsEncodeLZ4HC_8u 4 KiB", [&] {
             int sl = int(n);
             hcLen = int(hcOut.size());
             ozrsEncodeLZ4HC_8u(src, &sl, hcOut.data(), &hcLen, hc.data(), 9);
         }},
        {"ozrsEncodeLZOInit_8u", [&] { ozrsEncodeLZOInit_8u(0, 0, st); }},
        {"ozrsEncodeLZO_8u 4 KiB", [&] {
             lzoLen = Ozr32u(lzoOut.size());
             ozrsEncodeLZO_8u(src, Ozr32u(n), lzoOut.data(), &lzoLen, st);
         }},
        {"ozrsDecodeLZO_8u 4 KiB", [&] { Ozr32u len = Ozr32u(n); ozrsDecodeLZO_8u(lzoOut.data(), lzoLen, back.data(), &len); }},
        {"ozrsDecodeLZOSafe_8u 4 KiB", [&] {
             Ozr32u len = Ozr32u(n);
             ozrsDecodeLZOSafe_8u(lzoOut.data(), lzoLen, back.data(), &len);
         }},
        {"ozrsEncodeZfpInit_32f", [&] { ozrsEncodeZfpInit_32f(zfpOut.data(), int(zfpOut.size()), &zs); encoded = 0; }},
        {"ozrsEncodeZfpSet_32f", [&] { ozrsEncodeZfpSet_32f(512, 512, 64, -10740, &zs); }},
        {"ozrsEncodeZfp444_32f 1 block", [&] {
             if (encoded == 256) {
                 ozrsEncodeZfpInit_32f(zfpOut.data(), int(zfpOut.size()), &zs);
                 ozrsEncodeZfpSet_32f(512, 512, 64, -10740, &zs);
                 encoded = 0;
             }
             ozrsEncodeZfp444_32f(block.data(), 16, 64, &zs);
             ++encoded;
         }},
        {"ozrsEncodeZfpFlush_32f", [&] { ozrsEncodeZfpFlush_32f(&zs); }},
        {"ozrsDecodeZfpInit_32f", [&] {
             ozrsDecodeZfpInit_32f(zfpOut.data(), int(zfpOut.size()), &zd);
             ozrsDecodeZfpSet_32f(512, 512, 64, -10740, &zd);
             decoded = 0;
         }},
        {"ozrsDecodeZfp444_32f 1 block", [&] {
             if (decoded == encoded) {
                 ozrsDecodeZfpInit_32f(zfpOut.data(), int(zfpOut.size()), &zd);
                 ozrsDecodeZfpSet_32f(512, 512, 64, -10740, &zd);
                 decoded = 0;
             }
             ozrsDecodeZfp444_32f(&zd, blockBack.data(), 16, 64);
             ++decoded;
         }},
    };
    constexpr size_t kCalls = sizeof calls / sizeof calls[0];
    double first[kCalls], idle[kCalls], warm[kCalls];
    for (size_t i = 0; i < kCalls; ++i) first[i] = nanos(calls[i].fn);
    // Fill the ZFP stream so that the decoder reads real blocks from here on.
    ozrsEncodeZfpInit_32f(zfpOut.data(), int(zfpOut.size()), &zs);
    ozrsEncodeZfpSet_32f(512, 512, 64, -10740, &zs);
    for (encoded = 0; encoded < 255; ++encoded) ozrsEncodeZfp444_32f(block.data(), 16, 64, &zs);
    ozrsEncodeZfpFlush_32f(&zs);
    decoded = encoded;
    // Idle: the process sleeps, other processes run; then each entry is called once more.
    for (size_t i = 0; i < kCalls; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        idle[i] = nanos(calls[i].fn);
    }
    for (size_t i = 0; i < kCalls; ++i) {
        std::vector<double> v;
        for (int r = 0; r < 101; ++r) v.push_back(nanos(calls[i].fn));
        std::sort(v.begin(), v.end());
        warm[i] = v[50];
    }
    for (size_t i = 0; i < kCalls; ++i) {
        char note[96];
        std::snprintf(note, sizeof note, "first %.0f ns, after 0.1 s idle %.0f ns, warm %.0f ns", first[i], idle[i],
                      warm[i]);
        // MB/s of a 1-byte "input" = calls per microsecond; the note holds the times.
        t.add({std::string("cold ") + calls[i].name, "ozrdc first call", true, 1e3 / first[i], 1, 0, note});
        t.add({std::string("cold ") + calls[i].name, "ozrdc warm", false, 1e3 / warm[i], 1, 0, ""});
    }
}

const RegisterSuite kOffsets{{"offsets", runOffsets, true}};
const RegisterSuite kUpper{{"upper", runUpper, true}};
const RegisterSuite kCold{{"cold", runCold, true}};

}  // namespace
}  // namespace ozrdc_bench
