#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <time.h>

namespace tobrin {
namespace {

TEST(MachTime, RunsOnTheMonotonicClockInNanoseconds) {
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const std::uint64_t ticks = MachTime::now();
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto ns = [](const timespec& ts) { return std::uint64_t(ts.tv_sec) * 1'000'000'000ULL + ts.tv_nsec; };
    EXPECT_GE(ticks, ns(before));
    EXPECT_LE(ticks, ns(after));
    EXPECT_EQ(MachTime::timebase().numer, 1u);
    EXPECT_EQ(MachTime::timebase().denom, 1u);
}

TEST(MachTime, ConvertsBetweenTicksAndMilliseconds) {
    EXPECT_DOUBLE_EQ(MachTime::milliseconds(1'500'000), 1.5);
    EXPECT_EQ(MachTime::ticks(4.0), 4'000'000u);
    EXPECT_EQ(MachTime::ticks(0.0000015), 1u); // truncated, not rounded
    EXPECT_EQ(MachTime::ticks(-5.0), 0u);
    EXPECT_EQ(MachTime::ticks(std::nan("")), 0u);
    EXPECT_EQ(MachTime::ticks(18'000'000'000'000.0), 18'000'000'000'000'000'000ULL);
}

TEST(MachTimeDeathTest, TicksBeyondSixtyFourBitsAbort) { EXPECT_DEATH(MachTime::ticks(2e13), "does not fit"); }

TEST(MachTime, DeltaIsSignedAndNeverWraps) {
    EXPECT_DOUBLE_EQ(MachTime::delta(200, 100), MachTime::milliseconds(100));
    EXPECT_LT(MachTime::delta(100, 200), 0.0);
    EXPECT_DOUBLE_EQ(MachTime::delta(100, 200), -MachTime::milliseconds(100));
    EXPECT_DOUBLE_EQ(MachTime::delta(0, UINT64_MAX), -MachTime::milliseconds(UINT64_MAX));
    EXPECT_EQ(MachTime::delta(7, 7), 0.0);
}

TEST(SplitMix64, MatchesThePublishedSequence) {
    SplitMix64 rng(0);
    EXPECT_EQ(rng.next(), 0xE220A8397B1DCDAFULL);
    EXPECT_EQ(rng.next(), 0x6E789E6AA1B965F4ULL);
}

TEST(SplitMix64, UnitStaysInTheHalfOpenInterval) {
    SplitMix64 rng(99);
    double lowest = 1.0, highest = 0.0, lowestSigned = 1.0, highestSigned = -1.0;
    for (int i = 0; i < 200000; ++i) {
        const double u = rng.unit();
        lowest = std::min(lowest, u);
        highest = std::max(highest, u);
        const double s = rng.signedUnit();
        lowestSigned = std::min(lowestSigned, s);
        highestSigned = std::max(highestSigned, s);
    }
    EXPECT_GE(lowest, 0.0);
    EXPECT_LT(highest, 1.0);
    EXPECT_LT(lowest, 0.001);
    EXPECT_GT(highest, 0.999);
    EXPECT_GE(lowestSigned, -1.0);
    EXPECT_LT(highestSigned, 1.0);
}

TEST(SplitMix64, SignedReachesMinusOneForAZeroDraw) {
    // Seeded so that the next state is 0, whose mixed output is 0: unit() = 0.
    SplitMix64 rng(0 - 0x9E3779B97F4A7C15ULL);
    EXPECT_EQ(rng.signedUnit(), -1.0);
}

TEST(SplitMix64, WorksWithStandardDistributions) {
    SplitMix64 a(5), b(5);
    std::uniform_int_distribution<int> dist(1, 6);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(dist(a), dist(b));
}

TEST(ShuffledDeterministically, LeavesShortArraysAlone) {
    EXPECT_EQ(shuffledDeterministically(std::vector<int>{}), std::vector<int>{});
    EXPECT_EQ(shuffledDeterministically(std::vector<int>{7}), std::vector<int>{7});
}

TEST(ShuffledDeterministically, TwoElementsFollowTheFirstDraw) {
    SplitMix64 rng(2 * 0x9E3779B9ULL);
    const bool swaps = rng.next() % 2 != 1;
    const std::vector<int> expected = swaps ? std::vector<int>{2, 1} : std::vector<int>{1, 2};
    EXPECT_EQ(shuffledDeterministically(std::vector<int>{1, 2}), expected);
}

TEST(ShuffledDeterministically, IsAPermutationFixedByTheLength) {
    std::vector<int> items(50);
    std::iota(items.begin(), items.end(), 0);
    const auto once = shuffledDeterministically(items);
    EXPECT_EQ(once, shuffledDeterministically(items));
    EXPECT_NE(once, items);
    auto sorted = once;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, items);

    // Another array of the same length moves its elements the same way.
    std::vector<std::string> names(50);
    for (int i = 0; i < 50; ++i) names[i] = "take" + std::to_string(i);
    const auto shuffledNames = shuffledDeterministically(names);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(shuffledNames[i], "take" + std::to_string(once[i]));
}

} // namespace
} // namespace tobrin
