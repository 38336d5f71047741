#include "TobrinKit/Engine/PlaybackGate.h"

#include <gtest/gtest.h>

namespace tobrin {
namespace {

using State = PlaybackGate::State;

TEST(PlaybackGate, TheSwitchWinsOverACall) {
    struct Case {
        PlaybackGate gate; // enabled, quiet during calls, mic in use
        State state;
    };
    const Case cases[] = {
        {{true, true, false}, State::playing}, {{true, true, true}, State::pausedForCall},
        {{true, false, true}, State::playing}, {{true, false, false}, State::playing},
        {{false, true, true}, State::off},     {{false, false, false}, State::off},
        {{false, true, false}, State::off},    {{false, false, true}, State::off},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.gate.state(), c.state) << c.gate.enabled << c.gate.quietDuringCalls << c.gate.micInUse;
    }
    PlaybackGate gate{true, true, true};
    EXPECT_TRUE(gate.toggle()); // toggling flips the switch alone
    EXPECT_EQ(gate, (PlaybackGate{false, true, true}));
}

} // namespace
} // namespace tobrin
