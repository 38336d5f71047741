#include "TobrinKit/Force/ForceClassifier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace tobrin {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();

TEST(ForceClassifier, MeasuresStrengthAboveOneAndAHalfTimesTheNoise) {
    struct Case {
        float reference, sensitivity, peak, noise;
        double relative;
    };
    const Case cases[] = {
        {0.02f, 1, 0.0015f, 0.001f, 0},
        {0.02f, 1, 0.0005f, 0.001f, 0},
        {0.02f, 1, 0.0215f, 0.001f, 0.02 / 0.0185}, // (0.0215 − 0.0015) / (0.02 − 0.0015)
        {0.02f, 1, 0.02f, 0, 1},
        {0.02f, 2, 0.02f, 0, 2},
        {0.02f, 0, 0.02f, 0, 0.05}, // sensitivities below 0.05 count as 0.05
        {0.02f, -3, 0.04f, 0, 0.1},
        // A reference at or below the noise floor divides by 1e-5.
        {0.003f, 1, 0.004f, 0.002f, 0.001 / 1e-5},
        {0.003f, 1, 0.004f, 0.0025f, (0.004 - 0.00375) / 1e-5},
    };
    for (const Case& c : cases) {
        ForceClassifier classifier(c.reference);
        classifier.setSensitivity(c.sensitivity);
        EXPECT_NEAR(classifier.relative(c.peak, c.noise), c.relative, c.relative * 1e-5 + 1e-6)
            << c.peak << " over noise " << c.noise << " at sensitivity " << c.sensitivity;
    }
}

TEST(ForceClassifier, PlacesStrengthOnTheTiersLinearlyInItsLogarithm) {
    const std::pair<float, float> cases[] = {
        {1.0f, 1.0f},
        {0.4f, 0.0f},
        {4.0f, 3.0f},
        {0.0f, 0.0f},
        {100.0f, 3.0f},
        {-2.0f, 0.0f},
        {2.2f, 2.0f},
        {nan, 0.0f},
        {0.1f, 0.0f},
        {std::sqrt(0.4f), 0.5f},
        {std::sqrt(2.2f), 1.5f},
        {std::sqrt(2.2f * 4.0f), 2.5f},
    };
    for (const auto& [relative, position] : cases) {
        EXPECT_NEAR(ForceClassifier::tierPosition(relative), position, 1e-5) << relative;
    }
}

TEST(ForceClassifier, CrossfadesNeighbouringTiersWithEqualPower) {
    struct Case {
        float position;
        bool blend;
        std::array<float, 4> weights;
    };
    const float half = std::sqrt(0.5f), pi = std::numbers::pi_v<float>;
    const Case cases[] = {
        {1.5f, true, {0, half, half, 0}}, {3.0f, true, {0, 0, 0, 1}},
        {2.5f, false, {0, 0, 0, 1}},      {0.5f, false, {0, 1, 0, 0}},
        {1.49f, false, {0, 1, 0, 0}},     {-1.0f, true, {1, 0, 0, 0}},
        {-1.0f, false, {1, 0, 0, 0}},     {7.0f, true, {0, 0, 0, 1}},
        {2.0f, true, {0, 0, 1, 0}},       {2.00005f, true, {0, 0, 1, 0}},
        {nan, true, {1, 0, 0, 0}},        {0.25f, true, {std::cos(pi / 8), std::sin(pi / 8), 0, 0}},
    };
    for (const Case& c : cases) {
        const auto weights = ForceClassifier::weights(c.position, c.blend);
        for (std::size_t k = 0; k < 4; ++k) {
            EXPECT_NEAR(weights[k], c.weights[k], 1e-4) << c.position << (c.blend ? " blended" : "") << ", tier " << k;
        }
    }
}

TEST(ForceClassifier, BoostsOnlyOutsideTheTierRange) {
    const std::pair<float, float> cases[] = {
        {0.0f, 0.45f},  {0.1f, 0.5f}, {0.3f, std::sqrt(0.75f)},       {0.4f, 1.0f},   {4.0f, 1.0f},
        {-1.0f, 0.45f}, {nan, 1.0f},  {5.0f, std::pow(1.25f, 0.25f)}, {16.0f, 1.25f},
    };
    for (const auto& [relative, gain] : cases) EXPECT_NEAR(ForceClassifier::edgeGain(relative), gain, 1e-6) << relative;
}

TEST(ForceClassifierCalibration, TakesTheMedianOfTheLast96PeaksFromTheTwelfth) {
    ForceClassifier classifier;
    // Peaks 0.011, 0.012, ... recorded in a shuffled order, and ones that are
    // not finite and positive, which do not count.
    for (const int i : {7, 2, 11, 0, 5, 9, 1, 10, 4, 8, 3}) classifier.record(0.011f + 0.001f * float(i));
    for (const float ignored : {0.0f, -1.0f, std::numeric_limits<float>::infinity(), nan}) classifier.record(ignored);
    EXPECT_EQ(classifier.reference(), ForceClassifier::defaultReference);
    classifier.record(0.017f);
    EXPECT_NEAR(classifier.reference(), 0.017f, 1e-7); // index 6 of twelve
    classifier.reset();
    EXPECT_TRUE(classifier.history().empty());
    EXPECT_EQ(classifier.reference(), ForceClassifier::defaultReference);

    // 49 soft peaks then 47 firm ones: the median (index 48 of 96) is soft,
    // until the 97th peak evicts the first.
    for (int i = 0; i < 96; ++i) classifier.record(i < 49 ? 0.01f : 0.03f);
    EXPECT_FLOAT_EQ(classifier.reference(), 0.01f);
    classifier.record(0.03f);
    EXPECT_EQ(classifier.history().size(), 96u);
    EXPECT_FLOAT_EQ(classifier.reference(), 0.03f);
}

TEST(ForceClassifierCalibration, KeepsTheReferenceWithinAQuarterAndFourTimesTheBase) {
    for (const auto& [base, peak, reference] :
         {std::tuple{0.02f, 0.5f, 0.08f}, {0.02f, 0.001f, 0.005f}, {0.1f, 0.001f, 0.025f}}) {
        ForceClassifier classifier(base);
        for (int i = 0; i < 12; ++i) classifier.record(peak);
        EXPECT_FLOAT_EQ(classifier.reference(), reference) << base << ", " << peak;
    }
}

} // namespace
} // namespace tobrin
