#include "TobrinKit/Engine/Core/KeyEvent.h"
#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Core/Tier.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unordered_set>

namespace tobrin {
namespace {

TEST(KeyGroup, RawValuesRoundTripInFileOrder) {
    const char* expected[] = {"alpha", "space", "enter", "backspace", "modifier"};
    for (std::size_t i = 0; i < allKeyGroups.size(); ++i) {
        EXPECT_EQ(static_cast<std::size_t>(allKeyGroups[i]), i);
        EXPECT_EQ(rawValue(allKeyGroups[i]), expected[i]);
        EXPECT_EQ(keyGroupFromRawValue(expected[i]), allKeyGroups[i]);
    }
}

TEST(KeyGroup, RawValueMatchIsExactAndCaseSensitive) {
    EXPECT_FALSE(keyGroupFromRawValue("Alpha"));
    EXPECT_FALSE(keyGroupFromRawValue("SPACE"));
    EXPECT_FALSE(keyGroupFromRawValue(""));
    EXPECT_FALSE(keyGroupFromRawValue("alpha "));
}

TEST(KeyGroup, CodesAsItsNameAndRejectsUnknownNames) {
    EXPECT_EQ(nlohmann::json(KeyGroup::backspace), nlohmann::json("backspace"));
    EXPECT_EQ(nlohmann::json("enter").get<KeyGroup>(), KeyGroup::enter);
    EXPECT_THROW(nlohmann::json("Enter").get<KeyGroup>(), nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json(2).get<KeyGroup>(), nlohmann::json::exception);
}

TEST(Tier, RawValuesAcceptZeroToThreeOnly) {
    for (long long raw = 0; raw <= 3; ++raw) {
        ASSERT_TRUE(tierFromRawValue(raw));
        EXPECT_EQ(rawValue(*tierFromRawValue(raw)), raw);
        EXPECT_EQ(*tierFromRawValue(raw), allTiers[static_cast<std::size_t>(raw)]);
    }
    EXPECT_FALSE(tierFromRawValue(4));
    EXPECT_FALSE(tierFromRawValue(-1));
}

TEST(Tier, NamesAreLowerCaseAndMatchedCaseInsensitively) {
    EXPECT_EQ(name(Tier::soft), "soft");
    EXPECT_EQ(name(Tier::medium), "medium");
    EXPECT_EQ(name(Tier::hard), "hard");
    EXPECT_EQ(name(Tier::slam), "slam");
    EXPECT_EQ(tierFromName("SLAM"), Tier::slam);
    EXPECT_EQ(tierFromName("Medium"), Tier::medium);
    EXPECT_FALSE(tierFromName("loud"));
    EXPECT_FALSE(tierFromName(""));
}

TEST(Tier, CodesAsItsRawValueAndRejectsOthers) {
    EXPECT_EQ(nlohmann::json(Tier::hard), nlohmann::json(2));
    EXPECT_EQ(nlohmann::json(3).get<Tier>(), Tier::slam);
    EXPECT_THROW(nlohmann::json(7).get<Tier>(), nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json(-1).get<Tier>(), nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json("hard").get<Tier>(), nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json(1.5).get<Tier>(), nlohmann::json::exception);
}

TEST(KeyEvent, ComparesAndHashesByAllFields) {
    const KeyEvent a{12, KeyAction::down, 1000};
    EXPECT_EQ(a, (KeyEvent{12, KeyAction::down, 1000}));
    EXPECT_NE(a, (KeyEvent{12, KeyAction::up, 1000}));
    EXPECT_NE(a, (KeyEvent{13, KeyAction::down, 1000}));
    EXPECT_NE(a, (KeyEvent{12, KeyAction::down, 1001}));
    std::unordered_set<KeyEvent> set{a, KeyEvent{12, KeyAction::up, 1000}, a};
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(static_cast<int>(KeyAction::down), 0);
    EXPECT_EQ(static_cast<int>(KeyAction::up), 1);
}

} // namespace
} // namespace tobrin
