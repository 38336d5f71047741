#include "MixerTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace tobrin::test {
namespace {

struct Stereo {
    std::vector<float> left, right;
    explicit Stereo(std::size_t frames) : left(frames, -1.0f), right(frames, -1.0f) {}
};

Stereo renderStereo(TBMixer* mixer, std::uint32_t frames) {
    Stereo out(frames);
    tb_mixer_render(mixer, out.left.data(), out.right.data(), frames);
    return out;
}

std::vector<float> renderMono(TBMixer* mixer, std::uint32_t frames) {
    std::vector<float> out(frames, -1.0f);
    tb_mixer_render(mixer, out.data(), nullptr, frames);
    return out;
}

TEST(MixerVoices, ThirtyThirdStartTakesOverTheOldestVoice) {
    // Voice j plays the constant j/4096, so the mono sum shows which voices sound.
    auto mixer = makeMixer();
    std::vector<std::vector<float>> takes;
    for (int j = 1; j <= 33; ++j) takes.push_back(constant(float(j) / 4096, 1000));
    for (int j = 1; j <= 32; ++j) {
        const TBCommand start = startCommand(j, {sampleOf(takes[j - 1])}, {1});
        ASSERT_TRUE(tb_mixer_push(mixer.get(), &start));
    }
    EXPECT_FLOAT_EQ(renderMono(mixer.get(), 1)[0], 528.0f / 4096); // 1 + ... + 32
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 32u);

    const TBCommand late = startCommand(33, {sampleOf(takes[32])}, {1});
    tb_mixer_push(mixer.get(), &late);
    EXPECT_EQ(renderMono(mixer.get(), 1)[0], (528.0f - 1 + 33) / 4096);
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 32u);
    EXPECT_EQ(tb_mixer_started_voices(mixer.get()), 33u);
}

TEST(MixerVoices, StealingDoesNotSpareAVoiceThatIsFadingOut) {
    auto mixer = makeMixer();
    std::vector<std::vector<float>> takes;
    for (int j = 1; j <= 33; ++j) takes.push_back(constant(float(j) / 4096, 1000));
    for (int j = 1; j <= 32; ++j) {
        const TBCommand start = startCommand(j, {sampleOf(takes[j - 1])}, {1});
        tb_mixer_push(mixer.get(), &start);
    }
    renderMono(mixer.get(), 1);
    // Every voice now fades out; the new key still takes over the oldest at once.
    const TBCommand release = releaseAllCommand();
    const TBCommand late = startCommand(33, {sampleOf(takes[32])}, {1});
    tb_mixer_push(mixer.get(), &release);
    tb_mixer_push(mixer.get(), &late);
    // The first frame of a release still sounds at full gain.
    EXPECT_EQ(renderMono(mixer.get(), 1)[0], (528.0f - 1 + 33) / 4096);
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 32u);
}

TEST(MixerRing, FiveHundredThirteenthPushIsRefusedAndCounted) {
    auto mixer = makeMixer();
    const TBCommand command = weightsCommand(7, {1});
    for (int i = 0; i < 512; ++i) ASSERT_TRUE(tb_mixer_push(mixer.get(), &command)) << i;
    EXPECT_FALSE(tb_mixer_push(mixer.get(), &command));
    EXPECT_EQ(tb_mixer_dropped_commands(mixer.get()), 1u);
    // A render drains the ring and makes room again.
    renderMono(mixer.get(), 0);
    EXPECT_TRUE(tb_mixer_push(mixer.get(), &command));
    EXPECT_EQ(tb_mixer_dropped_commands(mixer.get()), 1u);
}

TEST(MixerRing, IgnoresUnknownTypesAndStartsWithoutSound) {
    auto mixer = makeMixer();
    const auto take = constant(0.25f, 100);
    TBCommand unknown = startCommand(1, {sampleOf(take)}, {1});
    unknown.type = 9;
    const TBCommand empty = startCommand(2, {TBSample{}, TBSample{}}, {1, 1});
    const TBCommand zeroFrames = startCommand(3, {TBSample{take.data(), nullptr, 0}}, {1});
    // A layer with frames but no samples does not count toward the length.
    const TBCommand framesWithoutSamples = startCommand(4, {TBSample{nullptr, nullptr, 100}}, {1});
    for (const TBCommand* c :
         std::initializer_list<const TBCommand*>{&unknown, &empty, &zeroFrames, &framesWithoutSamples})
        tb_mixer_push(mixer.get(), c);
    const auto out = renderMono(mixer.get(), 8);
    for (float x : out) EXPECT_EQ(x, 0.0f);
    EXPECT_EQ(tb_mixer_started_voices(mixer.get()), 0u);
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 0u);
}

