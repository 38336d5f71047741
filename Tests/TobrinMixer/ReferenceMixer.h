#pragma once
// A deliberately plain, frame-by-frame mixer written straight from the mixing
// rules, with no chunking, scratch buffers or early exits. The real mixer must
// produce exactly the same samples and counters.

#include "TobrinMixer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <numbers>

namespace tobrin::test {

class ReferenceMixer {
public:
    ReferenceMixer(float sampleRate, float crossfadeMs) {
        if (sampleRate <= 0) sampleRate = 48000;
        if (crossfadeMs <= 0) crossfadeMs = 4;
        fadeFrames_ = std::max<std::uint32_t>(1, std::uint32_t(std::round(double(crossfadeMs) * sampleRate / 1000)));
        releaseFrames_ = std::max<std::uint32_t>(1, std::uint32_t(std::round(6.0 * sampleRate / 1000)));
    }

    void push(const TBCommand& command) { queue_.push_back(command); }
    void setMaster(float gain) { masterTarget_ = std::isnan(gain) ? 0.0f : std::clamp(gain, 0.0f, 4.0f); }
    std::uint32_t activeVoices() const { return activeVoices_; }
    std::uint64_t startedVoices() const { return startedVoices_; }

    void render(float* left, float* right, std::uint32_t frames) {
        const bool mono = right == nullptr || right == left;
        std::fill_n(left, frames, 0.0f);
        if (!mono) std::fill_n(right, frames, 0.0f);
        for (; !queue_.empty(); queue_.pop_front()) apply(queue_.front());
        for (Voice& v : voices_) {
            for (std::uint32_t i = 0; i < frames && v.active; ++i) {
                float mixLeft = 0, mixRight = 0;
                if (!mixFrame(v, mixLeft, mixRight)) break;
                if (mono) {
                    left[i] += 0.5f * (mixLeft * v.panLeft + mixRight * v.panRight);
                } else {
                    left[i] += mixLeft * v.panLeft;
                    right[i] += mixRight * v.panRight;
                }
                v.position += v.rate;
            }
        }
        const auto limit = [](float y) {
            if (std::isnan(y)) return 0.0f; // silence, never NaN, reaches the device
            if (std::fabs(y) > 0.8f) {
                float t = (std::fabs(y) - 0.8f) / 0.2f;
                t = std::isinf(t) ? 1.0f : t / (t + 1); // an infinite input goes to the limit, not to NaN
                y = y < 0 ? -(0.8f + 0.2f * t) : 0.8f + 0.2f * t;
            }
            return y;
        };
        float g = masterCurrent_;
        for (std::uint32_t i = 0; i < frames; ++i) {
            g += (masterTarget_ - masterCurrent_) / float(frames);
            left[i] = limit(g * left[i]);
            if (!mono) right[i] = limit(g * right[i]);
        }
        masterCurrent_ = masterTarget_;
        activeVoices_ = std::uint32_t(std::count_if(voices_, voices_ + 32, [](const Voice& v) { return v.active; }));
    }

private:
    struct Voice {
        bool active = false, releasing = false;
        std::uint32_t tag = 0, length = 0, rampLeft = 0;
        std::uint64_t sequence = 0;
        TBSample layers[4] = {}; // right is never null: a mono layer reads left twice
        float gain[4] = {}, target[4] = {}, step[4] = {};
        double position = 0, rate = 0;
        float panLeft = 0, panRight = 0;
    };

    void apply(const TBCommand& c) {
        if (c.type == 1) {
            std::uint32_t length = 0;
            for (const TBSample& s : c.layers) {
                if (s.left != nullptr && s.frames > length) length = s.frames;
            }
            if (length == 0) return;
            // A free voice, else the oldest.
            Voice* v = std::find_if(voices_, voices_ + 32, [](const Voice& voice) { return !voice.active; });
            if (v == voices_ + 32) {
                v = std::min_element(voices_, voices_ + 32,
                                     [](const Voice& a, const Voice& b) { return a.sequence < b.sequence; });
            }
            *v = Voice{};
            v->tag = c.tag;
            v->sequence = ++sequence_;
            v->active = true;
            v->length = length;
            v->rate = (c.rate > 0.25f && c.rate < 4.0f) ? c.rate : 1.0;
            for (int l = 0; l < 4; ++l) {
                v->layers[l] = c.layers[l];
                if (c.layers[l].right == nullptr) v->layers[l].right = c.layers[l].left;
                v->gain[l] = v->target[l] = c.layers[l].left ? c.weights[l] : 0.0f;
            }
            const double pan = std::isnan(c.pan) ? 0.0 : std::clamp(double(c.pan), -1.0, 1.0);
            const double theta = (pan + 1) * (std::numbers::pi / 4);
            v->panLeft = float(std::cos(theta) * std::sqrt(2.0));
            v->panRight = float(std::sin(theta) * std::sqrt(2.0));
            ++startedVoices_;
        } else if (c.type == 2) {
            for (Voice& v : voices_) {
                if (!v.active || v.releasing || v.tag != c.tag) continue;
                for (int l = 0; l < 4; ++l) {
                    v.target[l] = v.layers[l].left ? c.weights[l] : 0.0f;
                    v.step[l] = (v.target[l] - v.gain[l]) / float(fadeFrames_);
                }
                v.rampLeft = fadeFrames_;
                break;
            }
        } else if (c.type == 3) {
            for (Voice& v : voices_) {
                if (!v.active) continue;
                v.releasing = true;
                for (int l = 0; l < 4; ++l) {
                    v.target[l] = 0;
                    v.step[l] = -v.gain[l] / float(releaseFrames_);
                }
                v.rampLeft = releaseFrames_;
            }
        }
    }

    // One frame of the voice's four layers, then a step of its gain ramp;
    // false when the voice ends on this frame instead.
    static bool mixFrame(Voice& v, float& mixLeft, float& mixRight) {
        if (v.position >= v.length) return v.active = false;
        const std::uint64_t k = std::uint64_t(std::floor(v.position));
        const double f = v.position - double(k);
        for (int l = 0; l < 4; ++l) {
            const TBSample& layer = v.layers[l];
            if (layer.left == nullptr || v.gain[l] == 0 || k >= layer.frames) continue;
            const float g = v.gain[l];
            if (f == 0) {
                mixLeft += g * layer.left[k];
                mixRight += g * layer.right[k];
            } else {
                const float nextLeft = k + 1 < layer.frames ? layer.left[k + 1] : 0.0f;
                const float nextRight = k + 1 < layer.frames ? layer.right[k + 1] : 0.0f;
                mixLeft += g * (layer.left[k] + (nextLeft - layer.left[k]) * float(f));
                mixRight += g * (layer.right[k] + (nextRight - layer.right[k]) * float(f));
            }
        }
        if (v.rampLeft > 0) {
            if (--v.rampLeft > 0) {
                for (int l = 0; l < 4; ++l) v.gain[l] += v.step[l];
            } else {
                std::copy(v.target, v.target + 4, v.gain);
                if (v.releasing) return v.active = false; // the frame a release reaches 0 is not written
            }
        }
        return true;
    }

    std::deque<TBCommand> queue_;
    Voice voices_[32];
    std::uint64_t sequence_ = 0;
    std::uint32_t fadeFrames_ = 1, releaseFrames_ = 1;
    float masterTarget_ = 1.0f, masterCurrent_ = 1.0f;
    std::uint32_t activeVoices_ = 0;
    std::uint64_t startedVoices_ = 0;
};

} // namespace tobrin::test
