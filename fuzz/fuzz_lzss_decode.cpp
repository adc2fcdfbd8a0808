// The LZSS decoder on arbitrary streams, fed in random pieces with random output room.
// Each piece lies right before an unmapped page, and so does each output room; the
// record's window starts with known bytes, so that matches reaching before the stream
// are defined. Every call's status, counts and bytes must be the byte-at-a-time
// reference decoder's.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "../tests/lzss_ref.h"
#include "guarded.h"
#include "lzss_pieces.h"
#include "m7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    PieceSizes sizes(data);  // the first four bytes drive the piece and room sizes
    auto next = [&sizes](uint32_t bound) { return sizes.next(bound); };
    const uint8_t* stream = data + 4;
    const size_t len = size - 4;
    const uint32_t maxPiece = 1 + data[0] % 64, maxRoom = 1 + (data[1] | data[2] << 8) % 4096;

    std::unique_ptr<OzrLZSSState> s(new OzrLZSSState);
    std::memset(s.get(), data[3], sizeof(OzrLZSSState));
    s->u.dec.window[32767] = uint8_t(~data[3]);
    if (m7_ozrsDecodeLZSSInit_8u(s.get()) != ozrOk) std::abort();
    ref::LzssDecoder r(s->u.dec.window);

    // One mapping each, the piece and the room placed at their ends.
    GuardedBuffer inBuf(maxPiece), outBuf(maxRoom);
    size_t pos = 0;
    for (int calls = 0; calls < 300; ++calls) {
        const size_t piece = std::min<size_t>(len - pos, next(maxPiece + 1));
        const size_t room = 1 + next(maxRoom);
        Ozr8u* const inAt = inBuf.data() + (maxPiece - piece);
        Ozr8u* const outAt = outBuf.data() + (maxRoom - room);
        if (piece) std::memcpy(inAt, stream + pos, piece);
        Ozr8u* src = inAt;
        Ozr8u* dst = outAt;
        int srcLen = int(piece), dstLen = int(room);
        const OzrResult st = m7_ozrsDecodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s.get());
        const ref::LzssDecoder::Call want = r.decode(stream + pos, piece, room);
        if (st != want.st) std::abort();
        if (piece - size_t(srcLen) != want.consumed || src != inAt + want.consumed) std::abort();
        if (room - size_t(dstLen) != want.produced || dst != outAt + want.produced) std::abort();
        if (std::memcmp(outAt, r.hist.data() + r.hist.size() - want.produced, want.produced) != 0) std::abort();
        pos += want.consumed;
        if (st == ozrOk && pos == len) break;
    }
    return 0;
}
