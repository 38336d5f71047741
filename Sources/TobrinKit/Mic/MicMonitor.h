#pragma once

// Tells the owner whether any other program is using a microphone, so sounds
// can pause during calls. It reads the sound server's state only and never
// opens an audio stream. "In use" is reported at once, "free" only after
// releaseDelay (1 s) without use: a call that drops the microphone for a
// moment does not bring the sounds back.
//
// Thread contract: every public function may be called from any thread but
// the monitor's queue ("app.tobrin.mic"), which owns all state; start(),
// stop() and current() wait for it, refresh() does not. onChange runs through
// the owner's executor (a post to the main thread), or on the queue without
// one; it is never called for a session that stop() or the destructor ended.
// While the server's state is unknown (it restarts, it is not there) nothing
// is reported; the last report stands.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "TobrinKit/Engine/Core/HostClock.h"
#include "TobrinKit/Engine/SerialQueue.h"
#include "TobrinKit/Mic/MicActivity.h"
#include "TobrinKit/Mic/MicWatch.h"

namespace tobrin {

class MicMonitor {
public:
    using Executor = std::function<void(std::function<void()> action)>;

    static constexpr std::chrono::milliseconds defaultReleaseDelay{1000};

    // Watches through `watch` (makePulseMicWatch() in the programs); timers run
    // on `clock` (the host clock; tests move one by hand).
    explicit MicMonitor(std::unique_ptr<MicWatch> watch, Executor runOn = {},
                        std::shared_ptr<HostClock> clock = HostClock::host());
    ~MicMonitor();
    MicMonitor(const MicMonitor&) = delete;
    MicMonitor& operator=(const MicMonitor&) = delete;

    // Starts watching; the owner then receives the current state once, as
    // soon as it is known, and every change after. A second start() does
    // nothing.
    void start();
    // Stops watching; a pending "free" is dropped and nothing more is sent.
    void stop();
    // Reads the whole state again (after a wake, say).
    void refresh();
    bool isRunning() const;

    // The state now: the watched state while running (none until the server
    // has answered), else one reading of the server (none without a server).
    std::optional<MicActivity> current();

    void setOnChange(std::function<void(bool inUse)> onChange);
    void setReleaseDelay(std::chrono::nanoseconds delay);

private:
    void receive(std::uint64_t session, std::optional<MicActivity> state);
    void evaluate();
    void report(bool inUse);

    std::unique_ptr<MicWatch> watch_;
    Executor runOn_;

    // Queue state.
    std::function<void(bool)> onChange_;
    std::chrono::nanoseconds releaseDelay_ = defaultReleaseDelay;
    bool running_ = false;
    std::uint64_t session_ = 0;         // start() count: updates of an older session are dropped
    std::optional<MicActivity> latest_; // none while unknown
    bool reported_ = false;             // last state sent
    bool announced_ = false;            // the first known state was sent this session
    std::uint64_t pendingRelease_ = 0;  // the release timer that may fire, 0 = none
    std::uint64_t releaseCount_ = 0;

    // Which session may still reach the owner; stop() moves it on before it
    // returns, so a report already posted to the owner is dropped.
    std::shared_ptr<std::atomic<std::uint64_t>> liveSession_ = std::make_shared<std::atomic<std::uint64_t>>(0);

    mutable SerialQueue queue_; // last: its thread ends before the state above goes
};

} // namespace tobrin
