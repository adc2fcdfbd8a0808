// LZO1X: our coders and decoders beside liblzo2's on the same buffers (whole files).
// Decompression rows decode the same lzo1x_1 streams and count decompressed bytes.
#include <lzo/lzo1x.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "bench.h"
#include "ozrdc.h"

namespace ozrdc_bench {
namespace {

size_t worstCase(size_t n) { return n + n / 16 + 64 + 3; }

void runLzo(const Corpus& c, const Options& o, Table& t) {
    if (lzo_init() != LZO_E_OK) return;
    const uint64_t total = c.totalBytes();
    std::vector<std::vector<uint8_t>> out(c.files.size());
    for (size_t i = 0; i < c.files.size(); ++i) out[i].resize(worstCase(c.files[i].data.size()));
    std::vector<unsigned char> wrk(LZO1X_1_MEM_COMPRESS > LZO1X_1_15_MEM_COMPRESS ? LZO1X_1_MEM_COMPRESS
                                                                                  : LZO1X_1_15_MEM_COMPRESS);
    Ozr32u stateSize = 0;
    ozrsEncodeLZOGetSize(0, 0, &stateSize);
    std::vector<uint64_t> stateMem(stateSize / 8 + 1);
    auto* state = reinterpret_cast<OzrLZOState*>(stateMem.data());

    // One compression pass over the corpus; returns the total compressed size.
    auto ours = [&](Ozr32u method) {
        return [&, method]() {
            uint64_t sum = 0;
            ozrsEncodeLZOInit_8u(method, 0, state);
            for (size_t i = 0; i < c.files.size(); ++i) {
                Ozr32u len = Ozr32u(out[i].size());
                if (ozrsEncodeLZO_8u(c.files[i].data.data(), Ozr32u(c.files[i].data.size()), out[i].data(), &len,
                                     state) != ozrOk)
                    std::fprintf(stderr, "bench lzo: encode failed\n");
                sum += len;
            }
            return sum;
        };
    };
    using Compress = int (*)(const lzo_bytep, lzo_uint, lzo_bytep, lzo_uintp, lzo_voidp);
    auto peer = [&](Compress fn) {
        return [&, fn]() {
            uint64_t sum = 0;
            for (size_t i = 0; i < c.files.size(); ++i) {
                lzo_uint len = out[i].size();
                fn(c.files[i].data.data(), c.files[i].data.size(), out[i].data(), &len, wrk.data());
                sum += len;
            }
            return sum;
        };
    };
    struct Coder {
        const char* impl;
        bool ours;
        const char* note;
        std::function<uint64_t()> run;
    };
    const Coder coders[] = {
        {"ozrdc method 0", true, "default coder", ours(0)},
        {"ozrdc method 2", true, "fast segmented coder", ours(2)},
        {"liblzo2 lzo1x_1", false, "", peer(lzo1x_1_compress)},
        {"liblzo2 lzo1x_1_15", false, "", peer(lzo1x_1_15_compress)},
    };
    for (const auto& k : coders) {
        uint64_t size = k.run();
        t.add({"lzo1x compress", k.impl, k.ours, measure(o, total, [&] { k.run(); }), total, size, k.note});
    }

    // The streams both decoders read: liblzo2's lzo1x_1 output.
    std::vector<std::vector<uint8_t>> packed(c.files.size());
    for (size_t i = 0; i < c.files.size(); ++i) {
        lzo_uint len = out[i].size();
        lzo1x_1_compress(c.files[i].data.data(), c.files[i].data.size(), out[i].data(), &len, wrk.data());
        packed[i].assign(out[i].begin(), out[i].begin() + long(len));
    }
    auto check = [&](const char* who) {
        for (size_t i = 0; i < c.files.size(); ++i)
            if (std::memcmp(out[i].data(), c.files[i].data.data(), c.files[i].data.size()) != 0)
                std::fprintf(stderr, "bench lzo: %s decoded %s wrongly\n", who, c.files[i].name.c_str());
    };
    auto decode = [&](bool safe) {
        for (size_t i = 0; i < c.files.size(); ++i) {
            Ozr32u len = Ozr32u(c.files[i].data.size());
            if (safe)
                ozrsDecodeLZOSafe_8u(packed[i].data(), Ozr32u(packed[i].size()), out[i].data(), &len);
            else
                ozrsDecodeLZO_8u(packed[i].data(), Ozr32u(packed[i].size()), out[i].data(), &len);
        }
    };
    auto peerDecode = [&](bool safe) {
        for (size_t i = 0; i < c.files.size(); ++i) {
            lzo_uint len = c.files[i].data.size();
            if (safe)
                lzo1x_decompress_safe(packed[i].data(), packed[i].size(), out[i].data(), &len, nullptr);
            else
                lzo1x_decompress(packed[i].data(), packed[i].size(), out[i].data(), &len, nullptr);
        }
    };
    for (bool safe : {false, true}) {
        const char* op = safe ? "lzo1x decompress safe" : "lzo1x decompress";
        decode(safe);
        check("ozrdc");
        t.add({op, "ozrdc", true, measure(o, total, [&] { decode(safe); }), total, 0,
               safe ? "ozrsDecodeLZOSafe_8u" : "ozrsDecodeLZO_8u"});
        peerDecode(safe);
        check("liblzo2");
        t.add({op, "liblzo2", false, measure(o, total, [&] { peerDecode(safe); }), total, 0,
               safe ? "lzo1x_decompress_safe" : "lzo1x_decompress"});
    }
}

RegisterSuite lzoSuite{{"lzo", runLzo}};

}  // namespace
}  // namespace ozrdc_bench
