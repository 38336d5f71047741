#include "TobrinKit/Force/ForceSensor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace tobrin {
namespace {

constexpr double step = 1.0 / 65536; // one step of the reports' 16.16 fixed point, in g

void feed(ForceSensor& sensor, ForceSensor::Acceleration acceleration, std::uint64_t time) {
    sensor.ingest(ForceSensor::encodeReport(acceleration), time);
}

float valueAt(const ForceSensor& sensor, std::uint64_t time) {
    const auto found = sensor.samples(time, time);
    EXPECT_EQ(found.size(), 1u) << time;
    return found.empty() ? -1.0f : found.front().value;
}

TEST(ForceSensorReport, CarriesLittleEndianSixteenSixteenAxesAtBytesSixTenAndFourteen) {
    std::vector<std::uint8_t> report(22, 0xAA);             // header and tail bytes are not read
    const std::uint8_t axes[12] = {0x00, 0x00, 0x01, 0x00,  // x = 0x00010000 → 1 g
                                   0x00, 0x80, 0xFF, 0xFF,  // y = −0x8000 → −0.5 g
                                   0x01, 0x00, 0x00, 0x00}; // z = one step
    std::copy(std::begin(axes), std::end(axes), report.begin() + 6);
    const auto decoded = ForceSensor::decodeReport(report);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->x, 1.0);
    EXPECT_EQ(decoded->y, -0.5);
    EXPECT_EQ(decoded->z, step);

    // Encoding rounds to the grid (1.5 steps away from zero) and saturates.
    const auto rounded = ForceSensor::decodeReport(ForceSensor::encodeReport({-1.75, 1.5 * step, std::nan("")}));
    EXPECT_EQ(rounded->x, -1.75);
    EXPECT_EQ(rounded->y, 2 * step);
    EXPECT_EQ(rounded->z, 0.0);
    const auto huge = ForceSensor::decodeReport(ForceSensor::encodeReport({1e9, -1e9, 0}));
    EXPECT_NEAR(huge->x, 32768.0, 1e-4);
    EXPECT_EQ(huge->y, -32768.0);
}

TEST(ForceSensorFilter, RemovesTiltWithAFivePercentAverageSetByTheFirstReport) {
    ForceSensor sensor(nullptr);
    feed(sensor, {0.3, -0.2, 1.1}, 1);
    EXPECT_EQ(valueAt(sensor, 1), 0.0f);
    // Tilted by 0.5 g on x from then on: the average closes 5 % of the gap per
    // sample, so after k samples the magnitude is 0.5 × 0.95^k.
    for (std::uint64_t k = 1; k <= 60; ++k) {
        feed(sensor, {0.8, -0.2, 1.1}, 1 + k);
        EXPECT_NEAR(valueAt(sensor, 1 + k), 0.5 * std::pow(0.95, double(k)), 1e-6) << k;
    }
}

TEST(ForceSensorFilter, ImpactsOfFourTimesTheNoiseFloorDoNotMoveIt) {
    // After a first report at rest the floor is just under 0.002 g; a jolt of
    // n steps measures 0.95 n steps, so four times the floor lies between
    // jolts of 545 and 552 steps.
    for (const auto& [steps, moves] : {std::pair{552, false}, {2000, false}, {545, true}, {10, true}}) {
        ForceSensor sensor(nullptr);
        feed(sensor, {0, 0, 0}, 1);
        const float before = sensor.noiseFloor();
        feed(sensor, {steps * step, 0, 0}, 2);
        EXPECT_NEAR(valueAt(sensor, 2), 0.95 * steps * step, 1e-7);
        EXPECT_EQ(sensor.noiseFloor() != before, moves) << steps << " steps";
    }
}

TEST(ForceSensorRing, KeepsTheNewest4096SamplesAndIgnoresReportsThatAreNot22Bytes) {
    ForceSensor sensor(nullptr);
    EXPECT_FALSE(sensor.start()); // without a source it never starts
    for (std::uint64_t i = 1; i <= 4097; ++i) feed(sensor, {0, 0, i % 2 ? 0.0 : 0.01}, i * 1000);
    const auto report = ForceSensor::encodeReport({0.9, 0, 1});
    std::vector<std::uint8_t> longer(report.begin(), report.end());
    longer.push_back(0);
    sensor.ingest(std::span(report).first(21), 5'000'000);
    sensor.ingest(longer, 5'000'001);
    EXPECT_EQ(sensor.reportsReceived(), 4097u);
    EXPECT_EQ(sensor.lastSampleTime(), 4097000u);

    const auto all = sensor.samples(0, std::numeric_limits<std::uint64_t>::max());
    ASSERT_EQ(all.size(), 4096u);
    EXPECT_EQ(all.front().time, 2000u); // the first report was overwritten
    for (std::size_t i = 1; i < all.size(); ++i) ASSERT_LT(all[i - 1].time, all[i].time);
    const auto window = sensor.window(0, std::numeric_limits<std::uint64_t>::max());
    ASSERT_TRUE(window);
    EXPECT_EQ(window->samples, 4096);
    EXPECT_EQ(window->latest, 4097000u);
    EXPECT_FALSE(sensor.window(0, 1999));
}

TEST(ForceSensorWindow, FindsTheStrongestSampleInRangeWithTheNewestWinningATie) {
    ForceSensor sensor(nullptr);
    for (std::uint64_t t = 1000; t <= 1010; ++t) feed(sensor, {0, 0, 1}, t);
    EXPECT_EQ(sensor.window(1000, 1010), (ForceWindow{0, 0, 11, 1010})); // all at rest: no peak time
    EXPECT_FALSE(sensor.window(1011, 5000));
    EXPECT_FALSE(sensor.window(1005, 1004));

    // A jolt of 20 steps on x moves the x average to 1 step; the next jolt of
    // 20 steps on y, sitting on that average, has the same magnitude.
    feed(sensor, {20 * step, 0, 1}, 1020);
    feed(sensor, {step, 20 * step, 1}, 1030);
    feed(sensor, {0, 0, 1}, 1040);
    ASSERT_EQ(valueAt(sensor, 1020), valueAt(sensor, 1030));
    EXPECT_EQ(sensor.window(1000, 2000), (ForceWindow{valueAt(sensor, 1030), 1030, 14, 1040}));
    EXPECT_EQ(sensor.window(1000, 1025), (ForceWindow{valueAt(sensor, 1020), 1020, 12, 1040}));
    EXPECT_EQ(sensor.window(1035, 1040)->samples, 1);
}

} // namespace
} // namespace tobrin
