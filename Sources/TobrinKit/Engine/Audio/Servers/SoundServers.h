#pragma once

// The sound-server backends of this platform, for the programs that play
// sound: registerSoundServerBackends() adds PipeWire, then PulseAudio, ahead
// of the null device (AudioBackends::add), so an AudioOutput made afterwards
// tries them in that order. Call it once at start-up, before the first
// AudioOutput; calling it again changes nothing.

namespace tobrin {

void registerSoundServerBackends();

} // namespace tobrin
