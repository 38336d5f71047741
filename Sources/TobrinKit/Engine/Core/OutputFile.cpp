#include "TobrinKit/Engine/Core/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin::OutputFile {

namespace {

[[noreturn]] void fail(int error, const std::string& what, const std::filesystem::path& file) {
    throw std::filesystem::filesystem_error(what, file, std::error_code(error, std::generic_category()));
}

// Closes on every path out; release() hands the descriptor back.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    // close() reports a failed write-back on some file systems; it is an error.
    int close() {
        const int result = ::close(fd_);
        fd_ = -1;
        return result;
    }

private:
    int fd_;
};

void writeAll(int fd, std::span<const std::uint8_t> bytes, const std::filesystem::path& file) {
    const std::uint8_t* at = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, at, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            fail(errno, "cannot write", file);
        }
        at += written;
        left -= std::size_t(written);
    }
}

bool isStream(mode_t mode) { return S_ISFIFO(mode) || S_ISCHR(mode); }

// Opens a FIFO or character device for writing; -1 with errno, or -2 when
// what is there now is something else (it changed since it was looked at).
int openStream(const std::filesystem::path& file) {
    // No O_CREAT and no O_TRUNC: this never makes or empties a regular file.
    const int fd = ::open(file.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !isStream(status.st_mode)) {
        ::close(fd);
        return -2;
    }
    return fd;
}

// Gives the new file the mode of the one it replaces and, where permitted,
// its owner and group; a change of owner clears set-id bits, so the mode
// comes second.
void keepOwnerAndMode(int fd, const struct stat& old) {
    struct stat now {};
    if (::fstat(fd, &now) == 0 && (now.st_uid != old.st_uid || now.st_gid != old.st_gid)) {
        if (::fchown(fd, old.st_uid, old.st_gid) != 0) (void)::fchown(fd, uid_t(-1), old.st_gid);
    }
    (void)::fchmod(fd, old.st_mode & 07777);
}

void replace(const std::filesystem::path& file, std::span<const std::uint8_t> bytes, const struct stat* old) {
    std::filesystem::path folder = file.parent_path();
    if (folder.empty()) folder = ".";
    // Only the owner may read a replacement until it has the old file's mode.
    // The name stays within the 255 bytes a file name may have.
    const std::string stem = file.filename().string().substr(0, 200);
    Temporary temporary = createTemporary(folder, "." + stem + ".tmp-", old ? 0600 : 0666);
    Descriptor fd(temporary.descriptor);
    try {
        writeAll(fd.get(), bytes, temporary.path);
        if (old) keepOwnerAndMode(fd.get(), *old);
        // On the disk before the rename: a crash then leaves the old file or
        // the whole new one, never an empty one under the name.
        if (::fsync(fd.get()) != 0) fail(errno, "cannot write", temporary.path);
        if (fd.close() != 0) fail(errno, "cannot write", temporary.path);
        if (::rename(temporary.path.c_str(), file.c_str()) != 0) fail(errno, "cannot replace", file);
    } catch (...) {
        ::unlink(temporary.path.c_str());
        throw;
    }
}

} // namespace

std::string randomName(std::size_t count) {
    static constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::string name(count, 'x');
    unsigned char random[64];
    for (std::size_t done = 0; done < count;) {
        const std::size_t want = std::min(sizeof random, count - done);
        const ssize_t got = ::getrandom(random, want, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            throw std::system_error(errno, std::generic_category(), "no random numbers from the kernel");
        }
        for (ssize_t i = 0; i < got; ++i) name[done++] = letters[random[i] % (sizeof letters - 1)];
    }
    return name;
}

Temporary createTemporary(const std::filesystem::path& folder, std::string_view prefix, mode_t mode) {
    // 36^10 names: a taken one is almost always someone guessing, and a new
    // guess costs them as much as the first.
    constexpr int attempts = 100;
    std::filesystem::path path;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        path = folder / (std::string(prefix) + randomName(10));
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd >= 0) return Temporary{fd, path};
        if (errno != EEXIST) fail(errno, "cannot create a file", path);
    }
    fail(EEXIST, "cannot create a file", path);
}

void write(const std::filesystem::path& file, std::span<const std::uint8_t> bytes) {
    struct stat status {};
    if (::lstat(file.c_str(), &status) != 0) {
        if (errno != ENOENT) fail(errno, "cannot write", file);
        replace(file, bytes, nullptr);
        return;
    }
    if (S_ISREG(status.st_mode)) {
        replace(file, bytes, &status);
        return;
    }
    struct stat target {};
    const bool reachesStream =
        isStream(status.st_mode) ||
        (S_ISLNK(status.st_mode) && ::stat(file.c_str(), &target) == 0 && isStream(target.st_mode));
    if (reachesStream) {
        const int fd = openStream(file);
        if (fd == -1) fail(errno, "cannot open", file);
        if (fd >= 0) {
            Descriptor stream(fd);
            writeAll(stream.get(), bytes, file);
            if (stream.close() != 0) fail(errno, "cannot write", file);
            return;
        }
        fail(EBUSY, "changed while it was being opened", file);
    }
    if (S_ISLNK(status.st_mode)) {
        replace(file, bytes, nullptr);
        return;
    }
    if (S_ISDIR(status.st_mode)) fail(EISDIR, "cannot write", file);
    fail(EINVAL, "cannot write to a socket or block device", file);
}

} // namespace tobrin::OutputFile
