// The builder end to end: Ogg previews made with ffmpeg, fetched through
// file:// URLs, converted by the real ffmpeg, sliced, written, levelled and
// loaded; and its failures.
#include "TobrinKit/Building/Recorded/RecordedPackBuilder.h"

#include "Support/CommunityPacks.h"
#include "Support/Environment.h"
#include "Support/IndependentReaders.h"
#include "Support/SoundFiles.h"
#include "Support/TypingRecordings.h"
#include "TobrinKit/Packs/PackError.h"
#include "TobrinKit/Packs/PackInfo.h"
#include "TobrinKit/Packs/StagedPackFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <unistd.h>

namespace tobrin {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace ::testing;

// Three previews, made once: two typing recordings (one at 44.1 kHz) and one
// of the space bar alone, which the recipes use for Enter.
class RecordedPackBuilderTest : public ::testing::Test {
protected:
    static fs::path previews() { return fs::path(TOBRIN_TEST_BINARY_DIR) / "recorded-previews"; }

    // ctest runs each case as a process of its own, at the same time as
    // others: each renders the previews into a folder of its own and the
    // first to finish puts it in place.
    static void SetUpTestSuite() {
        if (fs::exists(previews() / "done")) return;
        const fs::path own = previews().string() + ".making-" + std::to_string(::getpid());
        fs::create_directories(own);
        const auto pack = LoadedPack::load(PackInfo::read(fs::path(TOBRIN_BUILT_IN_PACKS_DIR) / "cream", true), 48000);
        test::TypingRecordingOptions typing;
        typing.keys = 60;
        typing.spaceEvery = 8;
        test::writeOggRecording(test::renderTypingRecording(*pack, 48000, typing), own / "101.ogg", 48000);
        typing.seed = 9;
        test::writeOggRecording(test::renderTypingRecording(*pack, 48000, typing), own / "102.ogg", 44100);
        test::TypingRecordingOptions spaces;
        spaces.keys = 30;
        spaces.spaceEvery = 1;
        test::writeOggRecording(test::renderTypingRecording(*pack, 48000, spaces), own / "103.ogg", 48000);
        test::writeText(own / "done", "");
        std::error_code placed;
        fs::rename(own, previews(), placed);
        if (placed) fs::remove_all(own); // another process was first
    }

    static json source(int id, const fs::path& file) {
        return {{"freesoundID", id},
                {"user", id == 102 ? "alice" : "bob"},
                {"title", "Typing " + std::to_string(id)},
                {"license", "CC0"},
                {"previewURL", "file://" + file.string()}};
    }

    // A recipe over copies of the previews in the scratch folder, so a test
    // may remove them.
    json recipe() {
        for (int id : {101, 102, 103}) {
            fs::copy_file(previews() / (std::to_string(id) + ".ogg"), scratch / (std::to_string(id) + ".ogg"),
                          fs::copy_options::overwrite_existing);
        }
        return {{"id", "desk"},
                {"name", "Desk"},
                {"kind", "Recorded"},
                {"summary", "A desk."},
                {"sources", {source(101, scratch / "101.ogg"), source(102, scratch / "102.ogg")}},
                {"enterSources", {source(103, scratch / "103.ogg"), source(101, scratch / "101.ogg")}}};
    }

    std::vector<std::string> build(const json& document) {
        std::vector<std::string> lines;
        RecordedPackBuilder::build(PackRecipe::decode(document.dump()), scratch / "cache", scratch / "packs" / "desk",
                                   [&](const std::string& line) { lines.push_back(line); });
        return lines;
    }

