#pragma once
// The application model on real parts, for the tests of the model and of the
// panel: the built-in packs, a settings file and autostart entry in a
// temporary folder, the null audio device (counting what it plays) and
// keyboards made of pipes for the key monitor. Only the microphone watch is
// driven by hand.
#include "AppModel.h"

#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Audio/NullAudioBackend.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Input/EvdevKeySource.h"
#include "TobrinKit/Packs/PackLibrary.h"

#include "Support/Eventually.h"
#include "Support/PipeKeyboards.h"
#include "Support/QtApplication.h"
#include "Support/TemporaryFolder.h"

#include <QCoreApplication>

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

namespace tobrin::app {

using namespace std::chrono_literals;

using test::until;

class HandMicrophone final : public Microphone {
public:
    void start() override { running = true; }
    void stop() override { running = false; }
    void refresh() override { ++refreshes; }
    void setOnChange(std::function<void(bool)> onChange) override { report = std::move(onChange); }

    bool running = false;
    int refreshes = 0;
    std::function<void(bool)> report;
};

class AppModelTest : public ::testing::Test {
protected:
    AppModelTest() { test::ensureQtApplication(); }

    AppModel::Parts parts() {
        AppModel::Parts parts;
        // An output of its own: the mixer of a model that is gone may still
        // hold voices of its pack, which must never play again.
        audio = std::make_shared<AudioOutput>(std::vector{NullAudioBackend::factory()}, "");
        parts.audio = audio;
        parts.sensor = sensor;
        KeySourceFactory pipes = keyboards.factory();
        pipes.create = [this] {
            const bool readable = access == KeyboardAccess::granted && keyboardsOpen;
            return std::make_unique<EvdevKeySource>(keyboards.watch(readable ? "" : "no keyboard can be read"));
        };
        pipes.access = [this] { return access; };
        parts.keySources = {pipes};
        auto microphone = std::make_unique<HandMicrophone>();
        mic = microphone.get();
        parts.microphone = std::move(microphone);
        parts.settingsFile.emplace(settingsPath);
        parts.loginItem.emplace(folder / "autostart/tobrin.desktop", "/usr/bin/tobrin");
        parts.discoverPacks = [this] { return packs; };
        parts.isReserved = isReserved;
        parts.now = [this] { return now; };
        return parts;
    }

    // A model on a keyboard of its own (a stopped monitor closes the ones it read).
    std::unique_ptr<AppModel> start() {
        keyboard = keyboards.plugIn();
        auto model = std::make_unique<AppModel>(parts());
        EXPECT_TRUE(until([&] { return !model->isLoadingPack(); }));
        return model;
    }

    // Types a key and says whether the engine started a voice for it within `patience`.
    bool keyStartsAVoice(std::chrono::milliseconds patience) {
        const auto before = audio->startedVoices();
        keyboards.key(keyboard, KEY_A, 1);
        keyboards.key(keyboard, KEY_A, 0);
        return until([&] { return audio->startedVoices() > before; }, patience);
    }
    bool keyIsHeard() { return keyStartsAVoice(2000ms); }
    bool keyIsSilent() { return !keyStartsAVoice(400ms); } // given time to act on the key

    test::TemporaryFolder folder;
    std::filesystem::path settingsPath = folder / "config/tobrin/settings.json";
    std::vector<PackInfo> packs = PackLibrary::discover(TOBRIN_BUILT_IN_PACKS_DIR, true);
    std::shared_ptr<AudioOutput> audio = std::make_shared<AudioOutput>(std::vector{NullAudioBackend::factory()}, "");
    std::shared_ptr<ForceSensor> sensor;
    KeyboardAccess access = KeyboardAccess::granted;
    bool keyboardsOpen = true;
    std::chrono::steady_clock::time_point now{};
    test::PipeKeyboards keyboards;
    std::size_t keyboard = 0;
    HandMicrophone* mic = nullptr;
    GlobalHotkey::ReservedCheck isReserved;
};

} // namespace tobrin::app
