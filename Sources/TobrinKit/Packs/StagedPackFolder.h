#pragma once

#include <filesystem>
#include <functional>
#include <stdexcept>

namespace tobrin {

// A pack folder built beside its target and swapped into place in one step:
// how a writer of packs (the generator, the recorded-pack builder, the
// importer) replaces a pack, so that a kill, a full disk or an error part-way
// leaves the previous pack exactly as it was, and two writers of one pack
// never mix their files.
//
// The constructor takes the pack's lock, a file ".<name>.lock" beside the
// target held with flock and removed when released (another writer of the
// same pack, in this process or another, waits there until the first is
// done; the kernel drops the lock of a killed process, whose lock file the
// next writer takes over), removes what killed writers of the pack left behind,
// checks that what is at the target may be replaced, and makes an empty
// staging folder beside the target. The writer fills folder(); commit()
// checks the target again and swaps the staging folder into place
// (renameat2 with RENAME_EXCHANGE, or a rename when nothing is there), then
// removes the old pack. Without a commit the destructor removes the staging
// folder. The lock is held until destruction.
//
// Staging folders and old packs waiting for removal are named
// ".<name>.swap-<random>": hidden, so the pack library never lists one.
// One owner thread; writers of different packs may run at once.
class StagedPackFolder {
public:
    // Whether what is at the target (a folder, a file or a link, never
    // followed) may be replaced. Asked with the lock held.
    using MayReplace = std::function<bool(const std::filesystem::path& existing)>;

    // Thrown when something is at the target and MayReplace said no. Nothing
    // on disk has been changed.
    class Refused : public std::runtime_error {
    public:
        explicit Refused(const std::filesystem::path& target);
        const std::filesystem::path& target() const { return target_; }

    private:
        std::filesystem::path target_;
    };

    // Creates the target's parent folder if needed. Throws Refused, or
    // std::filesystem::filesystem_error when the lock or the staging folder
    // cannot be made.
    StagedPackFolder(std::filesystem::path target, MayReplace mayReplace);
    ~StagedPackFolder();
    StagedPackFolder(const StagedPackFolder&) = delete;
    StagedPackFolder& operator=(const StagedPackFolder&) = delete;

    // Where the new pack is written until commit().
    const std::filesystem::path& folder() const { return staging_; }
    const std::filesystem::path& target() const { return target_; }

    // Puts the staged pack at the target in one step. Throws Refused when
    // what is at the target may no longer be replaced, or
    // std::filesystem::filesystem_error; the previous pack then stays.
    void commit();

private:
    void checkTarget() const;

    std::filesystem::path target_;
    MayReplace mayReplace_;
    std::filesystem::path staging_;
    std::filesystem::path lockFile_;
    int lock_ = -1;
    bool committed_ = false;
};

} // namespace tobrin
