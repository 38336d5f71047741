#pragma once

#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace tobrin {

// The engine's only random generator, always seeded explicitly so that every
// random choice (take, detune, jitter, synthesis, shuffles) is reproducible.
// Also a UniformRandomBitGenerator for the standard library's algorithms.
struct SplitMix64 {
    using result_type = std::uint64_t;

    std::uint64_t state = 0;

    constexpr explicit SplitMix64(std::uint64_t seed) : state(seed) {}

    constexpr std::uint64_t next() {
        state += 0x9E3779B97F4A7C15ULL;
        std::uint64_t z = state;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }

    // Uniform in [0, 1): the top 53 bits of the next output.
    constexpr double unit() { return double(next() >> 11) * 0x1.0p-53; }

    // Uniform in [-1, 1). (`signed` itself is a C++ keyword.)
    constexpr double signedUnit() { return 2.0 * unit() - 1.0; }

    constexpr std::uint64_t operator()() { return next(); }
    static constexpr std::uint64_t min() { return 0; }
    static constexpr std::uint64_t max() { return std::numeric_limits<std::uint64_t>::max(); }
};

// Fisher–Yates shuffle seeded by the array's length: the same length always
// gives the same permutation.
template <typename T>
std::vector<T> shuffledDeterministically(std::vector<T> items) {
    const std::uint64_t count = items.size();
    if (count < 2) return items;
    SplitMix64 rng(count * 0x9E3779B9ULL);
    for (std::uint64_t i = count - 1; i >= 1; --i) {
        const std::uint64_t j = rng.next() % (i + 1);
        if (j != i) std::swap(items[i], items[j]);
    }
    return items;
}

} // namespace tobrin
