// The LZSS encoder on arbitrary data cut into random pieces with random output room:
// the stream must be the plain reference search's for the same pieces (output room
// never changes it), and decode to the data.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "../tests/lzss_ref.h"
#include "guarded.h"
#include "lzss_pieces.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    PieceSizes sizes(data);  // the first four bytes drive the piece and room sizes
    auto next = [&sizes](uint32_t bound) { return sizes.next(bound); };
    const uint8_t* in = data + 4;
    const size_t len = size - 4;
    const uint32_t maxPiece = 1 + (data[0] | data[1] << 8) % 8192, maxRoom = 3 + data[2] % 64;

    std::unique_ptr<OzrLZSSState> s(new OzrLZSSState);
    if (m7_ozrsEncodeLZSSInit_8u(s.get()) != ozrOk) std::abort();
    ref::LzssEncoder want{s->u.enc.pRandVec};
    std::vector<uint8_t> stream;
    // One mapping each: a piece and a room are placed at the end, before the guard page.
    GuardedBuffer srcBuf(maxPiece), outBuf(maxRoom);
    for (size_t pos = 0; pos < len;) {
        const size_t piece = std::min<size_t>(len - pos, 1 + next(maxPiece));
        want.encode(in + pos, piece);
        Ozr8u* const src = srcBuf.data() + (maxPiece - piece);
        std::memcpy(src, in + pos, piece);
        Ozr8u* sp = src;
        int srcLen = int(piece);
        for (OzrResult st = ozrWarnDstSizeLess; st == ozrWarnDstSizeLess;) {
            const size_t room = next(maxRoom + 1);
            Ozr8u* const out = outBuf.data() + (maxRoom - room);
            Ozr8u* dp = out;
            int dstLen = int(room);
            st = m7_ozrsEncodeLZSS_8u(&sp, &srcLen, &dp, &dstLen, s.get());
            if (st != ozrOk && st != ozrWarnDstSizeLess) std::abort();
            if (dp != out + (room - size_t(dstLen)) || sp != src + (piece - size_t(srcLen))) std::abort();
            stream.insert(stream.end(), out, dp);
            if (st == ozrOk && srcLen != 0) std::abort();
        }
        pos += piece;
    }
    for (OzrResult st = ozrWarnDstSizeLess; st == ozrWarnDstSizeLess;) {
        const size_t room = 1 + next(3);
        Ozr8u* const out = outBuf.data() + (maxRoom - room);
        Ozr8u* dp = out;
        int dstLen = int(room);
        st = m7_ozrsEncodeLZSSFlush_8u(&dp, &dstLen, s.get());
        stream.insert(stream.end(), out, dp);
    }
    if (stream != want.flush()) std::abort();

    std::unique_ptr<OzrLZSSState> d(new OzrLZSSState);
    if (m7_ozrsDecodeLZSSInit_8u(d.get()) != ozrOk) std::abort();
    GuardedBuffer encoded(stream.data(), stream.size());
    GuardedBuffer decoded(len + 1);
    Ozr8u* sp = encoded.data();
    Ozr8u* dp = decoded.data();
    int srcLen = int(stream.size()), dstLen = int(len + 1);
    if (m7_ozrsDecodeLZSS_8u(&sp, &srcLen, &dp, &dstLen, d.get()) != ozrOk) std::abort();
    if (dstLen != 1 || srcLen != 0 || std::memcmp(decoded.data(), in, len) != 0) std::abort();
    return 0;
}
