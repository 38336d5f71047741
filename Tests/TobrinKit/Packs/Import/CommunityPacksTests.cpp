// Community packs dropped into the user's packs folder.
#include "TobrinKit/Packs/Import/CommunityPacks.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include "Support/CommunityPacks.h"
#include "Support/Environment.h"

#include <gtest/gtest.h>

namespace tobrin {
namespace {

TEST(CommunityPacks, ListsDroppedInPacksConvertedOnceAndSkipsABrokenOneWithAMessage) {
    test::TemporaryFolder scratch;
    test::Environment environment;
    environment.set("TOBRIN_PACKS", (scratch / "builtin").string());
    environment.set("XDG_DATA_HOME", (scratch / "data").string());
    environment.set("XDG_CACHE_HOME", (scratch / "cache").string());
    const auto user = scratch / "data" / "Tobrin" / "Packs";
    test::writeMultiPack(user / "Multi Pack");
    test::writeZippedPack(user / "zipped.zip", scratch / "zip-source");
    test::writeText(user / "broken" / "config.json", R"({"version":3})");
    test::writeText(user / "notes.txt", "not a pack");

    std::vector<std::string> messages;
    const auto report = [&](const std::string& message) { messages.push_back(message); };
    const auto names = [](const std::vector<PackInfo>& packs) {
        std::vector<std::string> result;
        for (const auto& pack : packs) result.push_back(pack.id + " " + pack.name);
        return result;
    };
    const auto packs = CommunityPacks::discover(report);
    EXPECT_EQ(names(packs), (std::vector<std::string>{"community-multi-pack Multi", "community-zipped Sprite Pack"}));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find("broken: config.json: unsupported \"version\" 3"), std::string::npos) << messages[0];
    for (const auto& pack : packs) EXPECT_NO_THROW(LoadedPack::load(pack, 48000)) << pack.id;

    // Unchanged sources come from the cache; the broken one is not tried again.
    const auto cached = scratch / "cache" / "tobrin" / "community" / "community-multi-pack" / "pack.json";
    const auto before = std::filesystem::last_write_time(cached);
    EXPECT_EQ(names(CommunityPacks::discover(report)), names(packs));
    EXPECT_EQ(std::filesystem::last_write_time(cached), before);
    EXPECT_EQ(messages.size(), 2u);

    // A changed source is converted again.
    test::writeText(user / "Multi Pack" / "config.json", R"({"name":"Multi Two","key_define_type":"multi",
        "includes_numpad":true,"sound":"","defines":{"30":"key a (1).mp3"}})");
    EXPECT_EQ(names(CommunityPacks::discover(report)),
              (std::vector<std::string>{"community-multi-pack Multi Two", "community-zipped Sprite Pack"}));
}

} // namespace
} // namespace tobrin
