// Concurrency proofs for the conductor, run under sanitizers by tools/test:
// a pack-swap storm while voices sound (AddressSanitizer: the render thread
// never reads a freed pack) and key events, settings changes and pack swaps
// from several threads at once (ThreadSanitizer).

#include "BuiltInPacks.h"

#include "TobrinKit/Engine/Audio/NullAudioBackend.h"
#include "TobrinKit/Engine/Conductor.h"
#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/RecordedMotionSource.h"
#include "TobrinKit/Force/SensorRecording.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <chrono>
#include <thread>
#include <vector>

namespace tobrin {
namespace {

using namespace std::chrono_literals;

std::shared_ptr<AudioOutput> nullOutput() {
    return std::make_shared<AudioOutput>(std::vector{NullAudioBackend::factory()}, "");
}

void typeContinuously(Conductor& conductor, const std::atomic<bool>& stop, std::uint16_t first) {
    std::uint16_t code = first;
    while (!stop.load()) {
        conductor.handle(KeyEvent{code, KeyAction::down, MachTime::now()});
        std::this_thread::sleep_for(1ms);
        conductor.handle(KeyEvent{code, KeyAction::up, MachTime::now()});
        code = std::uint16_t((code + 7) % 52);
    }
}

TEST(ConductorStress, PackSwapStormWhileVoicesSoundNeverFreesSamplesInUse) {
    auto audio = nullOutput();
    // A short drop delay makes every replaced pack go while others still sound.
    Conductor conductor(audio, nullptr, Conductor::Timing{15s, 180'000, 20ms});
    EngineSettings settings;
    settings.forceSensing = false;
    settings.fixedTier = Tier::slam;
    conductor.setPack(fixtures::loadBuiltInPack("cream"));
    conductor.apply(settings, true);

    std::atomic<bool> stop{false};
    std::thread typist([&] { typeContinuously(conductor, stop, 0); });
    std::vector<std::weak_ptr<const LoadedPack>> replaced;
    const char* ids[] = {"blue-click", "cream", "panda", "dome", "typewriter"};
    const auto storm = std::chrono::steady_clock::now() + 2500ms;
    for (int i = 0; std::chrono::steady_clock::now() < storm; ++i) {
        auto pack = fixtures::loadBuiltInPack(ids[i % 5]);
        replaced.push_back(pack);
        conductor.setPack(std::move(pack));
        std::this_thread::sleep_for(15ms);
    }
    stop = true;
    typist.join();

    EXPECT_GT(audio->startedVoices(), 200u);
    EXPECT_GE(replaced.size(), 5u);
    // Every pack but the current one is eventually dropped.
    const auto deadline = std::chrono::steady_clock::now() + 3s;
    auto alive = [&] {
        std::size_t count = 0;
        for (const auto& pack : replaced) count += pack.expired() ? 0 : 1;
        return count;
    };
    while (alive() > 1 && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(alive(), 1u);
}

// Three seconds of a resting machine with a tap every 50 ms, one report a
// millisecond, so the sensor thread writes its ring while the conductor reads it.
std::shared_ptr<ForceSensor> tappingSensor() {
    SensorRecording recording;
    for (std::uint64_t ms = 0; ms < 3000; ++ms) {
        const double tap = ms % 50 == 0 ? 0.03 : 0.0;
        recording.append(ms * 1'000'000, ForceSensor::encodeReport(ForceSensor::Acceleration{tap, 0, 1}));
    }
    const auto path = std::filesystem::path(TOBRIN_TEST_BINARY_DIR) / "conductor-stress.replay";
    recording.write(path);
    return std::make_shared<ForceSensor>(std::make_unique<RecordedMotionSource>(path));
}

TEST(ConductorStress, KeysSettingsAndPackSwapsFromManyThreads) {
    auto audio = nullOutput();
    auto sensor = tappingSensor();
    Conductor conductor(audio, sensor, Conductor::Timing{5ms, 40, 10ms});
    const auto cream = fixtures::loadBuiltInPack("cream");
    const auto click = fixtures::loadBuiltInPack("blue-click");
    std::atomic<int> readings{0};
    conductor.setOnForce([&](const ForceReading&) { ++readings; });
    conductor.setPack(cream);
    EngineSettings settings;
    conductor.apply(settings, true);

    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] { typeContinuously(conductor, stop, 0); });
    threads.emplace_back([&] { typeContinuously(conductor, stop, 3); });
    threads.emplace_back([&] {
        for (int i = 0; !stop; ++i) {
            EngineSettings changed = settings;
            changed.enabled = i % 5 != 4;
            changed.forceSensing = i % 4 < 2;
            changed.volume = float(i % 10) * 0.1f;
            changed.fixedTier = allTiers[std::size_t(i % 4)];
            changed.blendTiers = i % 2 == 0;
            changed.releaseSounds = i % 3 != 0;
            changed.spatial = float(i % 3) * 0.5f;
            conductor.apply(changed, i % 2 == 0);
            std::this_thread::sleep_for(3ms);
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; !stop; ++i) {
            conductor.setPack(i % 3 == 2 ? nullptr : (i % 3 == 0 ? click : cream));
            if (i % 7 == 0) conductor.audition();
            if (i % 11 == 0) conductor.systemDidWake();
            if (i % 13 == 0) conductor.resetCalibration();
            std::this_thread::sleep_for(4ms);
        }
    });
    threads.emplace_back([&] {
        while (!stop) {
            (void)audio->activeVoices();
            (void)audio->isRunning();
            (void)sensor->isRunning();
            (void)conductor.isSuspended();
            std::this_thread::sleep_for(2ms);
        }
    });
    std::this_thread::sleep_for(1500ms);
    stop = true;
    for (auto& thread : threads) thread.join();
    conductor.shutdown();

    EXPECT_GT(readings.load(), 50);
    EXPECT_GT(audio->startedVoices(), 50u);
    EXPECT_FALSE(audio->isRunning());
    EXPECT_FALSE(sensor->isRunning());
    EXPECT_GT(sensor->reportsReceived(), 100u);
}

} // namespace
} // namespace tobrin
