// Unaligned little-endian loads and stores of 2, 4 and 8 bytes, for every family's
// byte-stream code. A fixed-size __builtin_memcpy is always compiled as one move (no
// call), and it tells the compiler the access may be unaligned and alias anything.
#pragma once

#include "ozrdc.h"

namespace m7 {

inline Ozr16u load16(const Ozr8u* p) { Ozr16u v; __builtin_memcpy(&v, p, 2); return v; }
inline Ozr32u load32(const Ozr8u* p) { Ozr32u v; __builtin_memcpy(&v, p, 4); return v; }
inline Ozr64u load64(const Ozr8u* p) { Ozr64u v; __builtin_memcpy(&v, p, 8); return v; }
inline void store16(Ozr8u* p, Ozr16u v) { __builtin_memcpy(p, &v, 2); }
inline void store32(Ozr8u* p, Ozr32u v) { __builtin_memcpy(p, &v, 4); }
inline void store64(Ozr8u* p, Ozr64u v) { __builtin_memcpy(p, &v, 8); }

}  // namespace m7
