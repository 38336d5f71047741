#include "TobrinKit/Packs/PackLibrary.h"
#include "TobrinKit/Packs/PackError.h"

#include "Support/Environment.h"
#include "Support/PackFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

namespace tobrin {
namespace {

using test::Environment;
using test::TemporaryFolder;

std::vector<std::string> names(const std::vector<PackInfo>& packs) {
    std::vector<std::string> result;
    for (const PackInfo& pack : packs) result.push_back(pack.name + (pack.isBundled ? " (built-in)" : ""));
    return result;
}

TEST(PackLibrary, NamesSortInTheCollationOfTheLocaleWithNumbersByValue) {
    Environment environment;
    environment.set("LC_ALL", "C");
    // Each name sorts strictly before the next: without a language (C), the
    // root collation, where accents and case come after the letters.
    const std::vector<std::string> ordered = {"",        "1",        "2",     "07",   "10",     "alpha",
                                              "Beta",    "Éclair",   "éclat", "Pack", "Pack 2", "Pack 3b",
                                              "pack 10", "Pack 10a", "zeta",  "\xff"};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            const int order = PackLibrary::compareNames(ordered[i], ordered[j]);
            const int expected = i < j ? -1 : i > j ? 1 : 0;
            EXPECT_EQ(order, expected) << '"' << ordered[i] << "\" vs \"" << ordered[j] << '"';
        }
    }
    // Names equal but for case or leading zeros still get one fixed order,
    // and any later real difference outweighs such an earlier one.
    for (auto [a, b] : {std::pair<std::string, std::string>{"Pack", "pack"}, {"x7", "x007"}, {"ÉCLAT", "éclat"}}) {
        EXPECT_NE(PackLibrary::compareNames(a, b), 0) << a;
        EXPECT_EQ(PackLibrary::compareNames(a, b), -PackLibrary::compareNames(b, a)) << a;
        EXPECT_EQ(PackLibrary::compareNames(a + "2", b + "1"), 1) << a;
        EXPECT_EQ(PackLibrary::compareNames(a + "1", b + "2"), -1) << a;
    }
}

// The locale comes from LC_ALL, else LC_COLLATE, else LANG, as for the C
// library: in Swedish "Ö" is a letter after "z", elsewhere an accented "O".
TEST(PackLibrary, NameOrderFollowsTheLocaleTheEnvironmentNames) {
    struct Case {
        std::optional<std::string> all, collate, lang;
        int order; // of "Öl" against "zeta"
    };
    const Case cases[] = {
        {std::nullopt, std::nullopt, std::nullopt, -1}, {std::nullopt, std::nullopt, "sv_SE.UTF-8", 1},
        {"C", std::nullopt, "sv_SE.UTF-8", -1},         {"", std::nullopt, "sv_SE.UTF-8", 1},
        {std::nullopt, "sv_SE.UTF-8", "POSIX", 1},      {"de_DE.UTF-8", "sv_SE.UTF-8", std::nullopt, -1},
    };
    for (const Case& test : cases) {
        Environment environment;
        environment.set("LC_ALL", test.all);
        environment.set("LC_COLLATE", test.collate);
        environment.set("LANG", test.lang);
        EXPECT_EQ(PackLibrary::compareNames("Öl", "zeta"), test.order)
            << test.all.value_or("-") << " " << test.collate.value_or("-") << " " << test.lang.value_or("-");
    }
}

TEST(PackLibrary, ListsOnlyPackFoldersDirectlyInsideTheFolder) {
    TemporaryFolder scratch;
    test::PackFolder one(scratch / "one", "one", "One");
    one.summary("about One");
    one.info();
    test::PackFolder(scratch / "two", "two", "Two").info();
    test::PackFolder(scratch / ".hidden", "hidden", "Hidden").info();
    test::PackFolder(scratch / "group" / "nested", "nested", "Nested").info();
    std::filesystem::create_directories(scratch / "empty");
    test::writeText(scratch / "broken" / "pack.json", R"({"formatVersion": 1, "id": "broken"})");
    test::writeText(scratch / "notes.txt", "a plain file");
    test::PackFolder(scratch / "elsewhere" / "linked", "linked", "Linked").info();
    std::filesystem::create_directory_symlink(scratch / "elsewhere" / "linked", scratch / "link");

    const auto packs = PackLibrary::discover(scratch.path(), true);
    ASSERT_EQ(names(packs), (std::vector<std::string>{"Linked (built-in)", "One (built-in)", "Two (built-in)"}));
    EXPECT_EQ(packs[1], (PackInfo{"one", "One", "test", "about One", scratch / "one", true}));
    EXPECT_EQ(packs[0].directory, scratch / "link");
    EXPECT_TRUE(PackLibrary::discover(scratch / "does-not-exist", false).empty());
    EXPECT_TRUE(PackLibrary::discover(scratch / "notes.txt", false).empty());
}

