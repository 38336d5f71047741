#pragma once
// A conductor on the null audio device with a clock the test moves by hand,
// and a recorder of what it pushed and reported.

#include "BuiltInPacks.h"
#include "Support/ManualClock.h"

#include "TobrinKit/Engine/Audio/NullAudioBackend.h"
#include "TobrinKit/Engine/Conductor.h"
#include "TobrinKit/Engine/Core/MachTime.h"

#include <mutex>
#include <vector>

namespace tobrin::test {

// What the conductor pushed and reported, gathered on its queue.
struct Recorder {
    struct Push {
        TBCommand command;
        bool pushed;
        bool outputRunning;
    };
    std::mutex lock;
    std::vector<Push> pushes;
    std::vector<ForceReading> readings;

    void attach(Conductor& conductor, const std::shared_ptr<AudioOutput>& audio) {
        Conductor::Diagnostics diagnostics;
        diagnostics.command = [this, audio](const TBCommand& command, bool pushed) {
            const bool running = audio->isRunning();
            std::lock_guard guard(lock);
            pushes.push_back({command, pushed, running});
        };
        conductor.setDiagnostics(std::move(diagnostics));
        conductor.setOnForce([this](const ForceReading& reading) {
            std::lock_guard guard(lock);
            readings.push_back(reading);
        });
    }
    std::vector<Push> commands(std::uint32_t type) {
        std::lock_guard guard(lock);
        std::vector<Push> found;
        for (const auto& push : pushes)
            if (push.command.type == type) found.push_back(push);
        return found;
    }
    std::vector<ForceReading> forces() {
        std::lock_guard guard(lock);
        return readings;
    }
};

inline std::shared_ptr<AudioOutput> nullOutput() {
    return std::make_shared<AudioOutput>(std::vector{NullAudioBackend::factory()}, "");
}

inline EngineSettings fixedTier(Tier tier) {
    EngineSettings settings;
    settings.forceSensing = false;
    settings.fixedTier = tier;
    return settings;
}

// The recorder is declared first so that it outlives the conductor whose
// callbacks write into it. The clock starts at the host clock's time: a
// sensor replay stamps its reports on the host clock, and moving the clock
// onto them must be a step of seconds, not a jump past the idle limit that
// suspends the conductor (and restarts the sensor) behind the test's back.
struct Rig {
    Recorder recorder;
    std::shared_ptr<ManualClock> clock;
    std::shared_ptr<AudioOutput> audio;
    Conductor conductor;

    explicit Rig(std::shared_ptr<const LoadedPack> pack, Conductor::Timing timing = {},
                 std::shared_ptr<ForceSensor> sensor = nullptr, std::shared_ptr<AudioOutput> output = nullOutput())
        : clock(std::make_shared<ManualClock>(MachTime::now())), audio(std::move(output)),
          conductor(audio, std::move(sensor), timing, clock) {
        recorder.attach(conductor, audio);
        conductor.setPack(std::move(pack));
    }

    KeyEvent down(std::uint16_t code) const { return KeyEvent{code, KeyAction::down, clock->now()}; }
    KeyEvent up(std::uint16_t code) const { return KeyEvent{code, KeyAction::up, clock->now()}; }

    // Moves the clock and waits until the conductor has run what fell due.
    void advance(std::chrono::nanoseconds by) {
        clock->advance(by);
        conductor.barrier();
    }
};

} // namespace tobrin::test
