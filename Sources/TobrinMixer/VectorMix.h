#pragma once
// The AVX2 path of the mixer: eight frames of a voice at a time, with the very
// same arithmetic, in the same order, as the portable frame-by-frame path, so
// both give identical samples. Used on x86-64 CPUs that have AVX2.

#include "MixerState.h"

#include <cstdint>

#if defined(__x86_64__)
#define TOBRIN_MIXER_VECTOR 1

namespace tobrin::mixer {

// A voice whose read position has only ever grown by `rate` from 0 sits exactly
// on n × rate while it stays below 2^28 frames: the rate is a float widened to a
// double, so every position is a multiple of the rate's last bit (at least
// 2^-25 for rates above 0.25), and such multiples below 2^28 fit a double's 53
// bits. Each addition was therefore exact, and the product of the frame count
// and the rate gives the same position as the running sum.
constexpr std::uint32_t exactPositionLimit = (1u << 28) - 8;

bool cpuSupportsVectorMix();

// Adds `count` frames of `voice` to the output, the first read at frame `first`
// of the voice (position first × rate). Layer gains come from
// `mixer.rampGains` when `ramped`, else from the voice. The voice's rate must be
// below 2 and its length below exactPositionLimit. `right` is null for a mono
// output.
void mixChunkVector(const TBMixer& mixer, const Voice& voice, double first, std::uint32_t count, bool ramped,
                    float* left, float* right);

} // namespace tobrin::mixer

#endif
