#pragma once

#include <cstdint>
#include <optional>

namespace tobrin {

// The key codes community packs are written in: the scan codes of a
// cross-platform input hook library (PC set 1 make codes, with 0x0E00 or 0xE000
// added for the extended keys and 0xEE00 for keypad keys read with NumLock
// off). Pure functions, callable from any thread.
namespace ScanCodes {

struct LinuxKey {
    std::uint16_t code = 0;
    // True when the number was read as a raw Linux code rather than as a scan
    // code: some packs name the extended keys that way. A scan code for the
    // same key wins over it.
    bool isAlias = false;

    friend bool operator==(const LinuxKey&, const LinuxKey&) = default;
};

// The Linux (evdev) key of a scan code, or nothing for a number that names no
// key. 1–88 are the same numbers in both schemes; the extended keys come from
// the scan-code table; a keypad key with NumLock off is its keypad key; any
// other number below 0x300 is taken as a Linux code (an alias), except
// 0x5B–0x5D, which are F13–F15 as scan codes. The scan codes of F16–F24
// (0x63–0x6B) collide with the Linux codes of the navigation block and the
// right-hand modifiers, which packs name far more often, so those numbers are
// read as the latter.
std::optional<LinuxKey> toLinux(std::uint32_t scanCode);

} // namespace ScanCodes
} // namespace tobrin
