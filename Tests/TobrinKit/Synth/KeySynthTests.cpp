#include "TobrinKit/Synth/KeySynth.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

namespace tobrin {
namespace {

double peakOf(const KeySynth::Sound& sound) {
    double peak = 0;
    for (float v : sound.left) peak = std::max(peak, double(std::abs(v)));
    for (float v : sound.right) peak = std::max(peak, double(std::abs(v)));
    return peak;
}

// A profile that makes no sound at all: every level is 0.
SynthProfile silentProfile() {
    SynthProfile profile;
    profile.id = "silent";
    profile.modes = {{200, 0.02, 0.0}};
    profile.impact = {1500, 0.7, 0.0018, 0.0};
    profile.thump = {100, 0.02, 0.0};
    profile.brightness = 6000;
    profile.room = 1.0;
    profile.releasePitch = 1.2;
    profile.releaseLevel = 0.3;
    return profile;
}

TEST(KeySynthSeed, IsSixtyFourBitFnv1aOfTheTextsJoinedWithBars) {
    // Published FNV-1a test vectors.
    EXPECT_EQ(KeySynth::seed({""}), 0xcbf29ce484222325ULL);
    EXPECT_EQ(KeySynth::seed({"a"}), 0xaf63dc4c8601ec8cULL);
    EXPECT_EQ(KeySynth::seed({"foobar"}), 0x85944171f73967e8ULL);
    EXPECT_EQ(KeySynth::seed({"cream", "enter", "key", "1"}), KeySynth::seed({"cream|enter|key|1"}));
    EXPECT_NE(KeySynth::seed({"cream", "enter", "key", "1"}), KeySynth::seed({"cream", "enter", "soft", "1"}));
    EXPECT_NE(KeySynth::seed({"ab", "c"}), KeySynth::seed({"a", "bc"}));
}

TEST(KeySynth, RendersTheSameTakeEveryTimeAndEveryVariantDiffers) {
    const SynthProfile& profile = SynthProfile::click();
    const auto first = KeySynth::render(KeyGroup::space, Tier::hard, 1, profile);
    const auto again = KeySynth::render(KeyGroup::space, Tier::hard, 1, profile);
    EXPECT_EQ(first.left, again.left);
    EXPECT_EQ(first.right, again.right);
    ASSERT_EQ(first.left.size(), first.right.size());
    EXPECT_NE(first.left, first.right); // the reflections make it stereo

    const auto other = KeySynth::render(KeyGroup::space, Tier::hard, 2, profile);
    const std::size_t common = std::min(first.left.size(), other.left.size());
    std::size_t differing = 0;
    for (std::size_t i = 0; i < common; ++i) differing += first.left[i] != other.left[i];
    EXPECT_GT(differing, common * 9 / 10);
}

TEST(KeySynth, ASilentRecipeComesBackAtItsFullUntrimmedLength) {
    // Buffer = longest decay × group decay × 9 + 0.05 s.
    const SynthProfile profile = silentProfile();
    const auto alpha = KeySynth::render(KeyGroup::alpha, Tier::medium, 0, profile);
    EXPECT_EQ(alpha.left.size(), std::size_t((0.02 * 1.0 * 9.0 + 0.05) * 48000.0));
    EXPECT_EQ(peakOf(alpha), 0.0);

    SynthProfile noModes = profile;
    noModes.modes.clear(); // 0.03 s stands in for the longest decay
    const auto space = KeySynth::render(KeyGroup::space, std::nullopt, 0, noModes);
    EXPECT_EQ(space.left.size(), std::size_t((0.03 * 1.7 * 9.0 + 0.05) * 48000.0));
    EXPECT_EQ(space.right.size(), space.left.size());
    EXPECT_EQ(peakOf(space), 0.0);
}

TEST(KeySynth, NeverRendersAComponentAtOrAboveTheFilterLimit) {
    SynthProfile profile = silentProfile();
    profile.modes = {{30000, 0.02, 1.0}};
    profile.thump = {30000, 0.02, 1.0};
    profile.ping = SynthProfile::Mode{30000, 0.03, 1.0};
    profile.early = SynthProfile::Early{5.0, {1000, 1.0, 0.001, 0.0}, SynthProfile::Mode{30000, 0.004, 1.0}, 1.0};
    for (auto tier : {std::optional<Tier>(Tier::slam), std::optional<Tier>()}) {
        EXPECT_EQ(peakOf(KeySynth::render(KeyGroup::alpha, tier, 0, profile)), 0.0);
    }
    // The same recipe a little lower sounds.
    profile.modes = {{15000, 0.02, 1.0}};
    EXPECT_GT(peakOf(KeySynth::render(KeyGroup::alpha, Tier::slam, 0, profile)), 0.01);
}

TEST(KeySynth, RepeatsTheEarlySoundOnReleaseAtItsReleaseLevel) {
    // Only the early tone sounds (its pitch comes from the shape stream,
    // which press and release share); the tone filter is open in both.
    SynthProfile profile = SynthProfile::click();
    profile.modes.clear();
    profile.impact.amplitude = 0;
    profile.thump.amplitude = 0;
    profile.ping.reset();
    profile.early->burst.amplitude = 0;
    profile.brightness = 1e6;
    ASSERT_EQ(profile.early->onRelease, 0.55);

    const auto press = KeySynth::render(KeyGroup::alpha, Tier::medium, 3, profile);
    const auto release = KeySynth::render(KeyGroup::alpha, std::nullopt, 3, profile);
    ASSERT_GT(peakOf(press), 0.1);
    ASSERT_EQ(release.left.size(), press.left.size());
    for (std::size_t i = 0; i < press.left.size(); ++i) {
        ASSERT_NEAR(release.left[i], 0.55f * press.left[i], 1e-6) << i;
        ASSERT_NEAR(release.right[i], 0.55f * press.right[i], 1e-6) << i;
    }

    profile.early->onRelease = 0;
    EXPECT_EQ(peakOf(KeySynth::render(KeyGroup::alpha, std::nullopt, 3, profile)), 0.0);
    EXPECT_EQ(peakOf(KeySynth::render(KeyGroup::alpha, Tier::medium, 3, profile)), peakOf(press));
}

TEST(KeySynth, TheEarlySoundLeadsThePressStrike) {
    // Click: with its early sound the strike starts 7.5 ms later; sound
    // before that is the early sound alone.
    SynthProfile withoutEarly = SynthProfile::click();
    withoutEarly.early.reset();
    SynthProfile earlyOnly = SynthProfile::click();
    earlyOnly.impact.amplitude = 0;
    earlyOnly.modes.clear();
    earlyOnly.thump.amplitude = 0;
    earlyOnly.ping.reset();
    const auto full = KeySynth::render(KeyGroup::alpha, Tier::hard, 0, SynthProfile::click());
    const auto early = KeySynth::render(KeyGroup::alpha, Tier::hard, 0, earlyOnly);
    const auto strikeOnly = KeySynth::render(KeyGroup::alpha, Tier::hard, 0, withoutEarly);
    const std::size_t strikeStart = std::size_t((7.5 / 1000.0 + 0.0003) * 48000.0);
    EXPECT_EQ(strikeStart, 374u);
    ASSERT_GT(full.left.size(), strikeStart);
    for (std::size_t i = 0; i <= strikeStart; ++i) ASSERT_EQ(full.left[i], early.left[i]) << i;
    EXPECT_NE(full.left[strikeStart + 20], early.left[strikeStart + 20]);
    // Without the early sound the strike starts right away.
    EXPECT_NE(strikeOnly.left[40], 0.0f);
}

TEST(KeySynth, GivesTheTypewriterReturnItsBellTimeUpToTheLimit) {
    const SynthProfile& typewriter = SynthProfile::typewriter();
    // 0.05 × 1.35 × 9 + 0.05 + 0.9 s, not trimmed: the bell still rings.
    const auto press = KeySynth::render(KeyGroup::enter, Tier::soft, 0, typewriter);
    EXPECT_EQ(press.left.size(), std::size_t((0.05 * 1.35 * 9.0 + 0.05 + 0.9) * 48000.0));

    SynthProfile longer = typewriter;
    longer.modes.back().decay = 0.2; // 2.43 + 0.05 + 0.9 s would pass 1.6 s
    EXPECT_EQ(KeySynth::render(KeyGroup::enter, Tier::soft, 0, longer).left.size(), 76800u);

    // Other groups of the same profile get no extra time.
    const std::size_t ordinary = std::size_t((0.05 * 1.0 * 9.0 + 0.05) * 48000.0);
    EXPECT_LE(KeySynth::render(KeyGroup::alpha, Tier::slam, 0, typewriter).left.size(), ordinary);
}

TEST(KeySynthTrim, CutsTheTailBelowMinusSeventyDecibelsAndFadesToZero) {
    struct Case {
        std::string name;
        std::vector<double> left;
        std::vector<double> right;
        std::size_t expectedLength;
    };
    const auto signal = [](std::size_t loud, std::size_t quiet, double level, double tail) {
        std::vector<double> out(loud, level);
        out.insert(out.end(), quiet, tail);
        return out;
    };
    const std::vector<Case> cases = {
        {"tail of zeros", signal(1000, 2000, 1.0, 0.0), signal(1000, 2000, 0.5, 0.0), 1000 + 192},
        {"tail just under −70 dB", signal(1000, 2000, 1.0, 0.000316), signal(3000, 0, 0.0, 0.0), 1000 + 192},
        {"tail at −70 dB is kept", signal(1000, 2000, 1.0, 0.00031623), signal(3000, 0, 0.0, 0.0), 3000},
        {"the right channel counts", signal(1000, 2000, 1.0, 0.0), signal(2500, 500, 0.01, 0.0), 2500 + 192},
        {"no room for the full tail", signal(2900, 100, -1.0, 0.0), signal(3000, 0, 0.0, 0.0), 3000},
        {"shorter than the fade", signal(100, 0, 1.0, 0.0), signal(100, 0, 1.0, 0.0), 100},
    };
    for (Case c : cases) {
        KeySynth::trim(c.left, c.right);
        ASSERT_EQ(c.left.size(), c.expectedLength) << c.name;
        ASSERT_EQ(c.right.size(), c.expectedLength) << c.name;
        const std::size_t n = c.expectedLength;
        EXPECT_EQ(c.left[n - 1], 0.0) << c.name;
        EXPECT_EQ(c.right[n - 1], 0.0) << c.name;
    }

    // The fade is a raised cosine over the last 192 samples: halfway, half.
    std::vector<double> left(1000, 1.0), right(1000, 1.0);
    KeySynth::trim(left, right);
    EXPECT_NEAR(left[999 - 96], 0.5, 1e-12);
    EXPECT_NEAR(left[999 - 191], 0.5 - 0.5 * std::cos(191.0 * std::numbers::pi / 192.0), 1e-12);
    EXPECT_EQ(left[999 - 192], 1.0);

    std::vector<double> silentLeft(500, 0.0), silentRight(500, 0.0);
    KeySynth::trim(silentLeft, silentRight);
    EXPECT_EQ(silentLeft.size(), 500u);
}

} // namespace
} // namespace tobrin
