#include "TobrinKit/Input/Evdev/EvdevKeys.h"
#include "TobrinKit/Input/EvdevKeySource.h"
#include "TobrinKit/Input/KeyMonitor.h"

#include "TobrinKit/Engine/Core/MachTime.h"

#include "KeyRecorder.h"
#include "Support/PipeKeyboards.h"
#include "Support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace tobrin {
namespace {

using test::down;
using test::up;

class EvdevKeySourceTest : public ::testing::Test {
protected:
    test::PipeKeyboards keyboards;
    test::KeyRecorder recorder;
    KeyMonitor monitor{recorder.handler(), {keyboards.factory()}, ""};
};

TEST_F(EvdevKeySourceTest, PressesAndReleasesReachTheHandlerOnTheMonitorThreadRepeatsDoNot) {
    const auto keyboard = keyboards.plugIn();
    const std::uint64_t before = MachTime::now();
    ASSERT_TRUE(monitor.start());
    keyboards.key(keyboard, KEY_A, 1);
    keyboards.key(keyboard, KEY_A, 2);
    keyboards.key(keyboard, KEY_A, 2);
    keyboards.key(keyboard, KEY_A, 0);
    // A record split across two writes, as a pipe may deliver it.
    const input_event event = test::PipeKeyboards::recordOf(EV_KEY, KEY_ENTER, 1);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&event);
    keyboards.write(keyboard, bytes, 5);
    ASSERT_TRUE(recorder.waitForSteps({down(0), up(0)}));
    keyboards.write(keyboard, bytes + 5, sizeof event - 5);
    ASSERT_TRUE(recorder.waitForSteps({down(0), up(0), down(36)}));
    recorder.expectStampedBetween(before, MachTime::now());
}

TEST_F(EvdevKeySourceTest, DroppedRecordsNeverLeaveAKeyHeld) {
    const auto keyboard = keyboards.plugIn();
    ASSERT_TRUE(monitor.start());
    keyboards.key(keyboard, KEY_A, 1);
    keyboards.key(keyboard, KEY_B, 1);
    // The kernel's buffer overflowed: what follows up to the next report is
    // lost. A pipe cannot say which keys are still down, so all count as up.
    keyboards.record(keyboard, EV_SYN, SYN_DROPPED, 0);
    keyboards.record(keyboard, EV_KEY, KEY_A, 0);
    keyboards.record(keyboard, EV_KEY, KEY_C, 1);
    keyboards.record(keyboard, EV_SYN, SYN_REPORT, 0);
    keyboards.key(keyboard, KEY_C, 0); // its press was lost: no up either
    keyboards.key(keyboard, KEY_D, 1);
    EXPECT_TRUE(recorder.waitForSteps({down(0), down(11), up(0), up(11), down(2)}))
        << ::testing::PrintToString(recorder.steps());
}

TEST_F(EvdevKeySourceTest, AKeyboardThatGoesAwayReleasesItsKeysTheOthersGoOnAndItIsHeardAgainWhenItReturns) {
    const auto first = keyboards.plugIn();
    const auto second = keyboards.plugIn();
    ASSERT_TRUE(monitor.start());
    keyboards.key(first, KEY_A, 1);
    ASSERT_TRUE(recorder.waitForSteps({down(0)}));
    keyboards.key(second, KEY_S, 1);
    ASSERT_TRUE(recorder.waitForSteps({down(0), down(1)}));
    keyboards.unplug(first);
    ASSERT_TRUE(recorder.waitForSteps({down(0), down(1), up(0)}));
    keyboards.key(second, KEY_S, 0);
    const auto again = keyboards.plugIn();
    keyboards.key(again, KEY_A, 1);
    keyboards.key(again, KEY_A, 0);
    EXPECT_TRUE(recorder.waitForSteps({down(0), down(1), up(0), up(1), down(0), up(0)}));
}

int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        count += test::readFile(task.path() / "comm") == name + "\n";
    return count;
}

TEST_F(EvdevKeySourceTest, StartsOnceStopsAndStartsAgain) {
    ASSERT_TRUE(monitor.start());
    ASSERT_TRUE(monitor.start());
    EXPECT_EQ(threadsNamed("Tobrin.KeyMonit"), 1);
    monitor.stop();
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_EQ(threadsNamed("Tobrin.KeyMonit"), 0);
    monitor.stop();

    ASSERT_TRUE(monitor.start());
    const auto keyboard = keyboards.plugIn();
    keyboards.key(keyboard, KEY_Z, 1);
    EXPECT_TRUE(recorder.waitForSteps({down(6)}));
}

TEST(KeyMonitor, ReportsWhyNoSourceOpened) {
    test::PipeKeyboards keyboards;
    KeySourceFactory refusing = keyboards.factory();
    refusing.create = [&] { return std::make_unique<EvdevKeySource>(keyboards.watch("cannot read the keyboards")); };
    refusing.access = [] { return KeyboardAccess::needsRelaunch; };
    KeyMonitor monitor([](const KeyEvent&) {}, {refusing}, "");
    EXPECT_FALSE(monitor.start());
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_EQ(monitor.lastError(), "evdev: cannot read the keyboards");
    EXPECT_EQ(monitor.access(), KeyboardAccess::needsRelaunch);
    EXPECT_FALSE(monitor.hasPermission());

    KeyMonitor misnamed([](const KeyEvent&) {}, {refusing}, "wayland");
    EXPECT_FALSE(misnamed.start());
    EXPECT_EQ(misnamed.lastError(), "TOBRIN_KEYS names no key source: \"wayland\" (try x11 or evdev)");
}

TEST(KeySources, ChooseX11OutsideWaylandWhenADisplayAnswersEvdevOtherwiseOrWhatTOBRIN_KEYSNames) {
    struct Case {
        bool displayAnswers;
        const char* sessionType;
        const char* waylandDisplay;
        const char* forced;
        const char* expected;
    };
    const Case cases[] = {
        {true, "x11", nullptr, "", "x11"},         {true, "wayland", nullptr, "", "evdev"},
        {true, nullptr, "wayland-0", "", "evdev"}, {false, "tty", nullptr, "", "evdev"},
        {true, "x11", nullptr, "evdev", "evdev"},  {false, "wayland", "wayland-0", "x11", "x11"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.sessionType ? c.sessionType : "-") + " forced " + c.forced);
        KeySourceFactory x11{"x11", {}, {}, {}, {}}, evdev{"evdev", {}, {}, {}, {}};
        x11.suitsSession = [&] {
            return !KeySources::isWaylandSession(c.sessionType, c.waylandDisplay) && c.displayAnswers;
        };
        const auto chosen = KeySources::candidates({x11, evdev}, c.forced);
        ASSERT_FALSE(chosen.empty());
        EXPECT_EQ(chosen.front().name, c.expected);
    }
}

TEST(EvdevKeys, AccessIsGrantedDeniedOrWaitsForTheNextLogin) {
    struct Case {
        bool keyboardReadable, processHasGroup, userHasGroup;
        KeyboardAccess expected;
    };
    const Case cases[] = {
        {true, false, false, KeyboardAccess::granted},
        {false, false, true, KeyboardAccess::needsRelaunch},
        {false, true, true, KeyboardAccess::granted}, // no keyboard plugged in yet
        {false, false, false, KeyboardAccess::denied},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(EvdevKeys::accessFrom(c.keyboardReadable, c.processHasGroup, c.userHasGroup), c.expected);
    }
}

} // namespace
} // namespace tobrin
