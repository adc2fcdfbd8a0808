// The bzip2 block decoding stages on arbitrary input: a table section and coded
// symbols through UnpackHuffContext and DecodeHuff (input fed in pieces, output
// against an unmapped page), then DecodeBlock on whatever symbols came out. Every
// call must end in a listed status with its counts inside the buffers.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "../src/bzip2/bzip2_huff.h"
#include "guarded.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 6) return 0;
    // Header of the fuzz input: in-use count - 1, piece size, symbol room (2 bytes),
    // origin pointer (1 byte, scaled), then the bit stream.
    const int nInUse = 1 + data[0];
    const int alpha = nInUse + 2;
    const int piece = 1 + data[1] % 64;
    const int room = 1 + (data[2] | data[3] << 8);
    const int origin = data[4];
    GuardedBuffer in(data + 5, size - 5);

    static std::vector<uint64_t> mem;
    int hsize = 0;
    m7_ozrsDecodeHuffGetSize_BZ2_8u16u(900050, &hsize);
    mem.assign((static_cast<size_t>(hsize) + 7) / 8, 0);
    auto* st = reinterpret_cast<OzrsDecodeHuffState_BZ2*>(mem.data());
    if (m7_ozrsDecodeHuffInit_BZ2_8u16u(alpha, st) != ozrOk) std::abort();

    Ozr32u code = 0;
    int bits = 0;
    const Ozr8u* src = in.data();
    const Ozr8u* const end = in.data() + in.size();
    OzrResult r;
    do {
        if (src == end) return 0;
        int len = static_cast<int>(end - src < piece ? end - src : piece);
        const int before = len;
        const Ozr8u* const at = src;
        r = m7_ozrsUnpackHuffContext_BZ2_8u16u(&code, &bits, &src, &len, st);
        if (src - at != before - len || len < 0 || bits < 0 || bits > 32) std::abort();
    } while (r == ozrWarnSrcSizeLess);
    if (r == ozrErrHuffTable) return 0;
    if (r != ozrOk) std::abort();

    GuardedBuffer out(static_cast<size_t>(room) * sizeof(Ozr16u));
    Ozr16u* syms = reinterpret_cast<Ozr16u*>(out.data());
    int n = 0;
    do {
        if (src == end || n == room) break;
        int len = static_cast<int>(end - src < piece ? end - src : piece);
        int dl = room - n;
        r = m7_ozrsDecodeHuff_BZ2_8u16u(&code, &bits, &src, &len, syms + n, &dl, st);
        if (dl < 0 || dl > room - n || bits < 0 || bits > 32) std::abort();
        n += dl;
    } while (r == ozrWarnSrcSizeLess || r == ozrWarnDstSizeLess);
    if (r != ozrOk && r != ozrWarnSrcSizeLess && r != ozrWarnDstSizeLess && r != ozrErrFailed) std::abort();
    for (int i = 0; i < n; ++i)
        if (syms[i] >= alpha) std::abort();
    if (n < 1) return 0;

    // Block decoding of the symbols (the end-of-block symbol, if any, included: it
    // must be refused as a rank beyond the alphabet).
    Ozr8u inUse[256] = {};
    for (int i = 0; i < nInUse; ++i) inUse[(i * 97 + data[0]) & 255] = 1;
    int count = 0;
    for (int i = 0; i < 256; ++i) count += inUse[i];
    const int blockRoom = 1 + room * 4;
    int wsize = 0;
    m7_ozrsDecodeBlockGetSize_BZ2_8u(blockRoom, &wsize);
    GuardedBuffer work(static_cast<size_t>(wsize));
    GuardedBuffer block(static_cast<size_t>(blockRoom));
    int bl = blockRoom;
    r = m7_ozrsDecodeBlock_BZ2_16u8u(syms, n, block.data(), &bl, origin % blockRoom, count, inUse, work.data());
    if (r != ozrOk && r != ozrErrFailed) std::abort();
    if (bl < 0 || bl > blockRoom) std::abort();
    return 0;
}
