// Data the test programs make for themselves (they never read the benchmark corpus).
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

using Bytes = std::vector<uint8_t>;

// n bytes from a fixed-seed generator: incompressible, the same on every run.
inline Bytes randomBytes(size_t n, uint32_t seed) {
    std::mt19937 r(seed);
    Bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(r());
    return b;
}
