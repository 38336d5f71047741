#include "TobrinKit/Input/X11/X11Keys.h"

#include "TobrinKit/Input/X11/X11KeySource.h"
#include "TobrinKit/Input/X11/X11ShortcutGrab.h"

#include <xcb/xcb.h>

namespace tobrin::X11Keys {

KeySourceFactory factory(std::string display) {
    KeySourceFactory kind;
    kind.name = "x11";
    kind.suitsSession = [display] { return !KeySources::isWaylandSession() && isReachable(display); };
    kind.create = [display] { return std::make_unique<X11KeySource>(display); };
    kind.grabShortcut = [display](const Hotkey& hotkey, std::function<void()> pressed) {
        return X11ShortcutGrab::grab(display, hotkey, std::move(pressed));
    };
    return kind;
}

void add() { KeySources::add(factory()); }

bool isReachable(const std::string& display) {
    xcb_connection_t* connection = xcb_connect(display.empty() ? nullptr : display.c_str(), nullptr);
    const bool reachable = !xcb_connection_has_error(connection);
    xcb_disconnect(connection);
    return reachable;
}

} // namespace tobrin::X11Keys
