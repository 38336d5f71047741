#include "TobrinKit/Engine/Core/KeyGroup.h"

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

} // namespace
} // namespace tobrin
