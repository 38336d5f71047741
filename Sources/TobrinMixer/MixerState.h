#pragma once
// The mixer's state block, shared by the portable mixer and its vector path.
// Internal: users see only the opaque TBMixer of TobrinMixer.h.

#include "TobrinMixer.h"

#include <atomic>
#include <cstdint>
#include <type_traits>

namespace tobrin::mixer {

constexpr std::uint32_t ringSize = 512;
constexpr std::uint32_t ringMask = ringSize - 1;
constexpr int voiceCount = 32;
constexpr int layerCount = 4;
// Voices are mixed in chunks of at most this many frames through scratch
// buffers; a longer render call is simply cut into chunks.
constexpr std::uint32_t chunkFrames = 256;

struct VoiceLayer {
    const float* left;
    const float* right; // equal to left for a mono layer, never null while left is set
    std::uint64_t frames;
};

struct Voice {
    std::uint8_t active;
    std::uint8_t releasing;
    std::uint32_t tag;
    std::uint64_t sequence; // the voice's age: the oldest is stolen first
    VoiceLayer layers[layerCount];
    float gain[layerCount];
    float target[layerCount];
    float step[layerCount];
    std::uint32_t rampLeft;
    std::uint32_t length; // longest layer, in frames
    double position;
    double rate;
    float panLeft;
    float panRight;
};

static_assert(std::is_trivially_copyable_v<Voice>);
static_assert(std::atomic<float>::is_always_lock_free);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

// Sample k when the position is whole, else the line from k to next.
inline float interpolate(float a, float next, float fraction) {
    return fraction == 0.0f ? a : a + (next - a) * fraction;
}

} // namespace tobrin::mixer

struct TBMixer {
    TBCommand ring[tobrin::mixer::ringSize];

    // The ring's two indices count up without bound (slot = count & ringMask).
    // The producer fills slot `write` and then publishes write + 1 with a release
    // store; the consumer loads `write` with acquire, so it sees the filled slots.
    // Back the other way, the consumer copies commands out before publishing
    // `read` with release, and the producer's acquire load of `read` keeps it
    // from reusing a slot that is still being copied. Each index has one writer.
    alignas(64) std::atomic<std::uint32_t> write;
    alignas(64) std::atomic<std::uint32_t> read;

    alignas(64) tobrin::mixer::Voice voices[tobrin::mixer::voiceCount];
    std::uint64_t sequenceCounter;
    float sampleRate;
    std::uint32_t fadeFrames;    // weight changes crossfade over this many frames
    std::uint32_t releaseFrames; // release-all fades over 6 ms
    bool vectorMix;              // the CPU has AVX2 and TOBRIN_MIXER_SCALAR is not set

    std::atomic<float> masterTarget; // written by the control side
    float masterCurrent;             // render thread only

    std::atomic<std::uint32_t> activeVoices;
    std::atomic<std::uint64_t> startedVoices;
    std::atomic<std::uint64_t> renderedFrames;
    std::atomic<std::uint64_t> droppedCommands;

    // Render-thread scratch, kept here rather than on the audio thread's stack.
    std::uint32_t indices[tobrin::mixer::chunkFrames]; // whole part of each frame's read position
    float fractions[tobrin::mixer::chunkFrames];       // and its fractional part
    float rampGains[tobrin::mixer::layerCount][tobrin::mixer::chunkFrames];
    float mixLeft[tobrin::mixer::chunkFrames];
    float mixRight[tobrin::mixer::chunkFrames];
};
