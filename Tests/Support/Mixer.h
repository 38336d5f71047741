#pragma once
// The mixer's test helpers: an owning handle on either mixing path, command
// builders and a fill of numbered voices.

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

// Voice j (from 1) plays the constant j/4096 at the centre: sums of these are
// exact in float, so one mono frame tells which voices sound.
class NumberedVoices {
public:
    explicit NumberedVoices(std::uint32_t count, std::uint32_t frames = 1000) {
        for (std::uint32_t j = 1; j <= count; ++j) takes_.emplace_back(frames, float(j) / 4096);
    }
    TBCommand start(std::uint32_t j) const { return startCommand(j, {sampleOf(takes_.at(j - 1))}, {1}); }
    // Pushes the starts of voices first ... last; false if the ring refused one.
    bool push(TBMixer* mixer, std::uint32_t first, std::uint32_t last) const {
        bool all = true;
        for (std::uint32_t j = first; j <= last; ++j) {
            const TBCommand command = start(j);
            all = tb_mixer_push(mixer, &command) && all;
        }
        return all;
    }
    // What voices first ... last sound like together.
    static float sum(std::uint32_t first, std::uint32_t last) {
        return float((first + last) * (last - first + 1) / 2) / 4096;
    }

private:
    std::vector<std::vector<float>> takes_;
};

} // namespace tobrin::test
