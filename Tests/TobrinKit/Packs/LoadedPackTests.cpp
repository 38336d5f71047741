#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackError.h"

#include "Support/PackFolder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>

namespace tobrin {
namespace {

using test::PackFolder;
using test::TemporaryFolder;
using Paths = std::vector<std::string>;

float firstSample(const TBSample& sample) { return sample.left[0]; }

TEST(LoadedPack, MissingTiersTakeTheNearestWithTheLowerOneOnTies) {
    // Which tiers a group has, and for each wanted tier the tier that serves it.
    struct Case {
        std::vector<int> present;
        std::array<int, 4> chosen;
    };
    const Case cases[] = {
        {{1}, {1, 1, 1, 1}},    {{0, 2}, {0, 0, 2, 2}},       {{3}, {3, 3, 3, 3}}, {{0, 3}, {0, 0, 3, 3}},
        {{1, 2}, {1, 1, 2, 2}}, {{0, 1, 2, 3}, {0, 1, 2, 3}}, {{2}, {2, 2, 2, 2}},
    };
    const char* tierNames[] = {"soft", "medium", "hard", "slam"};
    int caseNumber = 0;
    for (const Case& test : cases) {
        TemporaryFolder scratch;
        PackFolder pack(scratch / ("case" + std::to_string(caseNumber++)));
        for (int tier : test.present) {
            const std::string file = std::string(tierNames[tier]) + ".wav";
            pack.sound(file, static_cast<float>(tier + 1) / 8);
            pack.down("enter", tierNames[tier], {file});
        }
        const auto loaded = pack.load();
        const auto layers = loaded->layers(KeyGroup::enter, 0);
        for (int wanted = 0; wanted < 4; ++wanted) {
            SCOPED_TRACE(testing::Message() << "case " << caseNumber - 1 << ", wanted " << tierNames[wanted]);
            const int chosen = test.chosen[static_cast<std::size_t>(wanted)];
            EXPECT_EQ(firstSample(layers.samples[static_cast<std::size_t>(wanted)]),
                      static_cast<float>(chosen + 1) / 8);
            EXPECT_FLOAT_EQ(layers.gains[static_cast<std::size_t>(wanted)],
                            static_cast<float>(std::pow(1.6, wanted - chosen)));
        }
    }
}

TEST(LoadedPack, AbsentGroupsPlayAlphaOrElseAnotherLoadedGroup) {
    TemporaryFolder scratch;
    PackFolder withAlpha(scratch / "A");
    withAlpha.sound("alpha.wav", 0.125f);
    withAlpha.sound("alpha2.wav", 0.375f);
    withAlpha.sound("enter.wav", 0.25f);
    withAlpha.down("alpha", "hard", {"alpha.wav", "alpha2.wav"});
    withAlpha.down("enter", "hard", {"enter.wav"});
    const auto a = withAlpha.load();
    EXPECT_EQ(firstSample(a->layers(KeyGroup::enter, 0).samples[2]), 0.25f);
    EXPECT_EQ(a->variantCount(KeyGroup::enter), 1u);
    for (KeyGroup group : {KeyGroup::alpha, KeyGroup::space, KeyGroup::backspace, KeyGroup::modifier}) {
        EXPECT_EQ(firstSample(a->layers(group, 0).samples[2]), 0.125f) << rawValue(group);
        EXPECT_EQ(firstSample(a->layers(group, 3).samples[2]), 0.375f) << rawValue(group);
        EXPECT_EQ(a->variantCount(group), 2u) << rawValue(group);
        EXPECT_FALSE(a->release(group, 0)) << rawValue(group);
    }
    EXPECT_FALSE(a->hasReleaseSounds());

    PackFolder withoutAlpha(scratch / "B");
    withoutAlpha.sound("space.wav", 0.375f);
    withoutAlpha.down("space", "soft", {"space.wav"});
    const auto b = withoutAlpha.load();
    for (KeyGroup group : allKeyGroups) {
        EXPECT_EQ(firstSample(b->layers(group, 0).samples[0]), 0.375f) << rawValue(group);
        EXPECT_EQ(b->variantCount(group), 1u);
    }
}

TEST(LoadedPack, ReleasesFallBackToAlphasAndOtherwiseStayEmpty) {
    TemporaryFolder scratch;
    PackFolder pack(scratch / "P");
    pack.sound("d.wav", 0.5f);
    pack.sound("up-a1.wav", 0.125f);
    pack.sound("up-a2.wav", 0.25f);
    pack.sound("up-e.wav", 0.375f);
    pack.down("alpha", "medium", {"d.wav"});
    pack.up("alpha", {"up-a1.wav", "up-a2.wav"});
    pack.down("enter", "medium", {"d.wav"});
    pack.up("enter", {"up-e.wav"});
    pack.down("space", "medium", {"d.wav"});
    pack.up("space", {});
    const auto loaded = pack.load();
    EXPECT_TRUE(loaded->hasReleaseSounds());
    EXPECT_EQ(firstSample(loaded->release(KeyGroup::enter, 5)->sample), 0.375f);
    for (KeyGroup group : {KeyGroup::alpha, KeyGroup::space, KeyGroup::backspace, KeyGroup::modifier}) {
        EXPECT_EQ(firstSample(loaded->release(group, 0)->sample), 0.125f) << rawValue(group);
        EXPECT_EQ(firstSample(loaded->release(group, 3)->sample), 0.25f) << rawValue(group);
        EXPECT_EQ(loaded->release(group, 3)->gain, 1.0f);
    }

    PackFolder onlyEnter(scratch / "Q");
    onlyEnter.sound("d.wav", 0.5f);
    onlyEnter.sound("up.wav", 0.25f);
    onlyEnter.down("alpha", "medium", {"d.wav"});
    onlyEnter.up("enter", {"up.wav"});
    onlyEnter.down("enter", "medium", {"d.wav"});
    const auto q = onlyEnter.load();
    EXPECT_TRUE(q->release(KeyGroup::enter, 0));
    EXPECT_FALSE(q->release(KeyGroup::alpha, 0));
    EXPECT_FALSE(q->release(KeyGroup::space, 0));
}

TEST(LoadedPack, VariantsWrapPerTierAndCountTheLongestList) {
    TemporaryFolder scratch;
    PackFolder pack(scratch / "P");
    const std::map<std::string, int> lengths = {{"soft", 3}, {"medium", 5}, {"hard", 5}, {"slam", 2}};
    for (const auto& [tier, length] : lengths) {
        Paths paths;
        for (int i = 0; i < length; ++i) {
            paths.push_back(tier + std::to_string(i) + ".wav");
            pack.sound(paths.back(), static_cast<float>(i + 1) / 16, 48, 1);
        }
        pack.down("modifier", tier, paths);
    }
    const auto loaded = pack.load();
    EXPECT_EQ(loaded->variantCount(KeyGroup::modifier), 5u);
    const auto layers = loaded->layers(KeyGroup::modifier, 4);
    EXPECT_EQ(firstSample(layers.samples[0]), 2.0f / 16); // entry 1 of 3
    EXPECT_EQ(firstSample(layers.samples[1]), 5.0f / 16); // entry 4 of 5
    EXPECT_EQ(firstSample(layers.samples[2]), 5.0f / 16);
    EXPECT_EQ(firstSample(layers.samples[3]), 1.0f / 16); // entry 0 of 2
    EXPECT_EQ(layers.samples[0].left, layers.samples[0].right);
    EXPECT_EQ(loaded->memoryBytes(), 15u * 48 * 4);
}

TEST(LoadedPack, SkipsUnknownNamesAndEmptyListsAndMatchesTierNamesInAnyCase) {
    TemporaryFolder scratch;
    PackFolder pack(scratch / "P", "the-id");
    pack.sound("soft.wav", 0.25f);
    // Files of skipped entries do not exist: loading them would fail.
    pack.down("alpha", "Soft", {"soft.wav"});
    pack.down("alpha", "loud", {"missing-1.wav"});
    pack.down("alpha", "hard", {});
    pack.down("thumb", "soft", {"missing-2.wav"});
    pack.up("thumb", {"missing-3.wav"});
    const auto loaded = pack.load();
    EXPECT_EQ(loaded->sampleCount(), 1u);
    EXPECT_EQ(firstSample(loaded->layers(KeyGroup::alpha, 0).samples[3]), 0.25f);

    PackFolder unknown(scratch / "U", "the-id");
    unknown.down("Alpha", "soft", {"x.wav"});
    unknown.down("thumb", "soft", {"x.wav"});
    unknown.down("space", "soft", {});
    EXPECT_EQ(unknown.loadError(), "Pack the-id has no usable sounds");
}

TEST(LoadedPack, AFileNamedInSeveralListsIsDecodedAndCountedOnce) {
    TemporaryFolder scratch;
    PackFolder pack(scratch / "P");
    pack.sound("shared.wav", 0.5f, 1000);
    pack.sound("sub/mono.wav", 0.25f, 300, 1);
    pack.down("alpha", "soft", {"shared.wav", "sub/mono.wav"});
    pack.down("space", "slam", {"shared.wav"});
    pack.up("enter", {"shared.wav", "sub/mono.wav"});
    const auto loaded = pack.load();
    EXPECT_EQ(loaded->sampleCount(), 2u);
    EXPECT_EQ(loaded->memoryBytes(), 1000u * 8 + 300u * 4);
    EXPECT_EQ(loaded->layers(KeyGroup::alpha, 0).samples[0].left, loaded->layers(KeyGroup::space, 0).samples[3].left);
    EXPECT_EQ(loaded->layers(KeyGroup::alpha, 0).samples[0].left, loaded->release(KeyGroup::enter, 0)->sample.left);
}

TEST(LoadedPack, DecodesEveryFileAtTheOutputRate) {
    TemporaryFolder scratch;
    PackFolder pack(scratch / "P");
    pack.sound("a441.wav", 0.25f, 4410, 2, 44100);
    pack.sound("a48.wav", 0.25f, 4800, 2, 48000);
    pack.down("alpha", "soft", {"a441.wav", "a48.wav"});
    const auto at441 = pack.load(44100);
    EXPECT_EQ(at441->layers(KeyGroup::alpha, 0).samples[0].frames, 4410u);
    EXPECT_NEAR(at441->layers(KeyGroup::alpha, 1).samples[0].frames, 4410.0, 2.0);
}

TEST(LoadedPack, OpensFilesAndLinksInsideThePackFolderAndRefusesEveryPathOut) {
    TemporaryFolder scratch;
    const auto folder = scratch / "MyPack";
    test::writeSound(scratch / "outside.wav", {std::vector<float>(48, 0.5f)}, 48000);
    PackFolder pack(folder);
    // Inside, each with a value of its own; dots in a name are not a step up.
    // Which links lead out is the confined folder's concern (its own tests
    // walk every way out); here, the names and one link each way.
    const std::pair<std::string, float> inside[] = {
        {"takes/one.wav", 0.5f}, {"alias.wav", 0.5f},    {"more/one.wav", 0.5f},    {"a..wav", 0.125f},
        {"..b.wav", 0.25f},      {"sub/...wav", 0.375f}, {"sub/c..d/e.wav", 0.625f}};
    for (const auto& [path, value] : inside) {
        if (value != 0.5f) pack.sound(path, value); // 0.5: the take and the links to it
    }
    pack.sound("takes/one.wav", 0.5f);
    std::filesystem::create_symlink("takes/one.wav", folder / "alias.wav");
    std::filesystem::create_symlink("takes", folder / "more");
    std::filesystem::create_symlink(scratch / "outside.wav", folder / "link.wav");
    for (const auto& [path, value] : inside) {
        pack.down("alpha", "soft", {path});
        EXPECT_EQ(firstSample(pack.load()->layers(KeyGroup::alpha, 0).samples[0]), value) << path;
    }

    const Paths escaping = {"a/../b.wav", "/tmp/x.wav", (scratch / "outside.wav").string(), "link.wav",
                            "./../outside.wav"};
    for (const std::string& path : escaping) {
        pack.down("alpha", "soft", {"takes/one.wav", path});
        EXPECT_EQ(pack.loadError(), "Invalid MyPack: path escapes pack: " + path);
    }

    // The pack folder itself may be a link, as a user's packs folder entry can be.
    pack.down("alpha", "soft", {"alias.wav", "more/one.wav"});
    pack.info();
    std::filesystem::create_symlink(folder, scratch / "linked");
    const auto loaded = LoadedPack::load(PackInfo{"id", "n", "k", std::nullopt, scratch / "linked", false}, 48000);
    EXPECT_EQ(loaded->sampleCount(), 2u);
}

TEST(LoadedPack, CountsTheMemoryBudgetAtTheOutputRateAndRefusesOneFrameOver) {
    TemporaryFolder scratch;
    // Budget counted as frames × 8; 8-bit mono files keep what is written small.
    const std::size_t budgetFrames = LoadedPack::memoryBudget / 8;
    const std::filesystem::path folder = scratch / "Big";
    test::writeSound(folder / "big.wav", {std::vector<float>(budgetFrames - 100, 0.0f)}, 48000,
                     SF_FORMAT_WAV | SF_FORMAT_PCM_U8);
    PackFolder exact(folder);
    exact.sound("rest.wav", 0.5f, 100, 1);
    exact.down("alpha", "soft", {"big.wav", "rest.wav"});
    const auto loaded = exact.load();
    EXPECT_EQ(loaded->memoryBytes(), LoadedPack::memoryBudget / 2); // mono: one channel held

    PackFolder over(folder);
    over.sound("rest.wav", 0.5f, 101, 1);
    over.down("alpha", "soft", {"big.wav", "rest.wav"});
    EXPECT_EQ(over.loadError(), "Invalid Big: pack is too large");

    // Frames count at the output rate: a 96 kHz take of 13 M frames is 6.5 M
    // (52 MB counted) once converted, and loads.
    test::writeSound(folder / "high.wav", {std::vector<float>(13'000'000, 0.0f)}, 96000,
                     SF_FORMAT_WAV | SF_FORMAT_PCM_U8);
    PackFolder high(folder);
    high.down("alpha", "soft", {"high.wav"});
    EXPECT_NEAR(double(high.load()->layers(KeyGroup::alpha, 0).samples[0].frames), 6'500'000.0, 2.0);
}

TEST(LoadedPack, ReportsManifestAndDecoderFailuresAsTheyAre) {
    TemporaryFolder scratch;
    const auto failureIn = [](const std::filesystem::path& folder) {
        return test::errorOf<PackError>([&] {
            LoadedPack::load(PackInfo{"id", "n", "k", std::nullopt, folder, false}, 48000);
        });
    };
    test::writeText(scratch / "Broken" / "pack.json", R"({"formatVersion": 1, "id": "x"})");
    EXPECT_EQ(failureIn(scratch / "Broken"), "Invalid pack.json: key \"name\" is missing");
    EXPECT_THROW(LoadedPack::readManifest(scratch / "Broken"), PackManifest::DecodeError);

    PackFolder pack(scratch / "P");
    test::writeText(scratch / "P" / "notes.wav", "not audio");
    pack.down("alpha", "soft", {"notes.wav"});
    pack.info();
    EXPECT_THROW(pack.load(), SampleBuffer::OpenError);
    // A missing take among many names itself, not only the system's reason.
    pack.sound("here.wav", 0.5f);
    pack.down("alpha", "soft", {"here.wav", "sub/absent.wav"});
    EXPECT_EQ(pack.loadError(), "Can't read absent.wav: No such file or directory");
}

} // namespace
} // namespace tobrin
