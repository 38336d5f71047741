#pragma once

// Where the microphone state comes from: a sound server's view of its sources
// and capture streams (Mic/Pulse/ reads it over libpulse). The monitor above
// it holds the delay logic and never knows which server it reads.
//
// Thread contract: start(), stop(), resync() and readOnce() belong to one
// owner at a time (the monitor's queue). The update runs on the watch's own
// thread, one call at a time, between start() and the return of stop().

#include <chrono>
#include <functional>
#include <optional>

#include "TobrinKit/Mic/MicActivity.h"

namespace tobrin {

class MicWatch {
public:
    // The whole state after a change, or none when it became unknown (the
    // server went away; the watch keeps reconnecting and reports again).
    using Update = std::function<void(std::optional<MicActivity>)>;

    virtual ~MicWatch() = default;

    // Starts watching and returns at once; the first update follows when the
    // server answers. Not called while watching.
    virtual void start(Update update) = 0;
    // Stops watching and disconnects. When it returns the update is not
    // running and is never called again. Harmless when not watching.
    virtual void stop() = 0;
    // Reads the whole state again and sends it as an update (while watching).
    virtual void resync() = 0;
    // One reading without watching, or none when no server answers in time.
    virtual std::optional<MicActivity> readOnce(std::chrono::milliseconds timeout) = 0;
};

} // namespace tobrin
