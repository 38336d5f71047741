#include "TobrinKit/Force/ForceClassifier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace tobrin {
namespace {

TEST(ForceClassifierRelative, MeasuresAboveOneAndAHalfTimesTheNoise) {
    ForceClassifier classifier;
    EXPECT_EQ(classifier.relative(0.0015f, 0.001f), 0.0f);
    EXPECT_EQ(classifier.relative(0.0005f, 0.001f), 0.0f);
    // (0.0215 − 0.0015) / (0.02 − 0.0015)
    EXPECT_NEAR(classifier.relative(0.0215f, 0.001f), 0.02 / 0.0185, 1e-5);
    EXPECT_NEAR(classifier.relative(0.02f, 0.0f), 1.0, 1e-6);

    classifier.setSensitivity(2.0f);
    EXPECT_NEAR(classifier.relative(0.02f, 0.0f), 2.0, 1e-6);
    classifier.setSensitivity(0.0f); // taken as 0.05
    EXPECT_NEAR(classifier.relative(0.02f, 0.0f), 0.05, 1e-6);
    classifier.setSensitivity(-3.0f);
    EXPECT_NEAR(classifier.relative(0.04f, 0.0f), 0.1, 1e-6);
}

TEST(ForceClassifierRelative, ReferenceAtOrBelowTheFloorDividesByATinyDenominator) {
    const ForceClassifier classifier(0.003f);
    // floor 1.5 × 0.002 = 0.003 = reference: the denominator becomes 1e-5.
    EXPECT_NEAR(classifier.relative(0.004f, 0.002f), 0.001 / 1e-5, 0.01);
    EXPECT_NEAR(classifier.relative(0.004f, 0.0025f), (0.004 - 0.00375) / 1e-5, 0.01);
}

TEST(ForceClassifierTierPosition, IsLinearInLogStrengthBetweenCentres) {
    struct Case {
        float relative, position;
    };
    const Case cases[] = {
        {1.0f, 1.0f},
        {0.4f, 0.0f},
        {4.0f, 3.0f},
        {0.0f, 0.0f},
        {100.0f, 3.0f},
        {-2.0f, 0.0f},
        {2.2f, 2.0f},
        {std::sqrt(0.4f), 0.5f},
        {std::sqrt(2.2f), 1.5f},
        {std::sqrt(2.2f * 4.0f), 2.5f},
        {0.1f, 0.0f},
    };
    for (const Case& c : cases) EXPECT_NEAR(ForceClassifier::tierPosition(c.relative), c.position, 1e-5) << c.relative;
    EXPECT_EQ(ForceClassifier::tierPosition(std::numeric_limits<float>::quiet_NaN()), 0.0f);

    const ForceClassifier classifier;
    EXPECT_NEAR(classifier.tierPosition(0.02f, 0.0f), 1.0f, 1e-5);
}

TEST(ForceClassifierWeights, CrossfadeNeighboursWithEqualPower) {
    struct Case {
        float position;
        bool blend;
        std::array<float, 4> weights;
    };
    const float half = static_cast<float>(std::sqrt(0.5));
    const Case cases[] = {
        {1.5f, true, {0, half, half, 0}},
        {3.0f, true, {0, 0, 0, 1}},
        {2.5f, false, {0, 0, 0, 1}},
        {0.5f, false, {0, 1, 0, 0}},
        {1.49f, false, {0, 1, 0, 0}},
        {-1.0f, true, {1, 0, 0, 0}},
        {-1.0f, false, {1, 0, 0, 0}},
        {7.0f, true, {0, 0, 0, 1}},
        {2.0f, true, {0, 0, 1, 0}},
        {2.00005f, true, {0, 0, 1, 0}},
        {0.25f,
         true,
         {static_cast<float>(std::cos(std::numbers::pi / 8)), static_cast<float>(std::sin(std::numbers::pi / 8)), 0,
          0}},
        {std::numeric_limits<float>::quiet_NaN(), true, {1, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        const auto weights = ForceClassifier::weights(c.position, c.blend);
        for (std::size_t k = 0; k < 4; ++k) {
            EXPECT_NEAR(weights[k], c.weights[k], 1e-4) << c.position << (c.blend ? " blend" : "") << " k=" << k;
        }
    }
    // Equal power: the squares of a blend always sum to 1.
    for (float p = 0; p <= 3; p += 0.013f) {
        float power = 0;
        for (float w : ForceClassifier::weights(p, true)) power += w * w;
        EXPECT_NEAR(power, 1.0f, 1e-5) << p;
    }
}

TEST(ForceClassifierEdgeGain, BoostsOnlyOutsideTheTierRange) {
    struct Case {
        float relative, gain;
    };
    const Case cases[] = {
        {0.0f, 0.45f},
        {0.1f, 0.5f},
        {0.3f, std::sqrt(0.75f)},
        {0.4f, 1.0f},
        {2.0f, 1.0f},
        {4.0f, 1.0f},
        {5.0f, std::pow(1.25f, 0.25f)},
        {16.0f, 1.25f},
        {-1.0f, 0.45f},
        {std::numeric_limits<float>::quiet_NaN(), 1.0f},
    };
    for (const Case& c : cases) EXPECT_NEAR(ForceClassifier::edgeGain(c.relative), c.gain, 1e-6) << c.relative;
}

TEST(ForceClassifierCalibration, AdaptsToTheMedianFromTheTwelfthPeak) {
    ForceClassifier classifier;
    // Peaks 0.011, 0.012, ... recorded in a shuffled order.
    const int order[] = {7, 2, 11, 0, 5, 9, 1, 10, 4, 8, 3, 6};
    for (int i = 0; i < 11; ++i) classifier.record(0.011f + 0.001f * float(order[i]));
    EXPECT_EQ(classifier.reference(), ForceClassifier::defaultReference);
    classifier.record(0.011f + 0.001f * float(order[11]));
    // Twelve sorted peaks: index 6 is 0.017.
    EXPECT_NEAR(classifier.reference(), 0.017f, 1e-7);

    classifier.reset();
    EXPECT_TRUE(classifier.history().empty());
    EXPECT_EQ(classifier.reference(), ForceClassifier::defaultReference);
}

TEST(ForceClassifierCalibration, ClampsTheReferenceToAQuarterAndFourTimesTheBase) {
    ForceClassifier hard;
    for (int i = 0; i < 12; ++i) hard.record(0.5f);
    EXPECT_FLOAT_EQ(hard.reference(), 0.08f);

    ForceClassifier soft;
    for (int i = 0; i < 12; ++i) soft.record(0.001f);
    EXPECT_FLOAT_EQ(soft.reference(), 0.005f);

    ForceClassifier custom(0.1f);
    for (int i = 0; i < 12; ++i) custom.record(0.001f);
    EXPECT_FLOAT_EQ(custom.reference(), 0.025f);
}

TEST(ForceClassifierCalibration, TheNinetySeventhPeakEvictsTheFirst) {
    ForceClassifier classifier;
    // 49 soft peaks then 47 firm ones: 96 held, the median (index 48) is soft.
    for (int i = 0; i < 49; ++i) classifier.record(0.01f);
    for (int i = 0; i < 47; ++i) classifier.record(0.03f);
    ASSERT_EQ(classifier.history().size(), 96u);
    EXPECT_FLOAT_EQ(classifier.reference(), 0.01f);

    classifier.record(0.03f);
    ASSERT_EQ(classifier.history().size(), 96u);
    EXPECT_EQ(std::count(classifier.history().begin(), classifier.history().end(), 0.01f), 48);
    EXPECT_FLOAT_EQ(classifier.history().back(), 0.03f);
    EXPECT_FLOAT_EQ(classifier.reference(), 0.03f);
}

TEST(ForceClassifierCalibration, IgnoresPeaksThatAreNotFiniteAndPositive) {
    ForceClassifier classifier;
    for (int i = 0; i < 11; ++i) classifier.record(0.04f);
    const float rejected[] = {0.0f, -1.0f, std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN(), -0.0f};
    for (float peak : rejected) classifier.record(peak);
    EXPECT_EQ(classifier.history().size(), 11u);
    EXPECT_EQ(classifier.reference(), ForceClassifier::defaultReference);
}

} // namespace
} // namespace tobrin
