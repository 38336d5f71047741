// The pan law and the limiter worked by hand, and what the reference
// comparison cannot see: mono output into one buffer, the ring's limit, the
// master control, the creation defaults; and voice stealing at a glance.
#include "Support/Mixer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace tobrin::test {
namespace {

// The first frames of a fresh mixer playing `start`: stereo, or mono when
// `right` is null, or mono into one buffer when it is `left`.
enum class Output { Stereo, Mono, OneBuffer };
std::pair<std::vector<float>, std::vector<float>> play(MixerPath path, const TBCommand& start, std::uint32_t frames,
                                                       Output output = Output::Stereo) {
    auto mixer = makeMixer(48000, 4, path);
    tb_mixer_push(mixer.get(), &start);
    std::vector<float> left(frames, -9), right(frames, -9);
    float* r = output == Output::Stereo ? right.data() : output == Output::OneBuffer ? left.data() : nullptr;
    tb_mixer_render(mixer.get(), left.data(), r, frames);
    return {left, right};
}

class MixerVoice : public testing::TestWithParam<MixerPath> {};

TEST_P(MixerVoice, PansWithConstantPowerAndUnityAtTheCentre) {
    // Pan p scales left by cos and right by sin of (p + 1)·π/4, times √2.
    const float root2 = std::numbers::sqrt2_v<float>, angle = 3 * std::numbers::pi_v<float> / 8;
    struct Case {
        float pan, left, right;
    };
    const Case cases[] = {{0, 1, 1},
                          {NAN, 1, 1},
                          {-1, root2, 0},
                          {7, 0, root2},
                          {0.5f, std::cos(angle) * root2, std::sin(angle) * root2}};
    const std::vector<float> half(4, 0.5f);
    for (const Case& c : cases) {
        const auto [left, right] = play(GetParam(), startCommand(1, {sampleOf(half)}, {1}, c.pan), 1);
        EXPECT_NEAR(left[0], 0.5f * c.left, 1e-6) << "pan " << c.pan;
        EXPECT_NEAR(right[0], 0.5f * c.right, 1e-6) << "pan " << c.pan;
    }
}

TEST_P(MixerVoice, MixesMonoAsHalfTheSumOfThePannedChannelsEvenIntoOneBuffer) {
    // A stereo layer panned by −0.5: left × cos(π/8)·√2, right × sin(π/8)·√2.
    const std::vector<float> left(16, 0.3f), right(16, -0.2f);
    const float pi = std::numbers::pi_v<float>;
    const float expected = 0.5f * (0.3f * std::cos(pi / 8) - 0.2f * std::sin(pi / 8)) * std::numbers::sqrt2_v<float>;
    const TBCommand panned = startCommand(1, {sampleOf(left, &right)}, {1}, -0.5f);
    for (const Output output : {Output::Mono, Output::OneBuffer}) {
        EXPECT_THAT(play(GetParam(), panned, 3, output).first, testing::Each(testing::FloatNear(expected, 1e-6f)));
    }
}

TEST_P(MixerVoice, SoftLimiterHasAKneeAtPointEightAndNeverReachesOne) {
    const std::pair<float, float> cases[] = {
        {0.8f, 0.8f}, {1, 0.9f}, {-1, -0.9f}, {3, 0.8f + 0.2f * 11 / 12}, {1000, 0.8f + 0.2f * 4996 / 4997}};
    for (const auto& [in, out] : cases) {
        const std::vector<float> take(4, in);
        EXPECT_NEAR(play(GetParam(), startCommand(1, {sampleOf(take)}, {1}), 1).first[0], out, 1e-6) << in;
    }
}

INSTANTIATE_TEST_SUITE_P(BothPaths, MixerVoice, testing::Values(MixerPath::Native, MixerPath::Portable),
                         [](const testing::TestParamInfo<MixerPath>& param) { return pathName(param.param); });

TEST(MixerVoices, AThirtyThirdStartTakesOverTheOldestVoiceEvenWhileItFades) {
    // Voice j plays the constant j/4096: sums of these are exact in float, so
    // one mono frame tells which voices sound.
    std::vector<std::vector<float>> takes;
    for (int j = 1; j <= 33; ++j) takes.emplace_back(1000, float(j) / 4096);
    const auto start = [&](TBMixer* mixer, std::uint32_t j) {
        const TBCommand command = startCommand(j, {sampleOf(takes[j - 1])}, {1});
        return tb_mixer_push(mixer, &command);
    };
    for (const bool released : {false, true}) {
        SCOPED_TRACE(released ? "released" : "playing");
        auto mixer = makeMixer();
        for (std::uint32_t j = 1; j <= 32; ++j) ASSERT_TRUE(start(mixer.get(), j));
        float frame = 0;
        tb_mixer_render(mixer.get(), &frame, nullptr, 1);
        EXPECT_EQ(frame, 528.0f / 4096); // 1 + … + 32
        if (released) {
            const TBCommand release = releaseAllCommand();
            tb_mixer_push(mixer.get(), &release);
        }
        start(mixer.get(), 33);
        tb_mixer_render(mixer.get(), &frame, nullptr, 1);
        // The first frame of a release still sounds at full gain.
        EXPECT_EQ(frame, 560.0f / 4096); // 2 + … + 33
        EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 32u);
        EXPECT_EQ(tb_mixer_started_voices(mixer.get()), 33u);
    }
}

