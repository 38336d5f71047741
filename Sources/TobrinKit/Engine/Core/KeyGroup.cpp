// Raw values and JSON coding of the key groups.
#include "TobrinKit/Engine/Core/KeyGroup.h"

#include <nlohmann/json.hpp>

#include <string>

namespace tobrin {

namespace {
constexpr std::array<std::string_view, 5> groupNames = {"alpha", "space", "enter", "backspace", "modifier"};
} // namespace

std::string_view rawValue(KeyGroup group) { return groupNames[static_cast<std::size_t>(group)]; }

std::optional<KeyGroup> keyGroupFromRawValue(std::string_view raw) {
    for (KeyGroup group : allKeyGroups) {
        if (rawValue(group) == raw) return group;
    }
    return std::nullopt;
}

void to_json(nlohmann::json& json, KeyGroup group) { json = std::string(rawValue(group)); }

void from_json(const nlohmann::json& json, KeyGroup& group) {
    const auto& text = json.get_ref<const nlohmann::json::string_t&>();
    auto decoded = keyGroupFromRawValue(text);
    if (!decoded) throw nlohmann::json::type_error::create(302, "not a key group: \"" + text + "\"", &json);
    group = *decoded;
}

} // namespace tobrin