TEST(MixerRate, PlaysAtUnityUnlessStrictlyBetweenAQuarterAndFour) {
    std::vector<float> ramp(64);
    for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = float(i) / 128;
    struct Case {
        float rate;
        float secondFrame; // the sample read at frame 1 is ramp[rate]
    };
    const Case cases[] = {{0.25f, 1.0f / 128}, {4.0f, 1.0f / 128}, {NAN, 1.0f / 128},  {INFINITY, 1.0f / 128},
                          {-2.0f, 1.0f / 128}, {0.0f, 1.0f / 128}, {0.5f, 0.5f / 128}, {3.5f, 3.5f / 128}};
    for (const Case& c : cases) {
        auto mixer = makeMixer();
        const TBCommand start = startCommand(1, {sampleOf(ramp)}, {1}, 0, c.rate);
        tb_mixer_push(mixer.get(), &start);
        const auto out = renderMono(mixer.get(), 2);
        EXPECT_EQ(out[0], 0.0f) << c.rate;
        EXPECT_FLOAT_EQ(out[1], c.secondFrame) << "rate " << c.rate;
    }
}

TEST(MixerRate, InterpolatesBetweenNeighboursAndFadesToZeroPastTheEnd) {
    auto mixer = makeMixer();
    const std::vector<float> take = {0.4f, 0.2f, 0.6f};
    const TBCommand start = startCommand(1, {sampleOf(take)}, {1}, 0, 0.5f);
    tb_mixer_push(mixer.get(), &start);
    const auto out = renderMono(mixer.get(), 8);
    const float expected[] = {0.4f, 0.3f, 0.2f, 0.4f, 0.6f, 0.3f, 0, 0};
    for (int i = 0; i < 8; ++i) EXPECT_NEAR(out[i], expected[i], 1e-7) << i;
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 0u);
}

TEST(MixerPan, IsConstantPowerWithUnityAtTheCentre) {
    const double sqrt2 = std::numbers::sqrt2;
    struct Case {
        float pan;
        double left, right;
    };
    const Case cases[] = {
        {0, 1, 1},
        {-1, sqrt2, 0},
        {-5, sqrt2, 0},
        {1, 0, sqrt2},
        {7, 0, sqrt2},
        {NAN, 1, 1},
        {0.5f, std::cos(3 * std::numbers::pi / 8) * sqrt2, std::sin(3 * std::numbers::pi / 8) * sqrt2}};
    const auto take = constant(0.5f, 16);
    for (const Case& c : cases) {
        auto mixer = makeMixer();
        const TBCommand start = startCommand(1, {sampleOf(take)}, {1}, c.pan);
        tb_mixer_push(mixer.get(), &start);
        const Stereo out = renderStereo(mixer.get(), 1);
        // Under the limiter's knee, so the output is 0.5 × the channel gain.
        EXPECT_NEAR(out.left[0], 0.5 * c.left, 1e-6) << "pan " << c.pan;
        EXPECT_NEAR(out.right[0], 0.5 * c.right, 1e-6) << "pan " << c.pan;
    }
    auto mixer = makeMixer();
    const TBCommand centre = startCommand(1, {sampleOf(take)}, {1}, 0);
    tb_mixer_push(mixer.get(), &centre);
    const Stereo out = renderStereo(mixer.get(), 1);
    EXPECT_EQ(out.left[0], 0.5f);
    EXPECT_EQ(out.right[0], 0.5f);
}

TEST(MixerOutput, MonoReceivesHalfTheSumOfThePannedChannels) {
    const auto left = constant(0.3f, 16);
    const auto right = constant(0.1f, 16);
    const TBCommand start = startCommand(1, {sampleOf(left, &right)}, {1}, -0.5f);
    const double theta = 0.5 * std::numbers::pi / 4;
    const float panLeft = float(std::cos(theta) * std::numbers::sqrt2);
    const float panRight = float(std::sin(theta) * std::numbers::sqrt2);
    const float expected = 0.5f * (0.3f * panLeft + 0.1f * panRight);

    auto nullRight = makeMixer();
    tb_mixer_push(nullRight.get(), &start);
    EXPECT_FLOAT_EQ(renderMono(nullRight.get(), 1)[0], expected);

    auto sameBuffer = makeMixer();
    tb_mixer_push(sameBuffer.get(), &start);
    float out[4] = {9, 9, 9, 9};
    tb_mixer_render(sameBuffer.get(), out, out, 4);
    for (float x : out) EXPECT_FLOAT_EQ(x, expected);
}

