#include "TobrinKit/Building/Loudness.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"

#include "Support/SoundFiles.h"

#include <ebur128.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

namespace tobrin {
namespace {

constexpr double rate = 48000;

struct Signal {
    std::vector<float> left, right = {}; // right empty: mono

    double loudness() const {
        return Loudness::integrated(left, right.empty() ? std::nullopt : std::optional(std::span(right)), rate);
    }
    // The same signal measured by libebur128, the independent reference.
    double reference() const {
        const unsigned channels = right.empty() ? 1 : 2;
        ebur128_state* state = ebur128_init(channels, 48000, EBUR128_MODE_I);
        std::vector<float> interleaved(left.size() * channels);
        for (std::size_t i = 0; i < left.size(); ++i) {
            interleaved[i * channels] = left[i];
            if (channels == 2) interleaved[i * channels + 1] = right[i];
        }
        ebur128_add_frames_float(state, interleaved.data(), left.size());
        double loudness = 0;
        ebur128_loudness_global(state, &loudness);
        ebur128_destroy(&state);
        return loudness;
    }
};

std::vector<float> noise(std::size_t frames, double level, std::uint64_t seed) {
    SplitMix64 rng(seed);
    std::vector<float> out(frames);
    for (float& sample : out) sample = float(level * rng.signedUnit());
    return out;
}

// `frames` of silence with `sound` placed at `at` (from the end when negative).
std::vector<float> placed(std::size_t frames, const std::vector<float>& sound, std::ptrdiff_t at) {
    std::vector<float> out(frames, 0.0f);
    std::copy(sound.begin(), sound.end(), at >= 0 ? out.begin() + at : out.end() + at);
    return out;
}

TEST(Loudness, AgreesWithLibebur128WithinFiveHundredthsOfALoudnessUnit) {
    // 2 s of loud noise, then 8 s 34 LU down (below the relative gate), or
    // 4 s 9 LU and 4 s 11 LU down (one on each side of it).
    auto loudThenQuiet = noise(96000, 0.5, 8), loudThenLess = loudThenQuiet, quietThenSilence = noise(96000, 0.002, 10);
    for (const auto& [signal, level, seconds, seed] :
         {std::tuple{&loudThenQuiet, 0.01, 8, 9}, {&loudThenLess, 0.083, 4, 18}, {&loudThenLess, 0.066, 4, 19}}) {
        const auto more = noise(std::size_t(seconds) * 48000, level, std::uint64_t(seed));
        signal->insert(signal->end(), more.begin(), more.end());
    }
    quietThenSilence.resize(296000);
    const auto burst = noise(1000, 0.5, 13);
    const std::vector<std::pair<std::string, Signal>> cases = {
        {"mono noise 10 s", {noise(480000, 0.5, 1)}},
        {"stereo noise 10 s", {noise(480000, 0.5, 2), noise(480000, 0.2, 3)}},
        {"one block of noise", {noise(19200, 1.0, 4)}},
        {"stereo noise 0.53 s", {noise(25500, 0.3, 5), noise(25500, 0.3, 6)}},
        {"1 kHz tone 5 s", {test::sine(240000, 1000, rate, 0.25)}},
        {"60 Hz tone stereo", {test::sine(96000, 60, rate, 0.8), test::sine(96000, 60, rate, 0.8)}},
        {"12 kHz tone", {test::sine(96000, 12000, rate, 0.1)}},
        {"loud then quiet (relative gate)", {loudThenQuiet}},
        {"loud, then 9 and 11 LU down (relative gate)", {loudThenLess}},
        {"quiet then silence (absolute gate)", {quietThenSilence}},
        {"one loud block in silence passes its own relative gate", {placed(144000, noise(19200, 0.5, 15), 48000)}},
        // Blocks start every 4,800 frames and count only when they end inside.
        {"sound in the last 100 ms", {placed(48000, burst, -1000)}},
        {"sound after the last whole block", {placed(48000 + 4799, burst, -1000)}},
        {"sound in a block that ends with the signal", {placed(48000 + 4800, burst, -1001)}},
        {"shorter than a block", {noise(19199, 1.0, 11)}},
        {"nothing", {{}}},
        {"silence", {std::vector<float>(480000)}},
        {"stereo silence", {std::vector<float>(480000), std::vector<float>(480000)}},
        {"noise at −80 dBFS", {noise(480000, 0.0001, 12)}},
    };
    for (const auto& [name, signal] : cases) {
        const double ours = signal.loudness(), reference = signal.reference();
        if (std::isinf(reference)) {
            EXPECT_EQ(ours, reference) << name;
        } else {
            EXPECT_NEAR(ours, reference, 0.05) << name;
        }
    }
}

// A file is measured as it is decoded, in pieces of whatever length the
// decoder hands out: the result must not depend on where the pieces end.
TEST(LoudnessMeter, PiecesOfAnyLengthGiveTheWholeSignalsResultToTheBit) {
    const Signal stereo{noise(160000, 0.3, 21), noise(160000, 0.2, 22)}, mono{stereo.left};
    for (const std::size_t piece : {1u, 7u, 4799u, 4800u, 4801u, 19200u, 100000u}) {
        SCOPED_TRACE(piece);
        Loudness::Meter stereoMeter(true), monoMeter(false);
        for (std::size_t at = 0; at < stereo.left.size(); at += piece) {
            const std::size_t frames = std::min(piece, stereo.left.size() - at);
            stereoMeter.add(stereo.left.data() + at, stereo.right.data() + at, frames);
            monoMeter.add(stereo.left.data() + at, nullptr, frames);
        }
        EXPECT_EQ(stereoMeter.integrated(), stereo.loudness());
        EXPECT_EQ(monoMeter.integrated(), mono.loudness());
    }
    EXPECT_EQ(Loudness::Meter(true).integrated(), -std::numeric_limits<double>::infinity());
}

TEST(Loudness, ReturnsTheFloorOnlyWhenNoBlockPassesTheRelativeGate) {
    // A block of infinite energy passes the absolute gate, but its relative
    // threshold is infinite too, so nothing passes the relative gate. (Its
    // last sample is the only infinite one, so the filter never sees inf − inf.)
    Signal signal{noise(19200, 0.5, 16)};
    signal.left.back() = std::numeric_limits<float>::infinity();
    EXPECT_EQ(signal.loudness(), Loudness::floorValue);
}

TEST(LoudnessDeathTest, AcceptsOnlyFortyEightKilohertz) {
    const std::vector<float> signal = noise(19200, 0.5, 17);
    EXPECT_DEATH(Loudness::integrated(signal, std::nullopt, 44100), "48000");
}

} // namespace
} // namespace tobrin
