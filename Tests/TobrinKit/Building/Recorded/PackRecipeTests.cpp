// Recipes: decoding with errors that name the field, the slicer's options,
// and the attribution texts.
#include "TobrinKit/Building/Recorded/PackRecipe.h"

#include "Support/SoundFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tobrin {
namespace {

using nlohmann::json;

json source(int id) {
    return {{"freesoundID", id},
            {"user", "user" + std::to_string(id)},
            {"title", "Typing " + std::to_string(id)},
            {"license", "CC0"},
            {"previewURL", "https://example.org/" + std::to_string(id) + ".ogg"}};
}

json recipe() {
    return {{"id", "desk"}, {"name", "Desk"}, {"kind", "Recorded"}, {"summary", "A desk."}, {"sources", {source(1)}}};
}

TEST(PackRecipe, BadRecipesNameTheField) {
    struct Case {
        const char* pointer; // the JSON pointer changed
        json value;          // null removes the key
        const char* message;
    };
    for (const Case& c : std::vector<Case>{
             {"/name", nullptr, "\"name\" is missing"},
             {"/summary", 3, "\"summary\" must be a string, not number"},
             {"/sources", json::array(), "\"sources\" lists no recordings"},
             {"/sources", "x", "\"sources\" must be an array of sources, not string"},
             {"/sources/0/previewURL", nullptr, "\"sources[0].previewURL\" is missing"},
             {"/sources/0/freesoundID", 1.5, "\"sources[0].freesoundID\" must be an integer, not a fraction"},
             {"/sources/0/freesoundID", "12", "\"sources[0].freesoundID\" must be an integer, not string"},
             {"/sources/0/end", -1, "\"sources[0].end\" must lie between 0 and 86400"},
             {"/enterSources", {{{"freesoundID", 2}}}, "\"enterSources[0].user\" is missing"},
             {"/options", {{"alphaVariants", 0}}, "\"options.alphaVariants\" must lie between 1 and 256"},
             {"/options", {{"noReleases", 1}}, "\"options.noReleases\" must be true or false, not number"},
             {"/options", {{"mergeWithinMs", "25"}}, "\"options.mergeWithinMs\" must be a number, not string"},
             {"/id", "../elsewhere", "\"id\" must not start with a dot"},
             {"/id", "a/b", "\"id\" must not contain \"/\""},
         }) {
        json document = recipe();
        const json::json_pointer pointer(c.pointer);
        if (c.value.is_null()) {
            document.at(pointer.parent_pointer()).erase(pointer.back());
        } else {
            document[pointer] = c.value;
        }
        EXPECT_THAT(test::errorOf<PackRecipe::DecodeError>([&] { PackRecipe::decode(document.dump()); }),
                    ::testing::HasSubstr(c.message))
            << c.pointer;
    }
    EXPECT_THROW(PackRecipe::decode("[1]"), PackRecipe::DecodeError);
    EXPECT_THROW(PackRecipe::decode("{\"id\":"), PackRecipe::DecodeError);
}

TEST(PackRecipe, OptionsFallBackKeyByKeyAndRoundTrip) {
    json document = recipe();
    const PackRecipe without = PackRecipe::decode(document.dump());
    EXPECT_FALSE(without.options);
    EXPECT_FALSE(without.sources[0].start || without.sources[0].end);
    document["options"] = json::object();
    EXPECT_EQ(PackRecipe::decode(document.dump()).options, RecordingSlicer::Options());

    document["options"] = {{"alphaVariants", 8}, {"unknown", true}};
    RecordingSlicer::Options expected;
    expected.alphaVariants = 8;
    EXPECT_EQ(PackRecipe::decode(document.dump()).options, expected);
    EXPECT_EQ(PackRecipe::decodeOptions(R"({"gainDb": -3.5})").gainDb, -3.5);

    // All thirteen option keys are written; the recipe reads back equal.
    document["enterSources"] = {source(2)};
    document["sources"][0]["start"] = 1.25;
    const PackRecipe decoded = PackRecipe::decode(document.dump());
    EXPECT_EQ(json::parse(decoded.encode())["options"].size(), 13u);
    EXPECT_EQ(PackRecipe::decode(decoded.encode()), decoded);
}

TEST(PackRecipe, CreditsEachRecordingOnceInOrder) {
    json document = recipe();
    document["sources"] = {source(1), source(2), source(1)};
    document["enterSources"] = {source(3), source(2)};
    const PackRecipe decoded = PackRecipe::decode(document.dump());
    std::vector<std::int64_t> credited;
    for (const auto& s : decoded.credits()) credited.push_back(s.freesoundID);
    EXPECT_EQ(credited, (std::vector<std::int64_t>{1, 2, 3}));

    EXPECT_EQ(decoded.sources[0].pageURL("https://site.example"), "https://site.example/s/1/");
    EXPECT_EQ(decoded.sources[0].creditLine(), "\"Typing 1\" by user1, https://freesound.org/s/1/ (CC0)");
    document["enterSources"] = {source(1)};
    document["sources"] = {source(1), source(2)};
    EXPECT_EQ(PackRecipe::decode(document.dump()).licenseText("https://s"),
              "Recordings: \"Typing 1\" by user1, https://s/s/1/ (CC0); \"Typing 2\" by user2, https://s/s/2/ (CC0). "
              "Sliced and leveled for Tobrin.");
}

} // namespace
} // namespace tobrin
