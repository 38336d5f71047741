#pragma once

#include <string>

#include "TobrinKit/Input/KeySource.h"

namespace tobrin::X11Keys {

// The source kind "x11": raw key events of the X server `display` (empty:
// $DISPLAY) and shortcuts grabbed from it. It suits a session that is not a
// Wayland one when the server answers; it needs no permission.
KeySourceFactory factory(std::string display = {});

// Registers factory() with KeySources, for the programs' start-up.
void add();

// An X server answers at `display` (empty: $DISPLAY).
bool isReachable(const std::string& display);

} // namespace tobrin::X11Keys
