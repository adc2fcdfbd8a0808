// Checksums side by side: each checksum over every corpus file, ours next to zlib,
// libdeflate and isa-l (and, for the bzip2 CRC, which no peer library exports, the
// textbook one-byte-table loop). isa-l's kernels return with the upper vector
// register halves dirty: each of its calls goes through afterPeer.
#include <isa-l.h>
#include <libdeflate.h>
#include <zlib.h>

#include "bench.h"
#include "ozrdc.h"

namespace {

using namespace ozrdc_bench;

struct BytewiseBZ2 {
    uint32_t t[256];
    BytewiseBZ2() {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i << 24;
            for (int b = 0; b < 8; ++b) c = (c << 1) ^ ((c & 0x80000000u) ? 0x04C11DB7u : 0);
            t[i] = c;
        }
    }
    uint32_t run(const uint8_t* p, size_t n) const {
        uint32_t c = 0xFFFFFFFFu;
        for (size_t i = 0; i < n; ++i) c = (c << 8) ^ t[(c >> 24) ^ p[i]];
        return ~c;
    }
};

// Keeps the optimiser from dropping a result.
volatile uint32_t sink;

void run(const Corpus& c, const Options& o, Table& t) {
    const uint64_t total = c.totalBytes();
    auto row = [&](const char* op, const char* impl, bool ours, auto&& perFile) {
        Row r;
        r.op = op;
        r.impl = impl;
        r.ours = ours;
        r.inBytes = total;
        r.mbps = measure(o, total, [&] {
            uint32_t acc = 0;
            for (const auto& f : c.files) acc ^= perFile(f.data.data(), f.data.size());
            sink = acc;
        });
        t.add(r);
    };

    row("crc32", "ozrdc", true, [](const uint8_t* p, size_t n) {
        Ozr32u v = 0;
        ozrsCRC32_8u(p, static_cast<Ozr32s>(n), &v);
        return v;
    });
    row("crc32", "zlib", false, [](const uint8_t* p, size_t n) { return uint32_t(crc32(0, p, uInt(n))); });
    row("crc32", "libdeflate", false, [](const uint8_t* p, size_t n) { return libdeflate_crc32(0, p, n); });
    row("crc32", "isa-l crc32_gzip_refl", false, [](const uint8_t* p, size_t n) {
        return afterPeer([&] { return crc32_gzip_refl(0, p, n); });
    });

    row("crc32c", "ozrdc", true, [](const uint8_t* p, size_t n) {
        Ozr32u v = 0xFFFFFFFFu;
        ozrsCRC32C_8u(p, static_cast<Ozr32u>(n), &v);
        return ~v;
    });
    row("crc32c", "isa-l crc32_iscsi", false, [](const uint8_t* p, size_t n) {
        return ~afterPeer([&] { return crc32_iscsi(const_cast<uint8_t*>(p), int(n), 0xFFFFFFFFu); });
    });

    static const BytewiseBZ2 bz2;
    row("crc32-bzip2", "ozrdc", true, [](const uint8_t* p, size_t n) {
        Ozr32u v = 0;
        ozrsCRC32_BZ2_8u(p, static_cast<Ozr32s>(n), &v);
        return v;
    });
    row("crc32-bzip2", "bytewise table", false, [](const uint8_t* p, size_t n) { return bz2.run(p, n); });

    row("adler32", "ozrdc", true, [](const uint8_t* p, size_t n) {
        Ozr32u v = 1;
        ozrsAdler32_8u(p, static_cast<Ozr32s>(n), &v);
        return v;
    });
    row("adler32", "zlib", false, [](const uint8_t* p, size_t n) { return uint32_t(adler32(1, p, uInt(n))); });
    row("adler32", "libdeflate", false, [](const uint8_t* p, size_t n) { return libdeflate_adler32(1, p, n); });
    row("adler32", "isa-l isal_adler32", false, [](const uint8_t* p, size_t n) {
        return afterPeer([&] { return isal_adler32(1, p, n); });
    });
}

const RegisterSuite reg({"checksum", run});

}  // namespace
