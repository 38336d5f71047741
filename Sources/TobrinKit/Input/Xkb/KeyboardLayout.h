#pragma once

// The user's keyboard layout, read with libxkbcommon: which character a key
// types (for the shortcut's display string) and which key types a given
// symbol (for the desktop's own shortcuts, which name symbols, not keys). A
// snapshot: the layout is read when the object is made; keep it no longer
// than one display or one check.
//
// Thread contract: a const value, usable from any thread.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "TobrinKit/Input/Hotkey.h"

struct xkb_keymap;

namespace tobrin {

class KeyboardLayout {
public:
    // Rule names as setxkbmap takes them; an empty field takes libxkbcommon's
    // default (the XKB_DEFAULT_* variables, else "evdev", "pc105", "us").
    struct Names {
        std::string rules, model, layout, variant, options;
    };

    // The layout of the X server at `display` (empty: $DISPLAY) in the group
    // now in use; nothing when no server answers. XWayland follows the
    // compositor's layout, so this serves Wayland sessions too.
    static std::optional<KeyboardLayout> fromX11(const std::string& display = {});
    // The first layout of `names`; nothing when libxkbcommon cannot compile it.
    static std::optional<KeyboardLayout> fromNames(const Names& names);
    // The system's keyboard configuration (Debian's /etc/default/keyboard:
    // XKBMODEL, XKBLAYOUT, XKBVARIANT, XKBOPTIONS); defaults where it is silent
    // or missing.
    static std::optional<KeyboardLayout> fromSystem(const std::filesystem::path& file = "/etc/default/keyboard");
    // The X server's when one answers, else the system's.
    static std::optional<KeyboardLayout> current();

    // The character the key types without modifiers ("q" for the key A on a
    // French layout); nothing for keys without a printable character.
    std::optional<std::string> keyName(std::uint32_t keyCode) const;
    // The key that types `name` at the lowest level: an X keysym name ("k",
    // "Page_Up"; case-insensitive when no exact name matches) or a single
    // character (","); nothing when no key of the layout types it.
    std::optional<std::uint16_t> keyCode(std::string_view name) const;

    // keyName() as a Hotkey::KeyNamer (it keeps the layout alive).
    Hotkey::KeyNamer namer() const;
    // keyName() of the current() layout: what a shortcut's key is called.
    static std::optional<std::string> layoutKeyName(std::uint32_t keyCode);

private:
    KeyboardLayout(std::shared_ptr<xkb_keymap> keymap, std::uint32_t group);

    std::shared_ptr<xkb_keymap> keymap_;
    std::uint32_t group_;
};

} // namespace tobrin
