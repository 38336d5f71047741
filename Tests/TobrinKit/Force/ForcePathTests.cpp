// The force path without hardware: a recorded stream replayed through the
// sensor's thread, windows around key times, the classifier's tier positions
// and the voicing's layer weights.
#include "TobrinKit/Engine/Voicing.h"
#include "TobrinKit/Force/ForceClassifier.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/RecordedMotionSource.h"
#include "TobrinKit/Force/SensorRecording.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace tobrin {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t millisecond = 1'000'000;

TEST(ForcePath, RecordedTapsOfKnownStrengthLandInTheirTiers) {
    // Four taps of 0.4, 1, 2.2 and 4 typical keystrokes (0.02 g each), 200 ms
    // apart, on a laptop at rest; a tap of amplitude a measures 0.95 a (the
    // 5 % average moves towards it first).
    const double typical = ForceClassifier::defaultReference;
    const double strengths[] = {0.4, 1.0, 2.2, 4.0};
    const int tapAt[] = {300, 500, 700, 900};
    SensorRecording recording;
    for (int ms = 0; ms < 1100; ++ms) {
        double x = 0;
        for (int i = 0; i < 4; ++i) {
            if (ms == tapAt[i]) x = strengths[i] * typical / 0.95;
        }
        recording.append(std::uint64_t(ms) * millisecond, ForceSensor::encodeReport({x, 0.0, 1.0}));
    }
    const auto folder = std::filesystem::path(TOBRIN_TEST_BINARY_DIR) / "replay" / "ForcePath";
    std::filesystem::create_directories(folder);
    recording.write(folder / "taps.replay");

    auto owned =
        std::make_unique<RecordedMotionSource>(folder / "taps.replay", RecordedMotionSource::Options{.speed = 0});
    RecordedMotionSource& source = *owned;
    ForceSensor sensor(std::move(owned));
    ASSERT_TRUE(sensor.start());
    ASSERT_TRUE(source.waitUntilFinished(10s));

    ForceClassifier classifier;
    // At rest the noise floor sinks below 1 mg, so it barely shifts strengths.
    const float noise = sensor.noiseFloor();
    EXPECT_LT(noise, 0.001f);
    const float gains[] = {1, 1, 1, 1};
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        // The key event comes 3 ms before its impact shows.
        const std::uint64_t key = source.startTime() + std::uint64_t(tapAt[i] - 3) * millisecond;
        const auto window = sensor.window(key - 12 * millisecond, key + 14 * millisecond);
        ASSERT_TRUE(window);
        EXPECT_EQ(window->peakTime, key + 3 * millisecond);
        EXPECT_NEAR(window->peak, strengths[i] * typical, 2e-5);
        EXPECT_GT(window->peak, std::max(3 * noise, 0.0015f)); // counts as an impact

        const float position = classifier.tierPosition(window->peak, noise);
        EXPECT_NEAR(position, float(i), 0.05f);
        const auto weights = Voicing::weights(position, classifier.relative(window->peak, noise), gains, false, 1.0f);
        for (std::size_t k = 0; k < 4; ++k) EXPECT_EQ(weights[k] > 0, k == std::size_t(i)) << k;
    }
    // Between taps nothing reaches the impact threshold.
    const std::uint64_t quiet = source.startTime() + 400 * millisecond;
    const auto between = sensor.window(quiet - 12 * millisecond, quiet + 14 * millisecond);
    ASSERT_TRUE(between);
    EXPECT_LT(between->peak, 0.0015f);
}

} // namespace
} // namespace tobrin
