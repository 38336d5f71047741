#pragma once

#include <cstdint>

#include <nlohmann/json_fwd.hpp>

#include "TobrinKit/Engine/Core/Tier.h"
#include "TobrinKit/Input/Hotkey.h"

namespace tobrin {

// The user's choices that the sound engine obeys. Persisted as JSON keyed by
// the field names; every key is optional when decoding (a missing key takes
// the default below, so older settings files load) and encoding writes all
// eleven.
struct EngineSettings {
    bool enabled = true;           // sounds on; off suspends the engine
    float volume = 0.7f;           // master gain (the mixer clamps it to [0, 4])
    bool forceSensing = true;      // choose tiers from the motion sensor; off → fixedTier
    float sensitivity = 1.0f;      // the force classifier's sensitivity
    Tier fixedTier = Tier::medium; // tier without sensing (its raw value, jittered by ±0.3)
    bool blendTiers = true;        // crossfade neighbouring tiers instead of picking one
    bool releaseSounds = true;     // play release takes on key-up
    float spatial = 0.5f;          // stereo width: pan = key position × spatial × 0.6
    bool quietDuringCalls = true;  // pause while a microphone is in use
    bool shortcutEnabled = true;   // the global toggle shortcut is registered
    Hotkey shortcut;               // the global toggle shortcut, Ctrl+Alt+Super+K

    bool operator==(const EngineSettings&) const = default;
};

// What the engine measured (or assumed) for one key stroke, for the force meter.
struct ForceReading {
    std::uint16_t code = 0; // the key
    float position = 0;     // tier position 0 ... 3 used for the stroke
    float relative = 1;     // multiples of the user's typical stroke; 1 when nothing was measured
    float peak = 0;         // the sensor's peak in g; 0 when the sensor was not used
    bool sensed = false;    // true only when a measured impact was found

    bool operator==(const ForceReading&) const = default;
};

// Decoding throws nlohmann::json::exception for a present key of the wrong
// type (a float that is not a number, a bool that is not true or false) or an
// invalid value (a float beyond a float's range, a fixedTier that is not
// 0...3, a broken shortcut).
void to_json(nlohmann::json& json, const EngineSettings& settings);
void from_json(const nlohmann::json& json, EngineSettings& settings);

} // namespace tobrin
