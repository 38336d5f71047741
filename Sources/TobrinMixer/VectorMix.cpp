// Eight frames at a time: the positions come from the closed form frame × rate,
// each layer's samples are fetched with unaligned loads and lane permutes (not
// gathers, which are slow on many CPUs), and the four layers are summed in
// registers before the voice is panned into the output. Every float operation is
// the portable path's, in its order, so the output is identical to the bit.
#include "VectorMix.h"

#if defined(TOBRIN_MIXER_VECTOR)

#include <algorithm>
#include <cassert>
#include <immintrin.h>

#define TOBRIN_AVX2 __attribute__((target("avx2")))

namespace tobrin::mixer {
namespace {

struct SoundingLayer {
    const float* left;
    const float* right; // equal to left for a mono layer
    std::uint64_t frames;
    float gain;         // the gain for the whole chunk, outside a ramp
    const float* gains; // the gain of each frame of the chunk during a ramp, else null
};

// One frame of one layer, as the portable path computes it. Adds nothing past
// the layer's end or at a zero gain; the sample after the last counts as 0.
inline void addFrame(const SoundingLayer& layer, std::uint32_t k, float fraction, float gain, float& left,
                     float& right) {
    if (k >= layer.frames || gain == 0.0f) return;
    const bool last = k + std::uint64_t(1) >= layer.frames;
    left += gain * interpolate(layer.left[k], last ? 0.0f : layer.left[k + 1], fraction);
    right += gain * interpolate(layer.right[k], last ? 0.0f : layer.right[k + 1], fraction);
}

// How a group's samples are fetched from one channel, chosen by the voice's
// rate. Eight frames at rate r cover whole parts from `first` to
// first + floor(fraction + 7r).
enum class Reach {
    Whole, // rate 1: the eight samples from `first` on, no interpolation
    Near,  // rate below 1, within 8 samples: one load for the samples, one for their neighbours
    Step,  // rate up to 8/7, within 9 samples; every frame after the first moves on by at
           // least one, so lanes 1-7 read the loads at first + 1 and + 2, lane 0 those at + 0 and + 1
    Wide,  // rate below 2, within 15 samples: two loads, and each lane picks from one
};

// Where the eight frames of a group read.
struct Group {
    std::uint32_t first; // whole part of the first frame's position
    __m256i offsets;     // each frame's whole part, minus first
    __m256i stepped;     // Step: offsets - 1 (lane 0 is replaced)
    __m256i nextOffsets; // Wide: offsets + 1, for the right-hand neighbour
    __m256 highLanes;    // Wide: sign bit set where offsets >= 8
    __m256 nextHighLanes;
    __m256 fractions;
    __m256 whole; // lanes whose fraction is 0: they take sample k itself
    bool anyWhole;
};

// The group whose eight read positions are `positionsLow` and `positionsHigh`.
template <Reach reach>
TOBRIN_AVX2 inline Group locate(__m256d positionsLow, __m256d positionsHigh) {
    // Positions are below 2^28: truncating to 32 bits is the floor.
    const __m128i wholeLow = _mm256_cvttpd_epi32(positionsLow);
    const __m128i wholeHigh = _mm256_cvttpd_epi32(positionsHigh);
    const __m128 fractionsLow = _mm256_cvtpd_ps(_mm256_sub_pd(positionsLow, _mm256_cvtepi32_pd(wholeLow)));
    const __m128 fractionsHigh = _mm256_cvtpd_ps(_mm256_sub_pd(positionsHigh, _mm256_cvtepi32_pd(wholeHigh)));

    Group group;
    group.first = std::uint32_t(_mm_cvtsi128_si32(wholeLow));
    group.offsets = _mm256_sub_epi32(_mm256_set_m128i(wholeHigh, wholeLow), _mm256_set1_epi32(int(group.first)));
    if constexpr (reach == Reach::Step) {
        group.stepped = _mm256_sub_epi32(group.offsets, _mm256_set1_epi32(1));
    }
    if constexpr (reach == Reach::Wide) {
        group.nextOffsets = _mm256_add_epi32(group.offsets, _mm256_set1_epi32(1));
        group.highLanes = _mm256_castsi256_ps(_mm256_slli_epi32(group.offsets, 28));
        group.nextHighLanes = _mm256_castsi256_ps(_mm256_slli_epi32(group.nextOffsets, 28));
    }
    group.fractions = _mm256_set_m128(fractionsHigh, fractionsLow);
    group.whole = _mm256_cmp_ps(group.fractions, _mm256_setzero_ps(), _CMP_EQ_OQ);
    group.anyWhole = _mm256_movemask_ps(group.whole) != 0;
#ifndef NDEBUG
    const int span = _mm_extract_epi32(wholeHigh, 3) - int(group.first);
    constexpr int reachable = reach == Reach::Near ? 7 : reach == Reach::Step ? 8 : reach == Reach::Wide ? 14 : 7;
    assert(span <= reachable && "the voice's rate chose a reach too short for its positions");
#endif
    return group;
}

TOBRIN_AVX2 inline __m256 pick(__m256 low, __m256 high, __m256i offsets, __m256 highLanes) {
    // The permute uses the low three bits of each offset; bit 3 chooses the half.
    return _mm256_blendv_ps(_mm256_permutevar8x32_ps(low, offsets), _mm256_permutevar8x32_ps(high, offsets), highLanes);
}

template <Reach reach>
TOBRIN_AVX2 inline __m256 interpolated(const float* channel, const Group& group) {
    const float* base = channel + group.first;
    if constexpr (reach == Reach::Whole) {
        return _mm256_loadu_ps(base);
    } else {
        __m256 samples, next;
        if constexpr (reach == Reach::Near) {
            samples = _mm256_permutevar8x32_ps(_mm256_loadu_ps(base), group.offsets);
            next = _mm256_permutevar8x32_ps(_mm256_loadu_ps(base + 1), group.offsets);
        } else if constexpr (reach == Reach::Step) {
            const __m256 atFirst = _mm256_loadu_ps(base);
            const __m256 afterFirst = _mm256_loadu_ps(base + 1);
            samples = _mm256_blend_ps(_mm256_permutevar8x32_ps(afterFirst, group.stepped), atFirst, 0x01);
            next =
                _mm256_blend_ps(_mm256_permutevar8x32_ps(_mm256_loadu_ps(base + 2), group.stepped), afterFirst, 0x01);
        } else {
            const __m256 low = _mm256_loadu_ps(base);
            const __m256 high = _mm256_loadu_ps(base + 8);
            samples = pick(low, high, group.offsets, group.highLanes);
            next = pick(low, high, group.nextOffsets, group.nextHighLanes);
        }
        const __m256 line = _mm256_add_ps(samples, _mm256_mul_ps(_mm256_sub_ps(next, samples), group.fractions));
        return group.anyWhole ? _mm256_blendv_ps(line, samples, group.whole) : line;
    }
}

// A voice's two channels across a group's eight frames.
struct StereoGroup {
    __m256 left;
    __m256 right;
};

// A group that reaches a layer's last samples: lane by lane, with the bounds
// checks the loads of the bulk leave out. Rare, so kept out of line, where it
// does not push the hot loop's sums out of registers; it takes the group's
// fields by value so that the caller need not keep the group in memory.
template <bool Ramped>
TOBRIN_AVX2 __attribute__((noinline)) StereoGroup edgeGroup(const SoundingLayer& layer, std::uint32_t first,
                                                            __m256i groupOffsets, __m256 groupFractions,
                                                            std::uint32_t frame) {
    alignas(32) std::int32_t offsets[8];
    alignas(32) float fractions[8];
    alignas(32) float left[8] = {};
    alignas(32) float right[8] = {};
    _mm256_store_si256(reinterpret_cast<__m256i*>(offsets), groupOffsets);
    _mm256_store_ps(fractions, groupFractions);
    for (std::uint32_t j = 0; j < 8; ++j) {
        const float gain = Ramped ? layer.gains[frame + j] : layer.gain;
        addFrame(layer, first + std::uint32_t(offsets[j]), fractions[j], gain, left[j], right[j]);
    }
    return {_mm256_load_ps(left), _mm256_load_ps(right)};
}

// The sum of the sounding layers over one group, layer by layer in order.
// `Bounded` when some layer may end within the group's reach (16 samples from
// `first`); otherwise every load is known to lie inside every layer.
template <Reach reach, bool Ramped, bool Bounded>
TOBRIN_AVX2 inline StereoGroup mixGroup(const SoundingLayer* layers, int count, const Group& group,
                                        std::uint32_t frame) {
    StereoGroup mix{_mm256_setzero_ps(), _mm256_setzero_ps()};
    for (int l = 0; l < count; ++l) {
        const SoundingLayer& layer = layers[l];
        if (!Bounded || std::uint64_t(group.first) + 16 <= layer.frames) {
            const __m256 gain = Ramped ? _mm256_loadu_ps(layer.gains + frame) : _mm256_set1_ps(layer.gain);
            __m256 left = _mm256_mul_ps(gain, interpolated<reach>(layer.left, group));
            __m256 right =
                layer.right == layer.left ? left : _mm256_mul_ps(gain, interpolated<reach>(layer.right, group));
            if constexpr (Ramped) {
                // A zero gain adds nothing, whatever the sample holds.
                const __m256 silent = _mm256_cmp_ps(gain, _mm256_setzero_ps(), _CMP_EQ_OQ);
                left = _mm256_andnot_ps(silent, left);
                right = _mm256_andnot_ps(silent, right);
            }
            mix.left = _mm256_add_ps(mix.left, left);
            mix.right = _mm256_add_ps(mix.right, right);
        } else if (group.first < layer.frames) {
            const StereoGroup edge = edgeGroup<Ramped>(layer, group.first, group.offsets, group.fractions, frame);
            mix.left = _mm256_add_ps(mix.left, edge.left);
            mix.right = _mm256_add_ps(mix.right, edge.right);
        }
    }
    return mix;
}

template <Reach reach, bool Ramped>
TOBRIN_AVX2 void mixChunk(const SoundingLayer* layers, int sounding, const Voice& voice, double first,
                          std::uint32_t count, float* left, float* right) {
    // Stepping the positions by eight frames keeps them exact: each is still a
    // whole number of rate steps below 2^28 (see exactPositionLimit).
    const __m256d rate = _mm256_set1_pd(voice.rate);
    const __m256d eightFrames = _mm256_set1_pd(8.0 * voice.rate);
    const __m256d framesLow = _mm256_add_pd(_mm256_set1_pd(first), _mm256_setr_pd(0, 1, 2, 3));
    __m256d positionsLow = _mm256_mul_pd(framesLow, rate);
    __m256d positionsHigh = _mm256_mul_pd(_mm256_add_pd(framesLow, _mm256_set1_pd(4)), rate);
    const __m256 panLeft = _mm256_set1_ps(voice.panLeft);
    const __m256 panRight = _mm256_set1_ps(voice.panRight);
    std::uint64_t shortest = layers[0].frames;
    for (int l = 1; l < sounding; ++l) shortest = std::min(shortest, layers[l].frames);
    std::uint32_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const Group group = locate<reach>(positionsLow, positionsHigh);
        positionsLow = _mm256_add_pd(positionsLow, eightFrames);
        positionsHigh = _mm256_add_pd(positionsHigh, eightFrames);
        const StereoGroup mix = std::uint64_t(group.first) + 16 <= shortest
                                    ? mixGroup<reach, Ramped, false>(layers, sounding, group, i)
                                    : mixGroup<reach, Ramped, true>(layers, sounding, group, i);
        const __m256 pannedLeft = _mm256_mul_ps(mix.left, panLeft);
        const __m256 pannedRight = _mm256_mul_ps(mix.right, panRight);
        if (right != nullptr) {
            _mm256_storeu_ps(left + i, _mm256_add_ps(_mm256_loadu_ps(left + i), pannedLeft));
            _mm256_storeu_ps(right + i, _mm256_add_ps(_mm256_loadu_ps(right + i), pannedRight));
        } else {
            const __m256 half = _mm256_mul_ps(_mm256_set1_ps(0.5f), _mm256_add_ps(pannedLeft, pannedRight));
            _mm256_storeu_ps(left + i, _mm256_add_ps(_mm256_loadu_ps(left + i), half));
        }
    }

