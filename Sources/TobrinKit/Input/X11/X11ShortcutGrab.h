#pragma once

// The global shortcut on X11: a passive key grab on the root window (the
// GrabKey request), made four times so Caps Lock and Num Lock do not matter.
// A BadAccess answer means another client holds the combination: `taken`.
// The grab's connection is read by a thread of its own, "Tobrin.Shortcut",
// which calls `pressed` once per press: with detectable autorepeat, a held
// key repeats as presses without releases, and only the first one counts.
//
// Thread contract: grab() and the destructor on the owner's thread; when the
// destructor returns, `pressed` is not running and is not called again.

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "TobrinKit/Input/KeySource.h"

struct xcb_connection_t;

namespace tobrin {

class X11ShortcutGrab final : public ShortcutGrab {
public:
    // `display` as in $DISPLAY; empty: $DISPLAY itself. A failure's error is
    // the X protocol error code, or -1 when the server cannot be reached.
    static ShortcutGrabResult grab(const std::string& display, const Hotkey& hotkey, std::function<void()> pressed);
    ~X11ShortcutGrab() override;

private:
    X11ShortcutGrab(xcb_connection_t* connection, std::uint8_t keycode, std::function<void()> pressed);
    void run();

    xcb_connection_t* connection_;
    const std::uint8_t keycode_;
    const std::function<void()> pressed_;
    int wake_;
    std::thread thread_;
};

} // namespace tobrin
