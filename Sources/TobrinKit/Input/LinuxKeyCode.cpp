// The one table from Linux key codes to the engine's key codes.
#include "TobrinKit/Input/LinuxKeyCode.h"

#include "TobrinKit/Engine/Core/KeyCode.h"

#include <linux/input-event-codes.h>

#include <array>
#include <utility>

namespace tobrin::LinuxKeyCode {
namespace {

using Pair = std::pair<std::uint16_t, std::uint16_t>; // Linux code, engine code

// Print Screen, Scroll Lock and Pause have no key of their own on the engine's
// keyboard and stay unmapped rather than borrowing F13–F15, so that a grab of
// F13 never lands on Print Screen.
constexpr Pair pairs[] = {
    {KEY_ESC, KeyCode::escape},
    {KEY_1, KeyCode::digit1},
    {KEY_2, KeyCode::digit2},
    {KEY_3, KeyCode::digit3},
    {KEY_4, KeyCode::digit4},
    {KEY_5, KeyCode::digit5},
    {KEY_6, KeyCode::digit6},
    {KEY_7, KeyCode::digit7},
    {KEY_8, KeyCode::digit8},
    {KEY_9, KeyCode::digit9},
    {KEY_0, KeyCode::digit0},
    {KEY_MINUS, KeyCode::minus},
    {KEY_EQUAL, KeyCode::equal},
    {KEY_BACKSPACE, KeyCode::deleteKey},
    {KEY_TAB, KeyCode::tab},
    {KEY_Q, KeyCode::q},
    {KEY_W, KeyCode::w},
    {KEY_E, KeyCode::e},
    {KEY_R, KeyCode::r},
    {KEY_T, KeyCode::t},
    {KEY_Y, KeyCode::y},
    {KEY_U, KeyCode::u},
    {KEY_I, KeyCode::i},
    {KEY_O, KeyCode::o},
    {KEY_P, KeyCode::p},
    {KEY_LEFTBRACE, KeyCode::leftBracket},
    {KEY_RIGHTBRACE, KeyCode::rightBracket},
    {KEY_ENTER, KeyCode::returnKey},
    {KEY_LEFTCTRL, KeyCode::control},
    {KEY_A, KeyCode::a},
    {KEY_S, KeyCode::s},
    {KEY_D, KeyCode::d},
    {KEY_F, KeyCode::f},
    {KEY_G, KeyCode::g},
    {KEY_H, KeyCode::h},
    {KEY_J, KeyCode::j},
    {KEY_K, KeyCode::k},
    {KEY_L, KeyCode::l},
    {KEY_SEMICOLON, KeyCode::semicolon},
    {KEY_APOSTROPHE, KeyCode::quote},
    {KEY_GRAVE, KeyCode::grave},
    {KEY_LEFTSHIFT, KeyCode::shift},
    {KEY_BACKSLASH, KeyCode::backslash}, // also the ISO key left of Enter
    {KEY_Z, KeyCode::z},
    {KEY_X, KeyCode::x},
    {KEY_C, KeyCode::c},
    {KEY_V, KeyCode::v},
    {KEY_B, KeyCode::b},
    {KEY_N, KeyCode::n},
    {KEY_M, KeyCode::m},
    {KEY_COMMA, KeyCode::comma},
    {KEY_DOT, KeyCode::period},
    {KEY_SLASH, KeyCode::slash},
    {KEY_RIGHTSHIFT, KeyCode::rightShift},
    {KEY_KPASTERISK, KeyCode::keypadMultiply},
    {KEY_LEFTALT, KeyCode::option},
    {KEY_SPACE, KeyCode::space},
    {KEY_CAPSLOCK, KeyCode::capsLock},
    {KEY_F1, KeyCode::f1},
    {KEY_F2, KeyCode::f2},
    {KEY_F3, KeyCode::f3},
    {KEY_F4, KeyCode::f4},
    {KEY_F5, KeyCode::f5},
    {KEY_F6, KeyCode::f6},
    {KEY_F7, KeyCode::f7},
    {KEY_F8, KeyCode::f8},
    {KEY_F9, KeyCode::f9},
    {KEY_F10, KeyCode::f10},
    {KEY_NUMLOCK, KeyCode::keypadClear}, // the Clear key sits where Num Lock does
    {KEY_KP7, KeyCode::keypad7},
    {KEY_KP8, KeyCode::keypad8},
    {KEY_KP9, KeyCode::keypad9},
    {KEY_KPMINUS, KeyCode::keypadMinus},
    {KEY_KP4, KeyCode::keypad4},
    {KEY_KP5, KeyCode::keypad5},
    {KEY_KP6, KeyCode::keypad6},
    {KEY_KPPLUS, KeyCode::keypadPlus},
    {KEY_KP1, KeyCode::keypad1},
    {KEY_KP2, KeyCode::keypad2},
    {KEY_KP3, KeyCode::keypad3},
    {KEY_KP0, KeyCode::keypad0},
    {KEY_KPDOT, KeyCode::keypadDecimal},
    {KEY_102ND, KeyCode::section}, // the ISO key left of Z
    {KEY_F11, KeyCode::f11},
    {KEY_F12, KeyCode::f12},
    {KEY_RO, KeyCode::jisUnderscore},
    {KEY_KPENTER, KeyCode::keypadEnter},
    {KEY_RIGHTCTRL, KeyCode::rightControl},
    {KEY_KPSLASH, KeyCode::keypadDivide},
    {KEY_RIGHTALT, KeyCode::rightOption},
    {KEY_HOME, KeyCode::home},
    {KEY_UP, KeyCode::upArrow},
    {KEY_PAGEUP, KeyCode::pageUp},
    {KEY_LEFT, KeyCode::leftArrow},
    {KEY_RIGHT, KeyCode::rightArrow},
    {KEY_END, KeyCode::end},
    {KEY_DOWN, KeyCode::downArrow},
    {KEY_PAGEDOWN, KeyCode::pageDown},
    {KEY_INSERT, KeyCode::help}, // Help sits where Insert does
    {KEY_DELETE, KeyCode::forwardDelete},
    {KEY_MUTE, KeyCode::mute},
    {KEY_VOLUMEDOWN, KeyCode::volumeDown},
    {KEY_VOLUMEUP, KeyCode::volumeUp},
    {KEY_KPEQUAL, KeyCode::keypadEquals},
    {KEY_KPCOMMA, KeyCode::jisKeypadComma},
    {KEY_YEN, KeyCode::jisYen},
    {KEY_LEFTMETA, KeyCode::command},
    {KEY_RIGHTMETA, KeyCode::rightCommand},
    {KEY_COMPOSE, KeyCode::contextMenu},
    {KEY_F13, KeyCode::f13},
    {KEY_F14, KeyCode::f14},
    {KEY_F15, KeyCode::f15},
    {KEY_F16, KeyCode::f16},
    {KEY_F17, KeyCode::f17},
    {KEY_F18, KeyCode::f18},
    {KEY_F19, KeyCode::f19},
    {KEY_F20, KeyCode::f20},
    {KEY_FN, KeyCode::function},
};

static_assert(KEY_CNT == count);

constexpr std::array<std::uint16_t, count> buildTable() {
    std::array<std::uint16_t, count> table{};
    for (std::uint16_t code = 0; code < count; ++code) table[code] = std::uint16_t(unmappedBase + code);
    for (const auto& [linuxCode, keyCode] : pairs) table[linuxCode] = keyCode;
    return table;
}

constexpr std::array<std::uint16_t, count> table = buildTable();

} // namespace

std::uint16_t toKeyCode(std::uint16_t linuxCode) {
    return linuxCode < count ? table[linuxCode] : std::uint16_t(unmappedBase + linuxCode);
}

std::optional<std::uint16_t> toLinux(std::uint32_t keyCode) {
    for (const auto& [linuxCode, code] : pairs)
        if (code == keyCode) return linuxCode;
    if (keyCode >= unmappedBase && keyCode < unmappedBase + count) return std::uint16_t(keyCode - unmappedBase);
    return std::nullopt;
}

} // namespace tobrin::LinuxKeyCode
