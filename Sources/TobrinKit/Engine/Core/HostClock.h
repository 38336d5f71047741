#pragma once

// Where code that waits reads the time. The product runs on the host clock
// (MachTime::now, CLOCK_MONOTONIC nanoseconds); tests hand the same code a clock
// they move by hand, so its timers fire when the test says so and never by
// the luck of scheduling.
//
// Thread contract: now() may be called from any thread. A clock that is moved
// by hand calls its observers on the thread that moved it; an observer's owner
// must not be destroyed while the clock is being moved.

#include <cstdint>
#include <functional>
#include <memory>

namespace tobrin {

class HostClock {
public:
    virtual ~HostClock() = default;

    // Host ticks.
    virtual std::uint64_t now() const = 0;

    // True when time only moves by hand; timers then wait for observe()'s
    // callback instead of real time.
    virtual bool isManual() const { return false; }

    // Calls `moved` after each move by hand, for as long as the returned token
    // lives. The host clock never calls it and returns an empty token.
    virtual std::shared_ptr<void> observe(std::function<void()> moved) {
        (void)moved;
        return nullptr;
    }

    // The host clock, shared.
    static std::shared_ptr<HostClock> host();
};

} // namespace tobrin
