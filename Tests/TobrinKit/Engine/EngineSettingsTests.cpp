#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/PlaybackGate.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>

namespace tobrin {
namespace {

EngineSettings decode(const char* text) { return nlohmann::json::parse(text).get<EngineSettings>(); }

TEST(EngineSettings, MissingKeysKeepTheirDefaults) {
    EXPECT_EQ(decode("{}"), EngineSettings());
    EngineSettings expected;
    expected.volume = 0.2f;
    EXPECT_EQ(decode(R"({"volume": 0.2})"), expected);

    expected = EngineSettings();
    expected.fixedTier = Tier::slam;
    expected.releaseSounds = false;
    EXPECT_EQ(decode(R"({"fixedTier": 3, "releaseSounds": false, "someFutureKey": [1, 2]})"), expected);
    // The largest float is still a float.
    EXPECT_EQ(decode(R"({"spatial": -3.4028234663852886e38})").spatial, -std::numeric_limits<float>::max());
}

TEST(EngineSettings, InvalidValuesFailDecoding) {
    const char* broken[] = {
        R"({"fixedTier": 4})",
        R"({"fixedTier": -1})",
        R"({"fixedTier": "hard"})",
        R"({"enabled": "yes"})",
        R"({"volume": null})",
        R"({"volume": "loud"})",
        R"({"volume": true})",
        R"({"volume": 1e300})",
        R"({"sensitivity": -3.5e38})",
        R"({"spatial": [0.5]})",
        R"({"enabled": 1})",
        R"({"shortcut": {"keyCode": 40}})",
        R"({"shortcut": {"keyCode": -3, "modifiers": 11}})",
        R"([])",
    };
    for (const char* text : broken) {
        SCOPED_TRACE(text);
        EXPECT_THROW(decode(text), nlohmann::json::exception);
    }
}

TEST(EngineSettings, FailedDecodingLeavesTheTargetUntouched) {
    EngineSettings settings;
    settings.volume = 1.5f;
    EXPECT_THROW(nlohmann::json::parse(R"({"volume": 0.1, "fixedTier": 7})").get_to(settings),
                 nlohmann::json::exception);
    EXPECT_FLOAT_EQ(settings.volume, 1.5f);
}

TEST(EngineSettings, EncodesAllElevenKeysAndRoundTrips) {
    EngineSettings settings;
    settings.enabled = false;
    settings.volume = 1.25f;
    settings.forceSensing = false;
    settings.sensitivity = 0.35f;
    settings.fixedTier = Tier::hard;
    settings.blendTiers = false;
    settings.releaseSounds = false;
    settings.spatial = 0.9f;
    settings.quietDuringCalls = false;
    settings.shortcutEnabled = false;
    settings.shortcut = Hotkey{17, Modifiers::control | Modifiers::shift};

    const nlohmann::json json = settings;
    const char* keys[] = {"enabled",       "volume",  "forceSensing",     "sensitivity",     "fixedTier", "blendTiers",
                          "releaseSounds", "spatial", "quietDuringCalls", "shortcutEnabled", "shortcut"};
    EXPECT_EQ(json.size(), 11u);
    for (const char* key : keys) EXPECT_TRUE(json.contains(key)) << key;
    EXPECT_EQ(json["fixedTier"], nlohmann::json(2));
    EXPECT_EQ(json["shortcut"], nlohmann::json::parse(R"({"keyCode": 17, "modifiers": 5})"));

    EXPECT_EQ(nlohmann::json::parse(json.dump()).get<EngineSettings>(), settings);
}

TEST(EngineSettings, WritesFloatsAsTheirShortestDecimal) {
    const std::string text = nlohmann::json(EngineSettings()).dump();
    EXPECT_NE(text.find(R"("volume":0.7)"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("spatial":0.5)"), std::string::npos) << text;
    EngineSettings odd;
    odd.sensitivity = 1.0f / 3.0f;
    EXPECT_EQ(nlohmann::json::parse(nlohmann::json(odd).dump()).get<EngineSettings>().sensitivity, odd.sensitivity);
}

using State = PlaybackGate::State;

TEST(PlaybackGate, TheSwitchWinsOverACall) {
    struct Case {
        PlaybackGate gate; // enabled, quiet during calls, mic in use
        State state;
    };
    const Case cases[] = {
        {{true, true, false}, State::playing}, {{true, true, true}, State::pausedForCall},
        {{true, false, true}, State::playing}, {{true, false, false}, State::playing},
        {{false, true, true}, State::off},     {{false, false, false}, State::off},
        {{false, true, false}, State::off},    {{false, false, true}, State::off},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.gate.state(), c.state) << c.gate.enabled << c.gate.quietDuringCalls << c.gate.micInUse;
    }
    PlaybackGate gate{true, true, true};
    EXPECT_TRUE(gate.toggle()); // toggling flips the switch alone
    EXPECT_EQ(gate, (PlaybackGate{false, true, true}));
}

} // namespace
} // namespace tobrin
