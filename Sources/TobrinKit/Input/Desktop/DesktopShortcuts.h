#pragma once

// The shortcuts the desktop binds itself, so that Tobrin does not take one
// of them: GNOME's keybinding settings (read through GSettings, only the
// schemas that are installed) and KDE's global shortcuts file. Desktops bind
// symbols ("<Super>k", "Meta+K"); the keyboard layout tells which key types
// the symbol. Read afresh on every call.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "TobrinKit/Input/Hotkey.h"
#include "TobrinKit/Input/Xkb/KeyboardLayout.h"

namespace tobrin::DesktopShortcuts {

// A binding as a desktop writes it: modifiers and a key named by a keysym
// name or a single character.
struct Binding {
    Modifiers modifiers;
    std::string key;

    bool operator==(const Binding&) const = default;
};

// A GTK accelerator such as "<Control><Alt>Delete" or "<Super>k". Nothing for
// an empty or "disabled" one, or one with modifiers Tobrin has no name for
// (Hyper, Mod3, Mod5, Release).
std::optional<Binding> parseAccelerator(std::string_view accelerator);

// The active shortcuts of a kglobalshortcutsrc value such as
// "Meta+E\tCtrl+Alt+E,Meta+E,Open Home": the field before the first comma,
// shortcuts separated by a written "\t"; "none" for none.
std::vector<Binding> parseKdeEntry(std::string_view value);

// Where to look.
struct Desktop {
    bool gnome = false;
    bool kde = false;
    std::filesystem::path kdeShortcuts; // kglobalshortcutsrc

    // From XDG_CURRENT_DESKTOP (GNOME and its derivatives; KDE) and
    // XDG_CONFIG_HOME (default ~/.config).
    static Desktop fromEnvironment();
};

// The bindings of the desktop that `layout` can type, as hotkeys.
std::vector<Hotkey> list(const Desktop& desktop, const KeyboardLayout& layout);

// The desktop binds `hotkey` itself. With no layout to read, nothing is.
bool isReserved(const Hotkey& hotkey, const Desktop& desktop, const std::optional<KeyboardLayout>& layout);
// The same for this session: its desktop and its current layout.
bool isReserved(const Hotkey& hotkey);

} // namespace tobrin::DesktopShortcuts
