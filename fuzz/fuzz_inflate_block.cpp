// The Inflate block decoder on arbitrary input behind arbitrary tables. The first
// bytes choose the table (the fixed code, a complete code grown by random splits, or
// raw code lengths that the builder may refuse), the output room, the history before
// the output and a piece size; the rest is the block's data, placed right before an
// unmapped page, as is the output. One call over everything and a run of calls over
// 1..8-byte pieces of input and output must give the same status, bytes and bit
// position: the fast loop and the careful step loop may not disagree.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "guarded.h"
#include "m7.h"

namespace {

struct Source {
    const uint8_t* p;
    size_t n;
    uint8_t byte() { return n ? (--n, *p++) : 0; }
};

// A complete prefix code over `count` random symbols of `alphabet`, by splitting a
// random leaf (of depth below 15) until there are `count` leaves.
void growCode(Source& s, Ozr16u* lens, unsigned alphabet, unsigned count) {
    std::vector<uint8_t> depth{0};
    while (depth.size() < count) {
        size_t i = s.byte() % depth.size();
        for (size_t k = 0; k < depth.size() && depth[i] >= 15; ++k) i = (i + 1) % depth.size();
        if (depth[i] >= 15) break;
        ++depth[i];
        depth.push_back(depth[i]);
    }
    if (depth.size() == 1) depth[0] = 1;  // one 1-bit code
    unsigned sym = s.byte() % alphabet;
    for (uint8_t d : depth) {
        while (lens[sym] != 0) sym = (sym + 1) % alphabet;
        lens[sym] = d;
        sym = (sym + 1 + s.byte() % 7) % alphabet;
    }
}

struct Outcome {
    OzrResult st;
    std::vector<uint8_t> out;
    size_t bitsConsumed;
    OzrInflateMode mode;
};

Outcome decode(OzrInflateState* state, const uint8_t* in, size_t inLen, uint8_t* out, size_t cap, size_t hist,
               size_t piece) {
    Outcome o{ozrOk, {}, 0, 0};
    Ozr32u code = 0, bits = 0;
    OzrInflateMode mode = 0;
    size_t ipos = 0, opos = hist;
    for (int guard = 0; guard < 1 << 22; ++guard) {
        const Ozr8u* ip = in + ipos;
        Ozr8u* op = out + opos;
        Ozr32u il = static_cast<Ozr32u>(piece ? std::min(piece, inLen - ipos) : inLen - ipos);
        Ozr32u ol = static_cast<Ozr32u>(piece ? std::min(piece, cap - opos) : cap - opos);
        const Ozr32u il0 = il, ol0 = ol;
        o.st = ozrsInflate_8u(&ip, &il, &code, &bits, 0, &op, &ol, static_cast<Ozr32s>(opos), &mode, state);
        // Errors write back the in/out values too.
        if (ip - (in + ipos) != static_cast<ptrdiff_t>(il0 - il) || op - (out + opos) != static_cast<ptrdiff_t>(ol0 - ol))
            std::abort();
        ipos += il0 - il;
        opos += ol0 - ol;
        if (o.st != ozrOk) break;
        if (mode == 0) break;
        const bool waitsForRoom = mode == 2 && (state->savedStep == 5 || state->savedStep == 6);
        if (waitsForRoom ? opos == cap : ipos == inLen) break;
    }
    o.mode = mode;
    o.out.assign(out + hist, out + opos);
    o.bitsConsumed = ipos * 8 - bits;
    return o;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    Source s{data, size};
    const uint8_t kind = s.byte();
    const size_t cap = 1 + (s.byte() | (s.byte() & 0x7F) << 8);
    const size_t hist = s.byte() % 8;
    const size_t piece = 1 + kind % 8;

    static OzrInflateState state;
    std::memset(&state, 0, sizeof state);
    Ozr16u lens[320] = {};
    unsigned nLit = 286, nDist = 30;
    switch (kind >> 6) {
        case 0:
            state.tableType = 0;
            break;
        case 1:
        case 2:
            growCode(s, lens, 286, 2 + s.byte() % 285);
            if (s.byte() % 4 != 0) growCode(s, lens + 286, 30, 1 + s.byte() % 30);
            if (lens[256] == 0 && s.byte() % 2) lens[256] = lens[0], lens[0] = 0;
            break;
        default:
            nLit = 257 + s.byte() % 32;
            nDist = s.byte() % 31;
            for (unsigned i = 0; i < nLit + nDist; ++i) lens[i] = s.byte() % 16;
            break;
    }
    if (kind >> 6 != 0) {
        const OzrResult b = ozrsInflateBuildHuffTable(lens, nLit, static_cast<Ozr32s>(nDist), &state);
        if (b != ozrOk) {
            if (b != ozrErrHuffTable) std::abort();
            return 0;
        }
    }

    GuardedBuffer in(s.p, s.n);
    GuardedBuffer out(cap + hist);
    std::memset(out.data(), 'h', hist);
    const Outcome whole = decode(&state, in.data(), in.size(), out.data(), hist + cap, hist, 0);
    if (whole.st != ozrOk && whole.st != ozrErrHuffTable) std::abort();
    const Outcome split = decode(&state, in.data(), in.size(), out.data(), hist + cap, hist, piece);
    if (split.st != whole.st || split.out != whole.out || split.bitsConsumed != whole.bitsConsumed ||
        (whole.st == ozrOk && split.mode != whole.mode))
        std::abort();
    return 0;
}
