// JSON coding of the engine settings.
#include "TobrinKit/Engine/EngineSettings.h"

#include <nlohmann/json.hpp>

#include <charconv>
#include <cmath>
#include <limits>
#include <string>

namespace tobrin {

namespace {

// A present key must decode; an absent one keeps the default already in `field`.
template <typename T>
void decodeIfPresent(const nlohmann::json& json, const char* key, T& field) {
    if (auto found = json.find(key); found != json.end()) field = found->get<T>();
}

// A float must be a JSON number that a float can hold: nlohmann alone would
// read true as 1 and 1e300 as infinity, and a corrupt file must not decode.
void decodeFloatIfPresent(const nlohmann::json& json, const char* key, float& field) {
    auto found = json.find(key);
    if (found == json.end()) return;
    if (!found->is_number()) {
        throw nlohmann::json::type_error::create(302, std::string(key) + " must be a number, not " + found->type_name(),
                                                 &*found);
    }
    const double value = found->get<double>();
    if (!(std::fabs(value) <= double(std::numeric_limits<float>::max()))) {
        throw nlohmann::json::out_of_range::create(406, std::string(key) + " is out of range: " + found->dump(),
                                                   &*found);
    }
    field = static_cast<float>(value);
}

// The decimal a person would write for a float (0.7, not 0.699999988079071),
// so the settings file reads naturally and still decodes to the same float.
double readable(float value) {
    char text[32];
    auto result = std::to_chars(text, text + sizeof text, value);
    double widened = value;
    std::from_chars(text, result.ptr, widened);
    return widened;
}

} // namespace

void to_json(nlohmann::json& json, const EngineSettings& settings) {
    json = nlohmann::json{
        {"enabled", settings.enabled},
        {"volume", readable(settings.volume)},
        {"forceSensing", settings.forceSensing},
        {"sensitivity", readable(settings.sensitivity)},
        {"fixedTier", settings.fixedTier},
        {"blendTiers", settings.blendTiers},
        {"releaseSounds", settings.releaseSounds},
        {"spatial", readable(settings.spatial)},
        {"quietDuringCalls", settings.quietDuringCalls},
        {"shortcutEnabled", settings.shortcutEnabled},
        {"shortcut", settings.shortcut},
    };
}

void from_json(const nlohmann::json& json, EngineSettings& settings) {
    if (!json.is_object()) {
        throw nlohmann::json::type_error::create(302, "engine settings must be an object", &json);
    }
    // Decode into a fresh value so a failure leaves `settings` untouched.
    EngineSettings decoded;
    decodeIfPresent(json, "enabled", decoded.enabled);
    decodeFloatIfPresent(json, "volume", decoded.volume);
    decodeIfPresent(json, "forceSensing", decoded.forceSensing);
    decodeFloatIfPresent(json, "sensitivity", decoded.sensitivity);
    decodeIfPresent(json, "fixedTier", decoded.fixedTier);
    decodeIfPresent(json, "blendTiers", decoded.blendTiers);
    decodeIfPresent(json, "releaseSounds", decoded.releaseSounds);
    decodeFloatIfPresent(json, "spatial", decoded.spatial);
    decodeIfPresent(json, "quietDuringCalls", decoded.quietDuringCalls);
    decodeIfPresent(json, "shortcutEnabled", decoded.shortcutEnabled);
    decodeIfPresent(json, "shortcut", decoded.shortcut);
    settings = decoded;
}

} // namespace tobrin
