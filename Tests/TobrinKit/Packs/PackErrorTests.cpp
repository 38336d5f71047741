#include "TobrinKit/Packs/PackError.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace tobrin {
namespace {

TEST(PackError, DescriptionsReadAsTheUserSeesThem) {
    struct Case {
        PackError error;
        std::string expected;
    };
    const Case cases[] = {
        {PackError::missingManifest("/home/ada/.local/share/Tobrin/Packs/MyPack"),
         "No pack.json in /home/ada/.local/share/Tobrin/Packs/MyPack"},
        {PackError::unreadableManifest("/packs/MyPack/pack.json", "Permission denied"),
         "Can't read /packs/MyPack/pack.json: Permission denied"},
        {PackError::invalidManifest("/packs/MyPack", "path escapes pack: a/../b.wav"),
         "Invalid MyPack: path escapes pack: a/../b.wav"},
        {PackError::invalidManifest("/packs/MyPack/", "pack is too large"), "Invalid MyPack: pack is too large"},
        {PackError::invalidManifest("/packs/MyPack/pack.json", "key \"id\" is missing"),
         "Invalid pack.json: key \"id\" is missing"},
        {PackError::decode("/packs/MyPack/alpha/soft-1.wav", "unsupported format"),
         "Can't read soft-1.wav: unsupported format"},
        {PackError::empty("cherry-blue"), "Pack cherry-blue has no usable sounds"},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(test.error.description(), test.expected);
        EXPECT_EQ(std::string(test.error.what()), test.expected);
    }
}

TEST(PackError, MissingManifestNamesTheFullPathEvenWhenGivenARelativeOne) {
    const PackError error = PackError::missingManifest("MyPack");
    const std::string expected = "No pack.json in " + (std::filesystem::current_path() / "MyPack").string();
    EXPECT_EQ(error.description(), expected);
    EXPECT_EQ(error.kind(), PackError::Kind::missingManifest);
    EXPECT_EQ(error.url(), std::filesystem::path("MyPack"));
}

} // namespace
} // namespace tobrin
