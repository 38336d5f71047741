// Key groups, key positions and per-key identities of the ANSI laptop layout.
#include "TobrinKit/Input/KeyLayout.h"

#include "TobrinKit/Engine/Core/KeyCode.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"

#include <array>
#include <cmath>
#include <initializer_list>

namespace tobrin::KeyLayout {

namespace {

// Every placed code is below 128; NaN marks a code without a column.
constexpr std::size_t tableSize = 128;
using ColumnTable = std::array<double, tableSize>;

ColumnTable buildColumns() {
    using enum KeyCode;
    ColumnTable table;
    table.fill(std::nan(""));
    auto place = [&](std::uint16_t code, double position) { table[code] = position; };
    auto row = [&](std::initializer_list<std::uint16_t> codes, double start, double step) {
        double i = 0;
        for (std::uint16_t code : codes) place(code, start + step * i++);
    };

    place(KeyCode::escape, 0.5);
    row({f1, f2, f3, f4, f5, f6, f7, f8, f9, f10, f11, f12}, 1.6, 1.08);
    row({grave, digit1, digit2, digit3, digit4, digit5, digit6, digit7, digit8, digit9, digit0, minus, equal}, 0.5,
        1.0);
    place(deleteKey, 14.0);
    place(tab, 0.75);
    row({q, w, e, r, t, y, u, i, o, p, leftBracket, rightBracket}, 2.0, 1.0);
    place(backslash, 14.25);
    place(capsLock, 0.9);
    row({a, s, d, f, g, h, j, k, l, semicolon, quote}, 2.25, 1.0);
    place(returnKey, 14.0);
    place(shift, 1.2);
    row({z, x, c, v, b, n, m, comma, period, slash}, 2.75, 1.0);
    place(rightShift, 13.9);
    place(function, 0.5);
    place(control, 1.5);
    place(option, 2.5);
    place(command, 3.75);
    place(space, 7.5);
    place(rightCommand, 11.25);
    place(rightOption, 12.4);
    place(leftArrow, 13.1);
    place(upArrow, 14.0);
    place(downArrow, 14.0);
    place(rightArrow, 14.9);
    place(forwardDelete, 14.6);
    return table;
}

const ColumnTable& columns() {
    static const ColumnTable table = buildColumns();
    return table;
}

} // namespace

KeyGroup group(std::uint16_t code) {
    switch (code) {
    case KeyCode::space: return KeyGroup::space;
    case KeyCode::returnKey:
    case KeyCode::keypadEnter: return KeyGroup::enter;
    case KeyCode::deleteKey:
    case KeyCode::forwardDelete: return KeyGroup::backspace;
    case KeyCode::tab: return KeyGroup::modifier;
    default:
        // The modifiers are one block: right Command (54) up to Fn (63).
        return code >= KeyCode::rightCommand && code <= KeyCode::function ? KeyGroup::modifier : KeyGroup::alpha;
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

std::uint64_t identity(std::uint16_t code) { return SplitMix64(code).next(); }

} // namespace tobrin::KeyLayout
