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

void play(const std::vector<Change>& changes) {
    ModifierTracker tracker;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(tracker.update(changes[i].code, changes[i].flags), changes[i].expected);
    }
}

constexpr auto down = KeyAction::down;
constexpr auto up = KeyAction::up;

TEST(ModifierTracker, LeftAndRightShiftGoDownAndUpApart) {
    play({{56, 0x2, down}, {60, 0x6, down}, {56, 0x4, up}, {60, 0x0, up}});
}

TEST(ModifierTracker, CapsLockGivesADownEveryTimeAndNeverAnUp) {
    play({{57, 0x10000, down}, {57, 0x0, down}, {57, 0x10000, down}});
}

TEST(ModifierTracker, UnknownKeysAndUnchangedStatesGiveNothing) {
    play({{114, 0x2, std::nullopt},
          {59, 0x1, down},
          {59, 0x1, std::nullopt},
          {62, 0x1, std::nullopt},
          {59, 0x0, up},
          {59, 0x0, std::nullopt}});
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
