// Proves the backends' real-time work never allocates, frees or locks while a
// real server pulls blocks: what each backend brackets with Callbacks::section
// (PipeWire: the whole process callback, buffer handling included; PulseAudio:
// rendering and interleaving each block) runs as a real-time section of
// Support/RealtimeHooks, with 32 voices sounding, voices taken over and
// release-all commands. A render that stalls once must count as an underrun.
#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Audio/PipeWire/PipeWireAudioBackend.h"
#include "TobrinKit/Engine/Audio/Pulse/PulseAudioBackend.h"

#include "Support/Eventually.h"
#include "Support/Mixer.h"
#include "Support/RealtimeHooks.h"
#include "Support/SoundServers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace tobrin::test {
namespace {

using namespace std::chrono_literals;

struct Route {
    const char* name;
    SoundServerKind server;
    AudioBackendFactory (*factory)();
};

// What the server's thread runs: the output's own render function on a mixer
// of the test's, each callback marked as a real-time section. It can be made
// to allocate once, or to stall once as a descheduled thread would.
struct Renderer {
    MixerPtr owned = makeMixer();
    TBMixer* mixer = owned.get();
    std::atomic<bool> allocateOnce{false}, stallOnce{false};
    std::atomic<std::uint64_t> callbacks{0}, underruns{0};

    AudioBackend::Callbacks hooks() {
        AudioBackend::Callbacks hooks;
        hooks.context = this;
        hooks.render = [](void* context, float* const* channels, std::uint32_t count, std::uint32_t frames) {
            auto* self = static_cast<Renderer*>(context);
            if (self->allocateOnce.exchange(false)) { // the hook must see this
                int* volatile kept = new int(1);
                delete kept;
            }
            if (self->stallOnce.exchange(false)) std::this_thread::sleep_for(60ms);
            AudioOutput::render(self->mixer, channels, count, frames);
        };
        hooks.section = [](void* context, bool entering) {
            if (entering) {
                enterRealtimeSection();
            } else {
                leaveRealtimeSection();
                static_cast<Renderer*>(context)->callbacks += 1;
            }
        };
        hooks.underrun = [](void* context) { static_cast<Renderer*>(context)->underruns += 1; };
        return hooks;
    }
};

// A voice of four layers of `takes`, panned and pitched by its tag.
TBCommand start(std::uint32_t tag, const std::vector<std::vector<float>>& takes) {
    const auto take = [&](std::uint32_t layer) { return sampleOf(takes[(tag + layer) % takes.size()]); };
    return startCommand(tag, {take(0), take(1), take(2), take(3)}, {0.02f, 0.02f, 0.02f, 0.02f},
                        float(tag % 5) * 0.4f - 0.8f, 0.9f + 0.01f * float(tag % 20));
}

class AudioRealtime : public ::testing::TestWithParam<Route> {};

TEST_P(AudioRealtime, CallbacksNeverAllocateFreeOrLockWithThirtyTwoVoicesStealingAndReleasesAndAStallIsAnUnderrun) {
    PrivateSoundServer server(GetParam().server);
    Renderer renderer;
    auto backend = GetParam().factory().create({48000, 2, 256}, renderer.hooks());
    std::string error;
    ASSERT_TRUE(backend->start(error)) << error;
    ASSERT_TRUE(eventually([&] { return renderer.callbacks > 10; }));

    // The hook is live on the server's thread.
    resetForbiddenCalls();
    renderer.allocateOnce = true;
    ASSERT_TRUE(eventually([&] { return !renderer.allocateOnce; }));
    EXPECT_GE(forbiddenCalls(), 2);

    // Two-second takes, so the 32 voices stay busy and new keys take over.
    std::vector<std::vector<float>> takes;
    for (int i = 0; i < 8; ++i) takes.emplace_back(96000, 0.1f * float(i % 3 + 1));
    resetForbiddenCalls();
    const auto callbacksBefore = renderer.callbacks.load();
    std::uint32_t mostVoices = 0;
    std::uint32_t tag = 0;
    const TBCommand release = releaseAllCommand();
    const auto end = std::chrono::steady_clock::now() + 4s;
    while (std::chrono::steady_clock::now() < end) {
        for (int burst = 0; burst < 8; ++burst) {
            const TBCommand command = start(++tag, takes);
            tb_mixer_push(renderer.mixer, &command);
        }
        if (tag % 160 == 0) tb_mixer_push(renderer.mixer, &release);
        std::this_thread::sleep_for(20ms);
        mostVoices = std::max(mostVoices, tb_mixer_active_voices(renderer.mixer));
    }
    EXPECT_EQ(forbiddenCalls(), 0);
    EXPECT_EQ(mostVoices, 32u);
    EXPECT_GT(tb_mixer_started_voices(renderer.mixer), 600u);
    // About 190 blocks a second at a 256-frame quantum.
    EXPECT_GT(renderer.callbacks - callbacksBefore, 400u);

    // A stalled render is counted as an underrun, and playback goes on.
    const auto underruns = renderer.underruns.load();
    renderer.stallOnce = true;
    ASSERT_TRUE(eventually([&] { return renderer.underruns > underruns; }));
    const auto callbacks = renderer.callbacks.load();
    EXPECT_TRUE(eventually([&] { return renderer.callbacks > callbacks + 20; }));
    backend->pause();
}

const Route routes[] = {
    {"PipeWire", SoundServerKind::PipeWire, &PipeWireAudioBackend::factory},
    {"PulseAudio", SoundServerKind::PulseAudio, &PulseAudioBackend::factory},
    {"PulseOnPipeWire", SoundServerKind::PipeWire, &PulseAudioBackend::factory},
};

INSTANTIATE_TEST_SUITE_P(Servers, AudioRealtime, ::testing::ValuesIn(routes),
                         [](const ::testing::TestParamInfo<Route>& route) { return route.param.name; });

} // namespace
} // namespace tobrin::test