    test::TemporaryFolder scratch;
};

TEST_F(RecordedPackBuilderTest, BuildsALevelledPackThatLoadsAndRebuildsFromTheCache) {
    const json document = recipe();
    const auto lines = build(document);
    const fs::path pack = scratch / "packs" / "desk";
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(lines.back().starts_with("    wrote ") && lines.back().ends_with(" takes to desk/  (-28.0 LUFS)"))
        << lines.back();
    EXPECT_THAT(lines, Contains(HasSubstr("downloading file://")));
    EXPECT_THAT(lines, Contains(HasSubstr("converting 102.ogg")));

    const auto loaded = LoadedPack::load(PackInfo::read(pack, false), 48000);
    const PackManifest& manifest = loaded->manifest();
    EXPECT_EQ(manifest.author, "alice, bob");
    for (const char* group : {"alpha", "space", "backspace", "enter"})
        EXPECT_TRUE(manifest.groups.contains(group)) << group;
    EXPECT_EQ(manifest.groups.at("alpha").down.at("medium").front(), "key-medium-1.wav");
    EXPECT_EQ(manifest.groups.at("space").down.begin()->second.front().substr(0, 5), "wide-");
    EXPECT_EQ(manifest.groups.at("enter").down.at("soft").front(), "enter-1.wav"); // numbered in tier order
    EXPECT_EQ(manifest.groups.at("alpha").up->front(), "up-1.wav");
    // Each recording is credited once, 101 although Enter lists it again.
    EXPECT_EQ(manifest.license, "Recordings: \"Typing 101\" by bob, https://freesound.org/s/101/ (CC0); \"Typing 102\" "
                                "by alice, https://freesound.org/s/102/ (CC0); \"Typing 103\" by bob, "
                                "https://freesound.org/s/103/ (CC0). Sliced and leveled for Tobrin.");
    EXPECT_NEAR(RecordedPackBuilder::demoLoudness(pack), RecordedPackBuilder::targetLoudness, 0.2);
    const auto take = test::readWithSndfile(pack / "key-medium-1.wav");
    ASSERT_TRUE(take);
    EXPECT_EQ(take->sampleRate, 48000);
    EXPECT_EQ(take->format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);

    // A source's start and end cut the recording; without them it is whole.
    auto part = PackRecipe::decode(document.dump()).sources[0];
    const auto whole = RecordedPackBuilder::load(part, scratch / "cache");
    EXPECT_EQ(whole.frames(), std::size_t(test::readWithSndfile(scratch / "cache" / "101.wav")->frames));
    part.start = 1.0;
    part.end = 3.5;
    EXPECT_EQ(RecordedPackBuilder::load(part, scratch / "cache").frames(), 120000u);

    // Without the previews the cache serves: no download, no conversion, and
    // the same pack.
    for (int id : {101, 102, 103}) fs::remove(scratch / (std::to_string(id) + ".ogg"));
    const std::string before = test::readFile(pack / "pack.json");
    const auto again = build(document);
    EXPECT_THAT(again, Each(Not(AnyOf(HasSubstr("downloading"), HasSubstr("converting")))));
    EXPECT_EQ(test::readFile(pack / "pack.json"), before);
}

// Each failure names what failed, leaves the cache and the previous pack as
// they were, and presents no half-built pack.
TEST_F(RecordedPackBuilderTest, FailuresNameTheirCauseAndKeepCacheAndPack) {
    const json good = recipe();
    test::writeText(scratch / "packs" / "desk" / "pack.json", "{}"); // the user's, in the way
    test::writeText(scratch / "text.ogg", "this is not a recording\n");
    struct Case {
        const char* name;
        std::function<void(json&)> change;
        const char* path; // PATH while building (empty: as it is)
        std::string message;
    };
    const std::vector<Case> cases{
        {"missing preview",
         [&](json& r) { r["sources"][1]["previewURL"] = "file://" + (scratch / "gone.ogg").string(); }, "",
         "cannot download file://" + (scratch / "gone.ogg").string()},
        {"not audio", [&](json& r) { r["sources"][1] = source(104, scratch / "text.ogg"); }, "",
         "Can't read text.ogg: ffmpeg failed (is ffmpeg installed?)"},
        {"no ffmpeg", [](json&) {}, "/nonexistent", "Can't read 102.ogg: ffmpeg failed (is ffmpeg installed?)"},
    };
    // Run in order on one cache: 101 is fetched by the first and reused after.
    for (const Case& c : cases) {
        json document = good;
        c.change(document);
        test::Environment environment;
        if (*c.path) environment.set("PATH", c.path);
        EXPECT_THAT(test::errorOf([&] { build(document); }), HasSubstr(c.message)) << c.name;
        EXPECT_TRUE(fs::exists(scratch / "cache" / "101.wav")) << c.name; // the cache stays
        EXPECT_EQ(test::readFile(scratch / "packs" / "desk" / "pack.json"), "{}") << c.name;
    }
    EXPECT_TRUE(fs::exists(scratch / "cache" / "102.ogg")); // downloaded before ffmpeg was missed
    // A folder that is not a build of this recipe is refused, and stays.
    EXPECT_THROW(build(good), StagedPackFolder::Refused);
    EXPECT_EQ(test::readFile(scratch / "packs" / "desk" / "pack.json"), "{}");
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch / "packs"), {}), 1); // no staging folder left behind
}

} // namespace
} // namespace tobrin
