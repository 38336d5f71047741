#pragma once

#include <optional>
#include <span>

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
};

} // namespace tobrin
