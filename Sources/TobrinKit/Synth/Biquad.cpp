#include "TobrinKit/Synth/Biquad.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>

namespace tobrin {

namespace {

struct Design {
    double alpha;
    double c;
};

Design design(double frequency, double q, double rate) {
    const double clamped = std::min(frequency, 0.45 * rate);
    const double w = 2.0 * std::numbers::pi * clamped / rate;
    return {std::sin(w) / (2.0 * q), std::cos(w)};
}

Biquad make(const std::array<double, 3>& b, const Design& d) {
    const std::array<double, 3> a = {1.0 + d.alpha, -2.0 * d.c, 1.0 - d.alpha};
    return Biquad(b, a);
}

} // namespace

Biquad::Biquad(std::span<const double> b, std::span<const double> a) {
    if (b.size() < 3 || a.size() < 3) {
        std::fprintf(stderr, "Tobrin: Biquad needs three b and three a coefficients\n");
        std::abort();
    }
    b0 = b[0] / a[0];
    b1 = b[1] / a[0];
    b2 = b[2] / a[0];
    a1 = a[1] / a[0];
    a2 = a[2] / a[0];
}

Biquad Biquad::lowpass(double frequency, double q, double rate) {
    const Design d = design(frequency, q, rate);
    return make({(1.0 - d.c) / 2.0, 1.0 - d.c, (1.0 - d.c) / 2.0}, d);
}

Biquad Biquad::highpass(double frequency, double q, double rate) {
    const Design d = design(frequency, q, rate);
    return make({(1.0 + d.c) / 2.0, -(1.0 + d.c), (1.0 + d.c) / 2.0}, d);
}

Biquad Biquad::bandpass(double frequency, double q, double rate) {
    const Design d = design(frequency, q, rate);
    return make({d.alpha, 0.0, -d.alpha}, d);
}

} // namespace tobrin
