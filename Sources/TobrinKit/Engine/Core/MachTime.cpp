#include "TobrinKit/Engine/Core/MachTime.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace tobrin::MachTime {

Timebase timebase() { return Timebase{1, 1}; }

std::uint64_t now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::uint64_t(ts.tv_sec) * 1'000'000'000ULL + std::uint64_t(ts.tv_nsec);
}

double milliseconds(std::uint64_t ticks) {
    const Timebase tb = timebase();
    return double(ticks) * tb.numer / tb.denom / 1'000'000.0;
}

std::uint64_t ticks(double ms) {
    if (!(ms > 0)) return 0;
    const Timebase tb = timebase();
    const double value = ms * 1'000'000.0 * tb.denom / tb.numer;
    // 2^64 is exactly representable; anything at or above it does not fit.
    if (!(value < 18446744073709551616.0)) {
        std::fprintf(stderr, "Tobrin: MachTime::ticks(%g ms) does not fit in 64 bits\n", ms);
        std::abort();
    }
    return static_cast<std::uint64_t>(value);
}

double delta(std::uint64_t a, std::uint64_t b) { return a >= b ? milliseconds(a - b) : -milliseconds(b - a); }

} // namespace tobrin::MachTime
