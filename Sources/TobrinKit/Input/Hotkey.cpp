// Labels, display strings and JSON coding of the toggle shortcut.
#include "TobrinKit/Input/Hotkey.h"

#include <nlohmann/json.hpp>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace tobrin {

namespace {

using Label = std::pair<std::uint32_t, const char*>;

constexpr std::array<Label, 34> specialKeys = {{
    {49, "Space"}, {36, "↩"},    {48, "⇥"},    {51, "⌫"},    {117, "⌦"},   {53, "⎋"},    {123, "←"},
    {124, "→"},    {125, "↓"},   {126, "↑"},   {115, "↖"},   {119, "↘"},   {116, "⇞"},   {121, "⇟"},
    {122, "F1"},   {120, "F2"},  {99, "F3"},   {118, "F4"},  {96, "F5"},   {97, "F6"},   {98, "F7"},
    {100, "F8"},   {101, "F9"},  {109, "F10"}, {103, "F11"}, {111, "F12"}, {105, "F13"}, {107, "F14"},
    {113, "F15"},  {106, "F16"}, {64, "F17"},  {79, "F18"},  {80, "F19"},  {90, "F20"},
}};

constexpr std::array<Label, 47> qwertyKeys = {{
    {0, "A"},  {11, "B"}, {8, "C"},  {2, "D"},  {14, "E"}, {3, "F"},   {5, "G"},  {4, "H"},  {34, "I"}, {38, "J"},
    {40, "K"}, {37, "L"}, {46, "M"}, {45, "N"}, {31, "O"}, {35, "P"},  {12, "Q"}, {15, "R"}, {1, "S"},  {17, "T"},
    {32, "U"}, {9, "V"},  {13, "W"}, {7, "X"},  {16, "Y"}, {6, "Z"},   {29, "0"}, {18, "1"}, {19, "2"}, {20, "3"},
    {21, "4"}, {23, "5"}, {22, "6"}, {26, "7"}, {28, "8"}, {25, "9"},  {27, "-"}, {24, "="}, {33, "["}, {30, "]"},
    {41, ";"}, {39, "'"}, {43, ","}, {47, "."}, {44, "/"}, {42, "\\"}, {50, "`"},
}};

template <std::size_t N>
std::optional<std::string> lookUp(const std::array<Label, N>& table, std::uint32_t keyCode) {
    auto found = std::find_if(table.begin(), table.end(), [&](const Label& l) { return l.first == keyCode; });
    if (found == table.end()) return std::nullopt;
    return std::string(found->second);
}

// Full Unicode case mapping, as a key cap shows the character: "é" becomes
// "É" and "ß" becomes "SS". The root locale's rules, so a label does not
// change with the language the user reads in.
std::string upperCased(const std::string& text) {
    icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(text);
    unicode.toUpper(icu::Locale::getRoot());
    std::string result;
    unicode.toUTF8String(result);
    return result;
}

// Key codes and modifier masks are unsigned 32-bit: refuse negative,
// fractional or oversized numbers instead of letting them wrap.
std::uint32_t decodeUInt32(const nlohmann::json& json) {
    bool fits = false;
    if (json.is_number_unsigned()) {
        fits = json.get<std::uint64_t>() <= UINT32_MAX;
    } else if (json.is_number_integer()) {
        const auto value = json.get<std::int64_t>();
        fits = value >= 0 && value <= std::int64_t(UINT32_MAX);
    }
    if (!fits) {
        throw nlohmann::json::type_error::create(302, "expected an unsigned 32-bit integer, got " + json.dump(), &json);
    }
    return static_cast<std::uint32_t>(json.get<std::uint64_t>());
}

} // namespace

std::optional<std::string> Hotkey::specialKeyLabel(std::uint32_t code) { return lookUp(specialKeys, code); }

std::optional<std::string> Hotkey::qwertyKeyLabel(std::uint32_t code) { return lookUp(qwertyKeys, code); }

std::string Hotkey::displayString(const KeyNamer& keyName) const {
    std::string text;
    if (modifiers.contains(Modifiers::control)) text += "Ctrl+";
    if (modifiers.contains(Modifiers::option)) text += "Alt+";
    if (modifiers.contains(Modifiers::shift)) text += "Shift+";
    if (modifiers.contains(Modifiers::command)) text += "Super+";

    if (auto special = specialKeyLabel(keyCode)) return text + *special;
    if (keyName) {
        if (auto named = keyName(keyCode); named && !named->empty()) return text + upperCased(*named);
    }
    if (auto qwerty = qwertyKeyLabel(keyCode)) return text + *qwerty;
    return text + "Key " + std::to_string(keyCode);
}

void to_json(nlohmann::json& json, const Modifiers& modifiers) { json = modifiers.rawValue; }

void from_json(const nlohmann::json& json, Modifiers& modifiers) { modifiers.rawValue = decodeUInt32(json); }

void to_json(nlohmann::json& json, const Hotkey& hotkey) {
    json = nlohmann::json{{"keyCode", hotkey.keyCode}, {"modifiers", hotkey.modifiers}};
}

void from_json(const nlohmann::json& json, Hotkey& hotkey) {
    Hotkey decoded;
    decoded.keyCode = decodeUInt32(json.at("keyCode"));
    decoded.modifiers = json.at("modifiers").get<Modifiers>();
    hotkey = decoded;
}

} // namespace tobrin
