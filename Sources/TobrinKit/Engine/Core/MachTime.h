#pragma once

#include <cstdint>

namespace tobrin {

// Host tick clock shared by key events and motion-sensor samples: CLOCK_MONOTONIC
// in nanoseconds, so the timebase is 1/1 (nanoseconds = ticks × numer / denom).
namespace MachTime {

struct Timebase {
    std::uint32_t numer = 1;
    std::uint32_t denom = 1;
};

Timebase timebase();

// The current host tick count.
std::uint64_t now();

// Ticks to milliseconds.
double milliseconds(std::uint64_t ticks);

// Milliseconds to ticks, truncated; negative (and NaN) durations give 0. A
// result beyond 64 bits is a programming error and aborts.
std::uint64_t ticks(double milliseconds);

// a − b in milliseconds, negative when a < b; never wraps.
double delta(std::uint64_t a, std::uint64_t b);

} // namespace MachTime
} // namespace tobrin
