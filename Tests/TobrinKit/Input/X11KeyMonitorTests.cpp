#include "TobrinKit/Input/KeyMonitor.h"
#include "TobrinKit/Input/X11/X11Keys.h"

#include "TobrinKit/Engine/Core/MachTime.h"

#include "KeyRecorder.h"
#include "Support/PrivateXServer.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

namespace tobrin {
namespace {

using test::down;
using test::KeyStep;
using test::up;

class X11KeyMonitorTest : public ::testing::Test {
protected:
    // A quick autorepeat, so holding a key repeats within a test.
    test::PrivateXServer server{{"-ardelay", "40", "-arinterval", "10"}};
    test::FakeKeyboard keyboard{server.display()};
    test::KeyRecorder recorder;
    KeyMonitor monitor{recorder.handler(), {X11Keys::factory(server.display())}, "x11"};
};

TEST_F(X11KeyMonitorTest, TypedKeysReachTheHandlerInOrderWithTheirCodesStampedOnTheMonotonicClock) {
    ASSERT_TRUE(monitor.start());
    EXPECT_EQ(monitor.access(), KeyboardAccess::granted);
    const std::uint64_t before = MachTime::now();
    const std::uint16_t typed[] = {KEY_H,     KEY_E,    KEY_L,  KEY_L,   KEY_O,         KEY_SPACE,
                                   KEY_ENTER, KEY_LEFT, KEY_F5, KEY_KP5, KEY_RIGHTSHIFT};
    for (auto code : typed) keyboard.tap(code);
    std::vector<KeyStep> expected;
    const std::uint16_t heard[] = {4, 14, 37, 37, 31, 49, 36, 123, 96, 87, 60};
    for (auto code : heard) expected.insert(expected.end(), {down(code), up(code)});
    ASSERT_TRUE(recorder.waitForSteps(expected)) << ::testing::PrintToString(recorder.steps());
    recorder.expectStampedBetween(before, MachTime::now());
}

TEST_F(X11KeyMonitorTest, UnderAnotherClientsKeyboardGrabAHeldKeyGivesOneDownAndOneUp) {
    ASSERT_TRUE(monitor.start());
    // Another client grabs the keyboard and, being its owner now, sees the
    // server's autorepeat as a stream of presses.
    test::FakeKeyboard grabber(server.display());
    xcb_connection_t* connection = grabber.connection();
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    auto* grab = xcb_grab_keyboard_reply(
        connection, xcb_grab_keyboard(connection, 0, root, XCB_CURRENT_TIME, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC),
        nullptr);
    ASSERT_TRUE(grab && grab->status == XCB_GRAB_STATUS_SUCCESS);
    std::free(grab);

    keyboard.press(KEY_A);
    int presses = 0;
    ASSERT_TRUE(test::eventually([&] {
        while (auto* event = xcb_poll_for_event(connection)) {
            if ((event->response_type & 0x7f) == XCB_KEY_PRESS) ++presses;
            std::free(event);
        }
        return presses >= 4;
    }));
    keyboard.release(KEY_A);
    keyboard.tap(KEY_B); // once its events are in, every earlier one is
    EXPECT_TRUE(recorder.waitForSteps({down(0), up(0), down(11), up(11)}))
        << ::testing::PrintToString(recorder.steps());
}

TEST_F(X11KeyMonitorTest, StopsAndStartsAgain) {
    ASSERT_TRUE(monitor.start());
    ASSERT_TRUE(monitor.start());
    keyboard.tap(KEY_A);
    ASSERT_TRUE(recorder.waitForSteps({down(0), up(0)}));
    monitor.stop();
    EXPECT_FALSE(monitor.isRunning());
    keyboard.tap(KEY_B);
    keyboard.sync();
    ASSERT_TRUE(monitor.start());
    keyboard.tap(KEY_C);
    EXPECT_TRUE(recorder.waitForSteps({down(0), up(0), down(8), up(8)}));
}

TEST(X11Keys, AnUnreachableServerIsReportedNotFatal) {
    EXPECT_FALSE(X11Keys::isReachable(":99999"));
    KeyMonitor forced([](const KeyEvent&) {}, {X11Keys::factory(":99999")}, "x11");
    EXPECT_FALSE(forced.start());
    EXPECT_EQ(forced.lastError(), "x11: cannot connect to the X server");
    KeyMonitor chosen([](const KeyEvent&) {}, {X11Keys::factory(":99999")}, "");
    EXPECT_FALSE(chosen.start());
    EXPECT_EQ(chosen.lastError(), "no key source is available");
}

} // namespace
} // namespace tobrin
