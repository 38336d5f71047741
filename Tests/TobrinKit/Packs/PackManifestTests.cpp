#include "TobrinKit/Packs/PackError.h"
#include "TobrinKit/Packs/PackInfo.h"
#include "TobrinKit/Packs/PackManifest.h"

#include "Support/ChildProcess.h"
#include "Support/SoundFiles.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <filesystem>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {
namespace {

using test::TemporaryFolder;

constexpr const char* minimal = R"({"formatVersion": 1, "id": "p", "name": "P", "kind": "synth", "groups": {}})";

std::string withGroups(const std::string& groups) {
    return R"({"formatVersion": 1, "id": "p", "name": "P", "kind": "k", "groups": )" + groups + "}";
}

// Every decode failure's message, so a test can check it names the right key.
std::string decodeError(const std::string& text) {
    return test::errorOf<PackManifest::DecodeError>([&] { PackManifest::decode(text); });
}

TEST(PackManifest, DecodesRequiredKeysAndLeavesOptionalOnesAbsent) {
    const PackManifest manifest = PackManifest::decode(minimal);
    PackManifest expected; // version 1, no optional texts, no groups
    expected.id = "p";
    expected.name = "P";
    expected.kind = "synth";
    EXPECT_EQ(manifest, expected);

    EXPECT_EQ(nlohmann::json::parse(manifest.encode()), nlohmann::json::parse(minimal));
}

TEST(PackManifest, DecodesGroupsTiersAndOptionalTextsAsWritten) {
    const PackManifest manifest = PackManifest::decode(R"({
        "formatVersion": 2, "id": "p", "name": "P", "kind": "k",
        "summary": "Warm", "author": null, "license": "CC0", "extra": [1, 2],
        "groups": {
            "alpha": {"down": {"Soft": ["a/1.wav", "a/2.wav"], "loud": ["x.wav"], "hard": []},
                      "up": ["u.wav"], "comment": "ignored"},
            "thumb": {"down": {}}
        }})");
    EXPECT_EQ(manifest.formatVersion, 2);
    EXPECT_EQ(manifest.summary, "Warm");
    EXPECT_FALSE(manifest.author);
    EXPECT_EQ(manifest.license, "CC0");
    ASSERT_EQ(manifest.groups.size(), 2u);
    const auto& alpha = manifest.groups.at("alpha");
    EXPECT_EQ(alpha.down.at("Soft"), (std::vector<std::string>{"a/1.wav", "a/2.wav"}));
    EXPECT_EQ(alpha.down.at("loud"), (std::vector<std::string>{"x.wav"}));
    EXPECT_TRUE(alpha.down.at("hard").empty());
    EXPECT_EQ(alpha.up, (std::vector<std::string>{"u.wav"}));
    EXPECT_FALSE(manifest.groups.at("thumb").up);
}

