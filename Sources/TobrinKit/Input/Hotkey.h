#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace tobrin {

// A set of shortcut modifiers over a 32-bit raw value. The raw values are
// stored in the settings file, so the bits are part of the file format.
struct Modifiers {
    std::uint32_t rawValue = 0;

    static const Modifiers control; // 0x1, shown as "Ctrl+"
    static const Modifiers option;  // 0x2, shown as "Alt+"
    static const Modifiers shift;   // 0x4, shown as "Shift+"
    static const Modifiers command; // 0x8, shown as "Super+"

    constexpr bool contains(Modifiers other) const { return (rawValue & other.rawValue) == other.rawValue; }
    constexpr bool isEmpty() const { return rawValue == 0; }

    constexpr Modifiers operator|(Modifiers other) const { return {rawValue | other.rawValue}; }
    constexpr Modifiers operator&(Modifiers other) const { return {rawValue & other.rawValue}; }
    constexpr Modifiers& operator|=(Modifiers other) {
        rawValue |= other.rawValue;
        return *this;
    }

    bool operator==(const Modifiers&) const = default;
};

inline constexpr Modifiers Modifiers::control{0x1};
inline constexpr Modifiers Modifiers::option{0x2};
inline constexpr Modifiers Modifiers::shift{0x4};
inline constexpr Modifiers Modifiers::command{0x8};

// The global on/off shortcut: a Mac virtual key code and its modifiers. The
// default, Ctrl+Alt+Super+K, is the first preset.
struct Hotkey {
    // Gives the character the user's keyboard layout puts on a key code, or
    // nothing. Empty (no namer) means no layout is consulted.
    using KeyNamer = std::function<std::optional<std::string>(std::uint32_t keyCode)>;

    std::uint32_t keyCode = 40; // K
    Modifiers modifiers = Modifiers::control | Modifiers::option | Modifiers::command;

    // The shortcuts offered in the menu, default first: K, S, M and T with Ctrl+Alt+Super.
    static const std::array<Hotkey, 4> presets;

    // The modifier names in the order Ctrl, Alt, Shift, Super, then the key's
    // label: the special-key table, else the layout's character upper-cased
    // (full Unicode case mapping: "é" → "É", "ß" → "SS"),
    // else the US label, else "Key " and the decimal code.
    std::string displayString(const KeyNamer& keyName = {}) const;

    // Fixed labels of non-character keys (Space, arrows, F1–F20, ...).
    static std::optional<std::string> specialKeyLabel(std::uint32_t keyCode);
    // Labels of the US layout, used when the layout gives no character.
    static std::optional<std::string> qwertyKeyLabel(std::uint32_t keyCode);

    bool operator==(const Hotkey&) const = default;
};

inline constexpr std::array<Hotkey, 4> Hotkey::presets = {{
    {40, Modifiers{11}},
    {1, Modifiers{11}},
    {46, Modifiers{11}},
    {17, Modifiers{11}},
}};

// JSON: a Modifiers value is its raw number; a Hotkey is {"keyCode": n,
// "modifiers": raw}, both keys required.
void to_json(nlohmann::json& json, const Modifiers& modifiers);
void from_json(const nlohmann::json& json, Modifiers& modifiers);
void to_json(nlohmann::json& json, const Hotkey& hotkey);
void from_json(const nlohmann::json& json, Hotkey& hotkey);

} // namespace tobrin

template <>
struct std::hash<tobrin::Modifiers> {
    std::size_t operator()(const tobrin::Modifiers& modifiers) const noexcept {
        return std::hash<std::uint32_t>{}(modifiers.rawValue);
    }
};

template <>
struct std::hash<tobrin::Hotkey> {
    std::size_t operator()(const tobrin::Hotkey& hotkey) const noexcept {
        return std::hash<std::uint64_t>{}((std::uint64_t(hotkey.keyCode) << 32) | hotkey.modifiers.rawValue);
    }
};
