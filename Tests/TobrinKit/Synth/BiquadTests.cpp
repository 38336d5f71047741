#include "TobrinKit/Synth/Biquad.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

namespace tobrin {
namespace {

// Steady-state gain in decibels for a sine, from the RMS of the output after
// the transient has died away.
double decibelsAt(Biquad filter, double frequency, double rate = 48000) {
    double in = 0, out = 0;
    for (int n = 0; n < 2 * int(rate); ++n) {
        const double x = std::sin(2.0 * std::numbers::pi * frequency * n / rate);
        const double y = filter.process(x);
        if (n >= int(rate)) {
            in += x * x;
            out += y * y;
        }
    }
    return 10.0 * std::log10(out / in);
}

TEST(Biquad, DesignsHaveTheirTextbookResponses) {
    struct Case {
        std::string name;
        Biquad filter;
        double frequency, lowest, highest, rate = 48000;
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
        // Designs are clamped to 0.45 × the rate, short of Nyquist.
        {"band-pass far above Nyquist peaks at 0.45 × rate", Biquad::bandpass(1e6, 2.0, 48000), 21600, -0.05, 0.05},
        {"the clamp follows the rate", Biquad::bandpass(30000, 2.0, 96000), 30000, -0.05, 0.05, 96000},
    };
    for (const Case& c : cases) {
        const double measured = decibelsAt(c.filter, c.frequency, c.rate);
        EXPECT_GE(measured, c.lowest) << c.name;
        EXPECT_LE(measured, c.highest) << c.name;
    }
}

} // namespace
} // namespace tobrin
