#include "TobrinKit/Packs/PackError.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace tobrin {
namespace {

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
