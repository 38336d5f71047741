// tobrin-pack build and slice, run as a user would.
#include "Support/CommunityPacks.h"
#include "Support/PackTool.h"
#include "Support/TypingRecordings.h"

#include "TobrinKit/Packs/PackInfo.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tobrin {
namespace {

TEST(RecordedVerbs, BuildWritesAPackAndSliceListsTheHits) {
    test::TemporaryFolder scratch;
    const auto pack =
        LoadedPack::load(PackInfo::read(std::filesystem::path(TOBRIN_BUILT_IN_PACKS_DIR) / "panda", true), 48000);
    test::TypingRecordingOptions typing;
    typing.keys = 40;
    test::writeOggRecording(test::renderTypingRecording(*pack, 48000, typing), scratch / "7.ogg", 48000);
    nlohmann::json recipe{{"id", "desk"}, {"name", "Desk"}, {"kind", "Recorded"}, {"summary", "A desk."}};
    recipe["sources"] = {{{"freesoundID", 7},
                          {"user", "bob"},
                          {"title", "Typing"},
                          {"license", "CC0"},
                          {"previewURL", "file://" + (scratch / "7.ogg").string()}}};
    test::writeText(scratch / "desk.json", recipe.dump());
    const std::string places =
        " --cache " + test::quoted(scratch / "cache") + " --out " + test::quoted(scratch / "packs");

    const auto built = test::packTool("build " + test::quoted(scratch / "desk.json") + places);
    ASSERT_EQ(built.exitStatus, 0) << built.output;
    EXPECT_NE(built.output.find("    downloading file://"), std::string::npos) << built.output;
    EXPECT_NE(built.output.find(" takes to desk/  (-28.0 LUFS)\n"), std::string::npos) << built.output;
    EXPECT_TRUE(std::filesystem::exists(scratch / "packs" / "desk" / "pack.json"));

    recipe.erase("sources");
    test::writeText(scratch / "bad.json", recipe.dump());
    const auto bad = test::packTool("build " + test::quoted(scratch / "bad.json") + places);
    EXPECT_EQ(bad.exitStatus, 1);
    EXPECT_NE(bad.output.find("\"sources\" is missing"), std::string::npos) << bad.output;

    const auto listed = test::packTool("slice " + test::quoted(scratch / "cache" / "7.wav") + " --json");
    ASSERT_EQ(listed.exitStatus, 0) << listed.output;
    const auto document = nlohmann::json::parse(listed.output);
    EXPECT_GE(document["hits"].size(), 40u); // presses and releases
    EXPECT_TRUE(document["hits"][0]["onset"].is_number_unsigned());
    EXPECT_TRUE(document["report"].get<std::string>().ends_with(" dB"));
    const auto text =
        test::packTool("slice " + test::quoted(scratch / "cache" / "7.wav") + " --options '{\"noReleases\": true}'");
    EXPECT_NE(text.output.find(" 0 releases,"), std::string::npos) << text.output;
    EXPECT_EQ(test::packTool("slice " + test::quoted(scratch / "desk.json")).exitStatus, 1);
}

} // namespace
} // namespace tobrin
