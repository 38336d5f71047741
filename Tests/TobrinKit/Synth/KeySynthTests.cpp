// The synthesizer's limits and its trim, on recipes the starter packs do not
// reach; everything the starter packs do sound is pinned by their digests.
#include "TobrinKit/Synth/KeySynth.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

namespace tobrin {
namespace {

bool silent(const KeySynth::Sound& sound) {
    const auto zero = [](float v) { return v == 0.0f; };
    return std::ranges::all_of(sound.left, zero) && std::ranges::all_of(sound.right, zero);
}

TEST(KeySynth, NeverRendersAComponentAtOrAboveTheFilterLimit) {
    // Every part of this recipe sits at 30 kHz, above 0.45 × 48 kHz.
    SynthProfile profile;
    profile.id = "high";
    profile.modes = {{30000, 0.02, 1.0}};
    profile.impact = {1500, 0.7, 0.0018, 0.0};
    profile.thump = {30000, 0.02, 1.0};
    profile.ping = SynthProfile::Mode{30000, 0.03, 1.0};
    profile.early = SynthProfile::Early{5.0, {1000, 1.0, 0.001, 0.0}, SynthProfile::Mode{30000, 0.004, 1.0}, 1.0};
    profile.brightness = 6000;
    for (const auto tier : {std::optional<Tier>(Tier::slam), std::optional<Tier>()}) {
        EXPECT_TRUE(silent(KeySynth::render(KeyGroup::alpha, tier, 0, profile)));
    }
    profile.modes = {{15000, 0.02, 1.0}}; // the same mode a little lower sounds
    EXPECT_FALSE(silent(KeySynth::render(KeyGroup::alpha, Tier::slam, 0, profile)));
}

TEST(KeySynth, CutsATakeAtOnePointSixSeconds) {
    SynthProfile longer = SynthProfile::typewriter();
    longer.modes.back().decay = 0.2; // with the Return bell: 0.2 × 1.35 × 9 + 0.05 + 0.9 s
    EXPECT_EQ(KeySynth::render(KeyGroup::enter, Tier::soft, 0, longer).left.size(), 76800u);
}

TEST(KeySynthTrim, CutsTheTailBelowMinusSeventyDecibelsAndFadesToZero) {
    const auto signal = [](std::size_t loud, std::size_t quiet, double level, double tail) {
        std::vector<double> out(loud, level);
        out.insert(out.end(), quiet, tail);
        return out;
    };
    struct Case {
        std::string name;
        std::vector<double> left, right;
        std::size_t length;
    };
    const std::vector<Case> cases = {
        {"tail of zeros", signal(1000, 2000, 1.0, 0.0), signal(1000, 2000, 0.5, 0.0), 1000 + 192},
        {"tail just under −70 dB", signal(1000, 2000, 1.0, 0.000316), signal(3000, 0, 0.0, 0.0), 1000 + 192},
        {"tail at −70 dB is kept", signal(1000, 2000, 1.0, 0.00031623), signal(3000, 0, 0.0, 0.0), 3000},
        {"the right channel counts", signal(1000, 2000, 1.0, 0.0), signal(2500, 500, 0.01, 0.0), 2500 + 192},
        {"no room for the full tail", signal(2900, 100, -1.0, 0.0), signal(3000, 0, 0.0, 0.0), 3000},
        {"shorter than the fade", signal(100, 0, 1.0, 0.0), signal(100, 0, 1.0, 0.0), 100},
        {"silence is left whole", signal(500, 0, 0.0, 0.0), signal(500, 0, 0.0, 0.0), 500},
    };
    for (Case c : cases) {
        SCOPED_TRACE(c.name);
        KeySynth::trim(c.left, c.right);
        ASSERT_EQ(c.left.size(), c.length);
        ASSERT_EQ(c.right.size(), c.length);
        EXPECT_EQ(c.left.back(), 0.0);
        EXPECT_EQ(c.right.back(), 0.0);
    }
    // The fade is a raised cosine over the last 192 samples: halfway, half.
    std::vector<double> left(1000, 1.0), right(1000, 1.0);
    KeySynth::trim(left, right);
    EXPECT_NEAR(left[999 - 96], 0.5, 1e-12);
    EXPECT_NEAR(left[999 - 191], 0.5 - 0.5 * std::cos(191.0 * std::numbers::pi / 192.0), 1e-12);
    EXPECT_EQ(left[999 - 192], 1.0);
}

} // namespace
} // namespace tobrin
