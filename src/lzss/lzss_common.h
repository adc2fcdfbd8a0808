// Pieces shared by the LZSS encoder and decoder: the stream's token layout, the
// window sizes and the record layout checks.
//
// Token layout, most significant bit first:
//   literal  9 bits  1 | byte
//   match   24 bits  0 | distance (15 bits, 1..32767) | length - 3 (8 bits, 3..258)
#pragma once

#include <emmintrin.h>

#include "m7.h"
#include "unaligned.h"

namespace m7::lzss {

constexpr unsigned kLiteralBits = 9;
constexpr unsigned kMatchBits = 24;
constexpr unsigned kMinMatch = 3;
constexpr unsigned kMaxMatch = 258;
constexpr unsigned kMaxDistance = 32767;
constexpr size_t kHistory = 32768;     // bytes of earlier data a match may reach
constexpr int kStateSize = 327744;

static_assert(sizeof(OzrLZSSState) == kStateSize, "OzrLZSSState size");
static_assert(offsetof(OzrLZSSEncoderState, chain) == 64, "encoder header is 64 bytes");
static_assert(sizeof(OzrLZSSEncoderState) == kStateSize, "encoder view fills the record");
static_assert(offsetof(OzrLZSSDecoderState, window) == 48, "decoder header is 48 bytes");
static_assert(sizeof(OzrLZSSDecoderState::window) == kHistory, "decoder window");

inline void copy16(Ozr8u* d, const Ozr8u* s) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
}

}  // namespace m7::lzss
