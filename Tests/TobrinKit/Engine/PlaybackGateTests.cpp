#include "TobrinKit/Engine/PlaybackGate.h"

#include <gtest/gtest.h>

namespace tobrin {
namespace {

using State = PlaybackGate::State;

TEST(PlaybackGate, StateFollowsSwitchThenCall) {
    struct Case {
        bool enabled, quietDuringCalls, micInUse;
        State expected;
    };
    const Case cases[] = {
        {true, true, false, State::playing}, {true, true, true, State::pausedForCall},
        {true, false, true, State::playing}, {true, false, false, State::playing},
        {false, true, true, State::off},     {false, false, false, State::off},
        {false, true, false, State::off},    {false, false, true, State::off},
    };
    for (const Case& c : cases) {
        const PlaybackGate gate{c.enabled, c.quietDuringCalls, c.micInUse};
        SCOPED_TRACE(testing::Message() << c.enabled << c.quietDuringCalls << c.micInUse);
        EXPECT_EQ(gate.state(), c.expected);
        EXPECT_EQ(gate.isPlaying(), c.expected == State::playing);
    }
}

TEST(PlaybackGate, ToggleFlipsOnlyTheSwitch) {
    PlaybackGate gate{true, true, true};
    EXPECT_TRUE(gate.toggle());
    EXPECT_EQ(gate, (PlaybackGate{false, true, true}));
    EXPECT_EQ(gate.state(), State::off);
    EXPECT_TRUE(gate.toggle());
    EXPECT_EQ(gate.state(), State::pausedForCall);
}

} // namespace
} // namespace tobrin
