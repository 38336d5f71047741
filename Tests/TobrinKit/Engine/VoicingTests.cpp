#include "TobrinKit/Engine/Voicing.h"

#include "TobrinKit/Engine/Core/KeyCode.h"

#include "Support/PackFolder.h"

#include <gtest/gtest.h>

#include <cmath>

namespace tobrin {
namespace {

// Hashes, take indices and detunes worked out independently (a short Python
// transcription of the generator) for a few keys.
TEST(VoicingKey, TakeAndDetuneFollowTheKeysHash) {
    struct Case {
        std::uint16_t code;
        std::uint64_t hash;
        int detune; // ((hash >> 24) mod 2001) − 1000, in thousandths of 1.2 %
        std::size_t takeOfThree, takeOfFive;
    };
    const Case cases[] = {
        {0, 0xE220A8397B1DCDAFULL, -1000, 1, 0}, {1, 0x910A2DEC89025CC1ULL, -109, 2, 0},
        {40, 0x369EAE0B0CA19112ULL, 603, 1, 3},  {49, 0x1C4A97A6EDC2A958ULL, -965, 0, 2},
        {12, 0x943FF9FC99DE8F03ULL, -606, 0, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        EXPECT_EQ(Voicing::keyHash(c.code), c.hash);
        EXPECT_EQ(Voicing::variant(c.code, 3), c.takeOfThree);
        EXPECT_EQ(Voicing::variant(c.code, 5), c.takeOfFive);
        EXPECT_EQ(Voicing::variant(c.code, 0), 0u); // without takes to choose from, take 0
        EXPECT_FLOAT_EQ(Voicing::pitchFactor(c.code), float(1.0 + 0.012 * c.detune / 1000.0));
    }
}

TEST(VoicingKey, TakeCountComesFromTheKeysGroupInTheLoadedPack) {
    test::TemporaryFolder scratch;
    test::PackFolder folder(scratch.path());
    for (const char* name : {"a.wav", "b.wav", "c.wav", "s.wav"}) folder.sound(name, 0, 2);
    folder.down("alpha", "medium", {"a.wav", "b.wav", "c.wav"});
    folder.down("space", "medium", {"s.wav"});
    const auto pack = folder.load();
    // Key 1 plays take 2 of three (see above).
    EXPECT_EQ(Voicing::variant(1, *pack, KeyGroup::alpha), 2u);
    EXPECT_EQ(Voicing::variant(1, *pack, KeyGroup::space), 0u);
}

TEST(VoicingPan, MapsColumnsAcrossTheSpatialWidth) {
    struct Case {
        std::optional<double> column;
        float spatial, pan;
    };
    const Case cases[] = {{0.0, 1, -0.6f}, {15.0, 1, 0.6f}, {7.5, 1, 0}, {15.0, 0.5f, 0.3f}, {0.0, 0, 0}, {{}, 4, 0}};
    for (const Case& c : cases) {
        EXPECT_FLOAT_EQ(Voicing::pan(c.column, c.spatial), c.pan) << c.column.value_or(-1) << " at " << c.spatial;
    }
    EngineSettings settings;
    settings.spatial = 0.5f;
    EXPECT_NEAR(Voicing::pan(KeyCode::escape, settings), -0.28f, 1e-6); // column 0.5 of 15
    EXPECT_EQ(Voicing::pan(KeyCode::keypadEnter, settings), 0.0f);      // no column
}

TEST(VoicingWeights, ScaleTierWeightsByLayerGainEdgeGainAndStrokeGain) {
    const float half = std::sqrt(0.5f);
    const float gains[] = {1.0f, 2.0f, 0.5f, 1.0f};
    const auto blended = Voicing::weights(1.5f, 1.0f, gains, true, 1.1f);
    ASSERT_EQ(blended.size(), 4u);
    EXPECT_EQ(blended[0], 0.0f);
    EXPECT_NEAR(blended[1], half * 2.0f * 1.1f, 1e-6);
    EXPECT_NEAR(blended[2], half * 0.5f * 1.1f, 1e-6);
    EXPECT_EQ(blended[3], 0.0f);
    // Relative 0.1 has edge gain 0.5; slams above 4 are louder, up to 1.25.
    EXPECT_NEAR(Voicing::weights(0.0f, 0.1f, gains, false, 1.0f)[0], 0.5f, 1e-6);
    EXPECT_NEAR(Voicing::weights(3.0f, 100.0f, gains, false, 0.9f)[3], 1.25f * 0.9f, 1e-6);
    // As many layers as both lists have.
    const float six[] = {1, 1, 1, 1, 1, 1};
    EXPECT_EQ(Voicing::weights(2.0f, 1.0f, six, true, 1.0f).size(), 4u);
    EXPECT_EQ(Voicing::weights(2.0f, 1.0f, {}, true, 1.0f).size(), 0u);
}

TEST(VoicingCommand, FillsAtMostFourLayersAndZeroesMissingWeights) {
    const float two[] = {0.8f, 1.2f};
    const auto weights = Voicing::weights(1.0f, 1.0f, two, true, 1.0f);
    ASSERT_EQ(weights.size(), 2u);
    TBCommand command{};
    command.weights[2] = command.weights[3] = 9.0f;
    Voicing::setWeights(command, weights);
    EXPECT_EQ(std::vector<float>(command.weights, command.weights + 4), (std::vector<float>{0, 1.2f, 0, 0}));

    const float a[] = {0.1f}, b[] = {0.2f};
    for (auto& layer : command.layers) layer = TBSample{b, b, 9};
    const TBSample one[] = {{a, nullptr, 1}};
    Voicing::setLayers(command, one);
    EXPECT_EQ(command.layers[0].right, nullptr);
    EXPECT_EQ(command.layers[1].frames, 9u); // the others stay as they were
    std::array<TBSample, 6> six;
    for (std::size_t i = 0; i < six.size(); ++i) six[i] = TBSample{a, b, std::uint32_t(i + 1)};
    Voicing::setLayers(command, six);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(command.layers[i].frames, i + 1);
}

TEST(VoicingRelease, StrengthIsTheRootOfTheKeyDownWithinBounds) {
    const std::pair<std::optional<float>, float> cases[] = {{std::nullopt, 1.0f}, {1.21f, 1.1f}, {0.04f, 0.5f},
                                                            {4.0f, 1.3f},         {-1.0f, 0.5f}, {std::nanf(""), 0.5f}};
    for (const auto& [relative, strength] : cases) {
        EXPECT_FLOAT_EQ(Voicing::releaseStrength(relative), strength) << relative.value_or(-9);
    }
}

} // namespace
} // namespace tobrin
