#include "TobrinKit/Input/GlobalHotkey.h"

#include "TobrinKit/Input/Desktop/DesktopShortcuts.h"
#include "TobrinKit/Input/KeyMonitor.h"
#include "TobrinKit/Input/X11/X11Keys.h"
#include "TobrinKit/Input/Xkb/KeyboardLayout.h"

#include "KeyRecorder.h"
#include "Support/PipeKeyboards.h"
#include "Support/PrivateXServer.h"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace tobrin {
namespace {

using Kind = GlobalHotkey::Status::Kind;

// GSettings in this process keep their values in memory: the GNOME test
// writes a binding without touching any user's settings. Set before GIO
// first looks.
const bool memorySettings = ::setenv("GSETTINGS_BACKEND", "memory", 1) == 0;

// The shortcut's keys, and one that is none of them.
const std::uint16_t shortcutKeys[] = {KEY_LEFTCTRL, KEY_LEFTALT, KEY_LEFTMETA};

class X11GlobalHotkeyTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(monitor.start()); }

    // Presses Ctrl+Alt+Super+K, holding K long enough to repeat.
    void pressShortcut() {
        for (auto code : shortcutKeys) keyboard.press(code);
        keyboard.press(KEY_K);
        keyboard.sync();
        std::this_thread::sleep_for(std::chrono::milliseconds(150)); // ardelay 40, arinterval 10
        keyboard.release(KEY_K);
        for (auto code : shortcutKeys) keyboard.release(code);
    }

    test::PrivateXServer server{{"-ardelay", "40", "-arinterval", "10"}};
    test::FakeKeyboard keyboard{server.display()};
    test::KeyRecorder recorder;
    KeyMonitor monitor{recorder.handler(), {X11Keys::factory(server.display())}, "x11"};
};

TEST_F(X11GlobalHotkeyTest, CtrlAltSuperKIsActiveAndEachPressRunsTheActionOnceThroughTheOwnersExecutorInSilence) {
    std::atomic<int> actions{0};
    std::atomic<int> executed{0};
    GlobalHotkey hotkey(
        monitor, [&] { ++actions; },
        [&](std::function<void()> action) {
            ++executed;
            action();
        });
    const auto status = hotkey.registerHotkey(Hotkey{});
    EXPECT_EQ(status, (GlobalHotkey::Status{Kind::active, Hotkey{}, 0}));
    EXPECT_EQ(status.message(), "");

    // The second press is only handled after every event of the first,
    // repeats included: if those ran the action, the count would pass 2.
    pressShortcut();
    pressShortcut();
    ASSERT_TRUE(test::eventually([&] { return actions >= 2; }));
    EXPECT_EQ(actions, 2);
    EXPECT_EQ(executed, 2);

    // The modifiers sound as they go down and up; K makes no sound.
    ASSERT_TRUE(recorder.waitForCount(12));
    const auto steps = recorder.steps();
    EXPECT_EQ(std::count_if(steps.begin(), steps.end(), [](const auto& step) { return step.first == 40; }), 0);

    // Unregistered, K is an ordinary key again.
    hotkey.unregister();
    EXPECT_EQ(hotkey.status().kind, Kind::off);
    pressShortcut();
    ASSERT_TRUE(recorder.waitForCount(20));
    EXPECT_EQ(recorder.steps()[15], test::down(40));
    EXPECT_EQ(actions, 2);
}

TEST_F(X11GlobalHotkeyTest, ACombinationAnotherClientHoldsIsTaken) {
    GlobalHotkey first(monitor, [] {});
    GlobalHotkey second(monitor, [] {});
    ASSERT_EQ(first.registerHotkey(Hotkey{}).kind, Kind::active);
    const auto status = second.registerHotkey(Hotkey{});
    EXPECT_EQ(status.kind, Kind::taken);
    EXPECT_EQ(status.message(), "Ctrl+Alt+Super+K is already used by another app. Pick another.");
    first.unregister();
    EXPECT_EQ(second.registerHotkey(Hotkey{}).kind, Kind::active);
}

TEST_F(X11GlobalHotkeyTest, ACombinationBoundInGnomesSettingsIsReservedBySystem) {
    ASSERT_TRUE(memorySettings);
    DesktopShortcuts::Desktop gnome;
    gnome.gnome = true;
    const auto display = server.display();
    GlobalHotkey hotkey(
        monitor, [] {}, {},
        [&](const Hotkey& wanted) {
            return DesktopShortcuts::isReserved(wanted, gnome, KeyboardLayout::fromX11(display));
        });
    EXPECT_EQ(hotkey.registerHotkey(Hotkey{}).kind, Kind::active);

    GSettings* settings = g_settings_new("org.gnome.desktop.wm.keybindings");
    const gchar* bound[] = {"<Primary><Alt><Super>k", nullptr};
    ASSERT_TRUE(g_settings_set_strv(settings, "switch-to-workspace-1", bound));
    const auto status = hotkey.registerHotkey(Hotkey{});
    EXPECT_EQ(status.kind, Kind::reservedBySystem);
    EXPECT_EQ(status.message(), "Ctrl+Alt+Super+K is a desktop shortcut (Settings › Keyboard). Pick another.");
    // A default binding of the schema: Super+H minimises.
    EXPECT_EQ(hotkey.registerHotkey(Hotkey{4, Modifiers::command}).kind, Kind::reservedBySystem);

    g_settings_reset(settings, "switch-to-workspace-1");
    EXPECT_EQ(hotkey.registerHotkey(Hotkey{}).kind, Kind::active);
    g_object_unref(settings);
}

TEST_F(X11GlobalHotkeyTest, TheDisplayStringNamesTheKeyAsTheServersLayoutDoes) {
    const Hotkey aKey{0, Modifiers{11}};
    EXPECT_EQ(aKey.displayString(KeyboardLayout::fromX11(server.display())->namer()), "Ctrl+Alt+Super+A");
    const std::string command = "setxkbmap -display " + server.display() + " fr";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_EQ(aKey.displayString(KeyboardLayout::fromX11(server.display())->namer()), "Ctrl+Alt+Super+Q");
}

TEST(EvdevGlobalHotkey, IsMatchedInTheKeyStreamAndRunsOncePerPressWithoutSound) {
    test::PipeKeyboards keyboards;
    test::KeyRecorder recorder;
    KeyMonitor monitor(recorder.handler(), {keyboards.factory()}, "");
    const auto keyboard = keyboards.plugIn();
    ASSERT_TRUE(monitor.start());

    std::atomic<int> actions{0};
    GlobalHotkey hotkey(monitor, [&] { ++actions; });
    EXPECT_EQ(hotkey.registerHotkey(Hotkey{}).kind, Kind::active);
    for (auto code : shortcutKeys) keyboards.key(keyboard, code, 1);
    keyboards.key(keyboard, KEY_K, 1);
    keyboards.key(keyboard, KEY_K, 2);
    keyboards.key(keyboard, KEY_K, 0);
    for (auto code : shortcutKeys) keyboards.key(keyboard, code, 0);
    keyboards.key(keyboard, KEY_A, 1); // once it is in, everything before it is
    ASSERT_TRUE(recorder.waitForCount(7));
    EXPECT_EQ(actions, 1);
    EXPECT_EQ(recorder.steps(), (std::vector<test::KeyStep>{test::down(59), test::down(58), test::down(55),
                                                            test::up(59), test::up(58), test::up(55), test::down(0)}));
}

} // namespace
} // namespace tobrin
