// Concurrency proofs for the conductor, run under sanitizers by tools/test:
// a pack-swap storm while voices sound (AddressSanitizer: the render thread
// never reads a freed pack) and key events, settings changes and pack swaps
// from several threads at once (ThreadSanitizer). Every thread runs a fixed
// amount of work; what is checked at the end does not depend on how the
// threads interleaved.

#include "ConductorRig.h"
#include "Support/Eventually.h"

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
using test::eventually;

void type(Conductor& conductor, const HostClock& clock, int keys, std::uint16_t first) {
    std::uint16_t code = first;
    for (int i = 0; i < keys; ++i) {
        conductor.handle(KeyEvent{code, KeyAction::down, clock.now()});
        std::this_thread::sleep_for(1ms); // lets voices sound and swaps land between keys
        conductor.handle(KeyEvent{code, KeyAction::up, clock.now()});
        code = std::uint16_t((code + 7) % 52);
    }
}

TEST(ConductorStress, PackSwapStormWhileVoicesSoundNeverFreesSamplesInUse) {
    // A short drop delay makes replaced packs go while others still sound.
    test::Rig rig(fixtures::loadBuiltInPack("cream"), Conductor::Timing{15s, 180'000, 20ms});
    auto& [recorder, clock, audio, conductor] = rig;
    conductor.apply(test::fixedTier(Tier::slam), true);

    std::thread typist([&] { type(conductor, *clock, 1500, 0); });
    std::vector<std::weak_ptr<const LoadedPack>> replaced;
    const char* ids[] = {"blue-click", "cream", "panda", "dome", "typewriter"};
    for (int i = 0; i < 60; ++i) {
        auto pack = fixtures::loadBuiltInPack(ids[i % 5]);
        replaced.push_back(pack);
        conductor.setPack(std::move(pack));
        std::this_thread::sleep_for(15ms);
        clock->advance(10ms);
    }
    typist.join();
    EXPECT_GT(audio->startedVoices(), 0u);

    // Every pack but the current one goes once the device has played the fades.
    auto alive = [&] {
        std::size_t count = 0;
        for (const auto& pack : replaced) count += pack.expired() ? 0 : 1;
        return count;
    };
    EXPECT_TRUE(eventually(
        [&] {
            rig.advance(100ms);
            return alive() == 1;
        },
        10s));
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
    auto sensor = tappingSensor();
    const auto cream = fixtures::loadBuiltInPack("cream");
    const auto click = fixtures::loadBuiltInPack("blue-click");
    test::Rig rig(cream, Conductor::Timing{5ms, 40, 10ms}, sensor);
    auto& [recorder, clock, audio, conductor] = rig;
    EngineSettings settings;
    conductor.apply(settings, true);

    std::vector<std::thread> threads;
    threads.emplace_back([&] { type(conductor, *clock, 400, 0); });
    threads.emplace_back([&] { type(conductor, *clock, 400, 3); });
    threads.emplace_back([&] {
        for (int i = 0; i < 300; ++i) {
            EngineSettings changed = settings;
            changed.enabled = i % 5 != 4;
            changed.forceSensing = i % 4 < 2;
            changed.volume = float(i % 10) * 0.1f;
            changed.fixedTier = allTiers[std::size_t(i % 4)];
            changed.blendTiers = i % 2 == 0;
            changed.releaseSounds = i % 3 != 0;
            changed.spatial = float(i % 3) * 0.5f;
            conductor.apply(changed, i % 2 == 0);
            std::this_thread::sleep_for(1ms);
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 200; ++i) {
            conductor.setPack(i % 3 == 2 ? nullptr : (i % 3 == 0 ? click : cream));
            if (i % 7 == 0) conductor.audition();
            if (i % 11 == 0) conductor.systemDidWake();
            if (i % 13 == 0) conductor.resetCalibration();
            std::this_thread::sleep_for(2ms);
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 500; ++i) {
            (void)audio->activeVoices();
            (void)audio->isRunning();
            (void)sensor->isRunning();
            (void)conductor.isSuspended();
            clock->set(MachTime::now()); // refinements, idle checks and drops fire meanwhile
            std::this_thread::sleep_for(1ms);
        }
    });
    for (auto& thread : threads) thread.join();

    // It still plays after the storm, and shuts everything down.
    conductor.setPack(cream);
    conductor.apply(settings, true);
    const auto started = audio->startedVoices();
    conductor.handle(rig.down(0));
    EXPECT_TRUE(eventually([&] { return audio->startedVoices() > started; }));
    conductor.shutdown();
    EXPECT_FALSE(audio->isRunning());
    EXPECT_FALSE(sensor->isRunning());
    EXPECT_GT(sensor->reportsReceived(), 0u);
}

} // namespace
} // namespace tobrin
