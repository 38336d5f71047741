#pragma once

// The key monitor's handling steps, free of any platform: Linux key records
// (code and value, as evdev and X11 raw events give them) in, the engine's
// key events out. It drops autorepeats, turns the nine modifier keys into
// downs and ups through a ModifierTracker, ignores a release of a key that is
// not held (xdotool sends those, and a resynchronised device may too) and
// keeps the global shortcut's own key from the handler.
//
// Nothing typed is kept beyond the set of keys held now.
//
// Thread contract: deliver() and reset() belong to one thread (the key
// monitor's) and call the handler on it; setShortcut() may be called from any
// thread.

#include <bitset>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "TobrinKit/Engine/Core/KeyEvent.h"
#include "TobrinKit/Input/Hotkey.h"
#include "TobrinKit/Input/LinuxKeyCode.h"
#include "TobrinKit/Input/ModifierTracker.h"

namespace tobrin {

// What a key record says, with the values evdev uses.
enum class KeyValue : std::uint8_t { release = 0, press = 1, repeat = 2 };

class KeyStream {
public:
    using Handler = std::function<void(const KeyEvent&)>;

    explicit KeyStream(Handler handler);

    // One key record, stamped with `time` (host ticks, the moment of delivery).
    // A press of a key already held counts as a repeat: X11 raw events carry
    // no repeat flag.
    void deliver(std::uint16_t linuxCode, KeyValue value, std::uint64_t time);

    // Forgets every held key and modifier. The sources report changes only, so
    // a key released while nobody listened would otherwise stay held and
    // silence its next press.
    void reset();

    // Keeps the shortcut's key press, made with exactly its modifiers held
    // (either side; Caps Lock and Num Lock do not count), and that key's
    // release from the handler. `pressed`, when set, runs instead of the
    // handler for the press, on the delivering thread. No value: none.
    void setShortcut(std::optional<Hotkey> hotkey, std::function<void()> pressed);

    // Control, Alt, Shift and Super held now.
    Modifiers modifiers() const { return modifiers_.modifiers(); }

private:
    bool takenByShortcut(std::uint16_t code);

    Handler handler_;
    ModifierTracker modifiers_;
    std::bitset<LinuxKeyCode::count> held_;      // keys other than modifiers, by Linux code
    std::bitset<LinuxKeyCode::count> swallowed_; // held keys whose press the shortcut took

    std::mutex shortcutLock_; // setShortcut against deliver; never held while calling out
    std::optional<Hotkey> shortcut_;
    std::shared_ptr<const std::function<void()>> pressed_;
};

} // namespace tobrin
