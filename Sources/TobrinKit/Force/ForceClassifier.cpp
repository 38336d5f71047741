// Relative strength, tier position, calibration and tier weights.
#include "TobrinKit/Force/ForceClassifier.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace tobrin {

ForceClassifier::ForceClassifier(float reference) : reference_(reference), baseReference_(reference) {
    history_.reserve(historyLimit + 1);
}

float ForceClassifier::relative(float peak, float noise) const {
    const float floor = 1.5f * noise;
    const float numerator = peak - floor;
    float denominator = reference_ - floor;
    if (!(denominator > 1e-5f)) denominator = 1e-5f;
    float gain = sensitivity_;
    if (!(gain > 0.05f)) gain = 0.05f;
    if (numerator >= 0) return gain * (numerator / denominator);
    return 0.0f;
}

float ForceClassifier::tierPosition(float relative) {
    std::array<float, 4> centers;
    for (std::size_t i = 0; i < centers.size(); ++i) centers[i] = std::log2(tierCenters[i]);
    // NaN falls through max() to 0.0001, the softest strength.
    const float x = std::log2(std::max(0.0001f, relative));
    if (x <= centers[0]) return 0.0f;
    if (x >= centers[3]) return 3.0f;
    for (std::size_t i = 0; i < 3; ++i) {
        if (x < centers[i + 1]) {
            return static_cast<float>(i) + (x - centers[i]) / (centers[i + 1] - centers[i]);
        }
    }
    return 3.0f;
}

void ForceClassifier::record(float peak) {
    if (!std::isfinite(peak) || !(peak > 0)) return;
    history_.push_back(peak);
    if (history_.size() > std::size_t(historyLimit)) {
        history_.erase(history_.begin(), history_.end() - historyLimit);
    }
    if (history_.size() < std::size_t(minimumHistory)) return;
    // The element at index count / 2 of the sorted peaks (the upper middle for
    // an even count); partial ordering finds the same value as a full sort.
    std::vector<float> ordered = history_;
    const auto middle = ordered.begin() + std::ptrdiff_t(ordered.size() / 2);
    std::nth_element(ordered.begin(), middle, ordered.end());
    const float median = *middle;
    reference_ = std::min(4.0f * baseReference_, std::max(0.25f * baseReference_, median));
}

void ForceClassifier::reset() {
    history_.clear();
    reference_ = baseReference_;
}

std::array<float, 4> ForceClassifier::weights(float position, bool blend) {
    std::array<float, 4> result = {0, 0, 0, 0};
    // NaN counts as the softest position.
    const float p = std::isnan(position) ? 0.0f : std::clamp(position, 0.0f, 3.0f);
    if (!blend) {
        result[static_cast<std::size_t>(std::lround(p))] = 1.0f;
        return result;
    }
    const float whole = std::floor(p);
    const auto i = static_cast<std::size_t>(whole);
    const float frac = p - whole;
    if (i < 3 && !(frac < 0.0001f)) {
        constexpr float quarterTurn = std::numbers::pi_v<float> / 2.0f;
        result[i] = std::cos(frac * quarterTurn);
        result[i + 1] = std::sin(frac * quarterTurn);
    } else {
        result[std::min<std::size_t>(i, 3)] = 1.0f;
    }
    return result;
}

float ForceClassifier::edgeGain(float relative) {
    if (relative < 0.4f) return std::max(0.45f, std::sqrt(relative / 0.4f)); // 0.45 also for a negative relative
    if (relative > 4.0f) return std::min(std::pow(relative * 0.25f, 0.25f), 1.25f);
    return 1.0f;
}

} // namespace tobrin
