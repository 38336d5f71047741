#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace tobrin {

// The four force tiers. Their order is the order of a voice's four layers,
// of the tier weights and of a pack's per-tier takes; a tier position is a
// real number in [0, 3] along it.
enum class Tier : std::uint8_t { soft = 0, medium = 1, hard = 2, slam = 3 };

inline constexpr std::array<Tier, 4> allTiers = {Tier::soft, Tier::medium, Tier::hard, Tier::slam};

constexpr int rawValue(Tier tier) { return static_cast<int>(tier); }

// Accepts 0...3 only.
std::optional<Tier> tierFromRawValue(long long raw);

// The lower-case word: "soft", "medium", "hard", "slam".
std::string_view name(Tier tier);

// Case-insensitive: the argument is lower-cased before comparing.
std::optional<Tier> tierFromName(std::string_view name);

// JSON: the raw value as a number. Decoding anything but an integer 0...3 throws.
void to_json(nlohmann::json& json, Tier tier);
void from_json(const nlohmann::json& json, Tier& tier);

} // namespace tobrin
