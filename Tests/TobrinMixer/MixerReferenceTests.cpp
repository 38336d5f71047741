// The mixer against the plain frame-by-frame reference: random command scripts
// covering stealing, ramps, releases, odd block sizes, mono and stereo must give
// the very same samples.
#include "Support/Mixer.h"
#include "ReferenceMixer.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <random>

namespace tobrin::test {
namespace {

class Scenario {
public:
    // Sixteen takes of up to 3000 frames; one in three is mono.
    explicit Scenario(std::uint32_t seed) : rng_(seed), channels_(16) {
        std::uniform_real_distribution<float> value(-0.45f, 0.45f);
        for (std::size_t i = 0; i < channels_.size(); ++i) {
            auto& [left, right] = channels_[i];
            const int frames = i == 0 ? 1 : std::uniform_int_distribution<int>(1, 3000)(rng_);
            for (int f = 0; f < frames; ++f) {
                left.push_back(value(rng_));
                right.push_back(value(rng_));
            }
            takes_.push_back(sampleOf(left, i % 3 != 0 ? &right : nullptr));
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
            command.layers[l] = takes_[std::uniform_int_distribution<std::size_t>(0, takes_.size() - 1)(rng_)];
            command.weights[l] = weight();
        }
        const double panKind = uniform();
        command.pan = panKind < 0.05 ? NAN : std::uniform_real_distribution<float>(-1.5f, 1.5f)(rng_);
        const float rates[] = {1.0f, 0.25f, 4.0f, NAN, 0.9999f, 1.5f, 0.5f, 2.0f, 1.9999999f};
        const double rateKind = uniform();
        // A typist's pitch variation around 1 makes groups of eight frames span
        // eight samples or nine, so both ways of reading them alternate.
        command.rate = rateKind < 0.35  ? std::uniform_real_distribution<float>(0.3f, 3.0f)(rng_)
                       : rateKind < 0.6 ? std::uniform_real_distribution<float>(0.95f, 1.05f)(rng_)
                                        : rates[std::uniform_int_distribution<int>(0, 8)(rng_)];
        return command;
    }

    std::mt19937 rng_;
    std::vector<std::pair<std::vector<float>, std::vector<float>>> channels_;
    std::vector<TBSample> takes_;
    std::uint32_t nextTag_ = 1;
};

// The mixer under test and the reference, fed the same commands.
struct MixerAndReference {
    MixerAndReference(float crossfadeMs, MixerPath path)
        : mixer(makeMixer(48000, crossfadeMs, path)), reference(48000, crossfadeMs) {}

    bool push(const TBCommand& command) {
        reference.push(command);
        return tb_mixer_push(mixer.get(), &command);
    }

    // Renders a block on both; a failure names the first frame whose bits differ.
    testing::AssertionResult render(std::uint32_t frames, bool stereo) {
        for (auto* out : {&left, &right, &refLeft, &refRight}) out->assign(frames, 0.0f);
        tb_mixer_render(mixer.get(), left.data(), stereo ? right.data() : nullptr, frames);
        reference.render(refLeft.data(), stereo ? refRight.data() : nullptr, frames);
        const auto same = [](float a, float b) {
            return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
        };
        for (std::uint32_t i = 0; i < frames; ++i) {
            if (!same(left[i], refLeft[i]) || !same(right[i], refRight[i])) {
                return testing::AssertionFailure() << "frame " << i << " is " << left[i] << ", " << right[i]
                                                   << "; the reference has " << refLeft[i] << ", " << refRight[i];
            }
        }
        if (tb_mixer_active_voices(mixer.get()) != reference.activeVoices() ||
            tb_mixer_started_voices(mixer.get()) != reference.startedVoices()) {
            return testing::AssertionFailure() << "the voice counters differ";
        }
        return testing::AssertionSuccess();
    }

