#include "TobrinKit/Engine/Voicing.h"

#include "TobrinKit/Input/KeyLayout.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackManifest.h"

#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

namespace tobrin {
namespace {

// Hashes, take indices and detunes worked out independently (a short Python
// transcription of the generator) for a few keys.
TEST(VoicingKey, TakeAndDetuneFollowTheKeysHash) {
    struct Case {
        std::uint16_t code;
        std::uint64_t hash;
        int detune; // ((hash >> 24) mod 2001) − 1000
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
        EXPECT_EQ(Voicing::keyHash(c.code), KeyLayout::identity(c.code));
        EXPECT_EQ(Voicing::variant(c.code, 3), c.takeOfThree);
        EXPECT_EQ(Voicing::variant(c.code, 5), c.takeOfFive);
        EXPECT_FLOAT_EQ(Voicing::pitchFactor(c.code), static_cast<float>(1.0 + 0.012 * c.detune / 1000.0));
    }
}

TEST(VoicingKey, SameKeyRepeatsItsTakeAndDetuneWhileKeysSpread) {
    std::set<std::size_t> takes;
    std::set<float> detunes;
    for (std::uint16_t code = 0; code < 128; ++code) {
        EXPECT_EQ(Voicing::variant(code, 4), Voicing::variant(code, 4));
        EXPECT_EQ(Voicing::pitchFactor(code), Voicing::pitchFactor(code));
        EXPECT_GE(Voicing::pitchFactor(code), 0.988f);
        EXPECT_LE(Voicing::pitchFactor(code), 1.012f);
        takes.insert(Voicing::variant(code, 4));
        detunes.insert(Voicing::pitchFactor(code));
    }
    EXPECT_EQ(takes.size(), 4u);
    EXPECT_GT(detunes.size(), 110u);
    // Without takes to choose from, every key plays take 0.
    for (std::uint16_t code : {std::uint16_t(0), std::uint16_t(1), std::uint16_t(40), std::uint16_t(12345)}) {
        EXPECT_EQ(Voicing::variant(code, 0), 0u);
        EXPECT_EQ(Voicing::variant(code, 1), 0u);
    }
}

TEST(VoicingKey, TakeCountComesFromTheLoadedPack) {
    test::ScratchFolder scratch;
    PackManifest manifest;
    manifest.id = "voicing";
    manifest.name = "Voicing";
    manifest.kind = "test";
    const std::vector<float> silence(48, 0.0f);
    for (const char* name : {"a.wav", "b.wav", "c.wav", "s.wav"}) test::writeSound(scratch / name, {silence}, 48000);
    manifest.groups["alpha"].down["medium"] = {"a.wav", "b.wav", "c.wav"};
    manifest.groups["space"].down["medium"] = {"s.wav"};
    manifest.write(scratch / "pack.json");
    const auto pack = LoadedPack::load(PackInfo::read(scratch.path(), false), 48000);

    for (std::uint16_t code : {std::uint16_t(0), std::uint16_t(1), std::uint16_t(12), std::uint16_t(40)}) {
        EXPECT_EQ(Voicing::variant(code, *pack, KeyGroup::alpha), Voicing::variant(code, 3)) << code;
        EXPECT_EQ(Voicing::variant(code, *pack, KeyGroup::space), 0u) << code;
    }
}

TEST(VoicingPan, MapsColumnsAcrossTheSpatialWidth) {
    EXPECT_FLOAT_EQ(Voicing::pan(0.0, 1.0f), -0.6f);
    EXPECT_FLOAT_EQ(Voicing::pan(15.0, 1.0f), 0.6f);
    EXPECT_EQ(Voicing::pan(7.5, 1.0f), 0.0f);
    EXPECT_FLOAT_EQ(Voicing::pan(15.0, 0.5f), 0.3f);
    EXPECT_EQ(Voicing::pan(0.0, 0.0f), 0.0f);

    EngineSettings settings;
    EXPECT_NEAR(Voicing::pan(53, settings), (0.5 / 15 - 0.5) * 2 * 0.5 * 0.6, 1e-6); // Escape
    EXPECT_EQ(Voicing::pan(49, settings), 0.0f);                                     // Space
    for (float spatial : {0.0f, 0.5f, 1.0f, 4.0f}) {
        settings.spatial = spatial;
        EXPECT_EQ(Voicing::pan(76, settings), 0.0f); // keypad Enter has no column
        EXPECT_EQ(Voicing::pan(300, settings), 0.0f);
    }
}

TEST(VoicingWeights, ScaleTierWeightsByLayerGainEdgeGainAndStrokeGain) {
    const float half = static_cast<float>(std::sqrt(0.5));
    const float gains[] = {1.0f, 2.0f, 0.5f, 1.0f};
    auto weights = Voicing::weights(1.5f, 1.0f, gains, true, 1.1f);
    ASSERT_EQ(weights.size(), 4u);
    EXPECT_EQ(weights[0], 0.0f);
    EXPECT_NEAR(weights[1], half * 2.0f * 1.1f, 1e-6);
    EXPECT_NEAR(weights[2], half * 0.5f * 1.1f, 1e-6);
    EXPECT_EQ(weights[3], 0.0f);

    // Soft strokes below 0.4 relative are quieter: relative 0.1 has edge gain 0.5.
    weights = Voicing::weights(0.0f, 0.1f, gains, false, 1.0f);
    EXPECT_NEAR(weights[0], 0.5f, 1e-6);
    // Slams above 4 are louder, up to 1.25.
    weights = Voicing::weights(3.0f, 100.0f, gains, false, 0.9f);
    EXPECT_NEAR(weights[3], 1.25f * 0.9f, 1e-6);
}

TEST(VoicingWeights, PairAsManyLayersAsBothListsHave) {
    const float two[] = {0.8f, 1.2f};
    const auto weights = Voicing::weights(1.0f, 1.0f, two, true, 1.0f);
    ASSERT_EQ(weights.size(), 2u);
    EXPECT_EQ(weights[0], 0.0f);
    EXPECT_FLOAT_EQ(weights[1], 1.2f);

    const float six[] = {1, 1, 1, 1, 1, 1};
    EXPECT_EQ(Voicing::weights(2.0f, 1.0f, six, true, 1.0f).size(), 4u);
    EXPECT_EQ(Voicing::weights(2.0f, 1.0f, {}, true, 1.0f).size(), 0u);

    TBCommand command{};
    command.weights[2] = command.weights[3] = 9.0f;
    Voicing::setWeights(command, weights);
    EXPECT_EQ(command.weights[0], 0.0f);
    EXPECT_FLOAT_EQ(command.weights[1], 1.2f);
    EXPECT_EQ(command.weights[2], 0.0f); // the mixer treats the missing two as silent
    EXPECT_EQ(command.weights[3], 0.0f);
}

TEST(VoicingCommand, SetLayersCopiesAtMostFourAndKeepsTheRest) {
    const float a[] = {0.1f}, b[] = {0.2f}, old[] = {0.9f};
    TBCommand command{};
    for (auto& layer : command.layers) layer = TBSample{old, old, 1};
    const TBSample two[] = {{a, a, 1}, {b, nullptr, 1}};
    Voicing::setLayers(command, two);
    EXPECT_EQ(command.layers[0].left, a);
    EXPECT_EQ(command.layers[1].left, b);
    EXPECT_EQ(command.layers[1].right, nullptr);
    EXPECT_EQ(command.layers[2].left, old);
    EXPECT_EQ(command.layers[3].left, old);

    std::array<TBSample, 6> six;
    for (std::size_t i = 0; i < six.size(); ++i) six[i] = TBSample{a, b, std::uint32_t(i + 1)};
    Voicing::setLayers(command, six);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(command.layers[i].frames, i + 1);
}

TEST(VoicingRelease, StrengthIsTheRootOfTheKeyDownWithinBounds) {
    EXPECT_EQ(Voicing::releaseStrength(std::nullopt), 1.0f);
    EXPECT_FLOAT_EQ(Voicing::releaseStrength(1.21f), 1.1f);
    EXPECT_FLOAT_EQ(Voicing::releaseStrength(0.04f), 0.5f);
    EXPECT_FLOAT_EQ(Voicing::releaseStrength(4.0f), 1.3f);
    EXPECT_FLOAT_EQ(Voicing::releaseStrength(-1.0f), 0.5f);
    EXPECT_FLOAT_EQ(Voicing::releaseStrength(std::nanf("")), 0.5f);
}

} // namespace
} // namespace tobrin
