#include "TobrinKit/Engine/Audio/NullAudioBackend.h"
#include "TobrinKit/Engine/Audio/AudioOutput.h"

#include "Support/Eventually.h"
#include "Support/Mixer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tobrin {
namespace {

using test::eventually;

using namespace std::chrono_literals;

// A sound server stood in for by the null device under another name:
// reachable and connectable while the test says it is up. It counts the
// connections made and keeps the callbacks it was last given.
struct FakeServer {
    explicit FakeServer(bool running = true) : up(running) {}
    std::atomic<bool> up;
    std::atomic<int> created{0};
    AudioBackend::Callbacks callbacks{};
};

AudioBackendFactory fakeServer(std::string name, std::shared_ptr<FakeServer> server) {
    AudioBackendFactory factory = NullAudioBackend::factory();
    factory.name = std::move(name);
    factory.isReachable = [server] { return server->up.load(); };
    factory.create =
        [server, create = factory.create](const AudioBackend::Format& format,
                                          const AudioBackend::Callbacks& callbacks) -> std::unique_ptr<AudioBackend> {
        if (!server->up) return nullptr;
        server->callbacks = callbacks;
        server->created += 1;
        return create(format, callbacks);
    };
    return factory;
}

TEST(AudioOutput, NullDeviceRendersBlocksAtRealTimePace) {
    AudioOutput output({NullAudioBackend::factory()}, "");
    ASSERT_TRUE(output.start());
    EXPECT_EQ(output.backendName(), "null");
    ASSERT_TRUE(eventually([&] { return output.renderedFrames() > 0; }));

    const auto frames0 = output.renderedFrames();
    const auto time0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(400ms);
    const auto frames1 = output.renderedFrames();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - time0).count();

    EXPECT_EQ(frames1 % AudioOutput::bufferFrames, 0u);
    const double rate = double(frames1 - frames0) / seconds;
    EXPECT_GT(rate, 0.8 * AudioOutput::sampleRate);
    EXPECT_LT(rate, 1.2 * AudioOutput::sampleRate);
}

// Only a running output reconnects on a change of device, also when its
// server reports the change from a thread of its own; a paused one keeps its
// connection and connects to the new device when it starts again.
TEST(AudioOutput, StartTwiceAndPauseKeepTheConnectionAndOnlyARunningOutputReconnects) {
    auto probe = std::make_shared<FakeServer>();
    AudioOutput output({fakeServer("pipewire", probe)}, "");
    EXPECT_FALSE(output.isRunning());
    ASSERT_TRUE(output.start());
    ASSERT_TRUE(output.start());
    EXPECT_EQ(probe->created, 1);
    EXPECT_TRUE(output.isRunning());
    ASSERT_TRUE(eventually([&] { return output.renderedFrames() > 0; }));

    const auto rendersNothing = [&] {
        EXPECT_FALSE(output.isRunning());
        const auto frozen = output.renderedFrames();
        std::this_thread::sleep_for(30ms);
        EXPECT_EQ(output.renderedFrames(), frozen);
    };
    output.pause();
    rendersNothing();
    ASSERT_TRUE(output.start());
    EXPECT_EQ(probe->created, 1); // resumed on the same connection

    const auto callbacks = probe->callbacks;
    std::thread([&] { callbacks.configurationChanged(callbacks.context); }).join();
    EXPECT_TRUE(eventually([&] { return probe->created == 2 && output.isRunning(); }));
    const auto before = output.renderedFrames();
    EXPECT_TRUE(eventually([&] { return output.renderedFrames() > before; }));

    output.pause();
    output.handleConfigurationChange();
    rendersNothing();
    EXPECT_EQ(probe->created, 2);
    ASSERT_TRUE(output.start()); // connects to the new device only now
    EXPECT_EQ(probe->created, 3);
}

