#pragma once

#include "TobrinKit/Input/KeySource.h"

namespace tobrin::EvdevKeys {

// The source kind "evdev": every keyboard under /dev/input, found and followed
// with libudev. It suits every session (it is the one for Wayland and the
// console); it needs read access to the keyboards' device nodes, normally
// membership of the `input` group. Shortcuts are matched in its key stream.
KeySourceFactory factory();

// Registers factory() with KeySources, for the programs' start-up.
void add();

// This process's access to the keyboards: a keyboard node opens; or the
// user is in the nodes' group but this session is not yet (needsRelaunch).
KeyboardAccess access();

// The decision behind access(): a keyboard could be read; this process has
// the devices' group; the user database gives the user that group.
KeyboardAccess accessFrom(bool keyboardReadable, bool processHasGroup, bool userHasGroup);

} // namespace tobrin::EvdevKeys
