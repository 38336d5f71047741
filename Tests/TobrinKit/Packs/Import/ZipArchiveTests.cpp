// Unpacking zips that try to write outside their destination or to blow up.
#include "TobrinKit/Packs/Import/ZipArchive.h"

#include "Support/CommunityPacks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tobrin {
namespace {

using test::TemporaryFolder;
using test::ZipEntry;
using Type = ZipEntry::Type;

TEST(ZipArchive, HostileEntriesWriteNothingOutsideTheDestination) {
    TemporaryFolder scratch;
    const std::filesystem::path outside = scratch / "outside";
    std::filesystem::create_directories(outside);
    test::writeZip(scratch / "evil.zip", {
                                             {"pack/config.json", "{}"},
                                             {"../escaped.txt", "x"},
                                             {"pack/../../escaped2.txt", "x"},
                                             {"pack\\..\\..\\escaped3.txt", "x"},
                                             {(outside / "absolute.txt").string(), "x"},
                                             {"C:/drive.txt", "x"},
                                             {"pack/link", outside.string(), Type::symlink},
                                             {"pack/link/through.txt", "x"},
                                             {"pack/sound.ogg", "audio"},
                                         });
    std::filesystem::create_directories(scratch / "dest");
    const auto result = ZipArchive::extract(scratch / "evil.zip", scratch / "dest", {});

    EXPECT_EQ(result.pack, scratch / "dest" / "pack");
    EXPECT_EQ(test::treeOf(scratch / "dest"),
              (std::map<std::string, std::string>{
                  {"pack/config.json", "{}"}, {"pack/link/through.txt", "x"}, {"pack/sound.ogg", "audio"}}));
    EXPECT_TRUE(test::treeOf(outside).empty());
    EXPECT_EQ(test::treeOf(scratch.path()).size(), 4u); // those three and the zip, nothing beside
    EXPECT_EQ(result.skipped.size(), 6u);
}

TEST(ZipArchive, StopsAtTheBudgetWhateverTheEntriesClaim) {
    const ZipArchive::Budget budget{.maxEntries = 8, .maxFileBytes = 1 << 20, .maxTotalBytes = 2 << 20};
    struct Case {
        std::vector<ZipEntry> entries;
        std::string error;
    };
    const std::string big(3 << 20, '\0'); // deflates to a few KiB
    const std::string part(768 << 10, '\0');
    const Case cases[] = {
        {{{"config.json", "{}"}, {"bomb.bin", big}}, "bomb.bin unpacks to more than 1 MiB"},
        {{{"config.json", "{}"}, {"a", part}, {"b", part}, {"c", part}}, "the archive unpacks to more than 2 MiB"},
        {std::vector<ZipEntry>(9, ZipEntry{"config.json", "{}"}), "more than 8 entries"},
        {{{"readme.txt", "no pack"}}, "no config.json in the archive"},
    };
    for (const Case& test : cases) {
        TemporaryFolder scratch;
        test::writeZip(scratch / "a.zip", test.entries);
        std::filesystem::create_directories(scratch / "dest");
        EXPECT_THAT(
            test::errorOf<ZipArchive::Error>([&] { ZipArchive::extract(scratch / "a.zip", scratch / "dest", budget); }),
            ::testing::HasSubstr(test.error));
    }
    const unsigned char notZip[] = "PK but not a zip";
    EXPECT_THROW(ZipArchive::extract(notZip, "/nonexistent", budget), ZipArchive::Error);
}

TEST(ZipArchive, SafeNamesAreRelativePathsWithoutParentSteps) {
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"pack/a.ogg", "pack/a.ogg"},
        {"./pack//a.ogg", "pack/a.ogg"},
        {"pack\\a b.ogg", "pack/a b.ogg"},
        {"a..b.ogg", "a..b.ogg"},
        {"../a", std::nullopt},
        {"a/../../b", std::nullopt},
        {"/etc/passwd", std::nullopt},
        {"\\x", std::nullopt},
        {"C:x", std::nullopt},
        {"", std::nullopt},
        {"./", std::nullopt},
        {"a/b/", "a/b"},
    };
    for (const auto& [name, expected] : cases) EXPECT_EQ(ZipArchive::safeName(name), expected) << name;
    std::string deep;
    for (int i = 0; i < 33; ++i) deep += "d/";
    EXPECT_EQ(ZipArchive::safeName(deep), std::nullopt);
}

} // namespace
} // namespace tobrin
