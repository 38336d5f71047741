// Decoding and encoding of recipes, and the attribution they write.
#include "TobrinKit/Building/Recorded/PackRecipe.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace tobrin {

namespace {

using nlohmann::json;
using Options = RecordingSlicer::Options;

[[noreturn]] void fail(const std::string& message) { throw PackRecipe::DecodeError(message); }

std::string field(const std::string& parent, const std::string& key) {
    return parent.empty() ? key : parent + "." + key;
}

[[noreturn]] void wrongType(const std::string& where, const std::string& wanted, const json& value) {
    std::string got = value.type_name();
    if (value.is_number() && wanted == "an integer") got = "a fraction";
    fail("\"" + where + "\" must be " + wanted + ", not " + got);
}

const json* optional(const json& object, const std::string& key) {
    const auto found = object.find(key);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

const json& required(const json& object, const std::string& parent, const std::string& key) {
    const json* value = optional(object, key);
    if (!value) fail("\"" + field(parent, key) + "\" is missing");
    return *value;
}

std::string text(const json& value, const std::string& where) {
    if (!value.is_string()) wrongType(where, "a string", value);
    return value.get<std::string>();
}

double number(const json& value, const std::string& where, double lowest, double highest) {
    if (!value.is_number()) wrongType(where, "a number", value);
    const double result = value.get<double>();
    if (!(result >= lowest && result <= highest)) {
        std::ostringstream range;
        range << "\"" << where << "\" must lie between " << lowest << " and " << highest;
        fail(range.str());
    }
    return result;
}

// JSON has one number type: 6 and 6.0 are the same integer, 6.5 is not one.
std::int64_t integer(const json& value, const std::string& where, std::int64_t lowest, std::int64_t highest) {
    if (!value.is_number()) wrongType(where, "an integer", value);
    double asDouble = value.get<double>();
    if (value.is_number_integer()) {
        if (value.is_number_unsigned()) {
            const auto unsignedValue = value.get<std::uint64_t>();
            if (unsignedValue > std::uint64_t(highest)) asDouble = double(highest) + 1;
        } else {
            const auto signedValue = value.get<std::int64_t>();
            if (signedValue >= lowest && signedValue <= highest) return signedValue;
        }
    } else if (std::trunc(asDouble) != asDouble) {
        wrongType(where, "an integer", value);
    }
    if (!(asDouble >= double(lowest) && asDouble <= double(highest))) {
        fail("\"" + where + "\" must lie between " + std::to_string(lowest) + " and " + std::to_string(highest));
    }
    return std::int64_t(asDouble);
}

const json& object(const json& value, const std::string& where) {
    if (!value.is_object()) wrongType(where, "an object", value);
    return value;
}

// The id names the pack's folder: a plain name, never a path or a hidden file.
std::string packId(const json& value) {
    std::string id = text(value, "id");
    if (id.empty() || id.size() > 128) fail("\"id\" must be 1 to 128 characters long");
    if (id.front() == '.') fail("\"id\" must not start with a dot (it names the pack's folder)");
    for (const char c : id) {
        if (c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            fail("\"id\" must not contain \"/\" or control characters (it names the pack's folder)");
        }
    }
    return id;
}

constexpr double maxSeconds = 86400;
constexpr double maxMs = 10000;

Options decodeOptionsObject(const json& value, const std::string& where) {
    object(value, where);
    Options options;
    const auto ms = [&](const char* key, double& target) {
        if (const json* found = optional(value, key)) target = number(*found, field(where, key), 0, maxMs);
    };
    const auto count = [&](const char* key, int& target) {
        if (const json* found = optional(value, key)) target = int(integer(*found, field(where, key), 1, 256));
    };
    ms("preRollMs", options.preRollMs);
    ms("maxPressMs", options.maxPressMs);
    ms("maxBigPressMs", options.maxBigPressMs);
    ms("maxReleaseMs", options.maxReleaseMs);
    ms("minPressMs", options.minPressMs);
    ms("mergeWithinMs", options.mergeWithinMs);
    count("alphaVariants", options.alphaVariants);
    count("bigVariants", options.bigVariants);
    count("releaseVariants", options.releaseVariants);
    // The big-key threshold is a percentile at 1.6 × the share: at most 1.
    if (const json* found = optional(value, "bigKeyShare")) {
        options.bigKeyShare = number(*found, field(where, "bigKeyShare"), 0, 0.625);
    }
    if (const json* found = optional(value, "highPassHz")) {
        options.highPassHz = number(*found, field(where, "highPassHz"), 0, 2000);
    }
    if (const json* found = optional(value, "gainDb")) options.gainDb = number(*found, field(where, "gainDb"), -60, 60);
    if (const json* found = optional(value, "noReleases")) {
        if (!found->is_boolean()) wrongType(field(where, "noReleases"), "true or false", *found);
        options.noReleases = found->get<bool>();
    }
    return options;
}

PackRecipe::Source decodeSource(const json& value, const std::string& where) {
    object(value, where);
    PackRecipe::Source source;
    source.freesoundID =
        integer(required(value, where, "freesoundID"), field(where, "freesoundID"), 0, std::int64_t(1) << 53);
    source.user = text(required(value, where, "user"), field(where, "user"));
    source.title = text(required(value, where, "title"), field(where, "title"));
    source.license = text(required(value, where, "license"), field(where, "license"));
    source.previewURL = text(required(value, where, "previewURL"), field(where, "previewURL"));
    if (const json* start = optional(value, "start"))
        source.start = number(*start, field(where, "start"), 0, maxSeconds);
    if (const json* end = optional(value, "end")) source.end = number(*end, field(where, "end"), 0, maxSeconds);
    if (source.start && source.end && !(*source.end > *source.start)) {
        fail("\"" + field(where, "end") + "\" must come after \"" + field(where, "start") + "\"");
    }
    return source;
}

std::vector<PackRecipe::Source> decodeSources(const json& value, const std::string& where) {
    if (!value.is_array()) wrongType(where, "an array of sources", value);
    if (value.size() > PackRecipe::maxSources) {
        fail("\"" + where + "\" lists more than " + std::to_string(PackRecipe::maxSources) + " sources");
    }
    std::vector<PackRecipe::Source> sources;
    for (std::size_t i = 0; i < value.size(); ++i) {
        sources.push_back(decodeSource(value[i], where + "[" + std::to_string(i) + "]"));
    }
    return sources;
}

json parse(std::string_view text, const char* what) {
    if (text.size() > PackRecipe::maxFileBytes) fail(std::string(what) + " is larger than 1 MiB");
    try {
        return json::parse(text.begin(), text.end());
    } catch (const json::exception& error) {
        // nlohmann's messages start with "[json.exception.parse_error.101] ".
        std::string message = error.what();
        if (const auto end = message.find("] "); message.starts_with("[json.") && end != std::string::npos) {
            message = message.substr(end + 2);
        }
        fail(std::string(what) + " is not JSON: " + message);
    }
}

json encodeOptionsObject(const Options& options) {
    return json{{"preRollMs", options.preRollMs},
                {"maxPressMs", options.maxPressMs},
                {"maxBigPressMs", options.maxBigPressMs},
                {"maxReleaseMs", options.maxReleaseMs},
                {"minPressMs", options.minPressMs},
                {"mergeWithinMs", options.mergeWithinMs},
                {"alphaVariants", options.alphaVariants},
                {"bigVariants", options.bigVariants},
                {"releaseVariants", options.releaseVariants},
                {"bigKeyShare", options.bigKeyShare},
                {"highPassHz", options.highPassHz},
                {"gainDb", options.gainDb},
                {"noReleases", options.noReleases}};
}

json encodeSource(const PackRecipe::Source& source) {
    json value{{"freesoundID", source.freesoundID},
               {"user", source.user},
               {"title", source.title},
               {"license", source.license},
               {"previewURL", source.previewURL}};
    if (source.start) value["start"] = *source.start;
    if (source.end) value["end"] = *source.end;
    return value;
}

} // namespace

std::string PackRecipe::Source::pageURL(std::string_view site) const {
    return std::string(site) + "/s/" + std::to_string(freesoundID) + "/";
}

std::string PackRecipe::Source::creditLine(std::string_view site) const {
    return "\"" + title + "\" by " + user + ", " + pageURL(site) + " (" + license + ")";
}

std::vector<PackRecipe::Source> PackRecipe::credits() const {
    std::vector<Source> result;
    std::set<std::int64_t> seen;
    const auto add = [&](const std::vector<Source>& list) {
        for (const Source& source : list) {
            if (seen.insert(source.freesoundID).second) result.push_back(source);
        }
    };
    add(sources);
    if (enterSources) add(*enterSources);
    return result;
}

std::string PackRecipe::licenseText(std::string_view site) const {
    std::string text = "Recordings: ";
    const std::vector<Source> credited = credits();
    for (std::size_t i = 0; i < credited.size(); ++i) {
        if (i > 0) text += "; ";
        text += credited[i].creditLine(site);
    }
    return text + ". Sliced and leveled for Tobrin.";
}

PackRecipe PackRecipe::decode(std::string_view input) {
    const json root = parse(input, "the recipe");
    if (!root.is_object()) fail(std::string("the recipe must be a JSON object, not ") + root.type_name());
    PackRecipe recipe;
    recipe.id = packId(required(root, "", "id"));
    recipe.name = text(required(root, "", "name"), "name");
    recipe.kind = text(required(root, "", "kind"), "kind");
    recipe.summary = text(required(root, "", "summary"), "summary");
    recipe.sources = decodeSources(required(root, "", "sources"), "sources");
    if (recipe.sources.empty()) fail("\"sources\" lists no recordings");
    if (const json* enter = optional(root, "enterSources")) recipe.enterSources = decodeSources(*enter, "enterSources");
    if (const json* options = optional(root, "options")) recipe.options = decodeOptionsObject(*options, "options");
    return recipe;
}

PackRecipe PackRecipe::read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) fail("cannot read " + path.string() + ": " + std::strerror(errno));
    std::string content;
    char chunk[16384];
    while (file.read(chunk, sizeof chunk) || file.gcount() > 0) {
        content.append(chunk, std::size_t(file.gcount()));
        if (content.size() > maxFileBytes) fail(path.string() + " is larger than 1 MiB");
    }
    if (file.bad()) fail("cannot read " + path.string());
    return decode(content);
}

std::string PackRecipe::encode() const {
    json root{{"id", id}, {"name", name}, {"kind", kind}, {"summary", summary}, {"sources", json::array()}};
    for (const Source& source : sources) root["sources"].push_back(encodeSource(source));
    if (enterSources) {
        root["enterSources"] = json::array();
        for (const Source& source : *enterSources) root["enterSources"].push_back(encodeSource(source));
    }
    if (options) root["options"] = encodeOptionsObject(*options);
    return root.dump(2) + "\n";
}

RecordingSlicer::Options PackRecipe::decodeOptions(std::string_view input) {
    return decodeOptionsObject(parse(input, "the options"), "options");
}

std::string PackRecipe::encodeOptions(const Options& options) { return encodeOptionsObject(options).dump(2) + "\n"; }

} // namespace tobrin
