#pragma once

#include <string>
#include <vector>

namespace tobrin::app {

// tobrin --snapshot [path] [dark] [call] [pack=ID] [nosensor] [noaccess] [taken]:
// renders the panel offscreen into a PNG (default "menu.png"), for the
// documentation. The panel shows a preview model: the real pack library and
// packs, but no settings file, no key capture, no microphone and no sound.
// The words choose its state: a dark palette, sounds paused for a call, the
// pack of that id, no motion sensor, no keyboard access, the shortcut taken
// by another app. Returns the exit status (1 with a message when a word is
// unknown or the file cannot be written).
int snapshot(const std::vector<std::string>& words);

} // namespace tobrin::app
