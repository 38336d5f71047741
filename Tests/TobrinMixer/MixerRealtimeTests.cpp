// Proves that pushing and rendering never allocate, free or lock, with the
// counting hooks of Support/RealtimeHooks.
#include "Support/Mixer.h"
#include "Support/RealtimeHooks.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>

namespace tobrin::test {
namespace {

TEST(MixerRealtime, TheHooksSeeAllocationsFreesAndLocks) {
    // Without this the test below could pass because the hooks never fire.
    auto callsDuring = [](auto&& action) {
        resetForbiddenCalls();
        {
            RealtimeSection section;
            action();
        }
        return forbiddenCalls();
    };
    int* volatile kept = nullptr;
    EXPECT_EQ(callsDuring([&] { kept = new int(3); }), 1);
    EXPECT_EQ(callsDuring([&] { delete kept; }), 1);
    void* volatile block = nullptr;
    EXPECT_EQ(callsDuring([&] { block = malloc(16); }), 1);
    EXPECT_EQ(callsDuring([&] { free(block); }), 1);
    std::mutex mutex;
    EXPECT_EQ(callsDuring([&] { mutex.lock(); }), 1);
    mutex.unlock();
}

class MixerRealtimePaths : public testing::TestWithParam<MixerPath> {};

TEST_P(MixerRealtimePaths, PushAndRenderNeverAllocateFreeOrLock) {
    auto mixer = makeMixer(48000, 4, GetParam());
    // Layers of two lengths, stereo and mono, so layers end at different frames.
    const std::vector<float> shortTake(2000, 0.01f), longTake(5000, 0.02f), right(5000, -0.01f);
    std::vector<float> left(1024), out(1024);

    resetForbiddenCalls();
    {
        RealtimeSection section;
        // 40 four-layer starts: 32 voices, then 8 taken over.
        for (std::uint32_t tag = 1; tag <= 40; ++tag) {
            const TBSample a = sampleOf(shortTake, &right), b = sampleOf(longTake);
            // Around 1 as typing plays them, and some above 2, mixed the portable way.
            const float rate = tag % 7 == 0 ? 2.5f : 0.9f + 0.01f * float(tag % 20);
            const TBCommand start = startCommand(tag, {a, b, tag % 2 ? a : b, b}, {0.2f, 0.2f, 0.2f, 0.2f},
                                                 float(tag % 5) * 0.4f - 0.8f, rate);
            tb_mixer_push(mixer.get(), &start);
        }
        tb_mixer_render(mixer.get(), left.data(), out.data(), 256);
        // Weight ramps on half the voices, then blocks of several sizes.
        for (std::uint32_t tag = 9; tag <= 40; tag += 2) {
            const TBCommand change = weightsCommand(tag, {0.5f, 0.1f, 0.0f, 0.3f});
            tb_mixer_push(mixer.get(), &change);
        }
        tb_mixer_set_master(mixer.get(), 0.6f);
        for (std::uint32_t frames : {256u, 1u, 0u, 1000u, 256u}) {
            tb_mixer_render(mixer.get(), left.data(), out.data(), frames);
            tb_mixer_render(mixer.get(), left.data(), nullptr, frames);
        }
        // A full ring, a refused push, then a release-all.
        const TBCommand filler = weightsCommand(12345, {1});
        while (tb_mixer_push(mixer.get(), &filler)) {
        }
        const TBCommand release = releaseAllCommand();
        tb_mixer_render(mixer.get(), left.data(), out.data(), 256);
        tb_mixer_push(mixer.get(), &release);
        for (int i = 0; i < 4; ++i) tb_mixer_render(mixer.get(), left.data(), out.data(), 256);
    }
    EXPECT_EQ(forbiddenCalls(), 0);
    EXPECT_EQ(tb_mixer_started_voices(mixer.get()), 40u);
    EXPECT_GE(tb_mixer_dropped_commands(mixer.get()), 1u);
    EXPECT_EQ(tb_mixer_active_voices(mixer.get()), 0u);
}

INSTANTIATE_TEST_SUITE_P(BothPaths, MixerRealtimePaths, testing::Values(MixerPath::Native, MixerPath::Portable),
                         [](const testing::TestParamInfo<MixerPath>& param) { return pathName(param.param); });

} // namespace
} // namespace tobrin::test
