// Decoding and encoding of "pack.json".
#include "TobrinKit/Packs/PackManifest.h"

#include "TobrinKit/Engine/Core/OutputFile.h"
#include "TobrinKit/Packs/PackError.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <span>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {

namespace {

using nlohmann::json;

[[noreturn]] void fail(const std::string& message) { throw PackManifest::DecodeError(message); }

std::string keyPath(const std::string& parent, const std::string& key) {
    return parent.empty() ? key : parent + "." + key;
}

// The value of a required key; a missing key or a null fails.
const json& required(const json& object, const std::string& parent, const std::string& key) {
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) fail("key \"" + keyPath(parent, key) + "\" is missing");
    return *found;
}

// The value of an optional key, or nothing when it is absent or null.
const json* optional(const json& object, const std::string& key) {
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) return nullptr;
    return &*found;
}

std::string string(const json& value, const std::string& where) {
    if (!value.is_string()) fail("\"" + where + "\" must be a string, not " + value.type_name());
    return value.get<std::string>();
}

std::vector<std::string> strings(const json& value, const std::string& where) {
    if (!value.is_array()) fail("\"" + where + "\" must be an array of strings, not " + value.type_name());
    if (value.size() > PackManifest::maxTakesPerList) {
        fail("\"" + where + "\" lists more than " + std::to_string(PackManifest::maxTakesPerList) + " files");
    }
    std::vector<std::string> result;
    result.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        result.push_back(string(value[i], where + "[" + std::to_string(i) + "]"));
    }
    return result;
}

const json& object(const json& value, const std::string& where) {
    if (!value.is_object()) fail("\"" + where + "\" must be an object, not " + value.type_name());
    return value;
}

// JSON has one number type: 1 and 1.0 are the same integer, 1.5 is not one.
std::int64_t integer(const json& value, const std::string& where) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX)) {
            fail("\"" + where + "\" is out of range");
        }
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        if (std::trunc(number) == number) {
            if (number < -9.2233720368547758e18 || number >= 9.2233720368547758e18)
                fail("\"" + where + "\" is out of range");
            return static_cast<std::int64_t>(number);
        }
    }
    fail("\"" + where + "\" must be an integer, not " +
         (value.is_number() ? std::string("a fraction") : std::string(value.type_name())));
}

PackManifest::Group decodeGroup(const json& value, const std::string& where) {
    object(value, where);
    PackManifest::Group group;
    const std::string downPath = keyPath(where, "down");
    const json& down = object(required(value, where, "down"), downPath);
    if (down.size() > PackManifest::maxTiersPerGroup) {
        fail("\"" + downPath + "\" has more than " + std::to_string(PackManifest::maxTiersPerGroup) + " entries");
    }
    for (const auto& [tier, paths] : down.items()) group.down.emplace(tier, strings(paths, keyPath(downPath, tier)));
    if (const json* up = optional(value, "up")) group.up = strings(*up, keyPath(where, "up"));
    return group;
}

// nlohmann prefixes its messages with "[json.exception.parse_error.101] ";
// users are better served by the message alone.
std::string withoutExceptionTag(const std::string& message) {
    if (!message.starts_with("[json.exception.")) return message;
    auto end = message.find("] ");
    return end == std::string::npos ? message : message.substr(end + 2);
}

std::string tooLarge() {
    return "the manifest is larger than " + std::to_string(PackManifest::maxFileBytes >> 20) + " MiB";
}

} // namespace

PackManifest PackManifest::decode(std::string_view text) {
    if (text.size() > maxFileBytes) fail(tooLarge());
    json root;
    try {
        root = json::parse(text.begin(), text.end());
    } catch (const json::exception& error) {
        fail(withoutExceptionTag(error.what()));
    }
    if (!root.is_object()) fail(std::string("the manifest must be a JSON object, not ") + root.type_name());

    PackManifest manifest;
    manifest.formatVersion = integer(required(root, "", "formatVersion"), "formatVersion");
    manifest.id = string(required(root, "", "id"), "id");
    manifest.name = string(required(root, "", "name"), "name");
    manifest.kind = string(required(root, "", "kind"), "kind");
    if (const json* value = optional(root, "summary")) manifest.summary = string(*value, "summary");
    if (const json* value = optional(root, "author")) manifest.author = string(*value, "author");
    if (const json* value = optional(root, "license")) manifest.license = string(*value, "license");
    const json& groups = object(required(root, "", "groups"), "groups");
    if (groups.size() > maxGroups) fail("\"groups\" has more than " + std::to_string(maxGroups) + " entries");
    for (const auto& [key, value] : groups.items()) {
        manifest.groups.emplace(key, decodeGroup(value, keyPath("groups", key)));
    }
    return manifest;
}

PackManifest PackManifest::read(const std::filesystem::path& folder) {
    const std::filesystem::path file = folder / fileName;
    // Non-blocking, so a FIFO named pack.json is opened and refused below
    // instead of waiting for a writer.
    const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        const int code = errno;
        if (code == ENOENT || code == ENOTDIR) throw PackError::missingManifest(folder);
        throw PackError::unreadableManifest(file, std::strerror(code));
    }
    std::string text;
    {
        const struct Closer {
            int fd;
            ~Closer() { ::close(fd); }
        } closer{fd};
        struct stat status {};
        if (::fstat(fd, &status) != 0) throw PackError::unreadableManifest(file, std::strerror(errno));
        if (S_ISDIR(status.st_mode)) throw PackError::unreadableManifest(file, std::strerror(EISDIR));
        if (!S_ISREG(status.st_mode)) throw PackError::unreadableManifest(file, "not a regular file");
        // Refused unread when too large, and read no further than the bound in
        // case the file grows meanwhile: a pack in the user's folder must not
        // cost discovery more than a small manifest does.
        if (std::uintmax_t(status.st_size) > maxFileBytes) fail(tooLarge());
        char chunk[16384];
        while (text.size() <= maxFileBytes) {
            const ssize_t got = ::read(fd, chunk, sizeof chunk);
            if (got == 0) break;
            if (got < 0) {
                if (errno == EINTR) continue;
                throw PackError::unreadableManifest(file, std::strerror(errno));
            }
            text.append(chunk, std::size_t(got));
        }
    }
    return decode(text);
}

void to_json(json& out, const PackManifest::Group& group) {
    out = json::object();
    out["down"] = group.down;
    if (group.up) out["up"] = *group.up;
}

void to_json(json& out, const PackManifest& manifest) {
    // nlohmann's object is a std::map: keys come out sorted at every level.
    out = json::object();
    out["formatVersion"] = manifest.formatVersion;
    out["id"] = manifest.id;
    out["name"] = manifest.name;
    out["kind"] = manifest.kind;
    if (manifest.summary) out["summary"] = *manifest.summary;
    if (manifest.author) out["author"] = *manifest.author;
    if (manifest.license) out["license"] = *manifest.license;
    out["groups"] = json::object();
    for (const auto& [key, group] : manifest.groups) out["groups"][key] = group;
}

std::string PackManifest::encode() const {
    // dump() escapes only what JSON requires, so "/" stays as it is.
    return json(*this).dump(2) + "\n";
}

void PackManifest::write(const std::filesystem::path& file) const {
    const std::string text = encode();
    OutputFile::write(file, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

} // namespace tobrin
