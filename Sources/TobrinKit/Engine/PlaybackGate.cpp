// The play/off/paused-for-call decision.
#include "TobrinKit/Engine/PlaybackGate.h"

namespace tobrin {

PlaybackGate::State PlaybackGate::state() const {
    if (!enabled) return State::off;
    if (quietDuringCalls && micInUse) return State::pausedForCall;
    return State::playing;
}

bool PlaybackGate::toggle() {
    enabled = !enabled;
    return true;
}

} // namespace tobrin
