// ZFP side by side: a built-in synthetic 3-D float field (smooth waves plus a little
// noise), compressed and decompressed whole by this library (one call per 4x4x4
// block) and by libzfp's zfp_compress / zfp_decompress (serial), in fixed-rate mode
// at 8 and 16 bits per value and in fixed-accuracy mode at 1e-3. The byte corpus is
// not used.
#include <zfp.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <vector>

#include "bench.h"
#include "ozrdc.h"

namespace {

using namespace ozrdc_bench;

constexpr int NX = 128, NY = 128, NZ = 64;

std::vector<float> syntheticField() {
    std::vector<float> f(size_t(NX) * NY * NZ);
    std::mt19937 rng(7);
    std::normal_distribution<float> noise(0.f, 1e-3f);
    for (int z = 0; z < NZ; ++z)
        for (int y = 0; y < NY; ++y)
            for (int x = 0; x < NX; ++x)
                f[(size_t(z) * NY + y) * NX + x] =
                    std::sin(0.07f * x) * std::cos(0.05f * y) + 0.5f * std::sin(0.11f * z + 0.02f * x * y / 16) +
                    noise(rng);
    return f;
}

struct Setting {
    const char* name;
    double rate;      // > 0: fixed rate
    double accuracy;  // > 0: fixed accuracy
};

void setOurs(OzrsZfpState_32f* st, const Setting& s, bool decode) {
    if (s.rate > 0) {
        int bits = int(64 * s.rate);
        (decode ? ozrsDecodeZfpSet_32f : ozrsEncodeZfpSet_32f)(bits, bits, 64, -10740, st);
    } else {
        (decode ? ozrsDecodeZfpSetAccuracy_32f : ozrsEncodeZfpSetAccuracy_32f)(st, s.accuracy);
    }
}

size_t ourCompress(const std::vector<float>& f, std::vector<uint8_t>& out, const Setting& s) {
    OzrsZfpState_32f st;
    ozrsEncodeZfpInitLong_32f(out.data(), out.size(), &st);
    setOurs(&st, s, false);
    const int row = NX * 4, plane = NX * NY * 4;
    for (int z = 0; z < NZ; z += 4)
        for (int y = 0; y < NY; y += 4)
            for (int x = 0; x < NX; x += 4)
                if (ozrsEncodeZfp444_32f(&f[(size_t(z) * NY + y) * NX + x], row, plane, &st) != ozrOk)
                    throw std::runtime_error("zfp bench: encode failed");
    ozrsEncodeZfpFlush_32f(&st);
    Ozr64u n = 0;
    ozrsEncodeZfpGetCompressedSizeLong_32f(&st, &n);
    return size_t(n);
}

void ourDecompress(const std::vector<uint8_t>& in, size_t n, std::vector<float>& f, const Setting& s) {
    OzrsZfpState_32f st;
    ozrsDecodeZfpInitLong_32f(in.data(), n, &st);
    setOurs(&st, s, true);
    const int row = NX * 4, plane = NX * NY * 4;
    for (int z = 0; z < NZ; z += 4)
        for (int y = 0; y < NY; y += 4)
            for (int x = 0; x < NX; x += 4)
                if (ozrsDecodeZfp444_32f(&st, &f[(size_t(z) * NY + y) * NX + x], row, plane) != ozrOk)
                    throw std::runtime_error("zfp bench: decode failed");
}

struct Peer {
    zfp_field* field;
    zfp_stream* zfp;
    bitstream* stream;
    Peer(std::vector<float>& f, std::vector<uint8_t>& buf, const Setting& s) {
        field = zfp_field_3d(f.data(), zfp_type_float, NX, NY, NZ);
        zfp = zfp_stream_open(nullptr);
        if (s.rate > 0) zfp_stream_set_rate(zfp, s.rate, zfp_type_float, 3, zfp_false);
        else zfp_stream_set_accuracy(zfp, s.accuracy);
        zfp_stream_set_execution(zfp, zfp_exec_serial);
        stream = stream_open(buf.data(), buf.size());
        zfp_stream_set_bit_stream(zfp, stream);
    }
    ~Peer() {
        zfp_field_free(field);
        zfp_stream_close(zfp);
        stream_close(stream);
    }
    size_t compress() {
        zfp_stream_rewind(zfp);
        return zfp_compress(zfp, field);
    }
    void decompress() {
        zfp_stream_rewind(zfp);
        zfp_decompress(zfp, field);
    }
};

void run(const Corpus&, const Options& o, Table& t) {
    std::vector<float> field = syntheticField();
    const uint64_t bytes = field.size() * 4;
    const Setting settings[] = {{"rate 8", 8, 0}, {"rate 16", 16, 0}, {"accuracy 1e-3", 0, 1e-3}};
    char note[64];
    std::snprintf(note, sizeof note, "%dx%dx%d floats", NX, NY, NZ);
    for (const Setting& s : settings) {
        std::vector<uint8_t> ours(bytes * 2 + 1024), peer(bytes * 2 + 1024);
        std::vector<float> back(field.size()), peerField = field;
        size_t ourSize = 0, peerSize = 0;
        Peer p(peerField, peer, s);
        std::string op = std::string("zfp compress ") + s.name;
        Row r{op, "ozrdc", true, 0, bytes, 0, note};
        r.mbps = measure(o, bytes, [&] { ourSize = ourCompress(field, ours, s); });
        r.outBytes = ourSize;
        t.add(r);
        Row q{op, "libzfp", false, 0, bytes, 0, note};
        q.mbps = measure(o, bytes, [&] { peerSize = p.compress(); });
        q.outBytes = peerSize;
        t.add(q);

        op = std::string("zfp decompress ") + s.name;
        Row rd{op, "ozrdc", true, 0, bytes, ourSize, note};
        rd.mbps = measure(o, bytes, [&] { ourDecompress(ours, ourSize, back, s); });
        t.add(rd);
        Row qd{op, "libzfp", false, 0, bytes, peerSize, note};
        qd.mbps = measure(o, bytes, [&] { p.decompress(); });
        t.add(qd);
    }
}

RegisterSuite reg{{"zfp", run}};

}  // namespace
