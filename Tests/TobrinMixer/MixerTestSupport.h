#pragma once
// Small helpers shared by the mixer's test programs: sample memory, command
// builders and an owning mixer handle.

#include "TobrinMixer.h"

#include <cstdint>
#include <cstdlib>
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

// A constant signal, handy because every frame of the output is predictable.
inline std::vector<float> constant(float value, std::size_t frames) { return std::vector<float>(frames, value); }

inline TBSample sampleOf(const std::vector<float>& left, const std::vector<float>* right = nullptr) {
    return TBSample{left.data(), right != nullptr ? right->data() : nullptr, std::uint32_t(left.size())};
}

inline TBCommand startCommand(std::uint32_t tag, std::initializer_list<TBSample> layers,
                              std::initializer_list<float> weights, float pan = 0, float rate = 1) {
    TBCommand command{};
    command.type = TB_COMMAND_START;
    command.tag = tag;
    int l = 0;
    for (const TBSample& layer : layers) command.layers[l++] = layer;
    l = 0;
    for (float weight : weights) command.weights[l++] = weight;
    command.pan = pan;
    command.rate = rate;
    return command;
}

inline TBCommand weightsCommand(std::uint32_t tag, std::initializer_list<float> weights) {
    TBCommand command{};
    command.type = TB_COMMAND_SET_WEIGHTS;
    command.tag = tag;
    int l = 0;
    for (float weight : weights) command.weights[l++] = weight;
    return command;
}

inline TBCommand releaseAllCommand() {
    TBCommand command{};
    command.type = TB_COMMAND_RELEASE_ALL;
    return command;
}

} // namespace tobrin::test
