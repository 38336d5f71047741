#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tobrin {

// Unpacks the community pack inside a zip file (libarchive) into a folder,
// trusting nothing the archive says. Entry names are checked before anything
// is written: absolute names, ".." components and names that are not plain
// relative paths are skipped, and only regular files are written (links,
// devices and hard links are skipped). Every file is created beneath a
// descriptor of the destination, one component at a time, exclusively and
// without following links, so nothing the archive holds can write outside
// it. Sizes are budgeted while the data is read, whatever the headers claim.
// Stateless; one call per thread.
class ZipArchive {
public:
    ZipArchive() = delete;

    struct Budget {
        std::size_t maxEntries = 4096;          // entries read, of any kind
        std::size_t maxFileBytes = 64u << 20;   // one unpacked file
        std::size_t maxTotalBytes = 256u << 20; // everything unpacked
    };

    // Not a zip, unreadable, no pack in it, or over the budget. Whatever was
    // unpacked stays in the destination, which the caller removes.
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    struct Result {
        // The pack folder inside the destination: the folder of the
        // shallowest "config.json" in the archive.
        std::filesystem::path pack;
        // Entries not unpacked, and why.
        std::vector<std::string> skipped;
    };

    // Unpacks the entries beneath the pack's folder in the archive into
    // `destination`, an existing empty folder. Throws Error.
    static Result extract(const std::filesystem::path& archive, const std::filesystem::path& destination,
                          const Budget& budget);
    static Result extract(std::span<const unsigned char> archive, const std::filesystem::path& destination,
                          const Budget& budget);

    // The entry name as a path below the archive's root, or nothing when it
    // must not be unpacked: empty, absolute (a leading separator or a drive
    // letter such as "C:"), with a ".." component, more than 32 components or
    // longer than 1024 bytes. Backslashes count as separators; "." components
    // and repeated separators are dropped.
    static std::optional<std::string> safeName(std::string_view name);
};

} // namespace tobrin
