#pragma once

#include <cstdint>

namespace tobrin {

// Key codes as every table of the engine knows them: the virtual key codes of
// an Apple keyboard, which the key sources translate Linux key codes into.
// Letters and digits are named by what they print on an ANSI layout; `section`
// is the extra key left of Z on ISO keyboards.
enum KeyCode : std::uint16_t {
    a = 0, s = 1, d = 2, f = 3, h = 4, g = 5, z = 6, x = 7, c = 8, v = 9, section = 10, b = 11,
    q = 12, w = 13, e = 14, r = 15, y = 16, t = 17,
    digit1 = 18, digit2 = 19, digit3 = 20, digit4 = 21, digit6 = 22, digit5 = 23, equal = 24, digit9 = 25,
    digit7 = 26, minus = 27, digit8 = 28, digit0 = 29, rightBracket = 30, o = 31, u = 32, leftBracket = 33,
    i = 34, p = 35, returnKey = 36, l = 37, j = 38, quote = 39, k = 40, semicolon = 41, backslash = 42,
    comma = 43, slash = 44, n = 45, m = 46, period = 47, tab = 48, space = 49, grave = 50, deleteKey = 51,
    escape = 53, rightCommand = 54, command = 55, shift = 56, capsLock = 57, option = 58, control = 59,
    rightShift = 60, rightOption = 61, rightControl = 62, function = 63, f17 = 64, keypadDecimal = 65,
    keypadMultiply = 67, keypadPlus = 69, keypadClear = 71, volumeUp = 72, volumeDown = 73, mute = 74,
    keypadDivide = 75, keypadEnter = 76, keypadMinus = 78, f18 = 79, f19 = 80, keypadEquals = 81,
    keypad0 = 82, keypad1 = 83, keypad2 = 84, keypad3 = 85, keypad4 = 86, keypad5 = 87, keypad6 = 88,
    keypad7 = 89, f20 = 90, keypad8 = 91, keypad9 = 92, f5 = 96, f6 = 97, f7 = 98, f3 = 99, f8 = 100,
    f9 = 101, f11 = 103, f13 = 105, f16 = 106, f14 = 107, f10 = 109, f12 = 111, f15 = 113, help = 114,
    home = 115, pageUp = 116, forwardDelete = 117, f4 = 118, end = 119, f2 = 120, pageDown = 121, f1 = 122,
    leftArrow = 123, rightArrow = 124, downArrow = 125, upArrow = 126,
};

} // namespace tobrin
