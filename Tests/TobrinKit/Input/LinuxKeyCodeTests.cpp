#include "TobrinKit/Input/LinuxKeyCode.h"

#include "TobrinKit/Engine/Core/KeyCode.h"
#include "TobrinKit/Input/KeyLayout.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <set>

namespace tobrin {
namespace {

TEST(LinuxKeyCode, MapsEveryKeyBlockToTheEngineCodes) {
    struct Case {
        std::uint16_t linuxCode;
        std::uint16_t keyCode;
    };
    // In order: ANSI rows, ISO and JIS keys, both sides of every modifier, function keys, the navigation
    // block and arrows, the keypad.
    const Case cases[] = {
        {KEY_ESC, 53},       {KEY_GRAVE, 50},     {KEY_1, 18},          {KEY_0, 29},          {KEY_EQUAL, 24},
        {KEY_BACKSPACE, 51}, {KEY_TAB, 48},       {KEY_Q, 12},          {KEY_RIGHTBRACE, 30}, {KEY_BACKSLASH, 42},
        {KEY_CAPSLOCK, 57},  {KEY_A, 0},          {KEY_K, 40},          {KEY_APOSTROPHE, 39}, {KEY_ENTER, 36},
        {KEY_Z, 6},          {KEY_SLASH, 44},     {KEY_SPACE, 49},      {KEY_102ND, 10},      {KEY_RO, 94},
        {KEY_YEN, 93},       {KEY_LEFTSHIFT, 56}, {KEY_RIGHTSHIFT, 60}, {KEY_LEFTCTRL, 59},   {KEY_RIGHTCTRL, 62},
        {KEY_LEFTALT, 58},   {KEY_RIGHTALT, 61},  {KEY_LEFTMETA, 55},   {KEY_RIGHTMETA, 54},  {KEY_FN, 63},
        {KEY_F1, 122},       {KEY_F5, 96},        {KEY_F12, 111},       {KEY_F13, 105},       {KEY_F16, 106},
        {KEY_F17, 64},       {KEY_F20, 90},       {KEY_INSERT, 114},    {KEY_DELETE, 117},    {KEY_HOME, 115},
        {KEY_END, 119},      {KEY_PAGEUP, 116},   {KEY_PAGEDOWN, 121},  {KEY_LEFT, 123},      {KEY_RIGHT, 124},
        {KEY_DOWN, 125},     {KEY_UP, 126},       {KEY_NUMLOCK, 71},    {KEY_KPSLASH, 75},    {KEY_KPASTERISK, 67},
        {KEY_KPMINUS, 78},   {KEY_KPPLUS, 69},    {KEY_KPENTER, 76},    {KEY_KPDOT, 65},      {KEY_KP0, 82},
        {KEY_KP5, 87},       {KEY_KP9, 92},       {KEY_KPEQUAL, 81},
    };
    // The way back is checked for every code below.
    for (const auto& c : cases) EXPECT_EQ(LinuxKeyCode::toKeyCode(c.linuxCode), c.keyCode) << c.linuxCode;
}

TEST(LinuxKeyCode, NoTwoLinuxKeysShareAnEngineCode) {
    std::set<std::uint16_t> seen;
    for (std::uint16_t code = 0; code < LinuxKeyCode::count; ++code) {
        const auto keyCode = LinuxKeyCode::toKeyCode(code);
        EXPECT_TRUE(seen.insert(keyCode).second) << "Linux code " << code;
        EXPECT_EQ(LinuxKeyCode::toLinux(keyCode), code);
    }
}

TEST(LinuxKeyCode, AKeyWithoutAnEntrySoundsAsAlphaCentredWithItsOwnIdentity) {
    const auto printScreen = LinuxKeyCode::toKeyCode(KEY_SYSRQ);
    const auto pause = LinuxKeyCode::toKeyCode(KEY_PAUSE);
    EXPECT_EQ(KeyLayout::group(printScreen), KeyGroup::alpha);
    EXPECT_EQ(KeyLayout::pan(printScreen), 0.0f);
    EXPECT_NE(KeyLayout::identity(printScreen), KeyLayout::identity(pause));
    EXPECT_EQ(LinuxKeyCode::toLinux(200), std::nullopt);
}

} // namespace
} // namespace tobrin
