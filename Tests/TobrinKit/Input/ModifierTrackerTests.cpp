#include "TobrinKit/Input/ModifierTracker.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace tobrin {
namespace {

struct Change {
    std::uint16_t code;
    std::uint32_t flags;
    std::optional<KeyAction> expected;
};

constexpr auto down = KeyAction::down;
constexpr auto up = KeyAction::up;

TEST(ModifierTracker, GivesADownOrAnUpOnlyWhenAModifiersFlagChanges) {
    const std::pair<const char*, std::vector<Change>> cases[] = {
        {"left and right Shift go down and up apart", {{56, 0x2, down}, {60, 0x6, down}, {56, 0x4, up}, {60, 0x0, up}}},
        {"Caps Lock gives a down every time and never an up",
         {{57, 0x10000, down}, {57, 0x0, down}, {57, 0x10000, down}}},
        {"unknown keys and unchanged states give nothing",
         {{114, 0x2, std::nullopt},
          {59, 0x1, down},
          {59, 0x1, std::nullopt},
          {62, 0x1, std::nullopt},
          {59, 0x0, up},
          {59, 0x0, std::nullopt}}},
    };
    for (const auto& [name, changes] : cases) {
        SCOPED_TRACE(name);
        ModifierTracker tracker;
        for (std::size_t i = 0; i < changes.size(); ++i)
            EXPECT_EQ(tracker.update(changes[i].code, changes[i].flags), changes[i].expected) << i;
    }
}

TEST(ModifierTracker, NamesTheShortcutModifiersHeldOnEitherSide) {
    ModifierTracker tracker;
    tracker.update(62, 0x2000);   // right Control
    tracker.update(58, 0x2020);   // left Alt
    tracker.update(54, 0x2030);   // right Super
    tracker.update(63, 0x802030); // Fn is no shortcut modifier
    EXPECT_EQ(tracker.modifiers(), Modifiers{11});
    EXPECT_EQ(tracker.flags(), 0x802030u);
}

} // namespace
} // namespace tobrin
