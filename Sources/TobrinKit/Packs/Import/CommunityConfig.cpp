// Decoding of a community pack's "config.json".
#include "TobrinKit/Packs/Import/CommunityConfig.h"

#include <nlohmann/json.hpp>

#include <charconv>
#include <cmath>
#include <variant>

namespace tobrin {

namespace {

using nlohmann::json;

[[noreturn]] void fail(const std::string& message) { throw CommunityConfig::DecodeError(message); }

const json& required(const json& root, const std::string& key) {
    auto found = root.find(key);
    if (found == root.end() || found->is_null()) fail("key \"" + key + "\" is missing");
    return *found;
}

std::string text(const json& value, const std::string& key) {
    if (!value.is_string()) fail("\"" + key + "\" must be a string, not " + value.type_name());
    std::string result = value.get<std::string>();
    if (result.size() > CommunityConfig::maxTextBytes) fail("\"" + key + "\" is too long");
    return result;
}

// A string value of an optional key, or nothing when it is absent, null,
// empty or of another type: informational keys never fail a pack.
std::optional<std::string> optionalText(const json& root, const std::string& key) {
    auto found = root.find(key);
    if (found == root.end() || !found->is_string()) return std::nullopt;
    std::string result = found->get<std::string>();
    if (result.empty() || result.size() > CommunityConfig::maxTextBytes) return std::nullopt;
    return result;
}

int versionOf(const json& root) {
    auto found = root.find("version");
    if (found == root.end()) return 1;
    // Version 1 packs that say so are read as version 1.
    if (found->is_number_integer() && (*found == 1 || *found == 2)) return found->get<int>();
    fail("unsupported \"version\" " + found->dump() + " (versions 1 and 2 are supported)");
}

// "30" or "30-up": the scan code and whether it is the release.
std::optional<std::pair<std::uint32_t, bool>> keyOf(std::string_view key) {
    bool release = false;
    if (key.ends_with("-up")) {
        release = true;
        key.remove_suffix(3);
    }
    std::uint32_t code = 0;
    const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), code);
    if (key.empty() || error != std::errc() || end != key.data() + key.size() || code > 0xFFFF) return std::nullopt;
    return std::pair{code, release};
}

std::optional<double> milliseconds(const json& value) {
    if (!value.is_number()) return std::nullopt;
    const double number = value.get<double>();
    // Ten minutes bounds any segment of a real sprite.
    if (!std::isfinite(number) || number < 0 || number > 600'000) return std::nullopt;
    return number;
}

// Decodes one entry of "defines"; the reason when it cannot be used.
std::variant<CommunityConfig::Entry, std::string> entryOf(const std::string& key, const json& value,
                                                          CommunityConfig::Layout layout) {
    const auto parsed = keyOf(key);
    if (!parsed) return std::string("not a key code");
    CommunityConfig::Entry entry;
    entry.scanCode = parsed->first;
    entry.isRelease = parsed->second;
    if (value.is_null()) return entry;
    if (layout == CommunityConfig::Layout::multi) {
        if (!value.is_string()) return std::string("must name a file, not ") + value.type_name();
        if (value.get_ref<const std::string&>().empty()) return entry;
        if (value.get_ref<const std::string&>().size() > CommunityConfig::maxTextBytes)
            return std::string("file name too long");
        entry.file = value.get<std::string>();
        return entry;
    }
    if (!value.is_array() || value.size() != 2) return std::string("must be [start, duration] in milliseconds");
    const auto start = milliseconds(value[0]);
    const auto duration = milliseconds(value[1]);
    if (!start || !duration) return std::string("must be [start, duration] in milliseconds");
    if (*duration <= 0) return std::string("has no duration");
    entry.segment = CommunityConfig::Segment{*start, *duration};
    return entry;
}

} // namespace

CommunityConfig CommunityConfig::decode(std::string_view source) {
    if (source.size() > maxFileBytes) fail("config.json is larger than 1 MiB");
    json root;
    try {
        root = json::parse(source.begin(), source.end());
    } catch (const json::exception& error) {
        std::string message = error.what();
        if (message.starts_with("[json.exception.")) message = message.substr(message.find("] ") + 2);
        fail(message);
    }
    if (!root.is_object()) fail(std::string("config.json must be a JSON object, not ") + root.type_name());

    CommunityConfig config;
    config.version = versionOf(root);
    config.name = text(required(root, "name"), "name");
    const std::string layout = text(required(root, "key_define_type"), "key_define_type");
    if (layout == "single") {
        config.layout = Layout::single;
    } else if (layout == "multi" || layout == "multiple") {
        config.layout = Layout::multi;
    } else {
        fail("\"key_define_type\" must be \"single\" or \"multi\", not \"" + layout + "\"");
    }
    if (config.version == 1) required(root, "includes_numpad");
    config.sound = text(required(root, "sound"), "sound");
    if (config.version == 2) config.soundUp = text(required(root, "soundup"), "soundup");
    config.author = optionalText(root, "author");
    if (!config.author) config.author = optionalText(root, "m_author");
    config.license = optionalText(root, "license");
    config.description = optionalText(root, "description");

    const json& defines = required(root, "defines");
    if (!defines.is_object()) fail(std::string("\"defines\" must be an object, not ") + defines.type_name());
    if (defines.size() > maxEntries) fail("\"defines\" has more than " + std::to_string(maxEntries) + " entries");
    for (const auto& [key, value] : defines.items()) {
        auto entry = entryOf(key, value, config.layout);
        if (auto* reason = std::get_if<std::string>(&entry)) {
            config.skipped.push_back("key \"" + key.substr(0, 32) + "\": " + *reason);
        } else {
            config.entries.push_back(std::get<Entry>(std::move(entry)));
        }
    }
    return config;
}

std::vector<std::string> expandRange(const std::string& name) {
    const std::size_t open = name.find('{');
    const std::size_t dash = name.find('-', open);
    const std::size_t close = name.find('}', dash);
    if (open == std::string::npos || dash == std::string::npos || close == std::string::npos) return {name};
    unsigned first = 0, last = 0;
    const char* begin = name.data();
    const auto a = std::from_chars(begin + open + 1, begin + dash, first);
    const auto b = std::from_chars(begin + dash + 1, begin + close, last);
    if (a.ec != std::errc() || a.ptr != begin + dash || b.ec != std::errc() || b.ptr != begin + close) return {name};
    if (last < first || last - first >= maxRangeFiles) return {};
    std::vector<std::string> files;
    for (unsigned i = first; i <= last; ++i) {
        files.push_back(name.substr(0, open) + std::to_string(i) + name.substr(close + 1));
    }
    return files;
}

} // namespace tobrin