TEST(MixerOutput, StereoLayersKeepTheirChannelsApart) {
    auto mixer = makeMixer();
    const auto left = constant(0.3f, 16);
    const auto right = constant(-0.2f, 16);
    const auto mono = constant(0.1f, 16);
    const TBCommand start = startCommand(1, {sampleOf(left, &right), sampleOf(mono)}, {1, 0.5f});
    tb_mixer_push(mixer.get(), &start);
    const Stereo out = renderStereo(mixer.get(), 2);
    EXPECT_FLOAT_EQ(out.left[1], 0.3f + 0.05f);
    EXPECT_FLOAT_EQ(out.right[1], -0.2f + 0.05f);
}

TEST(MixerMaster, SoftLimiterHasAKneeAtPointEight) {
    struct Case {
        float input, output;
    };
    const Case cases[] = {{1.0f, 0.9f}, {0.8f, 0.8f}, {-1.0f, -0.9f}, {0.5f, 0.5f}, {3.0f, 0.8f + 0.2f * (11.0f / 12)}};
    for (const Case& c : cases) {
        auto mixer = makeMixer();
        const auto take = constant(c.input, 4);
        const TBCommand start = startCommand(1, {sampleOf(take)}, {1});
        tb_mixer_push(mixer.get(), &start);
        EXPECT_NEAR(renderMono(mixer.get(), 1)[0], c.output, 1e-6) << c.input;
    }
    // Huge sums approach 1 but never reach it.
    auto mixer = makeMixer();
    const auto loud = constant(1000.0f, 4);
    const TBCommand start = startCommand(1, {sampleOf(loud)}, {1});
    tb_mixer_push(mixer.get(), &start);
    const float y = renderMono(mixer.get(), 1)[0];
    EXPECT_LT(y, 1.0f);
    EXPECT_GT(y, 0.999f);
}

TEST(MixerMaster, IsClampedAndRampedAcrossOneBlock) {
    auto mixer = makeMixer();
    tb_mixer_set_master(mixer.get(), -1);
    EXPECT_EQ(tb_mixer_get_master(mixer.get()), 0.0f);
    tb_mixer_set_master(mixer.get(), 10);
    EXPECT_EQ(tb_mixer_get_master(mixer.get()), 4.0f);
    tb_mixer_set_master(mixer.get(), NAN);
    EXPECT_EQ(tb_mixer_get_master(mixer.get()), 0.0f);
    tb_mixer_set_master(mixer.get(), 1);
    EXPECT_EQ(tb_mixer_get_master(mixer.get()), 1.0f);

    const auto take = constant(0.1f, 100);
    const TBCommand start = startCommand(1, {sampleOf(take)}, {1});
    tb_mixer_push(mixer.get(), &start);
    tb_mixer_set_master(mixer.get(), 0.5f);
    const auto ramp = renderMono(mixer.get(), 4);
    const float expected[] = {0.0875f, 0.075f, 0.0625f, 0.05f};
    for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(ramp[i], expected[i]) << i;
    // The next block holds the new gain.
    for (float x : renderMono(mixer.get(), 4)) EXPECT_FLOAT_EQ(x, 0.05f);
    // A zero-frame render jumps straight to the target.
    tb_mixer_set_master(mixer.get(), 2);
    renderMono(mixer.get(), 0);
    EXPECT_FLOAT_EQ(renderMono(mixer.get(), 1)[0], 0.2f);
}

TEST(MixerWeights, CrossfadeOverTheConfiguredTime) {
    // 1 ms at 8 kHz: an 8-frame crossfade.
    auto mixer = makeMixer(8000, 1);
    const auto take = constant(0.5f, 100);
    const TBCommand start = startCommand(5, {sampleOf(take)}, {0.2f});
    tb_mixer_push(mixer.get(), &start);
    renderMono(mixer.get(), 1);
    const TBCommand change = weightsCommand(5, {0.6f});
    tb_mixer_push(mixer.get(), &change);
    const auto out = renderMono(mixer.get(), 10);
    for (int i = 0; i < 8; ++i) EXPECT_NEAR(out[i], 0.5 * (0.2 + 0.05 * i), 1e-6) << i;
    EXPECT_NEAR(out[8], 0.3f, 1e-6);
    EXPECT_NEAR(out[9], 0.3f, 1e-6);
}

