#pragma once
// The mixer's test helpers: an owning handle on either mixing path and
// command builders.

#include "TobrinMixer.h"

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace tobrin::test {

struct MixerDeleter {
    void operator()(TBMixer* mixer) const { tb_mixer_destroy(mixer); }
};
using MixerPtr = std::unique_ptr<TBMixer, MixerDeleter>;

// The mixer mixes with AVX2 where the CPU has it and portably otherwise; both
// must give the same samples, so the tests that compare samples run on both.
enum class MixerPath { Native, Portable };

inline std::string pathName(MixerPath path) { return path == MixerPath::Native ? "Native" : "Portable"; }

inline MixerPtr makeMixer(float sampleRate = 48000, float crossfadeMs = 4, MixerPath path = MixerPath::Native) {
    if (path == MixerPath::Native) return MixerPtr(tb_mixer_create(sampleRate, crossfadeMs));
    // The switch is read once, when the mixer is created.
    setenv("TOBRIN_MIXER_SCALAR", "1", 1);
    MixerPtr mixer(tb_mixer_create(sampleRate, crossfadeMs));
    unsetenv("TOBRIN_MIXER_SCALAR");
    return mixer;
}

inline TBSample sampleOf(const std::vector<float>& left, const std::vector<float>* right = nullptr) {
    return TBSample{left.data(), right != nullptr ? right->data() : nullptr, std::uint32_t(left.size())};
}

inline TBCommand weightsCommand(std::uint32_t tag, std::initializer_list<float> weights) {
    TBCommand command{};
    command.type = TB_COMMAND_SET_WEIGHTS;
    command.tag = tag;
    int l = 0;
    for (float weight : weights) command.weights[l++] = weight;
    return command;
}

inline TBCommand startCommand(std::uint32_t tag, std::initializer_list<TBSample> layers,
                              std::initializer_list<float> weights, float pan = 0, float rate = 1) {
    TBCommand command = weightsCommand(tag, weights);
    command.type = TB_COMMAND_START;
    int l = 0;
    for (const TBSample& layer : layers) command.layers[l++] = layer;
    command.pan = pan;
    command.rate = rate;
    return command;
}

inline TBCommand releaseAllCommand() {
    TBCommand command{};
    command.type = TB_COMMAND_RELEASE_ALL;
    return command;
}

} // namespace tobrin::test
