#pragma once

// The Conductor turns key events into sounding voices. It owns the current
// pack, the engine settings, the force classifier and the calibration state,
// and it is the only producer of the output's mixer commands.
//
// Thread contract: every public operation may be called from any thread. All
// of them hop onto the serial queue "app.tobrin.conductor" (asynchronously,
// except shutdown, isSuspended and barrier, which wait for the queue), and
// every field below is touched only there. The shared structures are the
// mixer's command ring (render thread on the other side) and the sensor's
// ring (read under the sensor's own lock). onForce and the diagnostics
// observers are called on the queue.
//
// Lifecycle: created not suspended with the output not yet started; a
// key-down or apply(settings, wakeNow: true) starts what is not running;
// idleness (no key-down for 180 s, checked every 15 s) or disabling the sound
// suspends it (output paused, sensor stopped); shutdown leaves it suspended.
// The destructor shuts down and ends the queue. A replaced pack is kept alive
// until the mixer has faded its voices out, so the render thread never reads
// freed memory; the output must not be restarted after the Conductor is gone.
//
// Time: key events, sensor windows, refinements and the idle check all read
// the clock the owner gives (the host clock unless a test drives one by hand).

#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Core/HostClock.h"
#include "TobrinKit/Engine/Core/KeyEvent.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/SerialQueue.h"
#include "TobrinKit/Engine/Voicing.h"
#include "TobrinKit/Force/ForceClassifier.h"

#include <TobrinMixer.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

namespace tobrin {

class ForceSensor;
class LoadedPack;

class Conductor {
public:
    // Refinements after a key-down, in milliseconds; the last one is final.
    static constexpr std::array<double, 3> refineAtMs{4, 10, 16};

    // The impact window around a key event: from lead before to lag after.
    static constexpr double windowLeadMs = 12;
    static constexpr double windowLagMs = 14;

    // Idle suspension and pack release timing. The defaults are the product's;
    // tests shorten them.
    struct Timing {
        std::chrono::steady_clock::duration idleTick = std::chrono::seconds(15);
        double idleLimitMs = 180'000;
        std::chrono::steady_clock::duration packDropDelay = std::chrono::seconds(2);
    };

    // Observers for diagnostics and measurements, called on the queue.
    struct Diagnostics {
        // Every command the conductor builds, and whether the ring took it.
        std::function<void(const TBCommand&, bool pushed)> command;
        // A refinement ran: its pass (0, 1, 2) and how late its timer fired.
        std::function<void(int pass, std::chrono::steady_clock::duration lateness)> refinement;
    };

    // (Two constructors rather than a default argument: a nested type's member
    // defaults are not usable in its owner's declarations.)
    Conductor(std::shared_ptr<AudioOutput> audio, std::shared_ptr<ForceSensor> sensor);
    Conductor(std::shared_ptr<AudioOutput> audio, std::shared_ptr<ForceSensor> sensor, Timing timing,
              std::shared_ptr<HostClock> clock = HostClock::host());
    ~Conductor();

    Conductor(const Conductor&) = delete;
    Conductor& operator=(const Conductor&) = delete;

    void handle(const KeyEvent& event);
    void apply(const EngineSettings& settings, bool wakeNow);
    void setPack(std::shared_ptr<const LoadedPack> pack);
    // Plays a short demonstration phrase through the current pack.
    void audition();
    void resetCalibration();
    // Both devices may have changed during sleep: restarts a running sensor and
    // the output, unless suspended.
    void systemDidWake();
    // Synchronous: stops the sensor, pauses the output, leaves it suspended.
    void shutdown();

    void setOnForce(std::function<void(const ForceReading&)> onForce);
    void setDiagnostics(Diagnostics diagnostics);

    bool forceSensingAvailable() const { return sensor_ != nullptr; }
    // Synchronous reads of queue state.
    bool isSuspended();
    // Waits until everything posted before this call has run.
    void barrier();

    // The tag after `last`: never 0, 4294967295 wraps to 1.
    static std::uint32_t tagAfter(std::uint32_t last);
    // The sixteen key codes of the demonstration phrase.
    static const std::array<std::uint16_t, 16>& auditionPhrase();

private:
    std::uint32_t start(std::uint16_t code, float position, float relative, Voicing::Variation variation);
    void refine(std::uint32_t tag, const KeyEvent& event, Voicing::Variation variation, int pass);
    void keyDown(const KeyEvent& event);
    void keyUp(const KeyEvent& event);
    void suspend();
    void wake();
    void idleTick();
    void armIdleTimer();
    void dropWhenSilent(std::shared_ptr<const LoadedPack> pack, std::uint64_t framesAtRelease,
                        std::uint64_t framesToFade);
    bool push(const TBCommand& command);
    bool releaseAll();
    void fillVoice(TBCommand& command, std::uint16_t code, float position, float relative,
                   Voicing::Variation variation) const;

    std::shared_ptr<AudioOutput> audio_;
    std::shared_ptr<ForceSensor> sensor_;
    const Timing timing_;

    // Queue state.
    std::function<void(const ForceReading&)> onForce_;
    Diagnostics diagnostics_;
    std::shared_ptr<const LoadedPack> pack_;
    EngineSettings settings_;
    ForceClassifier classifier_;
    std::uint32_t nextTag_ = 0;
    float typicalPosition_ = 1.0f;
    std::uint64_t lastActivity_ = 0;
    std::unordered_map<std::uint16_t, float> downStrength_;
    bool suspended_ = false;
    SplitMix64 rng_;

    std::uint64_t idleDeadline_ = 0;

    // Declared after the state it works on, so its thread starts last and, as
    // the destructor stops it first, ends before anything else goes.
    SerialQueue queue_;
};

} // namespace tobrin
