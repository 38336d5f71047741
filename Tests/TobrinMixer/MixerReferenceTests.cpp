// The mixer against the plain frame-by-frame reference: random command scripts
// covering stealing, ramps, releases, odd block sizes, mono and stereo must give
// the very same samples.
#include "MixerTestSupport.h"
#include "ReferenceMixer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

namespace tobrin::test {
namespace {

struct Take {
    std::vector<float> left, right;
    bool stereo = false;
    TBSample sample() const {
        return TBSample{left.data(), stereo ? right.data() : nullptr, std::uint32_t(left.size())};
    }
};

class Scenario {
public:
    explicit Scenario(std::uint32_t seed) : rng_(seed) {
        std::uniform_real_distribution<float> value(-0.45f, 0.45f);
        std::uniform_int_distribution<int> length(1, 3000);
        for (int i = 0; i < 16; ++i) {
            Take take;
            const int frames = i == 0 ? 1 : length(rng_);
            take.stereo = i % 3 != 0;
            for (int f = 0; f < frames; ++f) {
                take.left.push_back(value(rng_));
                take.right.push_back(value(rng_));
            }
            takes_.push_back(std::move(take));
        }
    }

    std::vector<TBCommand> commandsForNextBlock() {
        std::vector<TBCommand> commands;
        const int count = chance(0.1) ? 40 : std::uniform_int_distribution<int>(0, 6)(rng_);
        for (int i = 0; i < count; ++i) {
            const double kind = uniform();
            if (kind < 0.6) {
                commands.push_back(start());
            } else if (kind < 0.85) {
                const std::uint32_t tag = chance(0.8) && nextTag_ > 1
                                              ? std::uniform_int_distribution<std::uint32_t>(1, nextTag_ - 1)(rng_)
                                              : 999999;
                commands.push_back(weightsCommand(tag, {weight(), weight(), weight(), weight()}));
            } else if (kind < 0.92) {
                commands.push_back(releaseAllCommand());
            } else {
                TBCommand odd = start();
                odd.type = chance(0.5) ? 0 : 4;
                commands.push_back(odd);
            }
        }
        return commands;
    }

    std::uint32_t blockSize() {
        static const std::uint32_t sizes[] = {0, 1, 7, 64, 255, 256, 256, 256, 257, 600, 1024};
        return sizes[std::uniform_int_distribution<int>(0, 10)(rng_)];
    }

    bool changeMaster() { return chance(0.15); }
    float master() { return std::uniform_real_distribution<float>(-0.5f, 4.5f)(rng_); }

private:
    double uniform() { return std::uniform_real_distribution<double>(0, 1)(rng_); }
    bool chance(double p) { return uniform() < p; }
    float weight() { return chance(0.15) ? 0.0f : std::uniform_real_distribution<float>(0, 1.5f)(rng_); }

    TBCommand start() {
        TBCommand command{};
        command.type = TB_COMMAND_START;
        command.tag = nextTag_++;
        for (int l = 0; l < 4; ++l) {
            if (chance(0.2)) continue; // an empty layer
            command.layers[l] = takes_[std::uniform_int_distribution<std::size_t>(0, takes_.size() - 1)(rng_)].sample();
            command.weights[l] = weight();
        }
        const double panKind = uniform();
        command.pan = panKind < 0.05 ? NAN : std::uniform_real_distribution<float>(-1.5f, 1.5f)(rng_);
        const float rates[] = {1.0f, 0.25f, 4.0f, NAN, 0.9999f, 1.5f, 0.5f, 2.0f};
        const double rateKind = uniform();
        command.rate = rateKind < 0.5 ? std::uniform_real_distribution<float>(0.3f, 3.0f)(rng_)
                                      : rates[std::uniform_int_distribution<int>(0, 7)(rng_)];
        return command;
    }

    std::mt19937 rng_;
    std::vector<Take> takes_;
    std::uint32_t nextTag_ = 1;
};

void compareWithReference(std::uint32_t seed, bool stereo, float crossfadeMs) {
    Scenario scenario(seed);
    auto mixer = makeMixer(48000, crossfadeMs);
    ReferenceMixer reference(48000, crossfadeMs);
    std::vector<float> left(1024), right(1024), refLeft(1024), refRight(1024);
    for (int block = 0; block < 400; ++block) {
        for (const TBCommand& command : scenario.commandsForNextBlock()) {
            ASSERT_TRUE(tb_mixer_push(mixer.get(), &command));
            reference.push(command);
        }
        if (scenario.changeMaster()) {
            const float gain = scenario.master();
            tb_mixer_set_master(mixer.get(), gain);
            reference.setMaster(gain);
        }
        const std::uint32_t frames = scenario.blockSize();
        tb_mixer_render(mixer.get(), left.data(), stereo ? right.data() : nullptr, frames);
        reference.render(refLeft.data(), stereo ? refRight.data() : nullptr, frames);
        ASSERT_EQ(std::memcmp(left.data(), refLeft.data(), frames * sizeof(float)), 0)
            << "left channel differs in block " << block << " (seed " << seed << ")";
        if (stereo) {
            ASSERT_EQ(std::memcmp(right.data(), refRight.data(), frames * sizeof(float)), 0)
                << "right channel differs in block " << block << " (seed " << seed << ")";
        }
        ASSERT_EQ(tb_mixer_active_voices(mixer.get()), reference.activeVoices()) << "block " << block;
        ASSERT_EQ(tb_mixer_started_voices(mixer.get()), reference.startedVoices()) << "block " << block;
    }
}

TEST(MixerReference, StereoOutputMatchesFrameByFrameDefinition) {
    for (std::uint32_t seed = 1; seed <= 12; ++seed) compareWithReference(seed, true, 4);
}

TEST(MixerReference, MonoOutputMatchesFrameByFrameDefinition) {
    for (std::uint32_t seed = 101; seed <= 106; ++seed) compareWithReference(seed, false, 4);
}

TEST(MixerReference, ShortCrossfadesEndingMidBlockMatch) {
    for (std::uint32_t seed = 201; seed <= 206; ++seed) compareWithReference(seed, true, 0.1f);
}

} // namespace
} // namespace tobrin::test
