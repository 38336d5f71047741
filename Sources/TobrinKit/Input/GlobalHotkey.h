#pragma once

// The global on/off shortcut. GlobalHotkey registers one Hotkey and runs an
// action each time it is pressed, reporting how the registration went as a
// Status. Through the key monitor's source kind: on X11 the shortcut is
// grabbed from the X server (exclusive; a combination another client holds is
// `taken`); under Wayland and on the console it is matched in the evdev key
// stream (not exclusive, but `active`). A combination the desktop binds itself
// is `reservedBySystem` and is not registered. Either way the shortcut's own
// key press and release are kept from the monitor's handler, so they make no
// sound (the modifiers before it are heard as they go down: nothing can know
// yet that they belong to the shortcut).
//
// Thread contract: construct, registerHotkey, unregister and destroy on the
// owner's thread (one at a time); status() from any thread. The action runs
// through the owner's executor (for example a post to the main thread), or
// without one directly on the thread that saw the press (the grab's or the
// monitor's); it then must not register or unregister. After unregister() or
// the destructor returns, the executor is not called again.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "TobrinKit/Input/Hotkey.h"
#include "TobrinKit/Input/KeySource.h"

namespace tobrin {

class KeyMonitor;

class GlobalHotkey {
public:
    struct Status {
        enum class Kind { active, taken, reservedBySystem, failed, off };
        Kind kind = Kind::off;
        Hotkey hotkey;          // the combination, for all kinds but `off`
        std::int32_t error = 0; // the platform's code, for `failed`

        // What the interface says about it: empty for `active` and `off`.
        std::string message(const Hotkey::KeyNamer& keyName = {}) const;

        bool operator==(const Status&) const = default;
    };

    // Runs the action somewhere; it is handed each press.
    using Executor = std::function<void(std::function<void()> action)>;
    // True when the desktop binds the combination itself.
    using ReservedCheck = std::function<bool(const Hotkey&)>;

    // `monitor` must outlive this object. An empty `isReserved` treats nothing
    // as reserved.
    GlobalHotkey(KeyMonitor& monitor, std::function<void()> action, Executor runOn = {}, ReservedCheck isReserved = {});
    ~GlobalHotkey();

    GlobalHotkey(const GlobalHotkey&) = delete;
    GlobalHotkey& operator=(const GlobalHotkey&) = delete;

    // Releases any registration, then registers `hotkey` (none: `off`).
    Status registerHotkey(std::optional<Hotkey> hotkey);
    // Releases the registration; status `off`.
    void unregister();
    Status status() const;

private:
    struct Firing; // the action and executor, shared with the threads that see presses

    KeyMonitor& monitor_;
    const ReservedCheck isReserved_;
    std::shared_ptr<Firing> firing_;
    std::unique_ptr<ShortcutGrab> grab_;

    mutable std::mutex statusLock_;
    Status status_;
};

} // namespace tobrin
