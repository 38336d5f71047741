#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "TobrinKit/Engine/Core/KeyCode.h"
#include "TobrinKit/Engine/Core/KeyEvent.h"
#include "TobrinKit/Input/Hotkey.h"

namespace tobrin {

// Which modifier keys are held, each side apart, kept from a modifier-flags
// word that has one bit per key: a change of that word becomes a separate
// down or up of the key that changed it. Left Shift down, right Shift down,
// left Shift up gives down 56, down 60, up 56.
//
// A plain value, used by one thread (the key monitor's).
class ModifierTracker {
public:
    struct Mask {
        std::uint16_t code;
        std::uint32_t flag;
    };

    // The nine modifier keys and their flag bits. Caps Lock (57) is not one
    // of them: its flag toggles, see update().
    static constexpr std::array<Mask, 9> masks = {{
        {KeyCode::shift, 0x2},
        {KeyCode::rightShift, 0x4},
        {KeyCode::control, 0x1},
        {KeyCode::rightControl, 0x2000},
        {KeyCode::option, 0x20},
        {KeyCode::rightOption, 0x40},
        {KeyCode::command, 0x8},
        {KeyCode::rightCommand, 0x10},
        {KeyCode::function, 0x800000},
    }};

    // The flag bit of a modifier key, or nothing for any other key.
    static std::optional<std::uint32_t> mask(std::uint16_t code);

    // The flags changed with key `code` as the cause: Caps Lock gives a down
    // every time (its flag toggles, so it never gives an up); another key not
    // in `masks` gives nothing; a modifier whose bit is now set and was not
    // held goes down, one whose bit is clear and was held goes up; an
    // unchanged state gives nothing.
    std::optional<KeyAction> update(std::uint16_t code, std::uint32_t flags);

    // The flags of the modifier keys held.
    std::uint32_t flags() const { return held_; }
    // Control, Alt, Shift and Super held, on either side.
    Modifiers modifiers() const;

private:
    std::uint32_t held_ = 0;
};

} // namespace tobrin
