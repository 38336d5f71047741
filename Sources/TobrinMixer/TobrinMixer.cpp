// The real-time voice mixer. Everything here after tb_mixer_create runs without
// allocating, freeing, locking or logging: the render thread calls it.
#include "TobrinMixer.h"

#include "MixerState.h"
#include "VectorMix.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdlib>
#include <new>
#include <numbers>
#include <string_view>
#include <type_traits>

static_assert(std::is_trivially_copyable_v<TBCommand>, "commands are copied whole through the ring");
static_assert(std::is_trivially_copyable_v<TBSample>);

using namespace tobrin::mixer;

namespace {

std::uint32_t framesFor(double milliseconds, double sampleRate) {
    const double frames = std::round(milliseconds * sampleRate / 1000.0);
    if (!(frames >= 1.0)) return 1;
    if (frames >= 4294967295.0) return 4294967295u;
    return static_cast<std::uint32_t>(frames);
}

void startVoice(TBMixer& mixer, const TBCommand& command) {
    std::uint32_t length = 0;
    for (const TBSample& layer : command.layers) {
        if (layer.left != nullptr) length = std::max(length, layer.frames);
    }
    if (length == 0) return;

    // The first free slot, else the oldest voice, releasing or not, taken over
    // at once: a 33rd key must sound now, not after a fade.
    Voice* slot = nullptr;
    for (Voice& voice : mixer.voices) {
        if (!voice.active) {
            slot = &voice;
            break;
        }
    }
    if (slot == nullptr) {
        slot = &mixer.voices[0];
        for (Voice& voice : mixer.voices) {
            if (voice.sequence < slot->sequence) slot = &voice;
        }
    }

    Voice& voice = *slot;
    voice = Voice{};
    voice.tag = command.tag;
    voice.sequence = ++mixer.sequenceCounter;
    voice.active = 1;
    voice.length = length;
    voice.rate = (command.rate > 0.25f && command.rate < 4.0f) ? double(command.rate) : 1.0;
    for (int l = 0; l < layerCount; ++l) {
        const TBSample& layer = command.layers[l];
        voice.layers[l] = {layer.left, layer.right != nullptr ? layer.right : layer.left, layer.frames};
        const float weight = layer.left != nullptr ? command.weights[l] : 0.0f;
        voice.gain[l] = weight;
        voice.target[l] = weight;
    }
    // Constant power, unity at the centre. A NaN pan is taken as the centre.
    const double pan = std::isnan(command.pan) ? 0.0 : std::clamp(double(command.pan), -1.0, 1.0);
    const double theta = (pan + 1.0) * (std::numbers::pi / 4.0);
    voice.panLeft = static_cast<float>(std::cos(theta) * std::numbers::sqrt2);
    voice.panRight = static_cast<float>(std::sin(theta) * std::numbers::sqrt2);
    mixer.startedVoices.fetch_add(1, std::memory_order_relaxed);
}

void setWeights(TBMixer& mixer, const TBCommand& command) {
    for (Voice& voice : mixer.voices) {
        if (!voice.active || voice.releasing || voice.tag != command.tag) continue;
        for (int l = 0; l < layerCount; ++l) {
            voice.target[l] = voice.layers[l].left != nullptr ? command.weights[l] : 0.0f;
            voice.step[l] = (voice.target[l] - voice.gain[l]) / float(mixer.fadeFrames);
        }
        voice.rampLeft = mixer.fadeFrames;
        return;
    }
}

void releaseAll(TBMixer& mixer) {
    for (Voice& voice : mixer.voices) {
        if (!voice.active) continue;
        voice.releasing = 1;
        for (int l = 0; l < layerCount; ++l) {
            voice.target[l] = 0.0f;
            voice.step[l] = -voice.gain[l] / float(mixer.releaseFrames);
        }
        voice.rampLeft = mixer.releaseFrames;
    }
}

void drainCommands(TBMixer& mixer) {
    const std::uint32_t begin = mixer.read.load(std::memory_order_relaxed);
    const std::uint32_t end = mixer.write.load(std::memory_order_acquire);
    for (std::uint32_t index = begin; index != end; ++index) {
        const TBCommand command = mixer.ring[index & ringMask];
        switch (command.type) {
        case TB_COMMAND_START: startVoice(mixer, command); break;
        case TB_COMMAND_SET_WEIGHTS: setWeights(mixer, command); break;
        case TB_COMMAND_RELEASE_ALL: releaseAll(mixer); break;
        default: break;
        }
    }
    mixer.read.store(end, std::memory_order_release);
}

// Walks the voice's read position through up to `frames` frames, recording
// each frame's index and fraction (shared by all four layers). Returns how many
// frames sound; clears `active` when the position passes the end within them.
std::uint32_t planPositions(TBMixer& mixer, Voice& voice, std::uint32_t frames) {
    double position = voice.position;
    const double length = voice.length;
    const double rate = voice.rate;
    std::uint32_t i = 0;
    for (; i < frames; ++i) {
        if (position >= length) {
            voice.active = 0;
            break;
        }
        // Positions stay below the length, a 32-bit count, so the signed 64-bit
        // conversion (one instruction) is exact.
        const auto k = static_cast<std::uint32_t>(static_cast<std::int64_t>(position));
        mixer.indices[i] = k;
        mixer.fractions[i] = static_cast<float>(position - double(k));
        position += rate;
    }
    voice.position = position;
    return i;
}

// The same count for a voice whose position is exactly frame × rate (see
// exactPositionLimit): the first frame at or past the end is found from the
// quotient and checked with exact products, without walking the frames.
std::uint32_t framesBeforeEnd(Voice& voice, double first, std::uint32_t frames) {
    const double length = voice.length;
    const double rate = voice.rate;
    if (first * rate >= length) {
        voice.active = 0;
        return 0;
    }
    // The first frame whose position reaches the length. The quotient is
    // rounded, so its ceiling can be one short when the true quotient lies just
    // above a whole number; the exact product tells.
    double end = std::ceil(length / rate);
    if (end * rate < length) end += 1.0;
    const double remaining = end - first;
    if (remaining >= double(frames)) return frames;
    voice.active = 0;
    return static_cast<std::uint32_t>(remaining);
}

// Runs the voice's gain ramp across `count` frames, recording each frame's layer
// gains. Returns how many frames are written: a release ramp reaching zero ends
// the voice on that frame, which is not written.
std::uint32_t planRamp(TBMixer& mixer, Voice& voice, std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
        for (int l = 0; l < layerCount; ++l) mixer.rampGains[l][i] = voice.gain[l];
        if (voice.rampLeft == 0) continue;
        if (--voice.rampLeft > 0) {
            for (int l = 0; l < layerCount; ++l) voice.gain[l] += voice.step[l];
        } else {
            for (int l = 0; l < layerCount; ++l) voice.gain[l] = voice.target[l];
            if (voice.releasing) {
                voice.active = 0;
                return i;
            }
        }
    }
    return count;
}