TEST(PackManifest, RejectsMissingKeysAndWrongTypesNamingTheKey) {
    struct Case {
        std::string text;
        std::string message;
    };
    const Case cases[] = {
        {R"({"id": "p", "name": "P", "kind": "k", "groups": {}})", R"(key "formatVersion" is missing)"},
        {R"({"formatVersion": "1", "id": "p", "name": "P", "kind": "k", "groups": {}})",
         R"("formatVersion" must be an integer, not string)"},
        {R"({"formatVersion": 1.5, "id": "p", "name": "P", "kind": "k", "groups": {}})",
         R"("formatVersion" must be an integer, not a fraction)"},
        {R"({"formatVersion": 1, "id": null, "name": "P", "kind": "k", "groups": {}})", R"(key "id" is missing)"},
        {R"({"formatVersion": 1, "id": "p", "name": 3, "kind": "k", "groups": {}})",
         R"("name" must be a string, not number)"},
        {R"({"formatVersion": 1, "id": "p", "name": "P", "groups": {}})", R"(key "kind" is missing)"},
        {R"({"formatVersion": 1, "id": "p", "name": "P", "kind": "k", "summary": 1, "groups": {}})",
         R"("summary" must be a string, not number)"},
        {R"({"formatVersion": 1, "id": "p", "name": "P", "kind": "k"})", R"(key "groups" is missing)"},
        {withGroups("[]"), R"("groups" must be an object, not array)"},
        {withGroups(R"({"alpha": {"up": []}})"), R"(key "groups.alpha.down" is missing)"},
        {withGroups(R"({"alpha": []})"), R"("groups.alpha" must be an object, not array)"},
        {withGroups(R"({"alpha": {"down": {"soft": "a.wav"}}})"),
         R"("groups.alpha.down.soft" must be an array of strings, not string)"},
        {withGroups(R"({"alpha": {"down": {"soft": ["a.wav", 7]}}})"),
         R"("groups.alpha.down.soft[1]" must be a string, not number)"},
        {withGroups(R"({"alpha": {"down": {}, "up": [null]}})"), R"("groups.alpha.up[0]" must be a string, not null)"},
        {"[1, 2]", "the manifest must be a JSON object, not array"},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(decodeError(test.text), test.message) << test.text;
    }
    const std::string syntax = decodeError(R"({"formatVersion": 1,)");
    EXPECT_TRUE(syntax.starts_with("parse error at line 1")) << syntax;
    EXPECT_EQ(decodeError(withGroups(R"({"alpha": {"down": {}, "up": null}})")), "(no error)");
}

// A JSON list of `count` copies of one path, and an object of `count` keys.
std::string pathList(std::size_t count) {
    std::string list = "[";
    for (std::size_t i = 0; i < count; ++i) list += i == 0 ? "\"a.wav\"" : ",\"a.wav\"";
    return list + "]";
}
std::string objectOf(std::size_t count, const std::string& value) {
    std::string object = "{";
    for (std::size_t i = 0; i < count; ++i) object += (i == 0 ? "\"k" : ",\"k") + std::to_string(i) + "\":" + value;
    return object + "}";
}

// Each bound is accepted exactly and refused one over, before the text is
// turned into a manifest.
TEST(PackManifest, RefusesManifestsBeyondItsSizeAndCountBounds) {
    const std::string group = R"({"down": {"soft": ["a.wav"]}})";
    const std::string padded =
        std::string(minimal) + std::string(PackManifest::maxFileBytes - std::strlen(minimal), ' ');
    struct Case {
        std::string text;
        std::string error; // empty: decodes
    };
    const Case cases[] = {
        {withGroups(objectOf(PackManifest::maxGroups, group)), ""},
        {withGroups(objectOf(PackManifest::maxGroups + 1, group)), "\"groups\" has more than 32 entries"},
        {withGroups(R"({"alpha": {"down": )" + objectOf(PackManifest::maxTiersPerGroup, "[]") + "}}"), ""},
        {withGroups(R"({"alpha": {"down": )" + objectOf(PackManifest::maxTiersPerGroup + 1, "[]") + "}}"),
         "\"groups.alpha.down\" has more than 16 entries"},
        {withGroups(R"({"alpha": {"down": {"soft": )" + pathList(PackManifest::maxTakesPerList) + "}}}"), ""},
        {withGroups(R"({"alpha": {"down": {"soft": )" + pathList(PackManifest::maxTakesPerList + 1) + "}}}"),
         "\"groups.alpha.down.soft\" lists more than 1024 files"},
        {withGroups(R"({"alpha": {"down": {}, "up": )" + pathList(PackManifest::maxTakesPerList + 1) + "}}"),
         "\"groups.alpha.up\" lists more than 1024 files"},
        {padded, ""},
        {padded + " ", "the manifest is larger than 1 MiB"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.text.substr(0, 120));
        EXPECT_EQ(decodeError(test.text), test.error.empty() ? "(no error)" : test.error);
    }
}

