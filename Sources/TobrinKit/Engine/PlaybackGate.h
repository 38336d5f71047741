#pragma once

#include <cstdint>

namespace tobrin {

// Whether sounds should play, from the user's switch and the microphone
// watch, and which reason to show when they do not.
struct PlaybackGate {
    enum class State : std::uint8_t { playing, off, pausedForCall };

    bool enabled = true;          // the user's sound switch
    bool quietDuringCalls = true; // the setting of that name
    bool micInUse = false;        // from the microphone watch

    // The switch wins over a call: a disabled gate is off even while the mic is in use.
    State state() const;
    bool isPlaying() const { return state() == State::playing; }

    // Flips the switch. Always true: the caller learns that the switch changed.
    bool toggle();

    bool operator==(const PlaybackGate&) const = default;
};

} // namespace tobrin
