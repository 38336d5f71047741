#pragma once

#include <cstdint>
#include <optional>

#include "TobrinKit/Engine/Core/KeyGroup.h"

namespace tobrin {

// Where the keys of an ANSI laptop keyboard are, by Mac virtual key code:
// their sound group, their horizontal position (for stereo placement) and a
// fixed per-key hash. Pure functions; the column table is built once, on
// first use (thread-safe), and only read afterwards, so every call is
// constant-time and allocation-free and may come from any thread.
namespace KeyLayout {

// Space, enter, backspace, modifier (Tab included: it sounds like a modifier
// key) or alpha for every other code.
KeyGroup group(std::uint16_t code);

// Horizontal position of the key's centre in key widths from the keyboard's
// left edge (0 ... 15), or nothing for a key the table does not place.
std::optional<double> column(std::uint16_t code);

// −1 (left edge) ... +1 (right edge); 0 for keys without a column.
float pan(std::uint16_t code);

// The generator's output mix of 0x9E3779B97F4A7C15 + code: stable across runs.
std::uint64_t identity(std::uint16_t code);

} // namespace KeyLayout
} // namespace tobrin
