// The lzop file format: LZO1X blocks of up to 256 KiB in a small container, readable
// by the lzop tool and readable from it.
//
//   magic        89 4C 5A 4F 00 0D 0A 1A 0A
//   header       (all fields big-endian) version 16, library version 16, version
//                needed to extract 16 (from 0x0940), method 8 (1..3: LZO1X), level 8
//                (from 0x0940), flags 32, [filter 32 if flags & 0x800], mode 32,
//                mtime low 32, [mtime high 32 from 0x0940], name length 8, name,
//                checksum 32 of the header fields above (Adler-32, or CRC-32 if flags
//                & 0x1000), [extra field: length 32, bytes, checksum 32 if flags & 0x40]
//   blocks       uncompressed size 32 (0 ends the file), compressed size 32,
//                [Adler-32 / CRC-32 of the uncompressed data if flags & 1 / 0x100],
//                [Adler-32 / CRC-32 of the compressed data if flags & 2 / 0x200, only
//                when compressed < uncompressed], data: LZO1X when it is smaller than
//                the uncompressed size, else stored.
// We write version 0x1040, flags Adler-32 of the uncompressed data and OS Unix, no
// name, the current time, and blocks that do not shrink stored.

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "codec.h"
#include "ozrdc.h"

namespace ozrdc_tool {
namespace {

constexpr unsigned char kMagic[9] = {0x89, 'L', 'Z', 'O', 0x00, 0x0D, 0x0A, 0x1A, 0x0A};
constexpr size_t kBlockSize = 256 * 1024;
constexpr uint32_t kMaxBlock = 64u << 20;  // the largest block lzop writes or reads

constexpr uint32_t F_ADLER32_D = 0x1, F_ADLER32_C = 0x2, F_H_EXTRA_FIELD = 0x40, F_CRC32_D = 0x100,
                   F_CRC32_C = 0x200, F_MULTIPART = 0x400, F_H_FILTER = 0x800, F_H_CRC32 = 0x1000,
                   F_OS_UNIX = 0x03000000;

// The lzop checksums, computed by the library: Adler-32 (start value 1) and CRC-32
// (start value 0). Pieces are at most one 256 KiB block or a header, well within the
// library's signed 32-bit lengths; an empty piece leaves the value as it is.
uint32_t lzopAdler32(uint32_t adler, const unsigned char* p, size_t n) {
    if (n > 0) ozrsAdler32_8u(p, static_cast<Ozr32s>(n), &adler);
    return adler;
}
uint32_t lzopCrc32(uint32_t crc, const unsigned char* p, size_t n) {
    if (n > 0) ozrsCRC32_8u(p, static_cast<Ozr32s>(n), &crc);
    return crc;
}

void putBE16(std::vector<unsigned char>& v, uint32_t x) {
    v.push_back(static_cast<unsigned char>(x >> 8));
    v.push_back(static_cast<unsigned char>(x));
}
void putBE32(std::vector<unsigned char>& v, uint32_t x) {
    unsigned char b[4];
    ozrdc_tool::putBE32(b, x);
    v.insert(v.end(), b, b + 4);
}

void compressLzop(Reader& r, Writer& w, const CompressOptions& o) {
    // Levels 1 and 2 take the fast segmented coder, the others the default coder.
    const bool fast = o.level && *o.level <= 2;
    const Ozr32u method = fast ? OZR_LZO_METHOD_FAST : OZR_LZO_METHOD_DEFAULT;
    Ozr32u stateSize = 0;
    if (ozrsEncodeLZOGetSize(method, kBlockSize, &stateSize) != ozrOk) throw ToolError("lzo: no encoder state");
    std::vector<uint64_t> stateMem(stateSize / 8 + 1);
    auto* state = reinterpret_cast<OzrLZOState*>(stateMem.data());
    if (ozrsEncodeLZOInit_8u(method, kBlockSize, state) != ozrOk) throw ToolError("lzo: encoder set-up failed");

    std::vector<unsigned char> h(kMagic, kMagic + sizeof kMagic);
    const size_t fieldsAt = h.size();
    putBE16(h, 0x1040);                  // format version
    putBE16(h, 0x20A0);                  // LZO library version
    putBE16(h, 0x0940);                  // version needed to extract
    h.push_back(fast ? 2 : 1);           // method: LZO1X-1(15) / LZO1X-1
    h.push_back(fast ? 1 : 5);           // level
    putBE32(h, F_ADLER32_D | F_OS_UNIX);
    putBE32(h, 0100644);                 // mode
    putBE32(h, static_cast<uint32_t>(std::time(nullptr)));
    putBE32(h, 0);                       // mtime, high half
    h.push_back(0);                      // no name
    putBE32(h, lzopAdler32(1, h.data() + fieldsAt, h.size() - fieldsAt));
    w.write(h.data(), h.size());

    std::vector<unsigned char> in(kBlockSize), out(kBlockSize + kBlockSize / 16 + 64 + 3);
    for (;;) {
        size_t n = r.read(in.data(), in.size());
        if (n == 0) break;
        Ozr32u len = static_cast<Ozr32u>(out.size());
        OzrResult st = ozrsEncodeLZO_8u(in.data(), static_cast<Ozr32u>(n), out.data(), &len, state);
        if (st != ozrOk) throw ToolError("lzo: encoder failed (status " + std::to_string(st) + ")");
        const bool stored = len >= n;
        std::vector<unsigned char> b;
        putBE32(b, static_cast<uint32_t>(n));
        putBE32(b, static_cast<uint32_t>(stored ? n : len));
        putBE32(b, lzopAdler32(1, in.data(), n));
        w.write(b.data(), b.size());
        w.write(stored ? in.data() : out.data(), stored ? n : len);
        if (n < in.size()) break;
    }
    std::vector<unsigned char> end;
    putBE32(end, 0);
    w.write(end.data(), end.size());
}

// Reads n bytes, adding them to the header bytes whose checksum is checked.
struct HeaderReader {
    Reader& r;
    std::vector<unsigned char> bytes;
    unsigned char* take(size_t n) {
        size_t at = bytes.size();
        bytes.resize(at + n);
        r.readExact(bytes.data() + at, n, "lzop header");
        return bytes.data() + at;
    }
    uint32_t be16() { const unsigned char* p = take(2); return uint32_t(p[0]) << 8 | p[1]; }
    uint32_t be32() { return getBE32(take(4)); }
    uint32_t u8() { return *take(1); }
};

uint32_t readBE32(Reader& r, const char* what) {
    unsigned char b[4];
    r.readExact(b, 4, what);
    return getBE32(b);
}

void decompressLzop(Reader& r, Writer& w) {
    const std::string& name = r.name();
    unsigned char magic[sizeof kMagic];
    r.readExact(magic, sizeof magic, "lzop magic");
    if (std::memcmp(magic, kMagic, sizeof kMagic) != 0) throw ToolError(name + ": not an lzop file");

    HeaderReader h{r, {}};
    const uint32_t version = h.be16();
    h.be16();  // library version
    if (version < 0x0900) throw ToolError(name + ": lzop format version too old");
    if (version >= 0x0940 && h.be16() > 0x1040) throw ToolError(name + ": needs a newer lzop format version");
    const uint32_t method = h.u8();
    if (version >= 0x0940) h.u8();  // level
    const uint32_t flags = h.be32();
    if (method < 1 || method > 3) throw ToolError(name + ": compression method " + std::to_string(method) + " is not LZO1X");
    if (flags & F_H_FILTER) throw ToolError(name + ": lzop filters are not supported");
    if (flags & F_MULTIPART) throw ToolError(name + ": multi-part lzop files are not supported");
    h.be32();                        // mode
    h.be32();                        // mtime
    if (version >= 0x0940) h.be32(); // mtime, high half
    h.take(h.u8());                  // name
    const uint32_t want = (flags & F_H_CRC32) ? lzopCrc32(0, h.bytes.data(), h.bytes.size())
                                              : lzopAdler32(1, h.bytes.data(), h.bytes.size());
    if (readBE32(r, "lzop header checksum") != want) throw ToolError(name + ": lzop header checksum mismatch (corrupt file)");
    if (flags & F_H_EXTRA_FIELD) {
        std::vector<unsigned char> extra(readBE32(r, "lzop extra field"));
        if (extra.size() > kMaxBlock) throw ToolError(name + ": corrupt lzop extra field");
        r.readExact(extra.data(), extra.size(), "lzop extra field");
        readBE32(r, "lzop extra field checksum");
    }

    std::vector<unsigned char> packed, plain;
    for (uint64_t block = 0;; ++block) {
        const std::string where = name + ": block " + std::to_string(block);
        const uint32_t dstLen = readBE32(r, "lzop block size");
        if (dstLen == 0) break;
        if (dstLen > kMaxBlock) throw ToolError(where + ": block size " + std::to_string(dstLen) + " too large (corrupt file)");
        const uint32_t srcLen = readBE32(r, "lzop block size");
        if (srcLen == 0 || srcLen > dstLen) throw ToolError(where + ": bad compressed size (corrupt file)");
        uint32_t dAdler = 0, dCrc = 0, cAdler = 0, cCrc = 0;
        if (flags & F_ADLER32_D) dAdler = readBE32(r, "lzop block checksum");
        if (flags & F_CRC32_D) dCrc = readBE32(r, "lzop block checksum");
        if (srcLen < dstLen && (flags & F_ADLER32_C)) cAdler = readBE32(r, "lzop block checksum");
        if (srcLen < dstLen && (flags & F_CRC32_C)) cCrc = readBE32(r, "lzop block checksum");
        // Room for one more byte in front: see the 0x55 rewrite below.
        packed.resize(size_t(srcLen) + 1);
        unsigned char* data = packed.data() + 1;
        r.readExact(data, srcLen, "lzop block data");
        const unsigned char* result = data;
        if (srcLen < dstLen) {
            if ((flags & F_ADLER32_C) && lzopAdler32(1, data, srcLen) != cAdler)
                throw ToolError(where + ": checksum mismatch in compressed data (corrupt file)");
            if ((flags & F_CRC32_C) && lzopCrc32(0, data, srcLen) != cCrc)
                throw ToolError(where + ": checksum mismatch in compressed data (corrupt file)");
            // A stream whose first byte is 0x55 (a first literal run of 68 bytes) could
            // be taken for the decoder's multi-part container. The same run written in
            // its long form, 0 then 50, is read as a plain stream by the same rules.
            const unsigned char* s = data;
            Ozr32u sLen = srcLen;
            if (data[0] == 0x55 && srcLen >= 2) {
                packed[0] = 0;
                data[0] = 50;
                s = packed.data();
                sLen = srcLen + 1;
            }
            plain.resize(dstLen);
            Ozr32u got = dstLen;
            OzrResult st = ozrsDecodeLZOSafe_8u(s, sLen, plain.data(), &got);
            if (st != ozrOk || got != dstLen)
                throw ToolError(where + ": corrupt LZO1X data" + (st == ozrOk ? " (wrong length)" : ""));
            result = plain.data();
        }
        if ((flags & F_ADLER32_D) && lzopAdler32(1, result, dstLen) != dAdler)
            throw ToolError(where + ": checksum mismatch in uncompressed data (corrupt file)");
        if ((flags & F_CRC32_D) && lzopCrc32(0, result, dstLen) != dCrc)
            throw ToolError(where + ": checksum mismatch in uncompressed data (corrupt file)");
        w.write(result, dstLen);
    }
}

RegisterFormat lzoFormat{{
    "lzo",
    ".lzo",
    "lzop file: LZO1X blocks of 256 KiB with Adler-32 checksums (lzop -d reads it)",
    [](const unsigned char* head, size_t n) { return n >= sizeof kMagic && std::memcmp(head, kMagic, sizeof kMagic) == 0; },
    compressLzop,
    decompressLzop,
    /*keepsInput=*/true,  // as lzop
}};

}  // namespace
}  // namespace ozrdc_tool
