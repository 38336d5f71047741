#include "TobrinKit/Building/Loudness.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Synth/KeySynth.h"

#include <ebur128.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

namespace tobrin {
namespace {

constexpr double rate = 48000;
constexpr double minusInfinity = -std::numeric_limits<double>::infinity();

struct Signal {
    std::vector<float> left;
    std::optional<std::vector<float>> right;

    std::optional<std::span<const float>> rightSpan() const {
        if (!right) return std::nullopt;
        return std::span<const float>(*right);
    }
};

// The same signal measured by libebur128, the independent reference.
double referenceLoudness(const Signal& signal) {
    const unsigned channels = signal.right ? 2 : 1;
    ebur128_state* state = ebur128_init(channels, 48000, EBUR128_MODE_I);
    std::vector<float> interleaved(signal.left.size() * channels);
    for (std::size_t i = 0; i < signal.left.size(); ++i) {
        interleaved[i * channels] = signal.left[i];
        if (signal.right) interleaved[i * channels + 1] = (*signal.right)[i];
    }
    ebur128_add_frames_float(state, interleaved.data(), signal.left.size());
    double loudness = 0;
    ebur128_loudness_global(state, &loudness);
    ebur128_destroy(&state);
    return loudness;
}

double measure(const Signal& signal) { return Loudness::integrated(signal.left, signal.rightSpan(), rate); }

std::vector<float> noise(std::size_t frames, double level, std::uint64_t seed) {
    SplitMix64 rng(seed);
    std::vector<float> out(frames);
    for (float& sample : out) sample = float(level * rng.signedUnit());
    return out;
}

std::vector<float> tone(std::size_t frames, double frequency, double level) {
    std::vector<float> out(frames);
    for (std::size_t i = 0; i < frames; ++i)
        out[i] = float(level * std::sin(2.0 * std::numbers::pi * frequency * double(i) / rate));
    return out;
}

// Decaying clicks every `spacing` frames, like keystrokes.
std::vector<float> clicks(std::size_t frames, std::size_t spacing, double level) {
    std::vector<float> out(frames, 0.0f);
    SplitMix64 rng(7);
    for (std::size_t start = 0; start < frames; start += spacing) {
        double gain = level;
        for (std::size_t i = start; i < std::min(frames, start + 600); ++i) {
            out[i] = float(gain * rng.signedUnit());
            gain *= 0.99;
        }
    }
    return out;
}

std::vector<float> concatenated(std::vector<float> a, const std::vector<float>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct ReferenceCase {
    std::string name;
    std::function<Signal()> make;
};

TEST(Loudness, AgreesWithLibebur128WithinFiveHundredthsOfALoudnessUnit) {
    const std::vector<ReferenceCase> cases = {
        {"mono noise 10 s",
         [] {
             return Signal{noise(480000, 0.5, 1), std::nullopt};
         }},
        {"stereo noise 10 s",
         [] {
             return Signal{noise(480000, 0.5, 2), noise(480000, 0.2, 3)};
         }},
        {"mono noise one block",
         [] {
             return Signal{noise(19200, 1.0, 4), std::nullopt};
         }},
        {"stereo noise 0.53 s",
         [] {
             return Signal{noise(25500, 0.3, 5), noise(25500, 0.3, 6)};
         }},
        {"1 kHz tone 5 s",
         [] {
             return Signal{tone(240000, 1000, 0.25), std::nullopt};
         }},
        {"60 Hz tone stereo",
         [] {
             return Signal{tone(96000, 60, 0.8), tone(96000, 60, 0.8)};
         }},
        {"12 kHz tone",
         [] {
             return Signal{tone(96000, 12000, 0.1), std::nullopt};
         }},
        {"clicks 8 s",
         [] {
             return Signal{clicks(384000, 7000, 0.9), std::nullopt};
         }},
        {"sparse clicks stereo",
         [] {
             return Signal{clicks(192000, 30000, 0.9), clicks(192000, 45000, 0.5)};
         }},
        {"loud then quiet (relative gate)",
         [] {
             return Signal{concatenated(noise(96000, 0.5, 8), noise(384000, 0.01, 9)), std::nullopt};
         }},
        {"quiet then silence (absolute gate)",
         [] {
             return Signal{concatenated(noise(96000, 0.002, 10), std::vector<float>(200000)), std::nullopt};
         }},
        {"rendered keystrokes",
         [] {
             // A typing passage: takes of a synthesized pack, 110 ms apart.
             Signal signal{std::vector<float>(144000), std::vector<float>(144000)};
             const std::array<std::optional<Tier>, 5> tiers = {Tier::soft, Tier::medium, Tier::hard, Tier::slam,
                                                               std::nullopt};
             for (std::uint32_t k = 0; k < 12; ++k) {
                 const auto sound =
                     KeySynth::render(allKeyGroups[k % 5], tiers[k % 5], k % 2, SynthProfile::starterPacks()[k % 5]);
                 const std::size_t start = k * 5280;
                 for (std::size_t i = 0; i < sound.left.size() && start + i < 144000; ++i) {
                     signal.left[start + i] += sound.left[i];
                     (*signal.right)[start + i] += sound.right[i];
                 }
             }
             return signal;
         }},
    };
    for (const ReferenceCase& c : cases) {
        const Signal signal = c.make();
        const double ours = measure(signal);
        const double reference = referenceLoudness(signal);
        ASSERT_TRUE(std::isfinite(reference)) << c.name;
        EXPECT_NEAR(ours, reference, 0.05) << c.name;
    }
}

TEST(Loudness, MeasuresEachRenderedLongTakeLikeLibebur128) {
    // The typewriter's Return press is the one take longer than a block.
    const auto sound = KeySynth::render(KeyGroup::enter, Tier::hard, 0, SynthProfile::typewriter());
    ASSERT_GE(sound.left.size(), 19200u);
    const Signal signal{sound.left, sound.right};
    EXPECT_NEAR(measure(signal), referenceLoudness(signal), 0.05);
}

TEST(Loudness, FullScaleSineAtOneKilohertzInOneChannelReadsMinusThreeLUFS) {
    // The calibration point of the standard.
    EXPECT_NEAR(measure({tone(480000, 997, 1.0), std::nullopt}), -3.01, 0.05);
}

TEST(Loudness, NeedsOneWholeBlock) {
    const std::vector<float> full = noise(19200, 1.0, 11);
    const std::vector<float> short_(full.begin(), full.end() - 1);
    EXPECT_EQ(Loudness::integrated(short_, std::nullopt, rate), minusInfinity);
    EXPECT_EQ(Loudness::integrated({}, std::nullopt, rate), minusInfinity);
    const double oneBlock = Loudness::integrated(full, std::nullopt, rate);
    EXPECT_TRUE(std::isfinite(oneBlock));
    EXPECT_NEAR(oneBlock, referenceLoudness({full, std::nullopt}), 0.05);
}

// A file is measured as it is decoded, in pieces of whatever length the
// decoder hands out: the result must not depend on where the pieces end.
TEST(LoudnessMeter, PiecesOfAnyLengthGiveTheWholeSignalsResultToTheBit) {
    const std::vector<float> left = noise(160000, 0.3, 21), right = noise(160000, 0.2, 22);
    const double whole = Loudness::integrated(left, std::span<const float>(right), rate);
    const double wholeMono = Loudness::integrated(left, std::nullopt, rate);
    for (const std::size_t piece : {1u, 7u, 4799u, 4800u, 4801u, 19200u, 100000u}) {
        SCOPED_TRACE(piece);
        Loudness::Meter stereo(true), mono(false);
        for (std::size_t at = 0; at < left.size(); at += piece) {
            const std::size_t frames = std::min(piece, left.size() - at);
            stereo.add(left.data() + at, right.data() + at, frames);
            mono.add(left.data() + at, nullptr, frames);
        }
        EXPECT_EQ(stereo.integrated(), whole);
        EXPECT_EQ(mono.integrated(), wholeMono);
    }
    EXPECT_EQ(Loudness::Meter(true).integrated(), minusInfinity);
}

TEST(Loudness, SilenceMeasuresMinusInfinity) {
    const std::vector<float> silence(480000, 0.0f);
    EXPECT_EQ(Loudness::integrated(silence, std::nullopt, rate), minusInfinity);
    EXPECT_EQ(Loudness::integrated(silence, std::span<const float>(silence), rate), minusInfinity);
    // −80 dBFS noise is below the absolute gate too.
    EXPECT_EQ(Loudness::integrated(noise(480000, 0.0001, 12), std::nullopt, rate), minusInfinity);
}

TEST(Loudness, CountsOnlyBlocksThatEndInsideTheSignal) {
    // 48,000 frames hold blocks starting at 0, 4,800, ..., 28,800: the last
    // ends exactly at the end, so sound in the final 100 ms is measured.
    std::vector<float> signal(48000, 0.0f);
    const std::vector<float> burst = noise(1000, 0.5, 13);
    std::copy(burst.begin(), burst.end(), signal.end() - 1000);
    const double measured = Loudness::integrated(signal, std::nullopt, rate);
    EXPECT_TRUE(std::isfinite(measured));
    EXPECT_NEAR(measured, referenceLoudness({signal, std::nullopt}), 0.05);

    // 4,799 more frames add no block: sound only there is never measured.
    std::vector<float> longer(48000 + 4799, 0.0f);
    std::copy(burst.begin(), burst.end(), longer.end() - 1000);
    EXPECT_EQ(Loudness::integrated(longer, std::nullopt, rate), minusInfinity);
    // One more frame completes an eighth block that holds it.
    longer.push_back(0.0f);
    EXPECT_TRUE(std::isfinite(Loudness::integrated(longer, std::nullopt, rate)));
}

TEST(Loudness, DualMonoIsThreeDecibelsLouderThanMono) {
    const std::vector<float> mono = noise(240000, 0.3, 14);
    const double single = Loudness::integrated(mono, std::nullopt, rate);
    const double dual = Loudness::integrated(mono, std::span<const float>(mono), rate);
    EXPECT_NEAR(dual - single, 10.0 * std::log10(2.0), 1e-9);
}

TEST(Loudness, ASingleLoudBlockPassesItsOwnRelativeGate) {
    // Three seconds of silence and one aligned block of noise: only that
    // block passes the absolute gate, and it lies 10 LU above its threshold.
    std::vector<float> signal(144000, 0.0f);
    const std::vector<float> block = noise(19200, 0.5, 15);
    std::copy(block.begin(), block.end(), signal.begin() + 4800 * 10);
    const double measured = Loudness::integrated(signal, std::nullopt, rate);
    EXPECT_GT(measured, -70.0);
    EXPECT_NE(measured, Loudness::floorValue);
    EXPECT_NEAR(measured, referenceLoudness({signal, std::nullopt}), 0.05);
}

TEST(Loudness, ReturnsTheFloorOnlyWhenNoBlockPassesTheRelativeGate) {
    // A block of infinite energy passes the absolute gate, but its relative
    // threshold is infinite too, so nothing passes the relative gate. (Its
    // last sample is the only infinite one, so the filter never sees inf − inf.)
    std::vector<float> signal = noise(19200, 0.5, 16);
    signal.back() = std::numeric_limits<float>::infinity();
    const double measured = Loudness::integrated(signal, std::nullopt, rate);
    EXPECT_EQ(measured, Loudness::floorValue);
    EXPECT_NEAR(measured, -200.691, 1e-9);
    EXPECT_NE(measured, minusInfinity);
}

TEST(LoudnessDeathTest, AcceptsOnlyFortyEightKilohertz) {
    const std::vector<float> signal = noise(19200, 0.5, 17);
    EXPECT_DEATH(Loudness::integrated(signal, std::nullopt, 44100), "48000");
}

} // namespace
} // namespace tobrin
