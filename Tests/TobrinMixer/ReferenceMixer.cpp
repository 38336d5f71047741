#include "ReferenceMixer.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace tobrin::test {

ReferenceMixer::ReferenceMixer(float sampleRate, float crossfadeMs) {
    if (sampleRate <= 0) sampleRate = 48000;
    if (crossfadeMs <= 0) crossfadeMs = 4;
    fadeFrames_ = std::max<std::uint32_t>(1, std::uint32_t(std::round(double(crossfadeMs) * sampleRate / 1000)));
    releaseFrames_ = std::max<std::uint32_t>(1, std::uint32_t(std::round(6.0 * sampleRate / 1000)));
}

void ReferenceMixer::setMaster(float gain) {
    if (std::isnan(gain)) gain = 0;
    masterTarget_ = std::clamp(gain, 0.0f, 4.0f);
}

void ReferenceMixer::apply(const TBCommand& c) {
    if (c.type == 1) {
        std::uint32_t length = 0;
        for (const TBSample& s : c.layers) {
            if (s.left != nullptr && s.frames > length) length = s.frames;
        }
        if (length == 0) return;
        int slot = -1;
        for (int i = 0; i < 32 && slot < 0; ++i) {
            if (!voices_[i].active) slot = i;
        }
        if (slot < 0) {
            slot = 0;
            for (int i = 1; i < 32; ++i) {
                if (voices_[i].sequence < voices_[slot].sequence) slot = i;
            }
        }
        Voice& v = voices_[slot];
        v = Voice{};
        v.tag = c.tag;
        v.sequence = ++sequence_;
        v.active = true;
        v.length = length;
        v.rate = (c.rate > 0.25f && c.rate < 4.0f) ? c.rate : 1.0;
        for (int l = 0; l < 4; ++l) {
            v.layers[l].left = c.layers[l].left;
            v.layers[l].right = c.layers[l].right ? c.layers[l].right : c.layers[l].left;
            v.layers[l].frames = c.layers[l].frames;
            v.gain[l] = v.target[l] = c.layers[l].left ? c.weights[l] : 0.0f;
        }
        double pan = std::isnan(c.pan) ? 0.0 : std::clamp(double(c.pan), -1.0, 1.0);
        double theta = (pan + 1) * (std::numbers::pi / 4);
        v.panLeft = float(std::cos(theta) * std::sqrt(2.0));
        v.panRight = float(std::sin(theta) * std::sqrt(2.0));
        ++startedVoices_;
    } else if (c.type == 2) {
        for (Voice& v : voices_) {
            if (v.active && !v.releasing && v.tag == c.tag) {
                for (int l = 0; l < 4; ++l) {
                    v.target[l] = v.layers[l].left ? c.weights[l] : 0.0f;
                    v.step[l] = (v.target[l] - v.gain[l]) / float(fadeFrames_);
                }
                v.rampLeft = fadeFrames_;
                break;
            }
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

void ReferenceMixer::render(float* left, float* right, std::uint32_t frames) {
    const bool mono = right == nullptr || right == left;
    for (std::uint32_t i = 0; i < frames; ++i) {
        left[i] = 0;
        if (!mono) right[i] = 0;
    }
    while (!queue_.empty()) {
        apply(queue_.front());
        queue_.pop_front();
    }

    for (Voice& v : voices_) {
        if (!v.active) continue;
        for (std::uint32_t i = 0; i < frames; ++i) {
            if (v.position >= v.length) {
                v.active = false;
                break;
            }
            const std::uint64_t k = std::uint64_t(std::floor(v.position));
            const double f = v.position - double(k);
            float mixL = 0, mixR = 0;
            for (int l = 0; l < 4; ++l) {
                const Layer& layer = v.layers[l];
                if (layer.left == nullptr || v.gain[l] == 0) continue;
                if (k >= layer.frames) continue;
                const float g = v.gain[l];
                if (f == 0) {
                    mixL += g * layer.left[k];
                    mixR += g * layer.right[k];
                } else {
                    const float nextL = k + 1 < layer.frames ? layer.left[k + 1] : 0.0f;
                    const float nextR = k + 1 < layer.frames ? layer.right[k + 1] : 0.0f;
                    mixL += g * (layer.left[k] + (nextL - layer.left[k]) * float(f));
                    mixR += g * (layer.right[k] + (nextR - layer.right[k]) * float(f));
                }
            }
            bool ended = false;
            if (v.rampLeft > 0) {
                v.rampLeft -= 1;
                if (v.rampLeft > 0) {
                    for (int l = 0; l < 4; ++l) v.gain[l] += v.step[l];
                } else {
                    for (int l = 0; l < 4; ++l) v.gain[l] = v.target[l];
                    ended = v.releasing;
                }
            }
            if (ended) {
                v.active = false;
                break;
            }
            if (mono) {
                left[i] += 0.5f * (mixL * v.panLeft + mixR * v.panRight);
            } else {
                left[i] += mixL * v.panLeft;
                right[i] += mixR * v.panRight;
            }
            v.position += v.rate;
        }
    }

    auto limit = [](float y) {
        if (std::isnan(y)) return 0.0f; // silence, never NaN, reaches the device
        if (std::fabs(y) > 0.8f) {
            float t = (std::fabs(y) - 0.8f) / 0.2f;
            t = std::isinf(t) ? 1.0f : t / (t + 1); // an infinite input goes to the limit, not to NaN
            y = y < 0 ? -(0.8f + 0.2f * t) : 0.8f + 0.2f * t;
        }
        return y;
    };
    if (frames > 0) {
        float g = masterCurrent_;
        for (std::uint32_t i = 0; i < frames; ++i) {
            g += (masterTarget_ - masterCurrent_) / float(frames);
            left[i] = limit(g * left[i]);
            if (!mono) right[i] = limit(g * right[i]);
        }
    }
    masterCurrent_ = masterTarget_;
    activeVoices_ = 0;
    for (const Voice& v : voices_) activeVoices_ += v.active ? 1 : 0;
}

} // namespace tobrin::test
