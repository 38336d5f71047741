#include "TobrinKit/Force/ForceSensor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace tobrin {
namespace {

using Acceleration = ForceSensor::Acceleration;

void feed(ForceSensor& sensor, Acceleration acceleration, std::uint64_t time) {
    const auto report = ForceSensor::encodeReport(acceleration);
    sensor.ingest(report, time);
}

float valueAt(const ForceSensor& sensor, std::uint64_t time) {
    const auto found = sensor.samples(time, time);
    EXPECT_EQ(found.size(), 1u) << time;
    return found.empty() ? -1.0f : found.front().value;
}

TEST(ForceSensorReport, DecodesLittleEndianFixedPointAxes) {
    std::vector<std::uint8_t> report(22, 0xAA);             // header and tail bytes are not read
    const std::uint8_t axes[12] = {0x00, 0x00, 0x01, 0x00,  // x = 0x00010000 → 1 g
                                   0x00, 0x80, 0xFF, 0xFF,  // y = −0x8000 → −0.5 g
                                   0x01, 0x00, 0x00, 0x00}; // z = 1 / 65536 g
    std::copy(std::begin(axes), std::end(axes), report.begin() + 6);
    const auto decoded = ForceSensor::decodeReport(report);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->x, 1.0);
    EXPECT_EQ(decoded->y, -0.5);
    EXPECT_EQ(decoded->z, 1.0 / 65536);

    EXPECT_FALSE(ForceSensor::decodeReport(std::span(report).first(21)));
    report.push_back(0);
    EXPECT_FALSE(ForceSensor::decodeReport(report));
}

TEST(ForceSensorReport, EncodingRoundsToTheFixedPointGridAndSaturates) {
    const auto decoded = ForceSensor::decodeReport(ForceSensor::encodeReport({0.25, -1.75, 1.0 / 131072 * 3}));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->x, 0.25);
    EXPECT_EQ(decoded->y, -1.75);
    EXPECT_EQ(decoded->z, 2.0 / 65536); // 1.5 steps rounds away from zero
    const auto huge = ForceSensor::decodeReport(ForceSensor::encodeReport({1e9, -1e9, std::nan("")}));
    EXPECT_NEAR(huge->x, 32768.0, 1e-4);
    EXPECT_EQ(huge->y, -32768.0);
    EXPECT_EQ(huge->z, 0.0);
}

TEST(ForceSensorFilter, FirstReportSetsTheAveragesSoItsMagnitudeIsZero) {
    ForceSensor sensor(nullptr);
    feed(sensor, {0.3, -0.2, 1.1}, 100);
    EXPECT_EQ(valueAt(sensor, 100), 0.0f);
    EXPECT_EQ(sensor.reportsReceived(), 1u);
    EXPECT_EQ(sensor.lastSampleTime(), 100u);
}

TEST(ForceSensorFilter, ConstantTiltFadesWithAFivePercentAverage) {
    ForceSensor sensor(nullptr);
    feed(sensor, {0, 0, 1}, 1);
    // Tilted by 0.5 g on x from then on: the average closes 5 % of the gap per
    // sample, so after k samples the magnitude is 0.5 × 0.95^k.
    for (std::uint64_t k = 1; k <= 60; ++k) {
        feed(sensor, {0.5, 0, 1}, 1 + k);
        EXPECT_NEAR(valueAt(sensor, 1 + k), 0.5 * std::pow(0.95, double(k)), 1e-6) << k;
    }
    EXPECT_LT(valueAt(sensor, 61), 0.03f);
}

TEST(ForceSensorFilter, ImpactsDoNotRaiseTheNoiseFloor) {
    // The first report (magnitude 0) moves the estimate from 0.002 to
    // 0.002 × 0.998; the second is 0.95 of its 16.16 step count away from it.
    const double afterFirst = 0.002 + (0.0 - 0.002) * 0.002;
    struct Case {
        std::int32_t steps;
        bool moves;
    };
    for (const Case c : {Case{552, false}, Case{545, true}, Case{2000, false}, Case{10, true}}) {
        ForceSensor sensor(nullptr);
        feed(sensor, {0, 0, 0}, 1);
        EXPECT_NEAR(sensor.noiseFloor(), afterFirst, 1e-9);
        const double magnitude = 0.95 * c.steps / 65536.0;
        feed(sensor, {c.steps / 65536.0, 0, 0}, 2);
        EXPECT_NEAR(valueAt(sensor, 2), magnitude, 1e-7);
        const double expected = c.moves ? afterFirst + (magnitude - afterFirst) * 0.002 : afterFirst;
        EXPECT_NEAR(sensor.noiseFloor(), expected, 1e-9) << c.steps;
    }
}

