// The engine's core types and utilities: clock, random numbers, key groups,
// text made safe to print.
#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <time.h>

namespace tobrin {
namespace {

TEST(MachTime, CountsNanosecondsOfTheMonotonicClock) {
    const auto nanoseconds = [] {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return std::uint64_t(now.tv_sec) * 1'000'000'000ULL + std::uint64_t(now.tv_nsec);
    };
    const std::uint64_t before = nanoseconds(), ticks = MachTime::now(), after = nanoseconds();
    EXPECT_GE(ticks, before);
    EXPECT_LE(ticks, after);
}

TEST(MachTime, ConvertsBetweenTicksAndMillisecondsWithoutWrapping) {
    EXPECT_DOUBLE_EQ(MachTime::milliseconds(1'500'000), 1.5);
    EXPECT_EQ(MachTime::ticks(4.0), 4'000'000u);
    EXPECT_EQ(MachTime::ticks(0.0000015), 1u); // truncated, not rounded
    EXPECT_EQ(MachTime::ticks(-5.0), 0u);
    EXPECT_EQ(MachTime::ticks(std::nan("")), 0u);
    EXPECT_EQ(MachTime::ticks(18'000'000'000'000.0), 18'000'000'000'000'000'000ULL);
    EXPECT_DOUBLE_EQ(MachTime::delta(200, 100), 0.0001);
    EXPECT_DOUBLE_EQ(MachTime::delta(100, 200), -0.0001);
    EXPECT_DOUBLE_EQ(MachTime::delta(0, UINT64_MAX), -double(UINT64_MAX) / 1e6);
}

TEST(MachTimeDeathTest, TicksBeyondSixtyFourBitsAbort) { EXPECT_DEATH(MachTime::ticks(2e13), "does not fit"); }

TEST(SplitMix64, MatchesThePublishedSequenceAndStaysInItsIntervals) {
    static_assert(std::uniform_random_bit_generator<SplitMix64>);
    SplitMix64 rng(0);
    EXPECT_EQ(rng.next(), 0xE220A8397B1DCDAFULL);
    EXPECT_EQ(rng.next(), 0x6E789E6AA1B965F4ULL);
    double lowest = 1, highest = -1;
    for (int i = 0; i < 100000; ++i) {
        const double u = rng.unit(), s = rng.signedUnit();
        lowest = std::min({lowest, u, s});
        highest = std::max({highest, u, s});
        ASSERT_GE(u, 0.0);
    }
    EXPECT_GE(lowest, -1.0);
    EXPECT_LT(highest, 1.0);
    // Seeded so that the next state is 0, whose mixed output is 0.
    EXPECT_EQ(SplitMix64(0 - 0x9E3779B97F4A7C15ULL).signedUnit(), -1.0);
}

TEST(ShuffledDeterministically, IsAPermutationFixedByTheLength) {
    EXPECT_EQ(shuffledDeterministically(std::vector<int>{}), std::vector<int>{});
    EXPECT_EQ(shuffledDeterministically(std::vector<int>{7}), std::vector<int>{7});
    std::vector<int> items(50);
    std::iota(items.begin(), items.end(), 0);
    const auto once = shuffledDeterministically(items);
    EXPECT_NE(once, items);
    EXPECT_TRUE(std::is_permutation(once.begin(), once.end(), items.begin()));
    // Another array of the same length moves its elements the same way.
    std::vector<std::string> names(50);
    for (int i = 0; i < 50; ++i) names[std::size_t(i)] = "take" + std::to_string(i);
    const auto shuffledNames = shuffledDeterministically(names);
    for (std::size_t i = 0; i < 50; ++i) EXPECT_EQ(shuffledNames[i], "take" + std::to_string(once[i]));
}

TEST(KeyGroup, IsNamedExactlyAsInPackFiles) {
    const char* names[] = {"alpha", "space", "enter", "backspace", "modifier"};
    for (std::size_t i = 0; i < allKeyGroups.size(); ++i) {
        EXPECT_EQ(rawValue(allKeyGroups[i]), names[i]);
        EXPECT_EQ(keyGroupFromRawValue(names[i]), allKeyGroups[i]);
        EXPECT_EQ(nlohmann::json(names[i]).get<KeyGroup>(), allKeyGroups[i]);
    }
    EXPECT_EQ(nlohmann::json(KeyGroup::backspace), nlohmann::json("backspace"));
    for (const char* other : {"Alpha", "SPACE", "", "alpha "}) EXPECT_FALSE(keyGroupFromRawValue(other)) << other;
    EXPECT_THROW(nlohmann::json("Enter").get<KeyGroup>(), nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json(2).get<KeyGroup>(), nlohmann::json::exception);
}

TEST(PrintableText, EscapesWhatATerminalWouldObeyAndKeepsTheRest) {
    struct Case {
        std::string text;
        std::string shown;
    };
    const Case cases[] = {
        {"Blue Click", "Blue Click"},
        {"Éclair — 静か", "Éclair — 静か"},
        {"\x1b]0;owned\x07\x1b[2J", "\\x1B]0;owned\\x07\\x1B[2J"}, // retitle, then clear
        {std::string("nul\0byte", 8), "nul\\x00byte"},
        {"\u009B31m", "\\u009B31m"},                            // the one-character CSI
        {"abc\xe2\x80\xaegnp.exe", "abc\\u202Egnp.exe"},        // right-to-left override
        {"\xff\xfe bad \xc0\xaf", "\\xFF\\xFE bad \\xC0\\xAF"}, // not UTF-8, an overlong "/"
        {"cut \xe2\x82", "cut \\xE2\\x82"},                     // a sequence cut short
    };
    for (const Case& c : cases) EXPECT_EQ(printable(c.text), c.shown) << c.text;
}

TEST(PrintableText, CutsLongTextAtACharacterBoundary) {
    EXPECT_EQ(printable(std::string(100000, '7'), 40), std::string(40, '7') + "...");
    EXPECT_EQ(printable("abcdé", 5), "abcd...");
    EXPECT_EQ(printable("abcd", 4), "abcd");
}

} // namespace
} // namespace tobrin