    MixerPtr mixer;
    ReferenceMixer reference;
    std::vector<float> left, right, refLeft, refRight;
};

class MixerReference : public testing::TestWithParam<MixerPath> {};

TEST_P(MixerReference, RandomScriptsGiveTheSameSamples) {
    struct Run {
        std::uint32_t firstSeed, lastSeed;
        bool stereo;
        float crossfadeMs; // 0.1 ms: crossfades end in the middle of blocks
    };
    for (const Run& run : {Run{1, 12, true, 4}, Run{101, 106, false, 4}, Run{201, 206, true, 0.1f}}) {
        for (std::uint32_t seed = run.firstSeed; seed <= run.lastSeed; ++seed) {
            Scenario scenario(seed);
            MixerAndReference both(run.crossfadeMs, GetParam());
            for (int block = 0; block < 400; ++block) {
                for (const TBCommand& command : scenario.commandsForNextBlock()) ASSERT_TRUE(both.push(command));
                if (scenario.changeMaster()) {
                    const float gain = scenario.master();
                    tb_mixer_set_master(both.mixer.get(), gain);
                    both.reference.setMaster(gain);
                }
                ASSERT_TRUE(both.render(scenario.blockSize(), run.stereo)) << "seed " << seed << ", block " << block;
            }
        }
    }
}

// Positions far from the start: the vector path takes them from frame × rate,
// the definition from a running sum, and the two must agree to the last bit
// over a layer of a million frames, at rates whose float has every bit set.
TEST_P(MixerReference, PositionsStayExactAcrossAMillionFrames) {
    std::vector<float> layer(1u << 20);
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> value(-0.5f, 0.5f);
    for (float& sample : layer) sample = value(rng);
    for (const float rate : {0.25000003f, 0.99999994f, 1.0000001f, 1.9999999f}) {
        MixerAndReference both(4, GetParam());
        both.push(startCommand(1, {sampleOf(layer)}, {0.7f}, 0.3f, rate));
        double played = 0;
        do {
            ASSERT_TRUE(both.render(4096, true)) << "rate " << rate << ", from frame " << played;
            played += 4096;
        } while (both.reference.activeVoices() > 0);
        EXPECT_GE(played, double(layer.size()) / double(rate)) << "the whole layer was played";
    }
}

// Sample memory the loader would never hand over, holding an infinity: the
// rules still say what each frame is, and both paths must keep to them. A
// frame on a whole position reads its sample alone, so an infinite neighbour
// does not turn it into NaN; a layer whose gain has ramped to 0 adds nothing,
// not 0 × infinity.
TEST_P(MixerReference, WholePositionsAndSilencedLayersIgnoreAnInfiniteSample) {
    std::vector<float> layer(64, 0.25f);
    layer[3] = INFINITY;  // at rate 1.5 read only by the frame at position 3
    layer[40] = INFINITY; // read after the fade to 0, in the bulk
    layer[60] = INFINITY; // and among the last samples, read one by one
    for (const float rate : {1.5f, 1.0f}) {
        MixerAndReference both(0.5f, GetParam()); // a 24-frame crossfade
        both.push(startCommand(1, {sampleOf(layer)}, {0.5f}, 0.0f, rate));
        both.push(weightsCommand(1, {0.0f}));
        ASSERT_TRUE(both.render(64, true)) << "rate " << rate;
        for (std::size_t i = 0; i < 64; ++i) {
            ASSERT_TRUE(std::isfinite(both.left[i]) && std::isfinite(both.right[i]))
                << "rate " << rate << ", frame " << i;
        }
    }
}

// Whatever the voices carry, the device gets finite samples within full scale:
// huge samples overflowing in interpolation, infinities of both signs meeting
// in one sum, NaN samples and NaN or infinite weights. Both paths still agree
// with the definition to the bit.
TEST_P(MixerReference, OutputIsFiniteAndWithinFullScaleWhateverTheVoicesCarry) {
    constexpr float huge = 3e38f;
    std::vector<float> alternating(64), nan(64, NAN), positive(64, INFINITY), negative(64, -INFINITY);
    for (std::size_t i = 0; i < alternating.size(); ++i) alternating[i] = i % 2 == 0 ? huge : -huge;
    const std::vector<float> plain(64, 0.5f);
    struct Case {
        const char* name;
        TBCommand start;
    };
    const Case cases[] = {
        {"huge samples interpolated", startCommand(1, {sampleOf(alternating)}, {1.0f}, 0.0f, 1.5f)},
        {"opposite infinities summed", startCommand(1, {sampleOf(positive), sampleOf(negative)}, {1.0f, 1.0f})},
        {"NaN samples", startCommand(1, {sampleOf(nan), sampleOf(plain)}, {1.0f, 1.0f}, 0.3f, 1.25f)},
        {"NaN weight", startCommand(1, {sampleOf(plain)}, {NAN})},
        {"infinite weights", startCommand(1, {sampleOf(plain), sampleOf(alternating)}, {INFINITY, -INFINITY})},
    };
    for (const Case& test : cases) {
        for (const bool stereo : {true, false}) {
            SCOPED_TRACE(testing::Message() << test.name << (stereo ? ", stereo" : ", mono"));
            MixerAndReference both(4, GetParam());
            both.push(test.start);
            ASSERT_TRUE(both.render(128, stereo));
            for (std::size_t i = 0; i < 128; ++i) {
                for (const float sample : {both.left[i], both.right[i]}) {
                    ASSERT_TRUE(std::isfinite(sample) && std::fabs(sample) <= 1.0f) << sample << " at frame " << i;
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(BothPaths, MixerReference, testing::Values(MixerPath::Native, MixerPath::Portable),
                         [](const testing::TestParamInfo<MixerPath>& param) { return pathName(param.param); });

} // namespace
} // namespace tobrin::test
