#include "TobrinKit/Packs/StagedPackFolder.h"

#include "TobrinKit/Engine/Core/OutputFile.h"
#include "TobrinKit/Engine/Core/PrintableText.h"

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(int error, const std::string& what, const fs::path& path) {
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

bool isPresent(const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0) return true;
    if (errno != ENOENT) fail(errno, "cannot look at", path);
    return false;
}

// Flushes a folder's entries (the names just renamed in or out of it).
void syncFolder(const fs::path& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    (void)::fsync(fd);
    ::close(fd);
}

// A new folder named `prefix` + random letters, created exclusively.
fs::path makeFolder(const fs::path& parent, const std::string& prefix) {
    fs::path path;
    for (int attempt = 0; attempt < 100; ++attempt) {
        path = parent / (prefix + OutputFile::randomName(10));
        if (::mkdir(path.c_str(), 0777) == 0) return path;
        if (errno != EEXIST) fail(errno, "cannot make a staging folder", path);
    }
    fail(EEXIST, "cannot make a staging folder", path);
}

// "." + name + suffix, built by appending: GCC 12 at -O2 and above warns
// falsely (-Wrestrict) about the operator+ form.
std::string hiddenName(const fs::path& target, std::string_view suffix) {
    std::string name = ".";
    name += target.filename().string();
    name += suffix;
    return name;
}

std::string hiddenPrefix(const fs::path& target) { return hiddenName(target, ".swap-"); }

// The lock is the file at `path` held with flock. Its holder removes it when
// done, so no lock file stays behind; a writer that was waiting then holds a
// lock on a file that is gone, sees that the path no longer leads to the file
// it locked, and starts again. So only a lock on the file now at the path
// counts, and one writer at a time holds that.
int takeLock(const fs::path& path) {
    for (;;) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) fail(errno, "cannot open the pack's lock", path);
        if (::flock(fd, LOCK_EX) != 0) {
            const int error = errno;
            ::close(fd);
            if (error == EINTR) continue;
            fail(error, "cannot lock the pack", path);
        }
        struct stat held {};
        struct stat current {};
        if (::fstat(fd, &held) == 0 && ::lstat(path.c_str(), &current) == 0 && held.st_dev == current.st_dev &&
            held.st_ino == current.st_ino) {
            return fd;
        }
        ::close(fd);
    }
}

void releaseLock(const fs::path& path, int fd) {
    ::unlink(path.c_str());
    ::close(fd);
}

} // namespace

StagedPackFolder::Refused::Refused(const fs::path& target)
    : std::runtime_error(printable(target.string()) + " is in the way and may not be replaced"), target_(target) {}

StagedPackFolder::StagedPackFolder(fs::path target, MayReplace mayReplace)
    : target_(std::move(target)), mayReplace_(std::move(mayReplace)) {
    while (!target_.has_filename() && target_.has_relative_path()) target_ = target_.parent_path();
    fs::path parent = target_.parent_path();
    if (parent.empty()) parent = ".";
    fs::create_directories(parent);

    lockFile_ = parent / hiddenName(target_, ".lock");
    lock_ = takeLock(lockFile_);
    try {
        // With the lock held, no other writer of this pack is running: any
        // staging folder of its name was left by one that was killed.
        const std::string prefix = hiddenPrefix(target_);
        std::error_code error;
        std::vector<fs::path> leftovers;
        for (fs::directory_iterator entry(parent, error), end; !error && entry != end; entry.increment(error)) {
            if (entry->path().filename().string().starts_with(prefix)) leftovers.push_back(entry->path());
        }
        for (const fs::path& leftover : leftovers) fs::remove_all(leftover, error);

        checkTarget();
        staging_ = makeFolder(parent, prefix);
    } catch (...) {
        releaseLock(lockFile_, lock_);
        throw;
    }
}

StagedPackFolder::~StagedPackFolder() {
    if (!committed_) {
        std::error_code ignored;
        fs::remove_all(staging_, ignored);
    }
    releaseLock(lockFile_, lock_);
}

void StagedPackFolder::checkTarget() const {
    if (isPresent(target_) && !(mayReplace_ && mayReplace_(target_))) throw Refused(target_);
}

void StagedPackFolder::commit() {
    if (committed_) return;
    syncFolder(staging_);
    checkTarget();
    if (!isPresent(target_)) {
        // RENAME_NOREPLACE: something that appeared meanwhile is never overwritten.
        if (::renameat2(AT_FDCWD, staging_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE) != 0) {
            if (errno == EEXIST || errno == ENOTEMPTY) throw Refused(target_);
            if (errno != EINVAL || ::rename(staging_.c_str(), target_.c_str()) != 0) {
                fail(errno, "cannot move the new pack into place", target_);
            }
        }
        committed_ = true;
    } else if (::renameat2(AT_FDCWD, staging_.c_str(), AT_FDCWD, target_.c_str(), RENAME_EXCHANGE) == 0) {
        // The old pack is now where the staging folder was.
        committed_ = true;
        std::error_code ignored;
        fs::remove_all(staging_, ignored);
    } else if (errno == EINVAL || errno == ENOSYS) {
        // A file system without the exchange: the old pack steps aside under
        // a hidden name first, so the target is briefly absent but never
        // half written, and comes back if the new one cannot go in.
        const fs::path parent = staging_.parent_path();
        const fs::path aside = parent / (hiddenPrefix(target_) + OutputFile::randomName(10));
        if (::rename(target_.c_str(), aside.c_str()) != 0) fail(errno, "cannot move the old pack aside", target_);
        if (::rename(staging_.c_str(), target_.c_str()) != 0) {
            const int error = errno;
            (void)::rename(aside.c_str(), target_.c_str());
            fail(error, "cannot move the new pack into place", target_);
        }
        committed_ = true;
        std::error_code ignored;
        fs::remove_all(aside, ignored);
    } else {
        fail(errno, "cannot swap the new pack into place", target_);
    }
    syncFolder(staging_.parent_path());
}

} // namespace tobrin
