#include "TobrinKit/Input/ModifierTracker.h"

namespace tobrin {

std::optional<std::uint32_t> ModifierTracker::mask(std::uint16_t code) {
    for (const Mask& entry : masks)
        if (entry.code == code) return entry.flag;
    return std::nullopt;
}

std::optional<KeyAction> ModifierTracker::update(std::uint16_t code, std::uint32_t flags) {
    if (code == KeyCode::capsLock) return KeyAction::down;
    const auto bit = mask(code);
    if (!bit) return std::nullopt;
    const bool pressed = (flags & *bit) != 0;
    const bool held = (held_ & *bit) != 0;
    if (pressed == held) return std::nullopt;
    held_ ^= *bit;
    return pressed ? KeyAction::down : KeyAction::up;
}

Modifiers ModifierTracker::modifiers() const {
    Modifiers held;
    if (held_ & (0x1 | 0x2000)) held |= Modifiers::control;
    if (held_ & (0x20 | 0x40)) held |= Modifiers::option;
    if (held_ & (0x2 | 0x4)) held |= Modifiers::shift;
    if (held_ & (0x8 | 0x10)) held |= Modifiers::command;
    return held;
}

} // namespace tobrin