// Adds one layer into the chunk's mix. Read positions only grow, so the frames
// split into three runs: both neighbours inside the layer (the bulk, without
// bounds checks), the last sample (its right neighbour counts as 0), and past
// the end, which adds nothing. With `gains` the gain changes per frame (a ramp);
// a zero gain contributes nothing, not even a NaN.
template <bool Stereo, bool Ramped>
void mixLayer(TBMixer& mixer, const VoiceLayer& layer, std::uint32_t frames, float gain, const float* gains) {
    const std::uint32_t* indices = mixer.indices;
    const float* fractions = mixer.fractions;
    float* mixLeft = mixer.mixLeft;
    float* mixRight = mixer.mixRight;
    const float* left = layer.left;
    const float* right = layer.right;
    const std::uint64_t layerFrames = layer.frames;

    if (frames == 0 || indices[0] >= layerFrames) return;
    const std::uint32_t* end = indices + frames;
    const std::uint32_t inside =
        indices[frames - 1] + std::uint64_t(1) < layerFrames
            ? frames
            : std::uint32_t(std::partition_point(indices, end,
                                                 [&](std::uint32_t k) { return k + std::uint64_t(1) < layerFrames; }) -
                            indices);
    const std::uint32_t readable = std::uint32_t(
        std::partition_point(indices + inside, end, [&](std::uint32_t k) { return k < layerFrames; }) - indices);

    const auto add = [&](std::uint32_t frame, float nextLeft, float nextRight) {
        const std::uint32_t k = indices[frame];
        const float f = fractions[frame];
        const float g = Ramped ? gains[frame] : gain;
        const float l = interpolate(left[k], nextLeft, f);
        mixLeft[frame] += (Ramped && g == 0.0f) ? 0.0f : g * l;
        if constexpr (Stereo) {
            const float r = interpolate(right[k], nextRight, f);
            mixRight[frame] += (Ramped && g == 0.0f) ? 0.0f : g * r;
        }
    };
    std::uint32_t i = 0;
    for (; i < inside; ++i) {
        const std::uint32_t k = indices[i];
        add(i, left[k + 1], Stereo ? right[k + 1] : 0.0f);
    }
    for (i = inside; i < readable; ++i) add(i, 0.0f, 0.0f);
}

