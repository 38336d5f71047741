#include "TobrinKit/Input/KeyLayout.h"

#include "TobrinKit/Engine/Core/KeyCode.h"

#include <gtest/gtest.h>

#include <vector>

namespace tobrin {
namespace {

TEST(KeyLayout, GroupsKeysBySound) {
    using enum KeyCode;
    const std::pair<KeyGroup, std::vector<std::uint16_t>> groups[] = {
        {KeyGroup::space, {space}},
        {KeyGroup::enter, {returnKey, keypadEnter}},
        {KeyGroup::backspace, {deleteKey, forwardDelete}},
        {KeyGroup::modifier, {tab, rightCommand, shift, capsLock, function}}, // Tab sounds like a modifier
        {KeyGroup::alpha, {escape, grave, f17, a, 52, 65535}}};
    for (const auto& [group, codes] : groups) {
        for (const std::uint16_t code : codes) EXPECT_EQ(KeyLayout::group(code), group) << code;
    }
}

TEST(KeyLayout, PlacesKeysInTheRowsOfTheKeyboardAndPansThemAcrossIt) {
    using enum KeyCode;
    // Each row's first and last key (its start and step); keys placed one
    // by one are only restated constants, but for the two ends of the pan.
    const std::pair<std::uint16_t, double> columns[] = {
        {f1, 1.6},          {f12, 13.48}, {grave, 0.5},   {equal, 12.5}, {q, 2},
        {rightBracket, 13}, {a, 2.25},    {quote, 12.25}, {z, 2.75},     {slash, 11.75},
    };
    for (const auto& [code, column] : columns) {
        ASSERT_TRUE(KeyLayout::column(code)) << code;
        EXPECT_NEAR(*KeyLayout::column(code), column, 1e-12) << code;
    }
    for (const std::uint16_t unplaced : {keypadEnter, section, KeyCode(200)}) {
        EXPECT_FALSE(KeyLayout::column(unplaced)) << unplaced;
        EXPECT_EQ(KeyLayout::pan(unplaced), 0.0f) << unplaced;
    }
    EXPECT_NEAR(KeyLayout::pan(escape), -0.9333f, 1e-4);
    EXPECT_NEAR(KeyLayout::pan(rightArrow), 0.9867f, 1e-4);
}

} // namespace
} // namespace tobrin