// A pack in the user's folder costs discovery no more than a small manifest:
// one far over the bound is refused from its size, unread and unparsed.
TEST(PackLibrary, LeavesOutAnOversizedManifestWithoutReadingIt) {
    TemporaryFolder scratch;
    test::PackFolder(scratch / "good", "good", "Good").info();
    test::PackFolder(scratch / "huge", "huge", "Huge").info();
    // Sparse: a gibibyte to any reader, nothing on disk.
    std::filesystem::resize_file(scratch / "huge" / "pack.json", std::uintmax_t{1} << 30);
    EXPECT_EQ(names(PackLibrary::discover(scratch.path(), false)), std::vector<std::string>{"Good"});
    EXPECT_EQ(test::errorOf<PackError>([&] { PackInfo::read(scratch / "huge", false); }),
              "Invalid pack.json: the manifest is larger than 1 MiB");
}

TEST(PackLibrary, MergesByIdAndSortsBuiltInBeforeUserPacksByName) {
    TemporaryFolder scratch;
    Environment environment;
    environment.set("TOBRIN_PACKS", (scratch / "builtin").string());
    environment.set("XDG_DATA_HOME", (scratch / "data").string());
    const auto user = scratch / "data" / "Tobrin" / "Packs";
    test::PackFolder(scratch / "builtin" / "red", "red", "Red").info();
    test::PackFolder(scratch / "builtin" / "p10", "p10", "Pack 10").info();
    test::PackFolder(scratch / "builtin" / "p2", "p2", "Pack 2").info();
    test::PackFolder(scratch / "builtin" / "blue", "blue", "blue").info();
    test::PackFolder(user / "mine", "red", "My Red").info();
    test::PackFolder(user / "b", "beta", "Beta").info();
    test::PackFolder(user / "a", "alpha", "alpha").info();
    // Two user folders with one id: the later-listed one stays.
    test::PackFolder(user / "z-copy", "alpha", "alpha copy").info();

    EXPECT_EQ(names(PackLibrary::discover()),
              (std::vector<std::string>{"blue (built-in)", "Pack 2 (built-in)", "Pack 10 (built-in)", "alpha copy",
                                        "Beta", "My Red"}));
    EXPECT_EQ(PackLibrary::discover().back().directory, user / "mine");

    // A missing built-in folder still lists the user's packs.
    environment.set("TOBRIN_PACKS", (scratch / "nowhere").string());
    EXPECT_EQ(PackLibrary::bundledPacksDirectory(), scratch / "nowhere");
    EXPECT_EQ(names(PackLibrary::discover()), (std::vector<std::string>{"alpha copy", "Beta", "My Red"}));
}

TEST(PackLibrary, UserFolderFollowsTheXdgDataHome) {
    Environment environment;
    environment.set("HOME", "/home/ada");
    environment.set("XDG_DATA_HOME", "/data/ada");
    EXPECT_EQ(PackLibrary::userPacksDirectory(), std::filesystem::path("/data/ada/Tobrin/Packs"));
    // Unset, relative or empty: the default under the home folder.
    for (const auto& value :
         {std::optional<std::string>(), std::optional<std::string>("relative/data"), std::optional<std::string>("")}) {
        environment.set("XDG_DATA_HOME", value);
        EXPECT_EQ(PackLibrary::userPacksDirectory(), std::filesystem::path("/home/ada/.local/share/Tobrin/Packs"));
    }
}

TEST(PackLibrary, FindsBuiltInPacksInstalledBesideTheExecutable) {
    TemporaryFolder scratch;
    std::filesystem::create_directories(scratch / "prefix" / "bin");
    EXPECT_FALSE(PackLibrary::installedPacksDirectory(scratch / "prefix" / "bin" / "tobrin"));
    std::filesystem::create_directories(scratch / "prefix" / "share" / "tobrin" / "Packs");
    EXPECT_EQ(PackLibrary::installedPacksDirectory(scratch / "prefix" / "bin" / "tobrin"),
              scratch / "prefix" / "share" / "tobrin" / "Packs");

    // Without TOBRIN_PACKS this test program, which is not installed, finds
    // the build tree's generated packs when the build made them.
    Environment environment;
    environment.set("TOBRIN_PACKS", std::nullopt);
    const std::filesystem::path built = TOBRIN_TEST_BUILD_PACKS_DIR;
    if (std::filesystem::is_directory(built)) {
        EXPECT_EQ(PackLibrary::bundledPacksDirectory(), built);
    } else {
        EXPECT_EQ(PackLibrary::bundledPacksDirectory(), std::nullopt);
    }
    environment.set("TOBRIN_PACKS", "");
    EXPECT_NE(PackLibrary::bundledPacksDirectory(), std::filesystem::path(""));
}

} // namespace
} // namespace tobrin
