#include "TobrinKit/Input/KeyLayout.h"

#include "TobrinKit/Engine/Core/SplitMix64.h"

#include <gtest/gtest.h>

#include <set>

namespace tobrin {
namespace {

TEST(KeyLayout, GroupsKeysBySound) {
    struct Case {
        std::uint16_t code;
        KeyGroup group;
    };
    const Case cases[] = {
        {49, KeyGroup::space},      {36, KeyGroup::enter},    {76, KeyGroup::enter},    {51, KeyGroup::backspace},
        {117, KeyGroup::backspace}, {48, KeyGroup::modifier}, {54, KeyGroup::modifier}, {56, KeyGroup::modifier},
        {57, KeyGroup::modifier},   {63, KeyGroup::modifier}, {53, KeyGroup::alpha},    {50, KeyGroup::alpha},
        {64, KeyGroup::alpha},      {0, KeyGroup::alpha},     {52, KeyGroup::alpha},    {65535, KeyGroup::alpha},
    };
    for (const Case& c : cases) EXPECT_EQ(KeyLayout::group(c.code), c.group) << c.code;
}

TEST(KeyLayout, ColumnsFollowTheRowsOfTheKeyboard) {
    struct Case {
        std::uint16_t code;
        double column;
    };
    const Case cases[] = {
        {53, 0.5},   {122, 1.6}, {111, 13.48}, {50, 0.5}, {24, 12.5},  {51, 14.0},  {12, 2.0},   {30, 13.0}, {0, 2.25},
        {39, 12.25}, {6, 2.75},  {44, 11.75},  {49, 7.5}, {124, 14.9}, {117, 14.6}, {42, 14.25}, {60, 13.9},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(KeyLayout::column(c.code)) << c.code;
        EXPECT_NEAR(*KeyLayout::column(c.code), c.column, 1e-12) << c.code;
    }
    EXPECT_FALSE(KeyLayout::column(76)); // keypad Enter
    EXPECT_FALSE(KeyLayout::column(10)); // ISO section key
    EXPECT_FALSE(KeyLayout::column(200));
}

TEST(KeyLayout, PanSpansTheKeyboardAndCentresUnknownKeys) {
    EXPECT_EQ(KeyLayout::pan(49), 0.0f);
    EXPECT_NEAR(KeyLayout::pan(53), -0.9333f, 1e-4);
    EXPECT_NEAR(KeyLayout::pan(124), 0.9867f, 1e-4);
    EXPECT_EQ(KeyLayout::pan(200), 0.0f);
    EXPECT_EQ(KeyLayout::pan(76), 0.0f);
    for (unsigned code = 0; code < 128; ++code) {
        const float pan = KeyLayout::pan(static_cast<std::uint16_t>(code));
        EXPECT_GE(pan, -1.0f);
        EXPECT_LE(pan, 1.0f);
    }
}

TEST(KeyLayout, IdentityIsTheGeneratorsFirstOutputForTheCode) {
    std::set<std::uint64_t> seen;
    for (unsigned code = 0; code < 128; ++code) {
        const auto key = static_cast<std::uint16_t>(code);
        EXPECT_EQ(KeyLayout::identity(key), SplitMix64(key).next());
        seen.insert(KeyLayout::identity(key));
    }
    EXPECT_EQ(seen.size(), 128u);
    EXPECT_EQ(KeyLayout::identity(0), 0xE220A8397B1DCDAFULL);
}

} // namespace
} // namespace tobrin
