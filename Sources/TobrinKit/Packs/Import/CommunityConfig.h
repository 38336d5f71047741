#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tobrin {

// The "config.json" of a community keyboard-sound pack, as decoded before any
// file is looked at. Two versions are in the wild: version 1 (no "version"
// key) and version 2 ("version": 2), which adds fallback press and release
// sounds ("sound", "soundup") for keys without an entry. Unknown keys are
// ignored. A pack comes from a stranger, so sizes are bounded and an entry of
// "defines" that cannot be read is set aside with its reason rather than
// failing the whole pack.
struct CommunityConfig {
    // "single": one sprite file, each key a [start, duration] segment of it
    // in milliseconds. "multi" (or "multiple"): each key names its own file.
    enum class Layout { single, multi };

    struct Segment {
        double startMs = 0;
        double durationMs = 0;
        friend bool operator==(const Segment&, const Segment&) = default;
    };

    // One entry of "defines": a key's press ("30") or release ("30-up").
    struct Entry {
        std::uint32_t scanCode = 0;
        bool isRelease = false;
        // multi: the file (may hold a range "{a-b}"); nothing for null.
        std::optional<std::string> file;
        // single: the segment of the sprite; nothing for null.
        std::optional<Segment> segment;
        friend bool operator==(const Entry&, const Entry&) = default;
    };

    class DecodeError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    static constexpr std::string_view fileName = "config.json";
    static constexpr std::size_t maxFileBytes = 1 << 20; // 1 MiB; real ones are a few KB
    static constexpr std::size_t maxEntries = 2048;      // entries of "defines"; a keyboard has ~110 keys
    static constexpr std::size_t maxTextBytes = 4096;    // a name, author or file name

    int version = 1;
    std::string name;
    Layout layout = Layout::single;
    std::string sound;
    std::optional<std::string> soundUp;
    std::optional<std::string> author;
    std::optional<std::string> license;
    std::optional<std::string> description;
    std::vector<Entry> entries;
    // Entries of "defines" that were set aside: the key and why.
    std::vector<std::string> skipped;

    // Throws DecodeError naming the key that is missing or malformed, or the
    // version that is not supported.
    static CommunityConfig decode(std::string_view json);
};

// The files a name with a range stands for: "key{1-3}.ogg" gives key1.ogg,
// key2.ogg and key3.ogg; a name without one gives itself. A range of more
// than maxRangeFiles files, or reversed, gives nothing.
std::vector<std::string> expandRange(const std::string& name);
inline constexpr std::size_t maxRangeFiles = 64;

} // namespace tobrin
