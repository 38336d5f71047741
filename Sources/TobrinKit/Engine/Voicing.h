#pragma once

// How a key stroke is voiced: which take of its group a key plays, its fixed
// detune, where it sits in the stereo field and how the tier weights combine
// with the pack's layer gains into a mixer command. Pure functions, callable
// from any thread; none allocates.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinMixer.h"

namespace tobrin {

class LoadedPack;

namespace Voicing {

// The random factors of one stroke, chosen at key-down and reused by its refinements.
struct Variation {
    float gain = 1.0f;
    float rate = 1.0f;

    bool operator==(const Variation&) const = default;
};

// Layer weights of a stroke: one per pair of tier weight and layer gain, so
// at most four; entries past size() are 0.
struct Weights {
    std::array<float, 4> values{};
    std::size_t count = 0;

    std::size_t size() const { return count; }
    float operator[](std::size_t index) const { return values[index]; }
    const float* begin() const { return values.data(); }
    const float* end() const { return values.data() + count; } // a contiguous range: passes as a span
};

// The first output of the generator seeded with the key code: the key's
// fixed hash, shared by its take and its detune.
std::uint64_t keyHash(std::uint16_t code);

// The key's take among `variantCount` (taken as 1 when 0): the same key
// always plays the same take, different keys spread over the takes.
std::size_t variant(std::uint16_t code, std::size_t variantCount);
std::size_t variant(std::uint16_t code, const LoadedPack& pack, KeyGroup group);

// The key's fixed pitch factor, within ±1.2 %.
float pitchFactor(std::uint16_t code);

// Stereo position: the key's column (0 ... 15 from the left edge) mapped to
// −1 ... +1, times spatial × 0.6; 0 for a key without a column.
float pan(std::uint16_t code, const EngineSettings& settings);
float pan(std::optional<double> column, float spatial);

// Layer weights: the classifier's tier weights for `position`, each times
// the layer's gain, the edge gain of `relative` and the stroke's `gain`.
Weights weights(float position, float relative, std::span<const float> gains, bool blend, float gain);

// Strength factor of a release take for the key-down's relative strength:
// √relative within [0.5, 1.3], or 1 when none was measured.
float releaseStrength(std::optional<float> relative);

// Copies the first min(4, count) samples into the command's layers; the
// others stay as they were.
void setLayers(TBCommand& command, std::span<const TBSample> samples);

// Writes all four weights, 0 past the end of `weights`.
void setWeights(TBCommand& command, std::span<const float> weights);

} // namespace Voicing
} // namespace tobrin
