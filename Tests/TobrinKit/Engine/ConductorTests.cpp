#include "ConductorRig.h"
#include "Support/Eventually.h"

#include "TobrinKit/Engine/Core/KeyCode.h"
#include "TobrinKit/Engine/Voicing.h"
#include "TobrinKit/Input/KeyLayout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <set>
#include <vector>

namespace tobrin {
namespace {

using fixtures::cream;
using test::eventually;
using test::fixedTier;
using test::Rig;

using namespace std::chrono_literals;

TEST(ConductorTest, SameKeyPlaysTheSameTakeAndDetuneAndKeysSpreadOverTakes) {
    Rig rig(cream());
    auto& [recorder, clock, audio, conductor] = rig;
    conductor.apply(fixedTier(Tier::medium), true);

    const std::vector<std::uint16_t> keys{0, 1, 2, 3, 5, 4, 38, 40, 37, 12, 13, 14, 0};
    for (const auto code : keys) conductor.handle(rig.down(code));
    conductor.barrier();

    const auto starts = recorder.commands(TB_COMMAND_START);
    ASSERT_EQ(starts.size(), keys.size());
    const auto& first = starts.front().command;
    const auto& again = starts.back().command;
    for (int layer = 0; layer < 4; ++layer) EXPECT_EQ(first.layers[layer].left, again.layers[layer].left) << layer;
    EXPECT_EQ(first.rate, again.rate);
    EXPECT_EQ(first.rate, Voicing::pitchFactor(0));

    std::set<const float*> takes;
    std::set<float> rates;
    for (std::size_t i = 0; i + 1 < starts.size(); ++i) {
        takes.insert(starts[i].command.layers[1].left);
        rates.insert(starts[i].command.rate);
        EXPECT_NE(starts[i].command.tag, 0u);
        EXPECT_GT(starts[i].command.rate, 0.988f - 1e-6f);
        EXPECT_LT(starts[i].command.rate, 1.012f + 1e-6f);
    }
    EXPECT_GE(takes.size(), 2u);
    EXPECT_GE(rates.size(), 10u);
}

TEST(ConductorTest, FixedTierPositionsStayWithinTheirJitterAndDriveTheWeights) {
    struct Case {
        Tier tier;
        float low, high;
    };
    for (const Case c : {Case{Tier::slam, 2.7f, 3.0f}, Case{Tier::soft, 0.0f, 0.3f}, Case{Tier::medium, 0.7f, 1.3f}}) {
        Rig rig(cream());
        auto& [recorder, clock, audio, conductor] = rig;
        conductor.apply(fixedTier(c.tier), true);
        for (int i = 0; i < 120; ++i) conductor.handle(rig.down(std::uint16_t(i % 8)));
        conductor.barrier();

        const auto readings = recorder.forces();
        const auto starts = recorder.commands(TB_COMMAND_START);
        ASSERT_EQ(readings.size(), 120u);
        ASSERT_EQ(starts.size(), 120u);
        float lowest = 3, highest = 0;
        for (std::size_t i = 0; i < readings.size(); ++i) {
            const auto& reading = readings[i];
            EXPECT_FALSE(reading.sensed);
            EXPECT_EQ(reading.relative, 1.0f);
            EXPECT_EQ(reading.peak, 0.0f);
            lowest = std::min(lowest, reading.position);
            highest = std::max(highest, reading.position);

            const auto layers =
                cream()->layers(KeyLayout::group(reading.code),
                                Voicing::variant(reading.code, *cream(), KeyLayout::group(reading.code)));
            const auto expected = Voicing::weights(reading.position, 1.0f, layers.gains, true, 1.0f);
            for (std::size_t k = 0; k < 4; ++k)
                EXPECT_FLOAT_EQ(starts[i].command.weights[k], k < expected.size() ? expected[k] : 0.0f);
        }
        EXPECT_GE(lowest, c.low) << name(c.tier);
        EXPECT_LE(highest, c.high) << name(c.tier);
        EXPECT_GT(highest - lowest, 0.15f) << name(c.tier); // the jitter is there
    }
}

TEST(ConductorTest, KeyUpWithoutAStrengthPlaysTheReleaseAtEightyPercentWithinFivePercent) {
    Rig rig(cream());
    auto& [recorder, clock, audio, conductor] = rig;
    conductor.apply(fixedTier(Tier::medium), true);

    const std::vector<std::uint16_t> keys{0, 1, 2, 49, 36, 51, 56, 12, 13, 14, 15, 17, 16, 32};
    for (int round = 0; round < 4; ++round)
        for (const auto code : keys) conductor.handle(rig.up(code));
    conductor.barrier();

    const auto releases = recorder.commands(TB_COMMAND_START);
    ASSERT_EQ(releases.size(), keys.size() * 4);
    std::set<float> ratios;
    for (std::size_t i = 0; i < releases.size(); ++i) {
        const auto code = keys[i % keys.size()];
        const auto group = KeyLayout::group(code);
        const auto release = cream()->release(group, Voicing::variant(code, *cream(), group));
        ASSERT_TRUE(release);
        const auto& command = releases[i].command;
        EXPECT_EQ(command.layers[0].left, release->sample.left);
        EXPECT_EQ(command.layers[1].left, nullptr);
        EXPECT_EQ(command.rate, Voicing::pitchFactor(code));
        const float ratio = command.weights[0] / (release->gain * 0.8f);
        EXPECT_GE(ratio, 0.95f - 1e-6f);
        EXPECT_LE(ratio, 1.05f + 1e-6f);
        ratios.insert(ratio);
    }
    EXPECT_GT(ratios.size(), 10u);
}

TEST(ConductorTest, IdlenessPausesTheOutputAndTheNextKeyDownRestartsItBeforeItsSound) {
    Rig rig(cream());
    auto& [recorder, clock, audio, conductor] = rig;
    conductor.apply(fixedTier(Tier::medium), true);
    conductor.handle(rig.down(0));
    rig.advance(179s); // the idle checks at 15 s, 30 s, … 165 s find it busy
    EXPECT_FALSE(conductor.isSuspended());
    EXPECT_TRUE(audio->isRunning());

    rig.advance(16s); // the check at 195 s finds 195 s without a key-down
    EXPECT_TRUE(conductor.isSuspended());
    EXPECT_FALSE(audio->isRunning());
    EXPECT_EQ(recorder.commands(TB_COMMAND_RELEASE_ALL).size(), 2u); // setPack's and the suspension's

    conductor.handle(rig.up(0)); // a key-up alone neither wakes nor sounds
    conductor.barrier();
    EXPECT_TRUE(conductor.isSuspended());
    EXPECT_EQ(recorder.commands(TB_COMMAND_START).size(), 1u);

    conductor.handle(rig.down(1));
    conductor.barrier();
    const auto starts = recorder.commands(TB_COMMAND_START);
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_TRUE(starts.back().outputRunning);
    EXPECT_TRUE(starts.back().pushed);
    EXPECT_FALSE(conductor.isSuspended());
    EXPECT_TRUE(audio->isRunning());
}

TEST(ConductorTest, DisabledSoundSuspendsAndIgnoresKeysUntilEnabled) {
    Rig rig(cream());
    auto& [recorder, clock, audio, conductor] = rig;
    auto settings = fixedTier(Tier::hard);
    conductor.apply(settings, true);
    settings.enabled = false;
    settings.volume = 0.25f;
    conductor.apply(settings, true);
    conductor.handle(rig.down(0));
    conductor.handle(rig.up(0));
    conductor.barrier();
    EXPECT_TRUE(conductor.isSuspended());
    EXPECT_FALSE(audio->isRunning());
    EXPECT_EQ(audio->volume(), 0.25f);
    EXPECT_TRUE(recorder.commands(TB_COMMAND_START).empty());

    settings.enabled = true;
    conductor.apply(settings, false); // enabled, but nothing starts until asked
    conductor.barrier();
    EXPECT_FALSE(audio->isRunning());
    conductor.handle(rig.down(0));
    conductor.barrier();
    EXPECT_TRUE(audio->isRunning());
    EXPECT_EQ(recorder.commands(TB_COMMAND_START).size(), 1u);

    conductor.shutdown();
    EXPECT_TRUE(conductor.isSuspended());
    EXPECT_FALSE(audio->isRunning());
}

TEST(ConductorTags, NeverWrapToZero) {
    const std::pair<std::uint32_t, std::uint32_t> cases[] = {
        {0, 1}, {1, 2}, {4294967294u, 4294967295u}, {4294967295u, 1}};
    for (const auto& [last, next] : cases) EXPECT_EQ(Conductor::tagAfter(last), next) << last;
}

TEST(ConductorTest, AReplacedPackLivesUntilTheMixerHasFadedItsVoices) {
    auto first = fixtures::loadBuiltInPack("cream");
    std::weak_ptr<const LoadedPack> watch = first;
    Rig rig(std::move(first));
    auto& [recorder, clock, audio, conductor] = rig;
    conductor.apply(fixedTier(Tier::medium), false);
    conductor.setPack(cream());

    // The output never ran, so the release-all has not been rendered yet: the
    // old samples must stay, however often the drop is tried.
    rig.advance(10s);
    EXPECT_FALSE(watch.expired());

    ASSERT_TRUE(audio->start());
    ASSERT_TRUE(eventually([&] { return audio->renderedFrames() >= 16384; }));
    rig.advance(2s);
    EXPECT_TRUE(watch.expired());
}

// An output that connects but never pulls a block, so the ring fills.
AudioBackendFactory stalledDevice() {
    struct Stalled final : AudioBackend {
        bool running = false;
        bool start(std::string&) override { return running = true; }
        void pause() override { running = false; }
        bool isRunning() const override { return running; }
    };
    return AudioBackendFactory{"stalled", nullptr,
                               [](const auto&, const auto&) { return std::make_unique<Stalled>(); }};
}

TEST(ConductorTest, AReleaseAllTheFullRingRefusedIsNeverSentAgainToFadeTheNewPack) {
    auto first = fixtures::loadBuiltInPack("cream");
    std::weak_ptr<const LoadedPack> watch = first;
    Rig rig(std::move(first), {}, nullptr, std::make_shared<AudioOutput>(std::vector{stalledDevice()}, ""));
    auto& [recorder, clock, audio, conductor] = rig;
    conductor.apply(fixedTier(Tier::medium), true);
    for (int i = 0; i < 600; ++i) conductor.handle(rig.down(KeyCode::a));
    conductor.setPack(cream());
    rig.advance(60s);

    const auto releases = recorder.commands(TB_COMMAND_RELEASE_ALL);
    ASSERT_EQ(releases.size(), 2u);
    EXPECT_TRUE(releases[0].pushed); // the first setPack's, into an empty ring
    EXPECT_FALSE(releases[1].pushed);
    // Its voices were never faded and nothing has played them out.
    EXPECT_FALSE(watch.expired());
}

TEST(ConductorTest, AuditionPlaysTheSixteenKeyPhraseWithItsReleases) {
    Rig rig(cream());
    auto& [recorder, clock, audio, conductor] = rig;
    conductor.apply(fixedTier(Tier::medium), false);
    conductor.audition();
    conductor.barrier();
    rig.advance(5s);

    EXPECT_TRUE(audio->isRunning());
    int presses = 0, releases = 0;
    for (const auto& push : recorder.commands(TB_COMMAND_START))
        (push.command.layers[1].left ? presses : releases) += 1;
    EXPECT_EQ(presses, 16);
    EXPECT_EQ(releases, 16);
}

} // namespace
} // namespace tobrin
