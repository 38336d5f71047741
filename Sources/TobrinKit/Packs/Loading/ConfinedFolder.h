#pragma once

#include <filesystem>
#include <string_view>

namespace tobrin {

// A folder whose files are opened only beneath it: one descriptor of the
// folder is held, and every relative path is resolved from it by the kernel
// (openat2 with RESOLVE_BENEATH) or, where that call is missing, by walking
// the path one component at a time without following links blindly. Either
// way the check and the open are one step: a link swapped in at any moment,
// an absolute link, or ".." that climbs above the folder is refused, never
// followed out. Links that stay beneath the folder are followed.
//
// Not thread-safe; use one per loading thread. Move-only.
class ConfinedFolder {
public:
    // How paths are resolved: by the kernel when it can, or by the walk
    // (which tests use to check the fallback on kernels that have openat2).
    enum class Resolution { automatic, walk };

    // An open file: a read-only descriptor, closed with the object. A FIFO
    // or device is opened without blocking; the caller checks the file type.
    class File {
    public:
        explicit File(int descriptor = -1) : descriptor_(descriptor) {}
        File(File&& other) noexcept;
        File& operator=(File&& other) noexcept;
        File(const File&) = delete;
        File& operator=(const File&) = delete;
        ~File();

        int descriptor() const { return descriptor_; }

    private:
        int descriptor_;
    };

    // Opens the folder itself (following links, as a user's packs folder
    // entry may be one). Throws std::system_error with the system's reason.
    explicit ConfinedFolder(const std::filesystem::path& folder, Resolution resolution = Resolution::automatic);

    ConfinedFolder(ConfinedFolder&& other) noexcept = default;
    ConfinedFolder(const ConfinedFolder&) = delete;
    ConfinedFolder& operator=(const ConfinedFolder&) = delete;

    // Opens `relative` for reading. Throws std::system_error: errc::cross_device_link
    // (EXDEV) when the path or a link on it leads out of the folder, else the
    // system's reason (ENOENT, ELOOP for a cycle of links, EINVAL for an
    // absolute path or an embedded NUL, ...).
    File open(std::string_view relative) const;

    const std::filesystem::path& path() const { return path_; }

private:
    int walk(std::string_view relative) const;

    std::filesystem::path path_;
    File folder_;
    Resolution resolution_;
};

} // namespace tobrin
