#pragma once

namespace tobrin::app {

// Runs the tray application until it quits: one Tobrin per session (a second
// start brings the running one's panel forward and returns 0), the model with
// the whole engine, the system's wake and termination signals. Returns the
// exit status.
int runApplication(int argc, char** argv);

// Registers this platform's audio backends and key sources (once).
void registerPlatform();

} // namespace tobrin::app
