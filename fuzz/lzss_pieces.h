// Piece and room sizes for the LZSS fuzz targets: a small generator seeded by the
// first four bytes of the fuzz input, so that a crash reproduces from its input.
#pragma once

#include <cstddef>
#include <cstdint>

struct PieceSizes {
    uint32_t state;
    explicit PieceSizes(const uint8_t* seed)
        : state(seed[0] | seed[1] << 8 | seed[2] << 16 | uint32_t(seed[3]) << 24) {}
    // A value in 0..bound-1.
    uint32_t next(uint32_t bound) {
        state = state * 1664525u + 1013904223u;
        return (state >> 8) % bound;
    }
};