    // The frames after the last whole group, one at a time.
    for (; i < count; ++i) {
        const double position = (first + i) * voice.rate;
        const auto k = static_cast<std::uint32_t>(static_cast<std::int64_t>(position));
        const float fraction = static_cast<float>(position - double(k));
        float mixLeft = 0.0f;
        float mixRight = 0.0f;
        for (int l = 0; l < sounding; ++l) {
            const SoundingLayer& layer = layers[l];
            addFrame(layer, k, fraction, Ramped ? layer.gains[i] : layer.gain, mixLeft, mixRight);
        }
        if (right != nullptr) {
            left[i] += mixLeft * voice.panLeft;
            right[i] += mixRight * voice.panRight;
        } else {
            left[i] += 0.5f * (mixLeft * voice.panLeft + mixRight * voice.panRight);
        }
    }
}

using ChunkMixer = void (*)(const SoundingLayer*, int, const Voice&, double, std::uint32_t, float*, float*);

// By reach, then without and with a ramp.
constexpr ChunkMixer chunkMixers[4][2] = {
    {mixChunk<Reach::Whole, false>, mixChunk<Reach::Whole, true>},
    {mixChunk<Reach::Near, false>, mixChunk<Reach::Near, true>},
    {mixChunk<Reach::Step, false>, mixChunk<Reach::Step, true>},
    {mixChunk<Reach::Wide, false>, mixChunk<Reach::Wide, true>},
};

} // namespace

bool cpuSupportsVectorMix() { return __builtin_cpu_supports("avx2"); }

TOBRIN_AVX2 void mixChunkVector(const TBMixer& mixer, const Voice& voice, double first, std::uint32_t count,
                                bool ramped, float* left, float* right) {
    SoundingLayer layers[layerCount];
    int sounding = 0;
    for (int l = 0; l < layerCount; ++l) {
        const VoiceLayer& layer = voice.layers[l];
        if (layer.left == nullptr || (!ramped && voice.gain[l] == 0.0f)) continue;
        layers[sounding++] = {layer.left, layer.right, layer.frames, voice.gain[l],
                              ramped ? mixer.rampGains[l] : nullptr};
    }
    if (sounding == 0) return;

    const Reach reach = voice.rate == 1.0         ? Reach::Whole
                        : voice.rate < 1.0        ? Reach::Near
                        : 7.0 * voice.rate <= 8.0 ? Reach::Step
                                                  : Reach::Wide;
    chunkMixers[int(reach)][ramped ? 1 : 0](layers, sounding, voice, first, count, left, right);
}

} // namespace tobrin::mixer

#endif
