#include "TobrinKit/Input/Desktop/DesktopShortcuts.h"
#include "TobrinKit/Input/Xkb/KeyboardLayout.h"

#include "Support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace tobrin {
namespace {

using DesktopShortcuts::Binding;

const Modifiers ctrl = Modifiers::control, alt = Modifiers::option, shift = Modifiers::shift,
                super = Modifiers::command;

TEST(DesktopShortcuts, ParsesGnomeAccelerators) {
    struct Case {
        const char* accelerator;
        std::optional<Binding> expected;
    };
    const Case cases[] = {
        {"<Control><Alt><Super>k", Binding{ctrl | alt | super, "k"}},
        {"<Primary><Shift>Page_Up", Binding{ctrl | shift, "Page_Up"}},
        {"<ctrl><mod1><Mod4>F1", Binding{ctrl | alt | super, "F1"}},
        {"<Super><Mod2>Return", Binding{super, "Return"}},
        {"XF86AudioMute", Binding{Modifiers{}, "XF86AudioMute"}},
        {"<Hyper>a", std::nullopt},
        {"<Alt", std::nullopt},
        {"disabled", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.accelerator);
        EXPECT_EQ(DesktopShortcuts::parseAccelerator(c.accelerator), c.expected);
    }
}

TEST(DesktopShortcuts, ParsesTheActiveShortcutsOfKdeEntries) {
    struct Case {
        const char* value;
        std::vector<Binding> expected;
    };
    const Case cases[] = {
        {"Meta+Ctrl+Alt+K,none,Tobrin test", {{ctrl | alt | super, "K"}}},
        {"Meta+E\\tCtrl+Alt+PgUp,Meta+E,Open Home", {{super, "E"}, {ctrl | alt, "Prior"}}},
        {"Ctrl+,,Ctrl+,,Settings", {{ctrl, ","}}},
        {"Ctrl++,none,Zoom", {{ctrl, "+"}}},
        {"none,Meta+L,Lock", {}},
        {",Alt+F4,Close", {}},
        {"Num+5,none,Keypad", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(DesktopShortcuts::parseKdeEntry(c.value), c.expected);
    }
}

TEST(DesktopShortcuts, ACombinationInKdesGlobalShortcutsFileIsReserved) {
    test::TemporaryFolder folder;
    DesktopShortcuts::Desktop desktop{.kde = true, .kdeShortcuts = folder / "kglobalshortcutsrc"};
    std::ofstream(desktop.kdeShortcuts) << "[kwin]\n"
                                           "_k_friendly_name=KWin\n"
                                           "Window Close=Alt+F4,Alt+F4,Close Window\n"
                                           "Lock Session=Meta+L\\tScreensaver,Meta+L,Lock Session\n"
                                           "[services][org.kde.konsole.desktop]\n"
                                           "_launch=Ctrl+Alt+T,none,Konsole\n";
    const auto us = KeyboardLayout::fromNames({"evdev", "pc105", "us", "", ""});
    ASSERT_TRUE(us);
    EXPECT_TRUE(DesktopShortcuts::isReserved(Hotkey{118, alt}, desktop, us));       // F4
    EXPECT_TRUE(DesktopShortcuts::isReserved(Hotkey{37, super}, desktop, us));      // L
    EXPECT_TRUE(DesktopShortcuts::isReserved(Hotkey{17, ctrl | alt}, desktop, us)); // T
    EXPECT_FALSE(DesktopShortcuts::isReserved(Hotkey{}, desktop, us));
    EXPECT_FALSE(DesktopShortcuts::isReserved(Hotkey{118, alt}, desktop, std::nullopt));
    desktop.kde = false;
    EXPECT_FALSE(DesktopShortcuts::isReserved(Hotkey{118, alt}, desktop, us));
}

TEST(KeyboardLayout, TheSystemKeyboardConfigurationNamesTheLayout) {
    test::TemporaryFolder folder;
    std::ofstream(folder / "keyboard") << "# KEYBOARD CONFIGURATION FILE\nXKBMODEL=\"pc105\"\nXKBLAYOUT='de'\n";
    const auto german = KeyboardLayout::fromSystem(folder / "keyboard");
    ASSERT_TRUE(german);
    EXPECT_EQ(german->keyName(16), "z"); // the key Y of an ANSI keyboard
}

TEST(KeyboardLayout, NamesKeysAndFindsTheKeyThatTypesASymbol) {
    const auto us = KeyboardLayout::fromNames({"evdev", "pc105", "us", "", ""});
    const auto french = KeyboardLayout::fromNames({"evdev", "pc105", "fr", "", ""});
    ASSERT_TRUE(us && french);
    EXPECT_EQ(us->keyName(0), "a");
    EXPECT_EQ(french->keyName(0), "q");
    EXPECT_EQ(french->keyName(18), "&");
    EXPECT_EQ(us->keyName(36), std::nullopt);  // Return types a control character
    EXPECT_EQ(us->keyName(200), std::nullopt); // no key
    EXPECT_EQ(us->keyName(0x10000), std::nullopt);

    EXPECT_EQ(us->keyCode("k"), 40);
    EXPECT_EQ(french->keyCode("q"), 0);
    EXPECT_EQ(us->keyCode("Page_Up"), 116);
    EXPECT_EQ(us->keyCode("prior"), 116);
    EXPECT_EQ(us->keyCode(","), 43);
    EXPECT_EQ(us->keyCode("eacute"), std::nullopt);
    EXPECT_EQ(french->keyCode("eacute"), 19);
    EXPECT_EQ(us->keyCode("NoSuchKey"), std::nullopt);
    EXPECT_FALSE(KeyboardLayout::fromNames({"evdev", "pc105", "no-such-layout", "", ""}).has_value());
}

} // namespace
} // namespace tobrin