TEST(AudioOutput, ForcedBackendThatDoesNotExistFailsWithAMessageAndRetriesLater) {
    ::setenv("TOBRIN_AUDIO", "pulse", 1);
    AudioOutput output;
    ::unsetenv("TOBRIN_AUDIO");

    testing::internal::CaptureStderr();
    EXPECT_FALSE(output.start());
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(output.isRunning());
    EXPECT_EQ(printed, "Tobrin: audio engine failed to start: no audio backend named pulse\n");
    EXPECT_EQ(output.backendName(), "");

    testing::internal::CaptureStderr();
    EXPECT_FALSE(output.start());
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST(AudioOutput, ChoosesTheFirstReachableBackendOrTheForcedOneAndSaysWhyOthersWereSkipped) {
    const std::string skippedPipeWire = "Tobrin: audio engine failed to start: pipewire: no server is running\n";
    struct Case {
        std::string forced;
        bool pipewireUp, pulseUp;
        std::string chosen, log;
    };
    const Case cases[] = {
        {"", true, true, "pipewire", ""},
        {"", false, true, "pulse", skippedPipeWire},
        {"", false, false, "null",
         skippedPipeWire + "Tobrin: audio engine failed to start: pulse: no server is running\n"
                           "Tobrin: no sound server could be used; sounds go to the null device\n"},
        {"pulse", true, true, "pulse", ""},
        // Forcing skips the probe; the connection itself fails.
        {"pipewire", false, true, "", "Tobrin: audio engine failed to start: pipewire: could not be created\n"},
        {"null", true, true, "null", ""},
    };
    for (const auto& c : cases) {
        const auto pipewire = std::make_shared<FakeServer>(c.pipewireUp);
        const auto pulse = std::make_shared<FakeServer>(c.pulseUp);
        AudioOutput output({fakeServer("pipewire", pipewire), fakeServer("pulse", pulse), NullAudioBackend::factory()},
                           c.forced);
        testing::internal::CaptureStderr();
        EXPECT_EQ(output.start(), !c.chosen.empty());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.log) << c.chosen;
        EXPECT_EQ(output.backendName(), c.chosen);
    }
    EXPECT_EQ(AudioBackends::registered().back().name, "null");
}

TEST(AudioOutput, AServerThatAppearsIsPickedUpOnTheNextStartAndALostOneWhenItReturns) {
    const auto server = std::make_shared<FakeServer>(false);
    AudioOutput output({fakeServer("pipewire", server), NullAudioBackend::factory()}, "");
    testing::internal::CaptureStderr();
    ASSERT_TRUE(output.start());
    EXPECT_EQ(output.backendName(), "null");

    server->up = true; // the server starts while the output runs on the null device
    output.pause();
    ASSERT_TRUE(output.start());
    EXPECT_EQ(output.backendName(), "pipewire");

    server->up = false; // lost: the output falls back and keeps rendering
    output.handleConfigurationChange();
    EXPECT_EQ(output.backendName(), "null");
    EXPECT_TRUE(output.isRunning());
    const auto frames = output.renderedFrames();
    EXPECT_TRUE(eventually([&] { return output.renderedFrames() > frames; }));

    server->up = true; // back: found again by the retries, without a start
    EXPECT_TRUE(eventually([&] { return output.backendName() == "pipewire"; }));
    EXPECT_TRUE(output.isRunning());

    // A paused output does not retry.
    server->up = false;
    output.handleConfigurationChange();
    output.pause();
    server->up = true;
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(output.backendName(), "null");
    EXPECT_FALSE(output.isRunning());
    testing::internal::GetCapturedStderr();
}

TEST(AudioOutput, RenderCallbackMixesMonoIntoASingleChannelBuffer) {
    constexpr std::uint32_t frames = 64;
    const std::vector<float> sourceLeft(frames, 0.4f), sourceRight(frames, 0.2f);
    const TBCommand command = test::startCommand(1, {test::sampleOf(sourceLeft, &sourceRight)}, {1});

    struct Case {
        std::uint32_t channelCount;
        bool rightIsNull;
        float expectedLeft, expectedRight;
    };
    // Pan 0 gives unity gain on both sides; mono is half the sum.
    const Case cases[] = {{2, false, 0.4f, 0.2f}, {1, false, 0.3f, 0.0f}, {2, true, 0.3f, 0.0f}};
    for (const auto& c : cases) {
        AudioOutput output({NullAudioBackend::factory()}, "");
        ASSERT_TRUE(tb_mixer_push(output.mixer(), &command));
        std::vector<float> left(frames, -1.0f), right(frames, 0.0f);
        float* channels[2] = {left.data(), c.rightIsNull ? nullptr : right.data()};
        AudioOutput::render(output.mixer(), channels, c.channelCount, frames);
        EXPECT_NEAR(left[10], c.expectedLeft, 1e-6f) << c.channelCount << c.rightIsNull;
        EXPECT_NEAR(right[10], c.expectedRight, 1e-6f) << c.channelCount << c.rightIsNull;
        EXPECT_EQ(output.renderedFrames(), frames);
    }

    AudioOutput silent({NullAudioBackend::factory()}, "");
    float* noChannels[2] = {nullptr, nullptr};
    AudioOutput::render(silent.mixer(), noChannels, 2, frames);
    EXPECT_EQ(silent.renderedFrames(), 0u);
}

} // namespace
} // namespace tobrin
