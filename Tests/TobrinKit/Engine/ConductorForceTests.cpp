// The conductor end to end with a real built-in pack, a recorded motion-sensor
// stream, and the null audio device rendering. The stream is delivered in full
// before the first key, its time stamps keeping the recorded spacing, and the
// conductor's clock is moved by hand onto each stroke and through its
// refinements. (Replay at the recorded pace is covered by the replay source's
// own tests.)

#include "ConductorRig.h"
#include "Support/Eventually.h"

#include "TobrinKit/Engine/Voicing.h"
#include "TobrinKit/Force/ForceClassifier.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/RecordedMotionSource.h"
#include "TobrinKit/Force/SensorRecording.h"
#include "TobrinKit/Input/KeyLayout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <vector>

namespace tobrin {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t millisecond = 1'000'000;

// A key stroke and the impact recorded for it: the sensor sees one sample of
// x acceleration `tap` g at the key's time (0 = no impact at all).
struct Stroke {
    std::uint16_t code;
    std::uint64_t offset; // ns from the start of the recording
    double tap;
};

// At rest (z = 1 g) with one report a millisecond, and a one-sample tap per
// stroke. A tap of A g measures 0.95 A once the 5 % tilt average has taken
// its share.
std::filesystem::path writeRecording(const std::vector<Stroke>& strokes, std::uint64_t length,
                                     const std::string& name) {
    SensorRecording recording;
    std::map<std::uint64_t, double> taps;
    for (const auto& stroke : strokes) taps[stroke.offset] = stroke.tap;
    for (std::uint64_t offset = 0; offset <= length; offset += millisecond) {
        ForceSensor::Acceleration acceleration{0, 0, 1};
        if (auto tap = taps.find(offset); tap != taps.end()) acceleration.x = tap->second;
        recording.append(offset, ForceSensor::encodeReport(acceleration));
    }
    const auto path = std::filesystem::path(TOBRIN_TEST_BINARY_DIR) / name;
    recording.write(path);
    return path;
}

TEST(ConductorForce, MeasuredImpactsSetTheVoicesFinalWeightsAndTheReadings) {
    // Peaks of 0.4, 1, 1.5, 2.2 and 4 typical keystrokes (0.02 g), a tap too
    // small to count, and a key without any impact.
    const std::vector<Stroke> strokes{
        {0, 300 * millisecond, 0.008 / 0.95}, {1, 450 * millisecond, 0.020 / 0.95},
        {2, 600 * millisecond, 0.030 / 0.95}, {3, 750 * millisecond, 0.044 / 0.95},
        {5, 900 * millisecond, 0.080 / 0.95}, {4, 1050 * millisecond, 0.0012 / 0.95},
        {38, 1200 * millisecond, 0.0},
    };
    const auto path = writeRecording(strokes, 1400 * millisecond, "conductor-force.replay");
    auto source = std::make_unique<RecordedMotionSource>(path, RecordedMotionSource::Options{.speed = 0});
    auto* replay = source.get();
    auto sensor = std::make_shared<ForceSensor>(std::move(source));
    const auto& pack = fixtures::cream();
    test::Rig rig(pack, Conductor::Timing(), sensor);
    auto& [recorder, clock, audio, conductor] = rig;
    EngineSettings settings;
    settings.releaseSounds = false;
    conductor.apply(settings, true);
    conductor.barrier();
    ASSERT_TRUE(sensor->isRunning());
    ASSERT_TRUE(audio->isRunning());
    ASSERT_TRUE(replay->waitUntilFinished(10s));
    const std::uint64_t start = replay->startTime();

    for (const auto& stroke : strokes) {
        clock->set(start + stroke.offset);
        conductor.handle(KeyEvent{stroke.code, KeyAction::down, start + stroke.offset});
        conductor.barrier();
        clock->advance(20ms); // past the last refinement
        conductor.barrier();
    }

    const auto readings = recorder.forces();
    const auto starts = recorder.commands(TB_COMMAND_START);
    const auto changes = recorder.commands(TB_COMMAND_SET_WEIGHTS);
    ASSERT_EQ(readings.size(), strokes.size());
    ASSERT_EQ(starts.size(), strokes.size());
    for (const auto& push : changes) EXPECT_TRUE(push.pushed);
    for (std::size_t i = 0; i < strokes.size(); ++i) {
        const auto& stroke = strokes[i];
        const auto& reading = readings[i];
        SCOPED_TRACE(testing::Message() << "stroke " << i);
        EXPECT_EQ(reading.code, stroke.code);
        EXPECT_TRUE(starts[i].pushed);

        // The weight changes sent for the voice this key started.
        std::vector<const TBCommand*> refinements;
        for (const auto& push : changes)
            if (push.command.tag == starts[i].command.tag) refinements.push_back(&push.command);

        const double measured = 0.95 * stroke.tap;
        if (measured <= 0.0015) {
            EXPECT_FALSE(reading.sensed);
            EXPECT_EQ(reading.relative, 1.0f);
            EXPECT_TRUE(refinements.empty()) << "an impact below the threshold leaves the voice alone";
            continue;
        }
        EXPECT_TRUE(reading.sensed);
        EXPECT_NEAR(reading.peak, measured, 2e-4);
        // The classifier's position for this peak, from the base reference
        // (fewer than twelve strokes never move it) and a noise floor that has
        // decayed from 0.002 towards the resting signal.
        ForceClassifier classifier;
        const float quiet = ForceClassifier::tierPosition(classifier.relative(reading.peak, 0.0f));
        const float noisy = ForceClassifier::tierPosition(classifier.relative(reading.peak, 0.002f));
        const float low = std::min(quiet, noisy), high = std::max(quiet, noisy);
        EXPECT_GE(reading.position, low - 1e-5f);
        EXPECT_LE(reading.position, high + 1e-5f);
        const float relativeQuiet = classifier.relative(reading.peak, 0.0f);
        const float relativeNoisy = classifier.relative(reading.peak, 0.002f);
        EXPECT_GE(reading.relative, std::min(relativeQuiet, relativeNoisy) - 1e-5f);
        EXPECT_LE(reading.relative, std::max(relativeQuiet, relativeNoisy) + 1e-5f);

        // The last weight change is the final one and carries that position.
        ASSERT_FALSE(refinements.empty());
        const TBCommand& last = *refinements.back();
        const auto group = KeyLayout::group(stroke.code);
        const auto layers = pack->layers(group, Voicing::variant(stroke.code, *pack, group));
        const auto unit = Voicing::weights(reading.position, reading.relative, layers.gains, true, 1.0f);
        // Every layer carries the same stroke gain (1 ± 6 %) over the unit weights.
        float strokeGain = 0;
        for (std::size_t k = 0; k < 4; ++k)
            if (unit[k] > 1e-3f) strokeGain = last.weights[k] / unit[k];
        EXPECT_GE(strokeGain, 0.94f - 1e-5f);
        EXPECT_LE(strokeGain, 1.06f + 1e-5f);
        for (std::size_t k = 0; k < 4; ++k) EXPECT_NEAR(last.weights[k], unit[k] * strokeGain, 1e-5f) << "layer " << k;
    }
    EXPECT_NEAR(readings[0].position, 0.0f, 0.05f);
    EXPECT_NEAR(readings[1].position, 1.0f, 0.05f);
    EXPECT_NEAR(readings[3].position, 2.0f, 0.05f);
    EXPECT_NEAR(readings[4].position, 3.0f, 0.05f);
    // The device thread takes the voices up in its own time.
    EXPECT_TRUE(test::eventually([&] { return audio->startedVoices() > 0; }));
    EXPECT_EQ(audio->droppedCommands(), 0u);
}

} // namespace
} // namespace tobrin
