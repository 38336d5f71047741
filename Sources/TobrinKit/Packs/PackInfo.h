#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tobrin {

// The summary of one pack folder that the pack library lists and the
// application shows; identified by `id`.
struct PackInfo {
    std::string id;
    std::string name;
    std::string kind;
    std::optional<std::string> summary;
    std::filesystem::path directory;
    bool isBundled = false;

    friend bool operator==(const PackInfo&, const PackInfo&) = default;

    // Reads and decodes `directory`/pack.json; the groups are not looked at.
    // Throws PackError::missingManifest when there is no file,
    // PackError::unreadableManifest when it cannot be read and
    // PackError::invalidManifest (naming pack.json) when it does not decode.
    static PackInfo read(const std::filesystem::path& directory, bool isBundled);
};

} // namespace tobrin