template <bool Stereo>
void mixLayers(TBMixer& mixer, const Voice& voice, std::uint32_t count, bool ramped) {
    for (int l = 0; l < layerCount; ++l) {
        const VoiceLayer& layer = voice.layers[l];
        if (layer.left == nullptr) continue;
        if (ramped) {
            mixLayer<Stereo, true>(mixer, layer, count, 0.0f, mixer.rampGains[l]);
        } else if (voice.gain[l] != 0.0f) {
            // Outside a ramp the voice's gain held for the whole chunk.
            mixLayer<Stereo, false>(mixer, layer, count, voice.gain[l], nullptr);
        }
    }
}

void mixVoicePortably(TBMixer& mixer, Voice& voice, float* outLeft, float* outRight, std::uint32_t frames) {
    // Mono layers leave the right mix equal to the left one, so it is computed
    // only when some layer has a distinct right channel.
    bool stereoSource = false;
    for (const VoiceLayer& layer : voice.layers) {
        stereoSource |= layer.left != nullptr && layer.right != layer.left;
    }
    for (std::uint32_t offset = 0; offset < frames && voice.active; offset += chunkFrames) {
        const std::uint32_t chunk = std::min(chunkFrames, frames - offset);
        const bool ramped = voice.rampLeft > 0;
        std::uint32_t count = planPositions(mixer, voice, chunk);
        if (ramped) count = planRamp(mixer, voice, count);
        if (count == 0) continue;

        std::fill_n(mixer.mixLeft, count, 0.0f);
        if (stereoSource) {
            std::fill_n(mixer.mixRight, count, 0.0f);
            mixLayers<true>(mixer, voice, count, ramped);
        } else {
            mixLayers<false>(mixer, voice, count, ramped);
        }

        const float* mixLeft = mixer.mixLeft;
        const float* mixRight = stereoSource ? mixer.mixRight : mixer.mixLeft;
        const float panLeft = voice.panLeft;
        const float panRight = voice.panRight;
        float* left = outLeft + offset;
        if (outRight != nullptr) {
            float* right = outRight + offset;
            for (std::uint32_t i = 0; i < count; ++i) {
                left[i] += mixLeft[i] * panLeft;
                right[i] += mixRight[i] * panRight;
            }
        } else {
            for (std::uint32_t i = 0; i < count; ++i) {
                left[i] += 0.5f * (mixLeft[i] * panLeft + mixRight[i] * panRight);
            }
        }
    }
}

void mixVoice(TBMixer& mixer, Voice& voice, float* outLeft, float* outRight, std::uint32_t frames) {
#if defined(TOBRIN_MIXER_VECTOR)
    if (mixer.vectorMix && voice.rate < 2.0 && voice.length < exactPositionLimit) {
        for (std::uint32_t offset = 0; offset < frames && voice.active; offset += chunkFrames) {
            const std::uint32_t chunk = std::min(chunkFrames, frames - offset);
            // Exact: the position is a whole number of rate steps (see exactPositionLimit).
            const double first = voice.position / voice.rate;
            const bool ramped = voice.rampLeft > 0;
            std::uint32_t count = framesBeforeEnd(voice, first, chunk);
            if (ramped) count = planRamp(mixer, voice, count);
            voice.position = (first + count) * voice.rate;
            mixChunkVector(mixer, voice, first, count, ramped, outLeft + offset,
                           outRight != nullptr ? outRight + offset : nullptr);
        }
        return;
    }
#endif
    mixVoicePortably(mixer, voice, outLeft, outRight, frames);
}

// A knee at 0.8 that approaches 1.0 (reached only by rounding, for huge
// inputs). The last stage before the device, so it holds whatever the voices
// summed to: an infinity leaves as full scale and NaN as silence. Both tests
// sit behind the knee, off the common path.
inline float softLimit(float y) {
    const float magnitude = std::fabs(y);
    if (magnitude <= 0.8f) return y;
    if (std::isnan(magnitude)) return 0.0f;
    float t = (magnitude - 0.8f) / 0.2f;
    t = std::isinf(t) ? 1.0f : t / (t + 1.0f);
    return std::copysign(0.8f + 0.2f * t, y);
}

