// Take choice, detune, stereo placement and layer weights of a key stroke.
#include "TobrinKit/Engine/Voicing.h"

#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Force/ForceClassifier.h"
#include "TobrinKit/Input/KeyLayout.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include <algorithm>
#include <cmath>

namespace tobrin::Voicing {

std::uint64_t keyHash(std::uint16_t code) { return KeyLayout::identity(code); }

std::size_t variant(std::uint16_t code, std::size_t variantCount) {
    return static_cast<std::size_t>(keyHash(code) % std::max<std::size_t>(variantCount, 1));
}

std::size_t variant(std::uint16_t code, const LoadedPack& pack, KeyGroup group) {
    return variant(code, pack.variantCount(group));
}

float pitchFactor(std::uint16_t code) {
    const auto d = static_cast<std::int64_t>((keyHash(code) >> 24) % 2001) - 1000;
    return static_cast<float>(1.0 + 0.012 * double(d) / 1000.0);
}

float pan(std::optional<double> column, float spatial) {
    if (!column) return 0.0f;
    const auto position = static_cast<float>((*column / 15.0 - 0.5) * 2.0);
    return position * spatial * 0.6f;
}

float pan(std::uint16_t code, const EngineSettings& settings) { return pan(KeyLayout::column(code), settings.spatial); }

Weights weights(float position, float relative, std::span<const float> gains, bool blend, float gain) {
    const auto tiers = ForceClassifier::weights(position, blend);
    const float edge = ForceClassifier::edgeGain(relative);
    Weights result;
    result.count = std::min(tiers.size(), gains.size());
    for (std::size_t k = 0; k < result.count; ++k) result.values[k] = gain * (edge * (tiers[k] * gains[k]));
    return result;
}

float releaseStrength(std::optional<float> relative) {
    if (!relative) return 1.0f;
    return std::clamp(std::sqrt(std::max(0.0f, *relative)), 0.5f, 1.3f);
}

void setLayers(TBCommand& command, std::span<const TBSample> samples) {
    const std::size_t count = std::min<std::size_t>(4, samples.size());
    std::copy_n(samples.begin(), count, command.layers);
}

void setWeights(TBCommand& command, std::span<const float> weights) {
    for (std::size_t k = 0; k < 4; ++k) command.weights[k] = k < weights.size() ? weights[k] : 0.0f;
}

} // namespace tobrin::Voicing
