// In-use alphabet reduction: the byte values of a block that occur (its in-use
// table, 0 or 1 per value) are renumbered 0..n-1 in increasing order, and back.
// bzip2 codes its move-to-front ranks over this dense alphabet.
#include "bzip2_internal.h"

namespace {

// Replaces every byte x of buf by map[x], four bytes a step.
void mapBytes(const Ozr8u* map, Ozr8u* buf, int len) {
    int i = 0;
    for (; i + 4 <= len; i += 4) {
        Ozr8u a = map[buf[i]], b = map[buf[i + 1]], c = map[buf[i + 2]], d = map[buf[i + 3]];
        buf[i] = a;
        buf[i + 1] = b;
        buf[i + 2] = c;
        buf[i + 3] = d;
    }
    for (; i < len; ++i) buf[i] = map[buf[i]];
}

// map[v] = the number of in-use values below v (the entries are summed as they
// are, so a table entry other than 0 or 1 shifts the mapping); returns the total.
int reductionMap(const Ozr8u* inUse, Ozr8u* map) {
    int count = 0;
    for (int v = 0; v < 256; ++v) {
        map[v] = static_cast<Ozr8u>(count);
        count += inUse[v];
    }
    return count;
}

}  // namespace

extern "C" {

OzrResult m7_ozrsReduceDictionary_8u_I(const Ozr8u inUse[256], Ozr8u* pSrcDst, int len, int* pSizeDictionary) {
    OZR_CHECK_NULL(inUse, pSrcDst, pSizeDictionary);
    OZR_CHECK_POSITIVE(len);
    Ozr8u map[256];
    *pSizeDictionary = reductionMap(inUse, map);
    mapBytes(map, pSrcDst, len);
    return ozrOk;
}

OzrResult m7_ozrsExpandDictionary_8u_I(const Ozr8u inUse[256], Ozr8u* pSrcDst, int len, int sizeDictionary) {
    OZR_CHECK_NULL(inUse, pSrcDst);
    OZR_CHECK_POSITIVE(len);
    OZR_CHECK_POSITIVE(sizeDictionary);
    // inv[k] = the k-th value in use: every value v writes slot below[v], and of
    // the values sharing a slot the one in use comes last. Bytes at or above the
    // count are not defined input; they map to whatever their slot holds.
    Ozr8u below[256], inv[256];
    if (reductionMap(inUse, below) != sizeDictionary) return ozrErrFailed;
    for (int v = 0; v < 256; ++v) inv[v] = 0;
    for (int v = 0; v < 256; ++v) inv[below[v]] = static_cast<Ozr8u>(v);
    mapBytes(inv, pSrcDst, len);
    return ozrOk;
}

}  // extern "C"