TEST(PackManifest, AcceptsAnyIntegerVersionIncludingOnesWrittenWithAFraction) {
    auto withVersion = [](const std::string& version) {
        return R"({"formatVersion": )" + version + R"(, "id": "p", "name": "P", "kind": "k", "groups": {}})";
    };
    const std::pair<const char*, std::int64_t> accepted[] = {
        {"0", 0}, {"2", 2}, {"-7", -7}, {"1.0", 1}, {"9007199254740993", 9007199254740993LL}};
    for (const auto& [text, value] : accepted) {
        EXPECT_EQ(PackManifest::decode(withVersion(text)).formatVersion, value) << text;
    }
    EXPECT_EQ(decodeError(withVersion("9223372036854775808")), R"("formatVersion" is out of range)");
    EXPECT_EQ(decodeError(withVersion("1e300")), R"("formatVersion" is out of range)");
}

TEST(PackManifest, EncodesPrettySortedWithSlashesAsTheyStand) {
    PackManifest manifest;
    manifest.id = "synth-red";
    manifest.name = "Red";
    manifest.kind = "synthesized";
    manifest.license = "CC0 1.0";
    manifest.groups["alpha"].down["medium"] = {"alpha/medium-1.wav", "alpha/medium-2.wav"};

    const std::string text = manifest.encode();
    const std::string expected = R"({
  "formatVersion": 1,
  "groups": {
    "alpha": {
      "down": {
        "medium": [
          "alpha/medium-1.wav",
          "alpha/medium-2.wav"
        ]
      }
    }
  },
  "id": "synth-red",
  "kind": "synthesized",
  "license": "CC0 1.0",
  "name": "Red"
}
)";
    EXPECT_EQ(text, expected);
    EXPECT_EQ(PackManifest::decode(text), manifest);
}

TEST(PackInfo, TellsAMissingManifestFromAnUnreadableOneAndAnInvalidOne) {
    TemporaryFolder folder;
    auto describe = [](const std::filesystem::path& directory) {
        return test::errorOf<PackError>([&] { PackInfo::read(directory, false); });
    };
    const auto unreadable = [&](const char* name, const char* reason) {
        return "Can't read " + (folder / name / "pack.json").string() + ": " + reason;
    };
    EXPECT_EQ(describe(folder / "nothing"), "No pack.json in " + (folder / "nothing").string());
    std::filesystem::create_directories(folder / "fifo");
    ASSERT_EQ(::mkfifo((folder / "fifo" / "pack.json").c_str(), 0600), 0);
    EXPECT_EQ(describe(folder / "fifo"), unreadable("fifo", "not a regular file"));
    std::filesystem::create_directories(folder / "folder" / "pack.json");
    EXPECT_EQ(describe(folder / "folder"), unreadable("folder", "Is a directory"));

    // Without read permission; root reads anything, so then a child reads as another user.
    const bool root = ::geteuid() == 0;
    test::writeText(folder / "locked" / "pack.json", minimal);
    ASSERT_EQ(::chmod((folder / "locked" / "pack.json").c_str(), root ? 0600 : 0), 0);
    test::ChildProcess other([&](const auto&) {
        if (root && ::setuid(test::userWithoutAccount) != 0) return 2;
        return describe(folder / "locked") == unreadable("locked", "Permission denied") ? 0 : 1;
    });
    EXPECT_EQ(other.wait(), 0);

    test::writeText(folder / "bad" / "pack.json", R"({"formatVersion": 1})");
    EXPECT_EQ(describe(folder / "bad"), "Invalid pack.json: key \"id\" is missing");
}

// The loading tests read every other message as the user sees it; these two
// paths are ones a loaded pack never takes.
TEST(PackError, NamesTheFullPathOfARelativeFolderAndThePackOfATrailingSlash) {
    const PackError error = PackError::missingManifest("MyPack");
    const std::string expected = "No pack.json in " + (std::filesystem::current_path() / "MyPack").string();
    EXPECT_EQ(error.description(), expected);
    EXPECT_EQ(std::string(error.what()), expected);
    EXPECT_EQ(error.kind(), PackError::Kind::missingManifest);
    EXPECT_EQ(error.url(), std::filesystem::path("MyPack"));
    EXPECT_STREQ(PackError::invalidManifest("/packs/MyPack/", "pack is too large").what(),
                 "Invalid MyPack: pack is too large");
}

} // namespace
} // namespace tobrin