TEST(MixerRing, FiveHundredThirteenthPushIsRefusedAndCountedUntilARender) {
    auto mixer = makeMixer();
    const TBCommand command = weightsCommand(7, {1});
    for (int i = 0; i < 512; ++i) ASSERT_TRUE(tb_mixer_push(mixer.get(), &command)) << i;
    EXPECT_FALSE(tb_mixer_push(mixer.get(), &command));
    EXPECT_EQ(tb_mixer_dropped_commands(mixer.get()), 1u);
    float none = 0;
    tb_mixer_render(mixer.get(), &none, nullptr, 0);
    EXPECT_TRUE(tb_mixer_push(mixer.get(), &command));
    EXPECT_EQ(tb_mixer_dropped_commands(mixer.get()), 1u);
}

TEST(MixerRing, IgnoresUnknownTypesAndStartsWithoutSound) {
    auto mixer = makeMixer();
    const std::vector<float> take(100, 0.25f);
    TBCommand unknown = startCommand(1, {sampleOf(take)}, {1});
    unknown.type = 9;
    const TBCommand silent[] = {unknown, startCommand(2, {TBSample{}, TBSample{}}, {1, 1}),
                                startCommand(3, {TBSample{take.data(), nullptr, 0}}, {1}),
                                // Frames without samples do not count toward the length.
                                startCommand(4, {TBSample{nullptr, nullptr, 100}}, {1})};
    for (const TBCommand& command : silent) tb_mixer_push(mixer.get(), &command);
    std::vector<float> out(8, -1);
    tb_mixer_render(mixer.get(), out.data(), nullptr, 8);
    EXPECT_EQ(out, std::vector<float>(8, 0.0f));
    EXPECT_EQ(tb_mixer_started_voices(mixer.get()), 0u);
}

TEST(MixerMaster, IsClampedToZeroToFourAndRampedAcrossOneBlock) {
    auto mixer = makeMixer();
    for (const auto& [gain, stored] : {std::pair{-1.0f, 0.0f}, {10.0f, 4.0f}, {NAN, 0.0f}, {1.0f, 1.0f}}) {
        tb_mixer_set_master(mixer.get(), gain);
        EXPECT_EQ(tb_mixer_get_master(mixer.get()), stored) << gain;
    }
    const std::vector<float> take(100, 0.1f);
    const TBCommand start = startCommand(1, {sampleOf(take)}, {1});
    tb_mixer_push(mixer.get(), &start);
    tb_mixer_set_master(mixer.get(), 0.5f);
    std::vector<float> out(4);
    tb_mixer_render(mixer.get(), out.data(), nullptr, 4);
    const float ramp[] = {0.0875f, 0.075f, 0.0625f, 0.05f};
    for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(out[i], ramp[i]) << i;
}

TEST(MixerCreate, CrossfadesOverTheConfiguredTimeOrFourMillisecondsAt48kHz) {
    struct Case {
        float sampleRate, crossfadeMs;
        std::size_t frames;
    };
    const Case cases[] = {{8000, 1, 8}, {48000, 4, 192}, {0, 0, 192}, {-1, -3, 192}};
    const std::vector<float> take(1000, 0.5f);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.sampleRate << " Hz, " << c.crossfadeMs << " ms");
        auto mixer = makeMixer(c.sampleRate, c.crossfadeMs);
        ASSERT_NE(mixer, nullptr);
        const TBCommand start = startCommand(1, {sampleOf(take)}, {0});
        const TBCommand change = weightsCommand(1, {1});
        tb_mixer_push(mixer.get(), &start);
        tb_mixer_push(mixer.get(), &change);
        std::vector<float> out(200);
        tb_mixer_render(mixer.get(), out.data(), nullptr, 200);
        EXPECT_NEAR(out[c.frames / 2], 0.25f, 1e-6);
        EXPECT_NEAR(out[c.frames], 0.5f, 1e-6);
        EXPECT_EQ(tb_mixer_rendered_frames(mixer.get()), 200u);
    }
}

} // namespace
} // namespace tobrin::test
