// Texts of the pack errors.
#include "TobrinKit/Packs/PackError.h"

#include <system_error>
#include <utility>

namespace tobrin {

namespace {

// The last component of a path, also for a folder written with a trailing "/".
std::string lastComponent(const std::filesystem::path& path) {
    std::filesystem::path trimmed = path;
    while (!trimmed.has_filename() && trimmed.has_relative_path()) trimmed = trimmed.parent_path();
    return trimmed.filename().string();
}

std::string fullPath(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(path, error);
    return (error ? path : absolute).string();
}

} // namespace

PackError::PackError(Kind kind, std::filesystem::path url, std::string detail)
    : kind_(kind), url_(std::move(url)), detail_(std::move(detail)) {
    switch (kind_) {
    case Kind::missingManifest: description_ = "No pack.json in " + fullPath(url_); break;
    case Kind::unreadableManifest: description_ = "Can't read " + fullPath(url_) + ": " + detail_; break;
    case Kind::invalidManifest: description_ = "Invalid " + lastComponent(url_) + ": " + detail_; break;
    case Kind::decode: description_ = "Can't read " + lastComponent(url_) + ": " + detail_; break;
    case Kind::empty: description_ = "Pack " + detail_ + " has no usable sounds"; break;
    }
}

PackError PackError::missingManifest(const std::filesystem::path& folder) {
    return PackError(Kind::missingManifest, folder, {});
}

PackError PackError::unreadableManifest(const std::filesystem::path& file, std::string detail) {
    return PackError(Kind::unreadableManifest, file, std::move(detail));
}

PackError PackError::invalidManifest(const std::filesystem::path& url, std::string detail) {
    return PackError(Kind::invalidManifest, url, std::move(detail));
}

PackError PackError::decode(const std::filesystem::path& file, std::string detail) {
    return PackError(Kind::decode, file, std::move(detail));
}

PackError PackError::empty(std::string packId) { return PackError(Kind::empty, {}, std::move(packId)); }

} // namespace tobrin