TEST(ForceSensorRing, KeepsTheNewest4096SamplesAfter4097Reports) {
    ForceSensor sensor(nullptr);
    for (std::uint64_t i = 1; i <= 4097; ++i) feed(sensor, {0, 0, i % 2 ? 0.0 : 0.01}, i * 1000);
    EXPECT_EQ(sensor.reportsReceived(), 4097u);
    const auto all = sensor.samples(0, std::numeric_limits<std::uint64_t>::max());
    ASSERT_EQ(all.size(), 4096u);
    EXPECT_EQ(all.front().time, 2000u); // the first report was overwritten
    EXPECT_EQ(all.back().time, 4097000u);
    for (std::size_t i = 1; i < all.size(); ++i) ASSERT_LT(all[i - 1].time, all[i].time);

    const auto window = sensor.window(0, std::numeric_limits<std::uint64_t>::max());
    ASSERT_TRUE(window);
    EXPECT_EQ(window->samples, 4096);
    EXPECT_EQ(window->latest, 4097000u);
    EXPECT_FALSE(sensor.window(0, 1999));
}

TEST(ForceSensorRing, IgnoresReportsThatAreNot22BytesLong) {
    ForceSensor sensor(nullptr);
    feed(sensor, {0, 0, 1}, 10);
    auto report = ForceSensor::encodeReport({0.9, 0, 1});
    std::vector<std::uint8_t> longer(report.begin(), report.end());
    longer.push_back(0);
    sensor.ingest(std::span(report).first(21), 20);
    sensor.ingest(longer, 30);
    sensor.ingest({}, 40);
    EXPECT_EQ(sensor.reportsReceived(), 1u);
    EXPECT_EQ(sensor.lastSampleTime(), 10u);
    EXPECT_EQ(sensor.samples(0, 100).size(), 1u);
    // The filter did not see them either: the next real report at rest is quiet.
    feed(sensor, {0, 0, 1}, 50);
    EXPECT_EQ(valueAt(sensor, 50), 0.0f);
}

class ForceSensorWindow : public testing::Test {
protected:
    // Magnitudes by time: a rest sample primes the filter, then impacts of
    // known size at known times (each a fresh jolt from rest).
    void SetUp() override {
        feed(sensor, {0, 0, 1}, 1000);
        for (std::uint64_t t = 1001; t <= 1010; ++t) feed(sensor, {0, 0, 1}, t);
    }
    ForceSensor sensor{nullptr};
};

TEST_F(ForceSensorWindow, ReportsNothingWithoutSamplesInRange) {
    EXPECT_FALSE(sensor.window(1011, 5000)); // from newer than every sample
    EXPECT_FALSE(sensor.window(0, 999));     // every sample newer than to
    EXPECT_FALSE(sensor.window(1005, 1004)); // empty range
    EXPECT_TRUE(sensor.samples(1011, 5000).empty());
}

TEST_F(ForceSensorWindow, AllZeroSamplesGivePeakZeroAtTimeZero) {
    const auto window = sensor.window(1000, 1010);
    ASSERT_TRUE(window);
    EXPECT_EQ(window->peak, 0.0f);
    EXPECT_EQ(window->peakTime, 0u);
    EXPECT_EQ(window->samples, 11);
    EXPECT_EQ(window->latest, 1010u);
}

TEST_F(ForceSensorWindow, FindsTheStrongestSampleWithTheNewestWinningATie) {
    feed(sensor, {0, 0.2, 1}, 1020); // a jolt...
    feed(sensor, {0, 0, 1}, 1030);   // ...and the rebound, whose magnitude follows from the averages
    feed(sensor, {0, 0.05, 1}, 1040);
    const float jolt = valueAt(sensor, 1020);
    EXPECT_NEAR(jolt, 0.95 * std::round(0.2 * 65536) / 65536, 1e-7); // 0.2 g on the 16.16 grid, less 5 %

    const auto all = sensor.window(1000, 2000);
    ASSERT_TRUE(all);
    EXPECT_EQ(all->peak, jolt);
    EXPECT_EQ(all->peakTime, 1020u);
    EXPECT_EQ(all->samples, 14);

    const auto later = sensor.window(1025, 1040);
    ASSERT_TRUE(later);
    EXPECT_EQ(later->peak, std::max(valueAt(sensor, 1030), valueAt(sensor, 1040)));
    EXPECT_EQ(later->samples, 2);
    EXPECT_EQ(later->latest, 1040u);
}

TEST(ForceSensorWindowTie, NewestOfEqualPeaksWins) {
    ForceSensor sensor(nullptr);
    const double step = 1.0 / 65536;
    feed(sensor, {0, 0, 0}, 1);
    // A jolt of 20 steps on x moves the x average to 1 step; the next jolt of
    // 20 steps on y, sitting on that average, has the same magnitude.
    feed(sensor, {20 * step, 0, 0}, 2);
    feed(sensor, {step, 20 * step, 0}, 3);
    ASSERT_EQ(valueAt(sensor, 2), valueAt(sensor, 3));
    const auto window = sensor.window(0, 10);
    ASSERT_TRUE(window);
    EXPECT_EQ(window->peakTime, 3u);
    EXPECT_NEAR(window->peak, 0.95 * 20 * step, 1e-9);
}

TEST(ForceSensorLifecycle, WithoutASourceItNeverStarts) {
    ForceSensor sensor(nullptr);
    EXPECT_FALSE(sensor.start());
    EXPECT_FALSE(sensor.isRunning());
    sensor.stop();
    EXPECT_FALSE(sensor.isRunning());
}

} // namespace
} // namespace tobrin
