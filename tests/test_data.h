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

// n bytes of words picked with a skew toward the first ones: compresses about like
// English text (many short matches at short and middling distances).
inline Bytes textBytes(size_t n, uint32_t seed) {
    static const char* const words[] = {"the ", "of ", "and ", "compression ", "block ", "a ", "to ", "stream ",
                                        "Mr. Pickwick ", "said ", "little ", "in ", "that ", "it ", "was ", ".\n"};
    std::mt19937 r(seed);
    Bytes b;
    while (b.size() < n) {
        const uint32_t i = r() % 16, j = r() % 16;
        for (const char* w = words[i < j ? i : j]; *w; ++w) b.push_back(static_cast<uint8_t>(*w));
    }
    b.resize(n);
    return b;
}
