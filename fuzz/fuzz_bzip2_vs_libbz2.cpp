// Differential: data compressed by libbz2 (level and work factor from the input) is
// decoded by our stages with the compressed stream cut into pieces of a size taken
// from the input, and must give back the data; the stream with one byte flipped
// must either decode to what libbz2 decodes or be refused.
#include <bzlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "../tests/bzip2_stream.h"

using namespace bz2stream;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;  // libbz2 refuses an empty input (a null source)
    const int level = 1 + data[0] % 9;
    const size_t piece = data[1] % 17;  // 0: all at once
    const size_t flip = data[2];
    Bytes raw(data + 3, data + size);
    unsigned int zl = static_cast<unsigned>(raw.size() + raw.size() / 100 + 700);
    Bytes z(zl);
    if (BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(z.data()), &zl, reinterpret_cast<char*>(raw.data()),
                                 static_cast<unsigned>(raw.size()), level, 0, 30) != BZ_OK)
        std::abort();
    z.resize(zl);
    Bytes out;
    std::string why;
    if (!ourDecode(z, out, why, piece) || out != raw) { std::fprintf(stderr, "why=%s out=%zu raw=%zu piece=%zu\n", why.c_str(), out.size(), raw.size(), piece); std::abort(); }

    // A damaged stream: ours must not crash, and when both accept it they agree.
    if (z.size() > 14) {
        z[4 + flip % (z.size() - 4)] ^= static_cast<uint8_t>(1 + (data[0] >> 4));
        Bytes mine, theirs(raw.size() + 64);
        unsigned int tl = static_cast<unsigned>(theirs.size());
        const bool okTheirs = BZ2_bzBuffToBuffDecompress(reinterpret_cast<char*>(theirs.data()), &tl,
                                                         reinterpret_cast<char*>(z.data()),
                                                         static_cast<unsigned>(z.size()), 0, 0) == BZ_OK;
        bool okMine = false;
        try {
            okMine = ourDecode(z, mine, why, piece);
        } catch (const std::out_of_range&) {  // the test driver's header reader ran off the end
        }
        theirs.resize(tl);
        if (okMine && okTheirs && mine != theirs) std::abort();
    }
    return 0;
}
