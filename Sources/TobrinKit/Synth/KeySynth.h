#pragma once

#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Core/Tier.h"
#include "TobrinKit/Synth/SynthProfile.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <vector>

namespace tobrin {

// Renders one stereo take of a synthesized key: a group, struck at a force
// tier or released, in one numbered variation. A pure function of its
// arguments: all randomness comes from two SplitMix64 streams seeded by a
// hash of (profile, group, tier, variant), and every step runs in double
// precision in a fixed order, so a take is bit-identical on every run and on
// any thread. Stateless; safe to call from several threads at once.
class KeySynth {
public:
    KeySynth() = delete;

    static constexpr double sampleRate = 48000;

    // How a key group changes the switch's sound.
    struct GroupShape {
        double frequency; // multiplier of the body's mode frequencies
        double decay;     // multiplier of decay times
        double level;     // multiplier of loudness
        double rattle;    // stabiliser rattle, 0 = none
    };

    // Indexed by KeyGroup.
    static constexpr std::array<GroupShape, 5> shapes = {{
        {1.0, 1.0, 1.0, 0.0},    // alpha
        {0.72, 1.7, 1.15, 1.0},  // space
        {0.86, 1.35, 1.08, 0.5}, // enter
        {0.9, 1.25, 1.05, 0.4},  // backspace
        {0.94, 1.1, 0.95, 0.2},  // modifier
    }};

    // Indexed by Tier; a release strikes with releaseStrength.
    static constexpr std::array<double, 4> strengths = {0.45, 0.72, 1.0, 1.4};
    static constexpr double releaseStrength = 0.6;

    static const GroupShape& shape(KeyGroup group) { return shapes[static_cast<std::size_t>(group)]; }
    static double strength(std::optional<Tier> tier) {
        return tier ? strengths[static_cast<std::size_t>(*tier)] : releaseStrength;
    }

    struct Sound {
        std::vector<float> left;
        std::vector<float> right;
    };

    // One take at 48 kHz, not normalised. No tier means the key's release.
    static Sound render(KeyGroup group, std::optional<Tier> tier, std::uint32_t variant, const SynthProfile& profile);

    // 64-bit FNV-1a of the parts joined with "|".
    static std::uint64_t seed(std::initializer_list<std::string_view> parts);

    // Cuts the tail below −70 dB of the peak (keeping 192 samples after the
    // last louder one) and fades the last 192 samples to exactly 0. A silent
    // take is left whole.
    static void trim(std::vector<double>& left, std::vector<double>& right);
};

} // namespace tobrin
