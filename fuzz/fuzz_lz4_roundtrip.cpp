// Every LZ4 block encoder on arbitrary data, back through our decoder. Byte 0 picks
// the encoder (and the acceleration, level or capacity); the rest is the data. Bounded
// encoders get a guarded output of the chosen capacity and must give a valid block
// of exactly the prefix they report.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "guarded.h"
#include "m7.h"

namespace {

void checkDecodes(const uint8_t* block, int len, const uint8_t* expect, int n, const uint8_t* dict, int dictLen) {
    if (n == 0) return;
    std::vector<uint8_t> buf(static_cast<size_t>(dictLen + n));
    int sl = len, dl = n;
    OzrResult st = dict ? m7_ozrsDecodeLZ4Dict_8u(block, &sl, buf.data(), dictLen, &dl, dict, dictLen)
                        : m7_ozrsDecodeLZ4Dict_8u(block, &sl, buf.data(), 0, &dl, nullptr, 0);
    if (st != ozrOk || dl != n || sl != len) std::abort();
    if (std::memcmp(buf.data() + (dict ? dictLen : 0), expect, static_cast<size_t>(n)) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const unsigned mode = data[0] % 6, param = data[0] / 6;
    GuardedBuffer in(data + 1, size - 1);
    const int n = static_cast<int>(in.size());
    const int bound = n + n / 255 + 16;
    std::vector<uint8_t> table(16384);
    // The dictionary: the first half of the data, when the mode uses one.
    const int dictLen = n / 2;
    const uint8_t* dict = in.data();
    const uint8_t* src = in.data() + dictLen;
    const int srcLen = n - dictLen;
    switch (mode) {
        case 0: {
            GuardedBuffer out(static_cast<size_t>(bound));
            int len = 0;
            if (m7_ozrsEncodeLZ4_8u(in.data(), n, out.data(), &len, table.data()) != ozrOk) std::abort();
            checkDecodes(out.data(), len, in.data(), n, nullptr, 0);
            break;
        }
        case 1: {
            const int cap = param == 0 ? bound : 1 + (n * static_cast<int>(param)) / 51;
            GuardedBuffer out(static_cast<size_t>(cap));
            int sl = n, len = cap;
            OzrResult st = m7_ozrsEncodeLZ4Safe_8u(in.data(), &sl, out.data(), &len, table.data());
            if (st != (sl == n ? ozrOk : ozrWarnDstSizeLess) || len > cap) std::abort();
            checkDecodes(out.data(), len, in.data(), sl, nullptr, 0);
            break;
        }
        case 2: {
            GuardedBuffer out(static_cast<size_t>(bound));
            int len = 0;
            if (m7_ozrsEncodeLZ4Fast_8u(in.data(), n, out.data(), &len, table.data(), 1 + static_cast<int>(param)) != ozrOk)
                std::abort();
            checkDecodes(out.data(), len, in.data(), n, nullptr, 0);
            break;
        }
        case 5: {
            // High compression: level from the parameter, capacity full or cut.
            static std::vector<uint8_t> hc;
            if (hc.empty()) {
                int sz = 0;
                m7_ozrsEncodeLZ4HCHashTableGetSize_8u(&sz);
                hc.resize(static_cast<size_t>(sz));
                m7_ozrsEncodeLZ4HCHashTableInit_8u(hc.data());
            }
            const int level = static_cast<int>(param % 13);
            const int cap = param < 26 ? bound : 1 + n * static_cast<int>(param % 13) / 13;
            GuardedBuffer out(static_cast<size_t>(cap));
            int sl = n, len = cap;
            OzrResult st = m7_ozrsEncodeLZ4HC_8u(in.data(), &sl, out.data(), &len, hc.data(), level);
            if (st != (sl == n ? ozrOk : ozrWarnDstSizeLess) || len > cap) std::abort();
            checkDecodes(out.data(), len, in.data(), sl, nullptr, 0);
            break;
        }
        case 3:
        case 4: {
            if (dictLen < 1 || srcLen < 1) return 0;
            // An external copy of the dictionary, so that it is not the input's prefix.
            GuardedBuffer d(dict, static_cast<size_t>(dictLen));
            GuardedBuffer s(src, static_cast<size_t>(srcLen));
            m7_ozrsEncodeLZ4DictHashTableInit_8u(table.data(), srcLen);
            m7_ozrsEncodeLZ4LoadDict_8u(table.data(), d.data(), dictLen);
            const int bnd = srcLen + srcLen / 255 + 16;
            if (mode == 3) {
                GuardedBuffer out(static_cast<size_t>(bnd));
                int len = 0;
                if (m7_ozrsEncodeLZ4Dict_8u(s.data(), dictLen, srcLen, out.data(), &len, table.data(), d.data(),
                                            dictLen) != ozrOk)
                    std::abort();
                checkDecodes(out.data(), len, s.data(), srcLen, d.data(), dictLen);
            } else {
                const int cap = param == 0 ? bnd : 1 + (srcLen * static_cast<int>(param)) / 51;
                GuardedBuffer out(static_cast<size_t>(cap));
                int sl = srcLen, len = cap;
                OzrResult st = m7_ozrsEncodeLZ4DictSafe_8u(s.data(), dictLen, &sl, out.data(), &len, table.data(),
                                                           d.data(), dictLen);
                if (st != (sl == srcLen ? ozrOk : ozrWarnDstSizeLess) || len > cap) std::abort();
                checkDecodes(out.data(), len, s.data(), sl, d.data(), dictLen);
            }
            break;
        }
    }
    return 0;
}
