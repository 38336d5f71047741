#pragma once

#include <cstdint>
#include <optional>

namespace tobrin {

// Linux key codes (evdev codes; an X keycode is one of them + 8) in, the
// engine's key codes out: the codes KeyLayout and Hotkey use. One table covers
// the ANSI and ISO keys, F1–F20, the navigation block, the arrows, the keypad
// and both sides of every modifier.
namespace LinuxKeyCode {

// Linux codes run below this (KEY_CNT).
inline constexpr std::uint16_t count = 0x300;

// A key without an entry becomes unmappedBase + its Linux code: outside every
// table of the engine, so it sounds as alpha, centred, yet each such key keeps
// an identity (take and detune) of its own.
inline constexpr std::uint16_t unmappedBase = 0x400;

// The engine's code for a Linux code.
std::uint16_t toKeyCode(std::uint16_t linuxCode);

// The Linux code of an engine key code (for key grabs), or nothing for a code
// no Linux key produces.
std::optional<std::uint16_t> toLinux(std::uint32_t keyCode);

} // namespace LinuxKeyCode
} // namespace tobrin
