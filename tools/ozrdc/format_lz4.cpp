// The LZ4 frame format (.lz4) on top of the library's LZ4 block coder.
//
// Writing: one frame of independent blocks of up to 4 MiB, each compressed by the
// bounded block encoder, or by the high-compression encoder with -l 2..12 (stored
// raw when compression does not make it smaller),
// and a content checksum (xxHash32 of the whole input); streaming, so files of any
// size take 8 MiB of memory.
//
// Reading: any sequence of LZ4 frames and skippable frames: independent or linked
// blocks (a linked block's matches reach into the previous 64 KiB of output, which
// is kept in front of the output buffer and handed to the decoder as a prefix),
// block checksums, content size and content checksum. Dictionary frames are refused.
#include <xxhash.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "codec.h"
#include "ozrdc.h"

namespace ozrdc_tool {
namespace {

constexpr uint32_t kFrameMagic = 0x184D2204;
constexpr uint32_t kSkippableMagic = 0x184D2A50;  // low nibble free
constexpr uint32_t kSkippableMask = 0xFFFFFFF0;
constexpr size_t kWriteBlock = size_t(4) << 20;
constexpr size_t kHistory = 64 * 1024;
constexpr uint32_t kRawBlockFlag = 0x80000000u;

struct XxhState {
    XXH32_state_t* s = XXH32_createState();
    XxhState() { XXH32_reset(s, 0); }
    ~XxhState() { XXH32_freeState(s); }
    void update(const void* p, size_t n) { XXH32_update(s, p, n); }
    uint32_t digest() const { return XXH32_digest(s); }
};

int checkedInt(size_t n) { return static_cast<int>(n); }

// Compresses with the bounded block encoder at level 1 (the default), or with the
// high-compression encoder at levels 2 to 12 (its own levels of the same numbers).
class BlockEncoder {
public:
    explicit BlockEncoder(std::optional<int> level) : level_(level.value_or(1)) {
        if (level_ < 1 || level_ > OZR_LZ4HC_MAX_LEVEL) throw ToolError("lz4: level must be 1..12");
        int size = 0;
        if (level_ == 1) ozrsEncodeLZ4HashTableGetSize_8u(&size);
        else ozrsEncodeLZ4HCHashTableGetSize_8u(&size);
        table_.resize(static_cast<size_t>(size));
        if (level_ > 1) ozrsEncodeLZ4HCHashTableInit_8u(table_.data());
    }
    // Returns the block length, or 0 when the block does not shrink.
    size_t encode(const uint8_t* src, size_t n, uint8_t* dst) {
        if (n < 2) return 0;
        int srcLen = checkedInt(n), dstLen = checkedInt(n - 1);
        OzrResult st = level_ == 1 ? ozrsEncodeLZ4Safe_8u(src, &srcLen, dst, &dstLen, table_.data())
                                   : ozrsEncodeLZ4HC_8u(src, &srcLen, dst, &dstLen, table_.data(), level_);
        if (st != ozrOk || srcLen != checkedInt(n)) return 0;
        return static_cast<size_t>(dstLen);
    }

private:
    int level_;
    std::vector<Ozr8u> table_;
};

void compressLz4(Reader& in, Writer& out, const CompressOptions& opts) {
    BlockEncoder enc(opts.level);
    // Frame descriptor: version 01, independent blocks, content checksum; 4 MiB blocks.
    unsigned char hdr[7];
    putLE32(hdr, kFrameMagic);
    hdr[4] = 0x40 | 0x20 | 0x04;
    hdr[5] = 7 << 4;
    hdr[6] = static_cast<unsigned char>(XXH32(hdr + 4, 2, 0) >> 8);
    out.write(hdr, sizeof hdr);

    std::vector<uint8_t> buf(kWriteBlock), block(kWriteBlock);
    XxhState content;
    for (;;) {
        size_t n = in.read(buf.data(), buf.size());
        if (n == 0) break;
        content.update(buf.data(), n);
        unsigned char size[4];
        size_t len = enc.encode(buf.data(), n, block.data());
        if (len != 0) {
            putLE32(size, static_cast<uint32_t>(len));
            out.write(size, 4);
            out.write(block.data(), len);
        } else {
            putLE32(size, static_cast<uint32_t>(n) | kRawBlockFlag);
            out.write(size, 4);
            out.write(buf.data(), n);
        }
        if (n < buf.size()) break;
    }
    unsigned char tail[8];
    putLE32(tail, 0);
    putLE32(tail + 4, content.digest());
    out.write(tail, sizeof tail);
}

[[noreturn]] void corrupt(const Reader& in, const std::string& what) {
    throw ToolError(in.name() + ": corrupt LZ4 data (" + what + ")");
}

void skipBytes(Reader& in, uint64_t n) {
    unsigned char tmp[4096];
    while (n > 0) {
        size_t k = n < sizeof tmp ? static_cast<size_t>(n) : sizeof tmp;
        in.readExact(tmp, k, "skippable frame");
        n -= k;
    }
}

void decodeFrame(Reader& in, Writer& out) {
    unsigned char d[2];
    in.readExact(d, 2, "frame descriptor");
    const unsigned flg = d[0], bd = d[1];
    if ((flg >> 6) != 1) corrupt(in, "unsupported frame version");
    if (flg & 0x02 || bd & 0x8F) corrupt(in, "reserved bits set in the frame descriptor");
    const bool independent = flg & 0x20, blockSum = flg & 0x10, hasSize = flg & 0x08, contentSum = flg & 0x04;
    const bool hasDict = flg & 0x01;
    const unsigned sizeCode = (bd >> 4) & 7;
    if (sizeCode < 4) corrupt(in, "invalid block maximum size");
    const size_t maxBlock = size_t(1) << (8 + 2 * sizeCode);

    unsigned char desc[15];
    desc[0] = d[0], desc[1] = d[1];
    size_t dlen = 2;
    if (hasSize) in.readExact(desc + dlen, 8, "frame descriptor"), dlen += 8;
    if (hasDict) in.readExact(desc + dlen, 4, "frame descriptor"), dlen += 4;
    unsigned char hc;
    in.readExact(&hc, 1, "frame descriptor");
    if (hc != static_cast<unsigned char>(XXH32(desc, dlen, 0) >> 8)) corrupt(in, "frame header checksum mismatch");
    if (hasDict) throw ToolError(in.name() + ": LZ4 frames that need a dictionary are not supported");
    uint64_t expectSize = 0;
    if (hasSize)
        for (int i = 0; i < 8; ++i) expectSize |= uint64_t(desc[2 + i]) << (8 * i);

    // Output buffer: up to 64 KiB of history, then room for one block.
    std::vector<uint8_t> buf(kHistory + maxBlock), block(maxBlock);
    size_t hist = 0;  // history bytes in front of buf + kHistory
    XxhState content;
    uint64_t total = 0;
    for (;;) {
        unsigned char sz[4];
        in.readExact(sz, 4, "block size");
        const uint32_t word = getLE32(sz);
        if (word == 0) break;
        const bool raw = word & kRawBlockFlag;
        const size_t len = word & ~kRawBlockFlag;
        if (len > maxBlock) corrupt(in, "block larger than the frame's maximum");
        in.readExact(block.data(), len, "block data");
        if (blockSum) {
            unsigned char s[4];
            in.readExact(s, 4, "block checksum");
            if (getLE32(s) != XXH32(block.data(), len, 0)) corrupt(in, "block checksum mismatch");
        }
        uint8_t* const dst = buf.data() + kHistory;
        size_t produced;
        if (raw) {
            std::memcpy(dst, block.data(), len);
            produced = len;
        } else {
            if (len == 0) corrupt(in, "empty compressed block");
            int sl = checkedInt(len), dl = checkedInt(maxBlock);
            const uint8_t* dict = independent || hist == 0 ? nullptr : dst - hist;
            OzrResult st = ozrsDecodeLZ4Dict_8u(block.data(), &sl, dst, 0, &dl, dict, checkedInt(hist));
            if (st != ozrOk || static_cast<size_t>(sl) != len) corrupt(in, "bad compressed block");
            produced = static_cast<size_t>(dl);
        }
        content.update(dst, produced);
        out.write(dst, produced);
        total += produced;
        if (!independent) {
            // Keep the last 64 KiB of output in front of the next block.
            const size_t keep = produced >= kHistory ? kHistory : (hist + produced > kHistory ? kHistory : hist + produced);
            std::memmove(buf.data() + kHistory - keep, dst + produced - keep, keep);
            hist = keep;
        }
    }
    if (contentSum) {
        unsigned char s[4];
        in.readExact(s, 4, "content checksum");
        if (getLE32(s) != content.digest()) corrupt(in, "content checksum mismatch");
    }
    if (hasSize && total != expectSize) corrupt(in, "content size mismatch");
}

void decompressLz4(Reader& in, Writer& out) {
    bool first = true;
    for (;;) {
        unsigned char m[4];
        size_t got = in.read(m, 4);
        if (got == 0 && !first) return;
        if (got != 4) throw ToolError(in.name() + ": truncated input (frame magic)");
        first = false;
        const uint32_t magic = getLE32(m);
        if ((magic & kSkippableMask) == kSkippableMagic) {
            unsigned char s[4];
            in.readExact(s, 4, "skippable frame size");
            skipBytes(in, getLE32(s));
            continue;
        }
        if (magic != kFrameMagic) throw ToolError(in.name() + ": not an LZ4 frame after the previous frame");
        decodeFrame(in, out);
    }
}

bool detectLz4(const unsigned char* head, size_t n) {
    if (n < 4) return false;
    const uint32_t magic = getLE32(head);
    return magic == kFrameMagic || (magic & kSkippableMask) == kSkippableMagic;
}

const RegisterFormat kLz4{Format{"lz4", ".lz4", "LZ4 frames (independent 4 MiB blocks, content checksum)",
                                 detectLz4, compressLz4, decompressLz4, /*keepsInput=*/true}};  // as lz4

}  // namespace
}  // namespace ozrdc_tool
