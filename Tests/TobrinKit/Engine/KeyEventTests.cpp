#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Core/Tier.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tobrin {
namespace {

TEST(KeyGroup, IsNamedExactlyAsInPackFiles) {
    const char* names[] = {"alpha", "space", "enter", "backspace", "modifier"};
    for (std::size_t i = 0; i < allKeyGroups.size(); ++i) {
        EXPECT_EQ(rawValue(allKeyGroups[i]), names[i]);
        EXPECT_EQ(keyGroupFromRawValue(names[i]), allKeyGroups[i]);
        EXPECT_EQ(nlohmann::json(names[i]).get<KeyGroup>(), allKeyGroups[i]);
    }
    EXPECT_EQ(nlohmann::json(KeyGroup::backspace), nlohmann::json("backspace"));
    for (const char* other : {"Alpha", "SPACE", "", "alpha "}) EXPECT_FALSE(keyGroupFromRawValue(other)) << other;
    EXPECT_THROW(nlohmann::json("Enter").get<KeyGroup>(), nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json(2).get<KeyGroup>(), nlohmann::json::exception);
}

TEST(Tier, IsStoredAsZeroToThreeAndNamedInAnyCase) {
    const char* names[] = {"soft", "medium", "hard", "slam"};
    for (std::size_t i = 0; i < allTiers.size(); ++i) {
        EXPECT_EQ(tierFromRawValue(static_cast<long long>(i)), allTiers[i]);
        EXPECT_EQ(nlohmann::json(allTiers[i]), nlohmann::json(i));
        EXPECT_EQ(nlohmann::json(i).get<Tier>(), allTiers[i]);
        EXPECT_EQ(name(allTiers[i]), names[i]);
        EXPECT_EQ(tierFromName(names[i]), allTiers[i]);
    }
    EXPECT_EQ(tierFromName("SLAM"), Tier::slam);
    EXPECT_EQ(tierFromName("Medium"), Tier::medium);
    EXPECT_FALSE(tierFromName("loud"));
    EXPECT_FALSE(tierFromName(""));
    EXPECT_FALSE(tierFromRawValue(4));
    EXPECT_FALSE(tierFromRawValue(-1));
    for (const char* other : {"7", "-1", "\"hard\"", "1.5"}) {
        EXPECT_THROW(nlohmann::json::parse(other).get<Tier>(), nlohmann::json::exception) << other;
    }
}

} // namespace
} // namespace tobrin
