#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace tobrin {

// The in-memory form of a pack's "pack.json": who the pack is, and for every
// key group and force tier which files in the pack folder are its takes.
// Group and tier keys are kept as written; the loader decides which it knows.
// Read by the pack loader and the library, written by the pack builder and
// the pack generator.
struct PackManifest {
    struct Group {
        // Press takes by tier name; the order of a list is the order of the
        // variants. Paths are relative to the pack folder.
        std::map<std::string, std::vector<std::string>> down;
        // Release takes; absent when the group has none of its own.
        std::optional<std::vector<std::string>> up;

        friend bool operator==(const Group&, const Group&) = default;
    };

    // What decode() throws: what() says which key is missing or malformed.
    class DecodeError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    static constexpr std::string_view fileName = "pack.json";

    // Packs come from strangers. These bounds keep a hostile manifest cheap
    // to refuse: its size is checked before a byte is read or parsed, its
    // counts while it is decoded. Real packs stay far inside them (a starter
    // pack is 6 KB with 60 takes in 5 groups).
    static constexpr std::size_t maxFileBytes = 1 << 20; // 1 MiB
    static constexpr std::size_t maxGroups = 32;         // entries of "groups", known names or not
    static constexpr std::size_t maxTiersPerGroup = 16;  // entries of a group's "down"
    static constexpr std::size_t maxTakesPerList = 1024; // paths in one tier's list or in "up"

    std::int64_t formatVersion = 1;
    std::string id;
    std::string name;
    std::string kind;
    std::optional<std::string> summary;
    std::optional<std::string> author;
    std::optional<std::string> license;
    std::map<std::string, Group> groups;

    friend bool operator==(const PackManifest&, const PackManifest&) = default;

    // Required keys must be present with the right JSON type; optional keys
    // may be absent or null; unknown keys are ignored. Text or counts beyond
    // the bounds above fail too. Throws DecodeError.
    static PackManifest decode(std::string_view json);

    // Reads and decodes `folder`/pack.json; a file larger than maxFileBytes
    // is refused (DecodeError) unread. No file there throws
    // PackError::missingManifest(folder); one that is there but cannot be
    // read (permissions, not a regular file, a read error) throws
    // PackError::unreadableManifest with the system's reason; a decoding
    // failure throws DecodeError, which callers turn into the error they
    // report.
    static PackManifest read(const std::filesystem::path& folder);

    // Pretty-printed, keys sorted at every level, "/" not escaped, absent
    // optional keys left out; ends with a newline.
    std::string encode() const;

    // Writes encode() to `file` with OutputFile::write: through a temporary
    // file created exclusively in the same folder and a rename, so readers
    // never see half a manifest and a link planted at the temporary's name
    // is never followed. Throws std::filesystem::filesystem_error.
    void write(const std::filesystem::path& file) const;
};

void to_json(nlohmann::json& json, const PackManifest::Group& group);
void to_json(nlohmann::json& json, const PackManifest& manifest);

} // namespace tobrin