void applyMaster(TBMixer& mixer, float target, float* left, float* right, std::uint32_t frames) {
    const float current = mixer.masterCurrent;
    const float increment = (target - current) / float(frames);
    float g = current;
    for (std::uint32_t i = 0; i < frames; ++i) {
        g += increment;
        left[i] = softLimit(g * left[i]);
        if (right != nullptr) right[i] = softLimit(g * right[i]);
    }
}

} // namespace

extern "C" {

TBMixer* tb_mixer_create(float sampleRate, float crossfadeMs) {
    TBMixer* mixer = new (std::nothrow) TBMixer();
    if (mixer == nullptr) return nullptr;
    mixer->sampleRate = sampleRate > 0.0f ? sampleRate : 48000.0f;
    const double crossfade = crossfadeMs > 0.0f ? crossfadeMs : 4.0;
    mixer->fadeFrames = framesFor(crossfade, mixer->sampleRate);
    mixer->releaseFrames = framesFor(6.0, mixer->sampleRate);
    mixer->masterTarget.store(1.0f, std::memory_order_relaxed);
    mixer->masterCurrent = 1.0f;
#if defined(TOBRIN_MIXER_VECTOR)
    // TOBRIN_MIXER_SCALAR=1 keeps the portable path, to compare the two.
    const char* scalar = std::getenv("TOBRIN_MIXER_SCALAR");
    mixer->vectorMix = cpuSupportsVectorMix() && (scalar == nullptr || std::string_view(scalar) != "1");
#endif
    return mixer;
}

void tb_mixer_destroy(TBMixer* mixer) { delete mixer; }

bool tb_mixer_push(TBMixer* mixer, const TBCommand* command) {
    const std::uint32_t w = mixer->write.load(std::memory_order_relaxed);
    if (w - mixer->read.load(std::memory_order_acquire) >= ringSize) {
        mixer->droppedCommands.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    mixer->ring[w & ringMask] = *command;
    mixer->write.store(w + 1, std::memory_order_release);
    return true;
}

void tb_mixer_set_master(TBMixer* mixer, float gain) {
    // Written so that NaN, like a negative gain, becomes 0.
    const float clamped = gain > 4.0f ? 4.0f : (gain > 0.0f ? gain : 0.0f);
    mixer->masterTarget.store(clamped, std::memory_order_relaxed);
}

float tb_mixer_get_master(const TBMixer* mixer) { return mixer->masterTarget.load(std::memory_order_relaxed); }

void tb_mixer_render(TBMixer* mixer, float* left, float* right, std::uint32_t frames) {
    if (right == left) right = nullptr; // mono output
    std::fill_n(left, frames, 0.0f);
    if (right != nullptr) std::fill_n(right, frames, 0.0f);

    drainCommands(*mixer);

    std::uint32_t active = 0;
    for (Voice& voice : mixer->voices) {
        if (!voice.active) continue;
        mixVoice(*mixer, voice, left, right, frames);
        if (voice.active) ++active;
    }

    // One read of the target: the ramp must end exactly where masterCurrent
    // continues, even if the control side changes the target meanwhile.
    const float masterTarget = mixer->masterTarget.load(std::memory_order_relaxed);
    if (frames > 0) {
        applyMaster(*mixer, masterTarget, left, right, frames);
        mixer->renderedFrames.fetch_add(frames, std::memory_order_relaxed);
    }
    mixer->masterCurrent = masterTarget;
    mixer->activeVoices.store(active, std::memory_order_relaxed);

#ifndef NDEBUG
    for (std::uint32_t i = 0; i < frames; ++i) {
        assert(std::isfinite(left[i]) && "mixer produced a non-finite sample");
        assert((right == nullptr || std::isfinite(right[i])) && "mixer produced a non-finite sample");
    }
#endif
}

std::uint32_t tb_mixer_active_voices(const TBMixer* mixer) {
    return mixer->activeVoices.load(std::memory_order_relaxed);
}

std::uint64_t tb_mixer_started_voices(const TBMixer* mixer) {
    return mixer->startedVoices.load(std::memory_order_relaxed);
}

std::uint64_t tb_mixer_rendered_frames(const TBMixer* mixer) {
    return mixer->renderedFrames.load(std::memory_order_relaxed);
}

std::uint64_t tb_mixer_dropped_commands(const TBMixer* mixer) {
    return mixer->droppedCommands.load(std::memory_order_relaxed);
}

} // extern "C"
