#pragma once

#include <exception>
#include <filesystem>
#include <string>

namespace tobrin {

// The one error type of the sound-pack subsystem: a missing, unreadable or
// invalid manifest, an audio file that cannot be decoded, and a pack left without any
// usable sound. what() is the text the application shows to the user.
class PackError : public std::exception {
public:
    enum class Kind { missingManifest, unreadableManifest, invalidManifest, decode, empty };

    // "No pack.json in " + the folder's full path.
    static PackError missingManifest(const std::filesystem::path& folder);
    // "Can't read " + the file's full path + ": " + detail (the system's
    // reason): a pack.json that is there but cannot be read.
    static PackError unreadableManifest(const std::filesystem::path& file, std::string detail);
    // "Invalid " + the last path component + ": " + detail.
    static PackError invalidManifest(const std::filesystem::path& url, std::string detail);
    // "Can't read " + the file's last path component + ": " + detail.
    static PackError decode(const std::filesystem::path& file, std::string detail);
    // "Pack " + id + " has no usable sounds".
    static PackError empty(std::string packId);

    Kind kind() const { return kind_; }
    // The folder or file the error is about (empty for `empty`).
    const std::filesystem::path& url() const { return url_; }
    // The thrower's detail text (`unreadableManifest`, `invalidManifest`, `decode`) or the pack id (`empty`).
    const std::string& detail() const { return detail_; }

    const std::string& description() const { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

private:
    PackError(Kind kind, std::filesystem::path url, std::string detail);

    Kind kind_;
    std::filesystem::path url_;
    std::string detail_;
    std::string description_;
};

} // namespace tobrin
