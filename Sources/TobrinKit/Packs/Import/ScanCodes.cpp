// Scan codes of community packs to Linux key codes.
#include "TobrinKit/Packs/Import/ScanCodes.h"

#include <linux/input-event-codes.h>

#include <utility>

namespace tobrin::ScanCodes {
namespace {

// The extended keys: scan code, Linux code. Both spellings of the arrows
// (0x0E48 and 0xE048, ...) and of the left and right Alt (an older
// revision of the table set 0xD038 and 0xDE38) are in use.
constexpr std::pair<std::uint16_t, std::uint16_t> extended[] = {
    {0x0E1C, KEY_KPENTER},      {0x0E1D, KEY_RIGHTCTRL}, {0x0E35, KEY_KPSLASH},   {0x0E36, KEY_RIGHTSHIFT},
    {0x0E37, KEY_SYSRQ},        {0x0E38, KEY_RIGHTALT},  {0x0E45, KEY_PAUSE},     {0x0E46, KEY_PAUSE},
    {0x0E47, KEY_HOME},         {0x0E48, KEY_UP},        {0x0E49, KEY_PAGEUP},    {0x0E4B, KEY_LEFT},
    {0x0E4D, KEY_RIGHT},        {0x0E4F, KEY_END},       {0x0E50, KEY_DOWN},      {0x0E51, KEY_PAGEDOWN},
    {0x0E52, KEY_INSERT},       {0x0E53, KEY_DELETE},    {0x0E5B, KEY_LEFTMETA},  {0x0E5C, KEY_RIGHTMETA},
    {0x0E5D, KEY_COMPOSE},      {0xE048, KEY_UP},        {0xE04B, KEY_LEFT},      {0xE04D, KEY_RIGHT},
    {0xE050, KEY_DOWN},         {0xD038, KEY_LEFTALT},   {0xDE38, KEY_RIGHTALT},  {0xE020, KEY_MUTE},
    {0xE02E, KEY_VOLUMEDOWN},   {0xE030, KEY_VOLUMEUP},  {0xE022, KEY_PLAYPAUSE}, {0xE024, KEY_STOPCD},
    {0xE010, KEY_PREVIOUSSONG}, {0xE019, KEY_NEXTSONG},
};

// Scan codes 0x5B–0x5D: F13–F15.
constexpr std::uint16_t firstF13 = 0x5B;

// Keypad keys read with NumLock off: 0xEE00 + the keypad key's scan code.
constexpr std::uint32_t numLockOff = 0xEE00;

} // namespace

std::optional<LinuxKey> toLinux(std::uint32_t scanCode) {
    if ((scanCode & 0xFF00) == numLockOff && scanCode <= 0xFFFF) {
        const std::uint32_t keypad = scanCode & 0xFF;
        if (keypad >= 0x47 && keypad <= 0x53) return LinuxKey{std::uint16_t(keypad), false};
        return std::nullopt;
    }
    for (const auto& [scan, linuxCode] : extended) {
        if (scan == scanCode) return LinuxKey{linuxCode, false};
    }
    if (scanCode == 0) return std::nullopt;
    if (scanCode <= KEY_F12) return LinuxKey{std::uint16_t(scanCode), false};
    if (scanCode >= firstF13 && scanCode < firstF13 + 3)
        return LinuxKey{std::uint16_t(KEY_F13 + (scanCode - firstF13)), false};
    if (scanCode < KEY_CNT) return LinuxKey{std::uint16_t(scanCode), true};
    return std::nullopt;
}

} // namespace tobrin::ScanCodes
