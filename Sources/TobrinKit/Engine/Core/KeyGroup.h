#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace tobrin {

// The five key groups a sound pack is organised by. The raw value (the name)
// is stored in pack.json, so both names and order are part of the file format.
enum class KeyGroup : std::uint8_t { alpha, space, enter, backspace, modifier };

inline constexpr std::array<KeyGroup, 5> allKeyGroups = {KeyGroup::alpha, KeyGroup::space, KeyGroup::enter,
                                                         KeyGroup::backspace, KeyGroup::modifier};

std::string_view rawValue(KeyGroup group);

// Exact, case-sensitive match of a raw value; anything else gives no group.
std::optional<KeyGroup> keyGroupFromRawValue(std::string_view raw);

// JSON: the raw value as a string. Decoding an unknown name throws.
void to_json(nlohmann::json& json, KeyGroup group);
void from_json(const nlohmann::json& json, KeyGroup& group);

} // namespace tobrin
