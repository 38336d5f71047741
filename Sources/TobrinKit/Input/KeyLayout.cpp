// Key groups, key positions and per-key identities of the ANSI laptop layout.
#include "TobrinKit/Input/KeyLayout.h"

#include <array>
#include <cmath>
#include <initializer_list>

namespace tobrin::KeyLayout {

namespace {

// Every placed code is below 128; NaN marks a code without a column.
constexpr std::size_t tableSize = 128;
using ColumnTable = std::array<double, tableSize>;

ColumnTable buildColumns() {
    ColumnTable table;
    table.fill(std::nan(""));
    auto place = [&](std::uint16_t code, double position) { table[code] = position; };
    auto row = [&](std::initializer_list<std::uint16_t> codes, double start, double step) {
        double i = 0;
        for (std::uint16_t code : codes) place(code, start + step * i++);
    };

    place(53, 0.5);                                                           // Escape
    row({122, 120, 99, 118, 96, 97, 98, 100, 101, 109, 103, 111}, 1.6, 1.08); // F1–F12
    row({50, 18, 19, 20, 21, 23, 22, 26, 28, 25, 29, 27, 24}, 0.5, 1.0);      // ` 1 … 0 - =
    place(51, 14.0);                                                          // Delete
    place(48, 0.75);                                                          // Tab
    row({12, 13, 14, 15, 17, 16, 32, 34, 31, 35, 33, 30}, 2.0, 1.0);          // Q … ]
    place(42, 14.25);                                                         // backslash
    place(57, 0.9);                                                           // Caps Lock
    row({0, 1, 2, 3, 5, 4, 38, 40, 37, 41, 39}, 2.25, 1.0);                   // A … '
    place(36, 14.0);                                                          // Return
    place(56, 1.2);                                                           // left Shift
    row({6, 7, 8, 9, 11, 45, 46, 43, 47, 44}, 2.75, 1.0);                     // Z … /
    place(60, 13.9);                                                          // right Shift
    place(63, 0.5);                                                           // Fn
    place(59, 1.5);                                                           // Control
    place(58, 2.5);                                                           // Option
    place(55, 3.75);                                                          // Command
    place(49, 7.5);                                                           // Space
    place(54, 11.25);                                                         // right Command
    place(61, 12.4);                                                          // right Option
    place(123, 13.1);                                                         // left arrow
    place(126, 14.0);                                                         // up arrow
    place(125, 14.0);                                                         // down arrow
    place(124, 14.9);                                                         // right arrow
    place(117, 14.6);                                                         // forward Delete
    return table;
}

const ColumnTable& columns() {
    static const ColumnTable table = buildColumns();
    return table;
}

} // namespace

KeyGroup group(std::uint16_t code) {
    switch (code) {
    case 49: return KeyGroup::space;
    case 36:
    case 76: return KeyGroup::enter;
    case 51:
    case 117: return KeyGroup::backspace;
    case 48: return KeyGroup::modifier;
    default: return code >= 54 && code <= 63 ? KeyGroup::modifier : KeyGroup::alpha;
    }
}

std::optional<double> column(std::uint16_t code) {
    if (code >= tableSize) return std::nullopt;
    const double position = columns()[code];
    if (std::isnan(position)) return std::nullopt;
    return position;
}

float pan(std::uint16_t code) {
    const auto position = column(code);
    if (!position) return 0.0f;
    return static_cast<float>((*position / 15.0 - 0.5) * 2.0);
}

std::uint64_t identity(std::uint16_t code) {
    std::uint64_t z = 0x9E3779B97F4A7C15ULL + code;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

} // namespace tobrin::KeyLayout
