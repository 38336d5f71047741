#include "TobrinKit/Building/Loudness.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <vector>

namespace tobrin {

namespace {

constexpr std::size_t blockFrames = 19200; // 400 ms
constexpr std::size_t hopFrames = 4800;    // 100 ms: blocks overlap by 75 %
constexpr std::size_t hopsPerBlock = blockFrames / hopFrames;

double loudnessOf(double z) { return -0.691 + 10.0 * std::log10(std::max(z, 1e-20)); }

// K-weighting: the published 48 kHz coefficients of the high shelf and of
// the high-pass, in transposed direct form II, double precision, from a zero
// state.
constexpr double sb0 = 1.53512485958697, sb1 = -2.69169618940638, sb2 = 1.19839281085285;
constexpr double sa1 = -1.69065929318241, sa2 = 0.73248077421585;
constexpr double hb0 = 1.0, hb1 = -2.0, hb2 = 1.0;
constexpr double ha1 = -1.99004745483398, ha2 = 0.99007225036621;

} // namespace

double Loudness::integrated(std::span<const float> left, std::optional<std::span<const float>> right, double rate) {
    if (rate != 48000) {
        std::fprintf(stderr, "Tobrin: Loudness::integrated needs 48000 Hz, got %g\n", rate);
        std::abort();
    }
    if (right && right->size() < left.size()) {
        std::fprintf(stderr, "Tobrin: Loudness::integrated: right channel shorter than left\n");
        std::abort();
    }
    Meter meter(right.has_value());
    meter.add(left.data(), right ? right->data() : nullptr, left.size());
    return meter.integrated();
}

// The channels run in one loop: their filters are independent chains the
// processor can overlap. A hop's energy is summed in the order the whole
// signal would sum it, so pieces give the same bits.
void Loudness::Meter::add(const float* left, const float* right, std::size_t frames) {
    const float* channels[2] = {left, right};
    for (std::size_t n = 0; n < frames; ++n) {
        for (std::size_t c = 0; c < channels_; ++c) {
            Filter& f = filters_[c];
            const double x = channels[c][n];
            const double y = sb0 * x + f.s1;
            f.s1 = sb1 * x - sa1 * y + f.s2;
            f.s2 = sb2 * x - sa2 * y;
            const double k = hb0 * y + f.h1;
            f.h1 = hb1 * y - ha1 * k + f.h2;
            f.h2 = hb2 * y - ha2 * k;
            energy_[c] += k * k;
        }
        if (++hopFilled_ == hopFrames) {
            // Mean squares over one block's length: a block's energy is the
            // sum of its four hops.
            double hop = 0;
            for (std::size_t c = 0; c < channels_; ++c) hop += energy_[c] / double(blockFrames);
            hops_.push_back(hop);
            energy_ = {};
            hopFilled_ = 0;
        }
    }
}

double Loudness::Meter::integrated() const {
    constexpr double minusInfinity = -std::numeric_limits<double>::infinity();
    // Block k covers hops k...k+3; the partial block at the end is dropped.
    if (hops_.size() < hopsPerBlock) return minusInfinity;
    const std::size_t blockCount = hops_.size() - hopsPerBlock + 1;
    std::vector<double> blocks(blockCount);
    for (std::size_t k = 0; k < blockCount; ++k) blocks[k] = hops_[k] + hops_[k + 1] + hops_[k + 2] + hops_[k + 3];

    double sum = 0;
    std::size_t kept = 0;
    for (double z : blocks) {
        if (loudnessOf(z) > -70.0) {
            sum += z;
            ++kept;
        }
    }
    if (kept == 0) return minusInfinity;

    const double threshold = loudnessOf(sum / double(kept)) - 10.0;
    double gatedSum = 0;
    std::size_t gated = 0;
    for (double z : blocks) {
        const double loudness = loudnessOf(z);
        if (loudness > -70.0 && loudness > threshold) {
            gatedSum += z;
            ++gated;
        }
    }
    // Only reachable when a block's energy overflows to infinity, making the
    // threshold infinite too.
    if (gated == 0) return floorValue;
    return loudnessOf(gatedSum / double(gated));
}

} // namespace tobrin
