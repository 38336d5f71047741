#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace tobrin {

// Integrated loudness after ITU-R BS.1770 at 48 kHz: K-weighting, 400 ms
// blocks with 75 % overlap, absolute gate at −70 LUFS, relative gate 10 LU
// below the ungated level. Stateless; safe to call from any thread.
class Loudness {
public:
    Loudness() = delete;

    // Loudness in LUFS of the frames of `left` (and of `right`, which must be
    // at least as long). Minus infinity when the signal is shorter than one
    // block or every block is below −70 LUFS; floorValue when no block passes
    // the relative gate. Only rate 48000 is accepted; any other aborts.
    static double integrated(std::span<const float> left, std::optional<std::span<const float>> right, double rate);

    // −0.691 + 10·log10(1e-20): what an empty relative gate measures.
    static constexpr double floorValue = -0.691 + 10.0 * -20.0;

    // The same measurement of a 48 kHz signal fed in pieces of any length,
    // holding one number per 100 ms instead of the signal: a long file is
    // measured as it is decoded. Gives integrated()'s result to the bit.
    class Meter {
    public:
        explicit Meter(bool stereo) : channels_(stereo ? 2 : 1) {}

        // Adds `frames` frames; `right` is read only by a stereo meter.
        void add(const float* left, const float* right, std::size_t frames);
        // What integrated() gives for everything added so far.
        double integrated() const;

    private:
        // K-weighting filter state of one channel.
        struct Filter {
            double s1 = 0, s2 = 0, h1 = 0, h2 = 0;
        };

        std::size_t channels_;
        std::array<Filter, 2> filters_{};
        std::array<double, 2> energy_{}; // of the hop in progress
        std::size_t hopFilled_ = 0;      // frames of the hop in progress
        std::vector<double> hops_;       // mean squares of the complete hops
    };
};

} // namespace tobrin
