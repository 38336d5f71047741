// The audio output on real sound servers: private PipeWire and PulseAudio
// daemons with null sinks, keys handled by the Conductor with a built-in pack,
// and the sink's monitor recorded by a separate process.
#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Audio/Servers/SoundServers.h"
#include "TobrinKit/Engine/Conductor.h"
#include "TobrinKit/Engine/Core/KeyCode.h"
#include "TobrinKit/Engine/Core/MachTime.h"

#include "Support/Eventually.h"
#include "Support/SoundServers.h"
#include "Support/TemporaryFolder.h"
#include "TobrinKit/Engine/BuiltInPacks.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace tobrin::test {
namespace {

using namespace std::chrono_literals;
using Clock = SinkCapture::Clock;

// The time a sound may take to be heard through a server on a loaded machine.
constexpr auto soundTimeout = 3000ms;

// A conductor playing Blue Click at a fixed strength through a real output.
struct Player {
    std::shared_ptr<AudioOutput> audio;
    Conductor conductor;

    explicit Player(const std::string& forced)
        : audio(std::make_shared<AudioOutput>(AudioBackends::registered(), forced)), conductor(audio, nullptr) {
        EngineSettings settings;
        settings.forceSensing = false;
        conductor.apply(settings, true);
        conductor.setPack(fixtures::loadBuiltInPack("blue-click"));
        conductor.barrier();
    }

    void press(std::uint16_t code = KeyCode::a) {
        conductor.handle(KeyEvent{code, KeyAction::down, MachTime::now()});
        conductor.handle(KeyEvent{code, KeyAction::up, MachTime::now()});
    }
};

struct ServerCase {
    const char* name;
    SoundServerKind server;
    const char* forced; // TOBRIN_AUDIO
    const char* backend;
    const char* startLog; // why the better backends were passed over
};

class AudioServer : public ::testing::TestWithParam<ServerCase> {
protected:
    static void SetUpTestSuite() { registerSoundServerBackends(); }

    std::unique_ptr<Player> startPlayer() {
        ::testing::internal::CaptureStderr();
        auto player = std::make_unique<Player>(GetParam().forced);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), GetParam().startLog);
        EXPECT_EQ(player->audio->backendName(), GetParam().backend);
        return player;
    }

    PrivateSoundServer server{GetParam().server};
};

const ServerCase everyRoute[] = {
    {"PipeWire", SoundServerKind::PipeWire, "", "pipewire", ""},
    {"PulseAudio", SoundServerKind::PulseAudio, "", "pulse",
     "Tobrin: audio engine failed to start: pipewire: no server is running\n"},
    {"PulseOnPipeWire", SoundServerKind::PipeWire, "pulse", "pulse", ""},
};

// Heard at the default sink, silent while paused, heard again when a key
// wakes it, and at the new sink once the default changes.
TEST_P(AudioServer, AKeyIsHeardAtTheSinkAfterAPauseAndAtANewDefaultSink) {
    SinkCapture capture(PrivateSoundServer::defaultSink);
    SinkCapture second(PrivateSoundServer::secondSink);
    ASSERT_TRUE(capture.waitUntilCapturing(soundTimeout) && second.waitUntilCapturing(soundTimeout));
    auto started = startPlayer();
    Player& player = *started;
    ASSERT_TRUE(player.audio->isRunning());

    const auto before = Clock::now();
    player.press();
    EXPECT_TRUE(capture.soundAfter(before, soundTimeout)) << "no key sound reached the sink";

    player.audio->pause();
    const auto frozen = player.audio->renderedFrames();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(player.audio->renderedFrames(), frozen);
    const auto resumed = Clock::now();
    player.press(); // wakes the output again
    EXPECT_TRUE(capture.soundAfter(resumed, soundTimeout)) << "no sound after resuming";

    ASSERT_TRUE(server.setDefaultSink(PrivateSoundServer::secondSink));
    EXPECT_TRUE(second.actUntilHeard([&] { player.press(); }, soundTimeout))
        << "the new default sink never heard a key";
    EXPECT_TRUE(player.audio->isRunning());
    EXPECT_EQ(player.audio->backendName(), GetParam().backend);
}

INSTANTIATE_TEST_SUITE_P(Routes, AudioServer, ::testing::ValuesIn(everyRoute),
                         [](const ::testing::TestParamInfo<ServerCase>& route) { return route.param.name; });

class AudioServerRestart : public AudioServer {};

TEST_P(AudioServerRestart, SoundComesBackWithinASecondOfTheServerAndTheVoicesSurvive) {
    auto started = startPlayer();
    Player& player = *started;
    TBMixer* const mixer = player.audio->mixer();
    {
        SinkCapture capture(PrivateSoundServer::defaultSink);
        ASSERT_TRUE(capture.waitUntilCapturing(soundTimeout));
        ASSERT_TRUE(capture.actUntilHeard([&] { player.press(); }, soundTimeout));
    }
    const auto startedBefore = player.audio->startedVoices();

    ::testing::internal::CaptureStderr();
    server.crash();
    // The output notices and falls back to the null device without crashing;
    // keys still start voices there.
    const bool fellBack = eventually([&] { return player.audio->backendName() == "null"; }, soundTimeout);
    const std::string log = ::testing::internal::GetCapturedStderr();
    ASSERT_TRUE(fellBack);
    EXPECT_NE(log.find("Tobrin: no sound server could be used; sounds go to the null device\n"), std::string::npos)
        << log;
    player.press();
    player.conductor.barrier();

    ASSERT_TRUE(server.start());
    const auto back = Clock::now();
    SinkCapture capture(PrivateSoundServer::defaultSink);
    const auto heard = capture.actUntilHeard([&] { player.press(); }, soundTimeout);
    ASSERT_TRUE(heard) << "no sound after the server came back";
    EXPECT_LT(*heard - back, 1000ms);
    EXPECT_EQ(player.audio->backendName(), GetParam().backend);
    EXPECT_EQ(player.audio->mixer(), mixer);
    EXPECT_GT(player.audio->startedVoices(), startedBefore);
}

const ServerCase restartRoutes[] = {everyRoute[0], everyRoute[1]};

INSTANTIATE_TEST_SUITE_P(Routes, AudioServerRestart, ::testing::ValuesIn(restartRoutes),
                         [](const ::testing::TestParamInfo<ServerCase>& route) { return route.param.name; });

TEST(AudioOutputWithoutServer, FallsBackToTheNullDeviceAndSaysWhy) {
    registerSoundServerBackends();
    TemporaryFolder folder;
    Environment environment;
    environment.set("XDG_RUNTIME_DIR", folder.path().string());
    environment.set("PIPEWIRE_RUNTIME_DIR", folder.path().string());
    environment.set("PULSE_SERVER", std::nullopt);

    AudioOutput output;
    ::testing::internal::CaptureStderr();
    EXPECT_TRUE(output.start());
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(output.backendName(), "null");
    EXPECT_EQ(log, "Tobrin: audio engine failed to start: pipewire: no server is running\n"
                   "Tobrin: audio engine failed to start: pulse: no server is running\n"
                   "Tobrin: no sound server could be used; sounds go to the null device\n");
    output.pause();
}

} // namespace
} // namespace tobrin::test