TEST(MixerWeights, IgnoredForAReleasingVoiceOrAnEndedTag) {
    auto mixer = makeMixer(8000, 1);
    const auto shortTake = constant(0.25f, 2);
    const auto longTake = constant(0.25f, 1000);
    const TBCommand ends = startCommand(1, {sampleOf(shortTake)}, {1});
    tb_mixer_push(mixer.get(), &ends);
    renderMono(mixer.get(), 4); // tag 1 ends
    const TBCommand plays = startCommand(2, {sampleOf(longTake)}, {1});
    tb_mixer_push(mixer.get(), &plays);
    renderMono(mixer.get(), 1);

    const TBCommand forEnded = weightsCommand(1, {0.1f});
    tb_mixer_push(mixer.get(), &forEnded);
    for (float x : renderMono(mixer.get(), 16)) EXPECT_EQ(x, 0.25f);

    // Once released, tag 2 keeps fading to silence whatever weights arrive.
    const TBCommand release = releaseAllCommand();
    tb_mixer_push(mixer.get(), &release);
    const auto fadeStart = renderMono(mixer.get(), 2);
    const TBCommand louder = weightsCommand(2, {2.0f});
    tb_mixer_push(mixer.get(), &louder);
    const auto rest = renderMono(mixer.get(), 100);
    EXPECT_LT(rest[0], fadeStart[1]);
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 0u);
}

TEST(MixerRelease, FadesEveryVoiceOverSixMillisecondsAndEndsThem) {
    auto mixer = makeMixer(); // 6 ms at 48 kHz = 288 frames
    const auto take = constant(0.25f, 10000);
    for (std::uint32_t tag = 1; tag <= 3; ++tag) {
        const TBCommand start = startCommand(tag, {sampleOf(take)}, {1}, 0);
        tb_mixer_push(mixer.get(), &start);
    }
    renderMono(mixer.get(), 10);
    const TBCommand release = releaseAllCommand();
    tb_mixer_push(mixer.get(), &release);
    const auto out = renderMono(mixer.get(), 300);
    EXPECT_FLOAT_EQ(out[0], 0.75f);
    for (int i = 1; i < 287; ++i) EXPECT_LT(out[i], out[i - 1]) << i;
    EXPECT_GT(out[286], 0.0f);
    // The ramp reaches zero on frame 287, which the voice no longer writes.
    for (int i = 287; i < 300; ++i) EXPECT_EQ(out[i], 0.0f) << i;
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 0u);
}

TEST(MixerCounters, CountVoicesAndFrames) {
    auto mixer = makeMixer();
    const auto take = constant(0.1f, 300);
    const TBCommand start = startCommand(1, {sampleOf(take)}, {1});
    tb_mixer_push(mixer.get(), &start);
    tb_mixer_push(mixer.get(), &start);
    renderMono(mixer.get(), 0);
    // A zero-frame block applies the commands and counts the sounding voices.
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 2u);
    EXPECT_EQ(tb_mixer_rendered_frames(mixer.get()), 0u);
    renderStereo(mixer.get(), 256);
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 2u);
    renderStereo(mixer.get(), 256);
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 0u);
    EXPECT_EQ(tb_mixer_rendered_frames(mixer.get()), 512u);
    EXPECT_EQ(tb_mixer_started_voices(mixer.get()), 2u);
}

TEST(MixerCreate, FallsBackToDefaultsForNonPositiveRateAndCrossfade) {
    // 4 ms at 48 kHz is a 192-frame crossfade: halfway after 96 frames.
    for (auto [rate, fade] : {std::pair{0.0f, 0.0f}, {-1.0f, -3.0f}, {48000.0f, 4.0f}}) {
        auto mixer = makeMixer(rate, fade);
        ASSERT_NE(mixer, nullptr);
        const auto take = constant(0.5f, 1000);
        const TBCommand start = startCommand(1, {sampleOf(take)}, {0});
        const TBCommand change = weightsCommand(1, {1});
        tb_mixer_push(mixer.get(), &start);
        tb_mixer_push(mixer.get(), &change);
        const auto out = renderMono(mixer.get(), 200);
        EXPECT_NEAR(out[96], 0.25f, 1e-6);
        EXPECT_NEAR(out[192], 0.5f, 1e-6);
    }
}

} // namespace
} // namespace tobrin::test
