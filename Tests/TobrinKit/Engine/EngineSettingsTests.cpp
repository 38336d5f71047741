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

// Every key away from its default: what is decoded encodes to the same
// document, so no key is dropped, renamed or read into another field.
TEST(EngineSettings, EncodesAllElevenKeysAsTheyAreDecoded) {
    const char* text = R"({"enabled": false, "volume": 1.25, "forceSensing": false, "sensitivity": 0.35,
        "fixedTier": 2, "blendTiers": false, "releaseSounds": false, "spatial": 0.9, "quietDuringCalls": false,
        "shortcutEnabled": false, "shortcut": {"keyCode": 17, "modifiers": 5}})";
    const EngineSettings settings = decode(text);
    EXPECT_EQ(nlohmann::json(settings), nlohmann::json::parse(text));
    EXPECT_EQ(settings.fixedTier, Tier::hard);
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
