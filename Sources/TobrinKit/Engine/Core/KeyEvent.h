#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace tobrin {

// What a key did. The order is the case index: down = 0, up = 1.
enum class KeyAction : std::uint8_t { down, up };

// One key press or release as the key monitor delivers it.
struct KeyEvent {
    std::uint16_t code = 0; // Mac virtual key code
    KeyAction action = KeyAction::down;
    std::uint64_t time = 0; // host ticks (MachTime), the clock the motion sensor stamps with

    bool operator==(const KeyEvent&) const = default;
};

} // namespace tobrin

template <>
struct std::hash<tobrin::KeyEvent> {
    std::size_t operator()(const tobrin::KeyEvent& event) const noexcept {
        std::size_t h = std::hash<std::uint64_t>{}(event.time);
        h ^= (std::size_t(event.code) << 1) ^ (std::size_t(event.action) << 17);
        return h;
    }
};
