// Opening files beneath a folder descriptor: openat2, or a walk of the path.
#include "TobrinKit/Packs/Loading/ConfinedFolder.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tobrin {

namespace {

// The kernel's own limit on links followed in one path.
constexpr int maxLinks = 40;

// A take is opened read-only; a FIFO must not block the open, and a terminal
// must not become the process's controlling one.
constexpr int fileFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// Set once openat2 reported ENOSYS (a kernel before 5.6); then every path walks.
std::atomic<bool> kernelLacksOpenat2{false};

[[noreturn]] void fail(int error, std::string_view relative) {
    throw std::system_error(error, std::generic_category(), std::string(relative));
}

// The components of a relative path, last first, ready to be popped in order.
void pushComponents(std::string_view path, std::vector<std::string>& pending) {
    std::vector<std::string> components;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        components.emplace_back(path.substr(start, end - start));
        start = end + 1;
    }
    pending.insert(pending.end(), components.rbegin(), components.rend());
}

} // namespace

ConfinedFolder::File::File(File&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

ConfinedFolder::File& ConfinedFolder::File::operator=(File&& other) noexcept {
    if (this != &other) {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
}

ConfinedFolder::File::~File() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

ConfinedFolder::ConfinedFolder(const std::filesystem::path& folder, Resolution resolution)
    : path_(folder), resolution_(resolution) {
    const int descriptor = ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), folder.string());
    folder_ = File(descriptor);
}

ConfinedFolder::File ConfinedFolder::open(std::string_view relative) const {
    if (relative.empty()) fail(ENOENT, relative);
    if (relative.find('\0') != std::string_view::npos) fail(EINVAL, relative);
    if (relative.front() == '/') fail(EXDEV, relative);

    if (resolution_ == Resolution::automatic && !kernelLacksOpenat2.load(std::memory_order_relaxed)) {
        const std::string path(relative);
        open_how how{};
        how.flags = fileFlags;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
        const long descriptor = ::syscall(SYS_openat2, folder_.descriptor(), path.c_str(), &how, sizeof how);
        if (descriptor >= 0) return File(static_cast<int>(descriptor));
        const int error = errno;
        // ENOSYS: an old kernel. EPERM: a sandbox's filter refusing the call
        // (reading a file never fails with EPERM otherwise); the walk tells.
        if (error == ENOSYS) kernelLacksOpenat2.store(true, std::memory_order_relaxed);
        if (error != ENOSYS && error != EPERM) fail(error, relative);
    }
    const int descriptor = walk(relative);
    if (descriptor < 0) fail(-descriptor, relative);
    return File(descriptor);
}

// Resolves the path one component at a time from descriptors of the folders
// entered, opening each without following a link. A link met on the way is
// read and its target resolved the same way, so whatever is swapped in while
// this runs is itself resolved beneath the folder. Returns a descriptor, or a
// negative errno.
int ConfinedFolder::walk(std::string_view relative) const {
    std::vector<File> entered; // innermost last; ".." leaves one
    std::vector<std::string> pending;
    pushComponents(relative, pending);
    int links = 0;
    while (!pending.empty()) {
        const std::string name = std::move(pending.back());
        pending.pop_back();
        const int current = entered.empty() ? folder_.descriptor() : entered.back().descriptor();
        if (name.empty() || name == ".") continue;
        if (name == "..") {
            if (entered.empty()) return -EXDEV;
            entered.pop_back();
            continue;
        }
        const bool last = pending.empty();
        const int flags = last ? fileFlags | O_NOFOLLOW : O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        const int descriptor = ::openat(current, name.c_str(), flags);
        if (descriptor >= 0) {
            if (last) return descriptor;
            entered.emplace_back(descriptor);
            continue;
        }
        const int error = errno;
        // O_NOFOLLOW refuses a link with ELOOP, O_DIRECTORY with ENOTDIR.
        if (error != ELOOP && error != ENOTDIR) return -error;
        std::array<char, PATH_MAX> target;
        const ssize_t length = ::readlinkat(current, name.c_str(), target.data(), target.size());
        if (length < 0) return -error; // not a link: the open's own reason
        if (static_cast<std::size_t>(length) == target.size()) return -ENAMETOOLONG;
        if (++links > maxLinks) return -ELOOP;
        const std::string_view link(target.data(), static_cast<std::size_t>(length));
        if (link.empty()) return -ENOENT;
        if (link.front() == '/') return -EXDEV;
        pushComponents(link, pending);
    }
    // The path named a folder ("sub/" or "sub/."): open it, for the caller to refuse.
    const int current = entered.empty() ? folder_.descriptor() : entered.back().descriptor();
    const int descriptor = ::openat(current, ".", fileFlags);
    return descriptor >= 0 ? descriptor : -errno;
}

} // namespace tobrin
