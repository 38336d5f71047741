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

// K-weighting of one channel: the published 48 kHz coefficients of the high
// shelf and of the high-pass, in transposed direct form II, double precision,
// from a zero state.
struct KWeighting {
    static constexpr double sb0 = 1.53512485958697, sb1 = -2.69169618940638, sb2 = 1.19839281085285;
    static constexpr double sa1 = -1.69065929318241, sa2 = 0.73248077421585;
    static constexpr double hb0 = 1.0, hb1 = -2.0, hb2 = 1.0;
    static constexpr double ha1 = -1.99004745483398, ha2 = 0.99007225036621;

    double s1 = 0, s2 = 0, h1 = 0, h2 = 0;

    double process(double x) {
        const double y = sb0 * x + s1;
        s1 = sb1 * x - sa1 * y + s2;
        s2 = sb2 * x - sa2 * y;
        const double k = hb0 * y + h1;
        h1 = hb1 * y - ha1 * k + h2;
        h2 = hb2 * y - ha2 * k;
        return k;
    }
};

// Mean squares (over one block's length) of the K-weighted samples of every
// complete 100 ms hop, summed over the channels. A block's energy is the sum
// of its four hops, so the filtered signal need not be stored. The channels
// run in one loop: their filters are independent chains the processor can
// overlap.
template <std::size_t Channels>
void hopEnergies(const std::array<const float*, Channels>& channels, std::vector<double>& hops) {
    std::array<KWeighting, Channels> filters{};
    std::size_t offset = 0;
    for (double& hop : hops) {
        std::array<double, Channels> energy{};
        for (std::size_t n = offset; n < offset + hopFrames; ++n) {
            for (std::size_t c = 0; c < Channels; ++c) {
                const double k = filters[c].process(channels[c][n]);
                energy[c] += k * k;
            }
        }
        hop = 0;
        for (std::size_t c = 0; c < Channels; ++c) hop += energy[c] / double(blockFrames);
        offset += hopFrames;
    }
}

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
    const std::size_t frames = left.size();
    constexpr double minusInfinity = -std::numeric_limits<double>::infinity();
    if (frames < blockFrames) return minusInfinity;

    // Block k covers hops k...k+3; the partial block at the end is dropped.
    const std::size_t hopCount = frames / hopFrames;
    const std::size_t blockCount = hopCount - hopsPerBlock + 1;
    std::vector<double> hops(hopCount);
    if (right) {
        hopEnergies<2>({left.data(), right->data()}, hops);
    } else {
        hopEnergies<1>({left.data()}, hops);
    }

    std::vector<double> blocks(blockCount);
    for (std::size_t k = 0; k < blockCount; ++k) blocks[k] = hops[k] + hops[k + 1] + hops[k + 2] + hops[k + 3];

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
