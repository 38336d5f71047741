#pragma once

#include <array>
#include <vector>

namespace tobrin {

// Turns a motion-sensor impact peak (g) into a strength relative to the
// user's typical keystroke and that strength into a tier position 0 ... 3
// (soft, medium, hard, slam), and gives the layer weights and edge gain of a
// stroke. The typical keystroke calibrates itself: it is the median of the
// last 96 recorded peaks once 12 are held, bounded to [¼, 4] × the base.
// A plain value without locks: its owner touches it from one thread only.
class ForceClassifier {
public:
    static constexpr float defaultReference = 0.02f;
    // Relative strength at the centre of soft, medium, hard and slam.
    static constexpr std::array<float, 4> tierCenters = {0.4f, 1.0f, 2.2f, 4.0f};
    static constexpr int historyLimit = 96;
    static constexpr int minimumHistory = 12;

    explicit ForceClassifier(float reference = defaultReference);

    // How many typical keystrokes the peak is, above 1.5 × the noise floor;
    // 0 for a peak below it.
    float relative(float peak, float noise) const;

    // Linear in log2(relative) between neighbouring tier centres, clamped to [0, 3].
    static float tierPosition(float relative);
    float tierPosition(float peak, float noise) const { return tierPosition(relative(peak, noise)); }

    // Feeds calibration with the peak of a final reading. Peaks that are not
    // finite and positive are ignored.
    void record(float peak);

    // Forgets the history and returns to the base reference.
    void reset();

    // Four tier weights for a position: one tier (round half away from zero)
    // without blending, an equal-power crossfade of the two neighbours with it.
    static std::array<float, 4> weights(float position, bool blend);

    // Extra loudness outside the tier range: down to 0.45 below relative 0.4,
    // up to 1.25 above 4; 1 in between (and for NaN).
    static float edgeGain(float relative);

    float sensitivity() const { return sensitivity_; }
    void setSensitivity(float sensitivity) { sensitivity_ = sensitivity; }
    float reference() const { return reference_; }
    float baseReference() const { return baseReference_; }
    // Recorded peaks, oldest first.
    const std::vector<float>& history() const { return history_; }

private:
    float sensitivity_ = 1.0f;
    float reference_;
    std::vector<float> history_;
    float baseReference_;
};

} // namespace tobrin
