// Raw values, names and JSON coding of the force tiers.
#include "TobrinKit/Engine/Core/Tier.h"

#include <nlohmann/json.hpp>

#include <string>

namespace tobrin {

namespace {
constexpr std::array<std::string_view, 4> tierNames = {"soft", "medium", "hard", "slam"};
} // namespace

std::optional<Tier> tierFromRawValue(long long raw) {
    if (raw < 0 || raw > 3) return std::nullopt;
    return static_cast<Tier>(raw);
}

std::string_view name(Tier tier) { return tierNames[static_cast<std::size_t>(tier)]; }

std::optional<Tier> tierFromName(std::string_view text) {
    std::string lowered(text);
    for (char& c : lowered) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    for (Tier tier : allTiers) {
        if (name(tier) == lowered) return tier;
    }
    return std::nullopt;
}

void to_json(nlohmann::json& json, Tier tier) { json = rawValue(tier); }

void from_json(const nlohmann::json& json, Tier& tier) {
    if (!json.is_number_integer()) {
        throw nlohmann::json::type_error::create(302, "a tier must be an integer 0...3", &json);
    }
    auto decoded = tierFromRawValue(json.get<long long>());
    if (!decoded) {
        throw nlohmann::json::out_of_range::create(401, "not a tier: " + json.dump(), &json);
    }
    tier = *decoded;
}

} // namespace tobrin
