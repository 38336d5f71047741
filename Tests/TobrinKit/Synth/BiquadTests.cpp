#include "TobrinKit/Synth/Biquad.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

namespace tobrin {
namespace {

// Steady-state gain of a filter for a sine, from the RMS of the output after
// the transient has died away.
double gainAt(Biquad filter, double frequency) {
    constexpr double rate = 48000;
    double in = 0, out = 0;
    for (int n = 0; n < 96000; ++n) {
        const double x = std::sin(2.0 * std::numbers::pi * frequency * n / rate);
        const double y = filter.process(x);
        if (n >= 48000) {
            in += x * x;
            out += y * y;
        }
    }
    return std::sqrt(out / in);
}

double decibels(double gain) { return 20.0 * std::log10(gain); }

TEST(Biquad, NormalisesCoefficientListsByTheFirstFeedbackValue) {
    const std::array<double, 3> b = {2.0, 4.0, 6.0};
    const std::array<double, 4> a = {2.0, -1.0, 0.5, 99.0}; // extra values are ignored
    const Biquad filter(b, a);
    EXPECT_EQ(filter.b0, 1.0);
    EXPECT_EQ(filter.b1, 2.0);
    EXPECT_EQ(filter.b2, 3.0);
    EXPECT_EQ(filter.a1, -0.5);
    EXPECT_EQ(filter.a2, 0.25);
    EXPECT_EQ(filter.z1, 0.0);
    EXPECT_EQ(filter.z2, 0.0);
}

TEST(Biquad, DesignsHaveTheirTextbookResponses) {
    struct Case {
        std::string name;
        Biquad filter;
        double frequency;
        double lowestDecibels;
        double highestDecibels;
    };
    const std::vector<Case> cases = {
        {"low-pass passes the band", Biquad::lowpass(2000, 0.7071, 48000), 100, -0.05, 0.05},
        {"low-pass is 3 dB down at its corner", Biquad::lowpass(2000, 0.7071, 48000), 2000, -3.06, -2.96},
        {"low-pass falls at least 12 dB per octave", Biquad::lowpass(2000, 0.7071, 48000), 16000, -200, -36},
        {"high-pass passes the band", Biquad::highpass(55, 0.7071, 48000), 5000, -0.05, 0.05},
        {"high-pass is 3 dB down at its corner", Biquad::highpass(55, 0.7071, 48000), 55, -3.06, -2.96},
        {"high-pass stops the bass", Biquad::highpass(55, 0.7071, 48000), 10, -200, -29},
        {"band-pass peaks at 0 dB", Biquad::bandpass(3000, 2.0, 48000), 3000, -0.05, 0.05},
        // Analog prototype: 1/sqrt(1 + Q²(f/f0 − f0/f)²) = −10 dB an octave away.
        {"band-pass rejects an octave below", Biquad::bandpass(3000, 2.0, 48000), 1500, -10.5, -9.5},
        {"band-pass rejects an octave above", Biquad::bandpass(3000, 2.0, 48000), 6000, -11.0, -9.5},
    };
    for (const Case& c : cases) {
        const double measured = decibels(gainAt(c.filter, c.frequency));
        EXPECT_GE(measured, c.lowestDecibels) << c.name;
        EXPECT_LE(measured, c.highestDecibels) << c.name;
    }
}

TEST(Biquad, ClampsTheDesignFrequencyBelowNyquist) {
    for (double frequency : {21600.0, 24000.0, 30000.0, 1e6}) {
        const Biquad clamped = Biquad::bandpass(frequency, 1.1, 48000);
        const Biquad limit = Biquad::bandpass(21600, 1.1, 48000);
        EXPECT_EQ(clamped.b0, limit.b0) << frequency;
        EXPECT_EQ(clamped.a1, limit.a1) << frequency;
        EXPECT_EQ(clamped.a2, limit.a2) << frequency;
        const Biquad low = Biquad::lowpass(frequency, 0.7071, 48000);
        EXPECT_EQ(low.b0, Biquad::lowpass(21600, 0.7071, 48000).b0) << frequency;
        EXPECT_TRUE(std::isfinite(gainAt(low, 1000))) << frequency;
    }
    // The limit is 0.45 of the rate, not a fixed frequency.
    EXPECT_NE(Biquad::lowpass(30000, 0.7071, 96000).b0, Biquad::lowpass(21600, 0.7071, 96000).b0);
}

} // namespace
} // namespace tobrin
