// Importing community packs of every variant: what is imported and skipped,
// that every imported pack loads, where each take starts, its level, and
// which sound each key plays.
#include "TobrinKit/Engine/OfflineRenderer.h"
#include "TobrinKit/Engine/Voicing.h"
#include "TobrinKit/Input/LinuxKeyCode.h"
#include "TobrinKit/Packs/Import/PackImporter.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/StagedPackFolder.h"

#include "Support/CommunityPacks.h"
#include "Support/IndependentReaders.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

namespace tobrin {
namespace {

using test::keyStroke;
using test::ogg;
using test::TemporaryFolder;
using test::writeMultiPack;
using test::writeSinglePack;
using test::writeSound;
using test::writeText;
using test::writeZippedPack;
using ::testing::Contains;
using ::testing::HasSubstr;

void writeVersion2Pack(const std::filesystem::path& folder) {
    for (int i = 0; i < 3; ++i) {
        writeSound(folder / ("press/G" + std::to_string(i) + ".ogg"), {keyStroke(10, 60, 800 + 200 * i, 48000)}, 48000,
                   ogg);
    }
    writeSound(folder / "release/U.ogg", {keyStroke(10, 40, 2000, 48000)}, 48000, ogg);
    writeSound(folder / "space.ogg", {keyStroke(10, 150, 300, 48000)}, 48000, ogg);
    writeSound(folder / "space-up.ogg", {keyStroke(10, 90, 350, 48000)}, 48000, ogg);
    writeText(folder / "config.json", R"({"version":2,"name":"Version Two","key_define_type":"multi",
        "sound":"press/G{0-2}.ogg","soundup":"release/U.ogg","defines":{"57":"space.ogg","57-up":"space-up.ogg"}})");
}

// Frames before the first sample within 20 dB of the file's peak, and the peak.
std::pair<std::size_t, float> onsetAndPeak(const test::SndfileContents& sound) {
    float peak = 0;
    for (float v : sound.floats) peak = std::max(peak, std::abs(v));
    std::size_t first = 0;
    while (first < sound.floats.size() && std::abs(sound.floats[first]) < 0.1f * peak) ++first;
    return {first / std::size_t(sound.channels), peak};
}

TEST(PackImporter, ImportsEveryVariantIntoAPackThatLoadsWithItsOnsetsTrimmed) {
    struct Case {
        std::string name;
        std::function<std::filesystem::path(const TemporaryFolder&)> write; // returns the source
        std::size_t minimumKeys;
        std::vector<std::string> groups;
        std::vector<std::string> withReleases;
        std::vector<std::string> skipped;
    };
    const Case cases[] = {
        {"single Ogg sprite",
         [](const TemporaryFolder& s) { return writeSinglePack(s / "src"), s / "src"; },
         4,
         {"alpha", "enter", "modifier", "space"},
         {"alpha"},
         {"key 14: segment starts after the end of the file", "key 2: no sound (null)", "cut at the end"}},
        {"multi MP3 files with odd names",
         [](const TemporaryFolder& s) { return writeMultiPack(s / "src"), s / "src"; },
         2,
         {"alpha", "space"},
         {},
         {"\"missing.mp3\": No such file or directory", "key 14: no sound (null)"}},
        {"version 2 with fallbacks and ranges",
         [](const TemporaryFolder& s) { return writeVersion2Pack(s / "src"), s / "src"; },
         100,
         {"alpha", "backspace", "enter", "modifier", "space"},
         {"alpha", "backspace", "enter", "modifier", "space"},
         {}},
        {"zipped sprite",
         [](const TemporaryFolder& s) { return writeZippedPack(s / "pack.zip", s / "zipped"), s / "pack.zip"; },
         4,
         {"alpha", "enter", "modifier", "space"},
         {"alpha"},
         {"cut at the end"}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        TemporaryFolder scratch;
        const auto result = PackImporter::import(test.write(scratch), scratch / "imported");

        EXPECT_GE(result.keys, test.minimumKeys);
        std::vector<std::string> groups, withReleases;
        for (const auto& [name, group] : result.manifest.groups) {
            groups.push_back(name);
            if (group.up) withReleases.push_back(name);
        }
        EXPECT_EQ(groups, test.groups);
        EXPECT_EQ(withReleases, test.withReleases);
        for (const std::string& line : test.skipped) EXPECT_THAT(result.skipped, Contains(HasSubstr(line)));

        const auto pack = LoadedPack::load(PackInfo::read(scratch / "imported", false), 48000);
        EXPECT_EQ(pack->info().kind, "Imported");
        EXPECT_EQ(pack->sampleCount(), result.files);
        const auto typed = OfflineRenderer::render(
            *pack, OfflineRenderer::typingScript("as we type", 90, 1, [](int, int) { return 1.0f; }), {}, 0.3, 48000);
        float loudest = 0;
        for (float v : typed.left) loudest = std::max(loudest, std::abs(v));
        EXPECT_GT(loudest, 0.05f) << "the typed text is silent";

        std::vector<float> alphaPeaks;
        for (const auto& entry : std::filesystem::directory_iterator(scratch / "imported")) {
            if (entry.path().extension() != ".wav") continue;
            const auto sound = test::readWithSndfile(entry.path());
            ASSERT_TRUE(sound);
            EXPECT_EQ(sound->sampleRate, 48000);
            const auto [onset, peak] = onsetAndPeak(*sound);
            EXPECT_LE(onset, 48u) << entry.path().filename() << ": the sound starts more than 1 ms in";
            EXPECT_LE(peak, PackImporter::peakCeiling + 0.01f);
        }
        const auto& alpha = result.manifest.groups.at("alpha").down.at("medium");
        for (const auto& file : alpha)
            alphaPeaks.push_back(onsetAndPeak(*test::readWithSndfile(scratch / "imported" / file)).second);
        std::sort(alphaPeaks.begin(), alphaPeaks.end());
        EXPECT_NEAR(alphaPeaks[alphaPeaks.size() / 2], PackImporter::referencePeak, 0.03);
    }
}

TEST(PackImporter, EachKeyPlaysItsOwnPressAndReleaseWhenItsSoundIsItsOwn) {
    TemporaryFolder scratch;
    const std::uint32_t letters[] = {30, 48, 46, 32, 18, 33, 34, 35, 23, 36, 37, 38, 50,
                                     49, 24, 25, 16, 19, 31, 20, 22, 47, 17, 45, 21, 44};
    std::string defines;
    // Each key's sounds have a length of their own: 40 + 2i ms, releases 100 + 2i ms.
    for (std::size_t i = 0; i < std::size(letters); ++i) {
        const std::string key = std::to_string(letters[i]);
        writeSound(scratch / "src" / (key + ".wav"), {keyStroke(10, 40 + 2.0 * double(i), 900, 48000)}, 48000);
        writeSound(scratch / "src" / (key + "u.wav"), {keyStroke(10, 100 + 2.0 * double(i), 900, 48000)}, 48000);
        defines += (i ? "," : "") + ("\"" + key + "\":\"" + key + ".wav\",\"" + key + "-up\":\"" + key + "u.wav\"");
    }
    writeText(scratch / "src" / "config.json", R"({"name":"Own","key_define_type":"multi","includes_numpad":false,
        "sound":"","defines":{)" + defines + "}}");
    const auto result = PackImporter::import(scratch / "src", scratch / "own");
    EXPECT_EQ(result.keysOnOwnSound, std::size(letters));
    const auto& group = result.manifest.groups.at("alpha");
    const auto& presses = group.down.at("medium");
    ASSERT_TRUE(group.up);
    ASSERT_EQ(group.up->size(), presses.size());

    const auto lengthMs = [&](const std::string& file) {
        return double(test::readWithSndfile(scratch / "own" / file)->frames) / 48.0;
    };
    for (std::size_t i = 0; i < std::size(letters); ++i) {
        const std::size_t slot = Voicing::variant(LinuxKeyCode::toKeyCode(std::uint16_t(letters[i])), presses.size());
        EXPECT_NEAR(lengthMs(presses[slot]), 40 + 2.0 * double(i), 0.5) << "key " << letters[i];
        EXPECT_NEAR(lengthMs((*group.up)[slot]), 100 + 2.0 * double(i), 0.5) << "key " << letters[i];
    }
}

TEST(PackImporter, ReplacesOnlyAPackItImported) {
    TemporaryFolder scratch;
    writeMultiPack(scratch / "src");
    PackImporter::import(scratch / "src", scratch / "packs" / "multi");
    EXPECT_TRUE(PackImporter::isImportedPack(scratch / "packs" / "multi"));
    EXPECT_NO_THROW(PackImporter::import(scratch / "src", scratch / "packs" / "multi"));

    writeText(scratch / "packs" / "mine" / "notes.txt", "keep me");
    EXPECT_THROW(PackImporter::import(scratch / "src", scratch / "packs" / "mine"), StagedPackFolder::Refused);
    EXPECT_EQ(test::readFile(scratch / "packs" / "mine" / "notes.txt"), "keep me");
    PackImporter::import(scratch / "src", scratch / "packs" / "mine", PackImporter::Overwrite::anything);
    EXPECT_FALSE(std::filesystem::exists(scratch / "packs" / "mine" / "notes.txt"));
}

TEST(PackImporter, RefusesWhatItCannotImportWithTheReason) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "no readable config.json"},
        {R"({"version":3,"name":"P","key_define_type":"single","sound":"s","defines":{}})",
         "unsupported \"version\" 3"},
        {R"({"name":"P","key_define_type":"multi","includes_numpad":false,"sound":"",
            "defines":{"30":"../../etc/passwd"}})",
         "no key has a usable sound (\"../../etc/passwd\": path leads out of the pack)"},
    };
    for (const auto& [config, reason] : cases) {
        TemporaryFolder scratch;
        std::filesystem::create_directories(scratch / "src");
        if (!config.empty()) writeText(scratch / "src" / "config.json", config);
        EXPECT_THAT(test::errorOf<PackImporter::Error>([&] { PackImporter::import(scratch / "src", scratch / "out"); }),
                    HasSubstr(reason));
        EXPECT_FALSE(std::filesystem::exists(scratch / "out"));
    }
}

} // namespace
} // namespace tobrin
