#pragma once

#include <span>

namespace tobrin {

// One second-order IIR section in transposed direct form II, all in double
// precision. Used by the key synthesizer for its noise bursts and tone
// filters; a value type, each instance owns its state.
class Biquad {
public:
    // Coefficient lists of at least three values each; every coefficient is
    // divided by a[0], which is not stored.
    Biquad(std::span<const double> b, std::span<const double> a);

    // RBJ cookbook designs. The frequency is clamped to at most 0.45 × rate
    // first, so a design never reaches Nyquist.
    static Biquad lowpass(double frequency, double q, double rate);
    static Biquad highpass(double frequency, double q, double rate);
    // Constant 0 dB peak gain.
    static Biquad bandpass(double frequency, double q, double rate);

    double process(double x) {
        const double y = b0 * x + z1;
        z1 = b1 * x - a1 * y + z2;
        z2 = b2 * x - a2 * y;
        return y;
    }

    // Filters the samples in place.
    void process(std::span<double> samples) {
        for (double& sample : samples) sample = process(sample);
    }

    double b0 = 0, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
    double z1 = 0, z2 = 0;
};

} // namespace tobrin
