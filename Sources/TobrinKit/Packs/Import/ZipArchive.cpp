// Unpacking a zipped community pack beneath a folder descriptor.
#include "TobrinKit/Packs/Import/ZipArchive.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {

namespace {

[[noreturn]] void fail(const std::string& message) { throw ZipArchive::Error(message); }

struct Descriptor {
    int fd = -1;
    explicit Descriptor(int descriptor) : fd(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
};

using ArchivePtr = std::unique_ptr<archive, int (*)(archive*)>;
using Opener = std::function<ArchivePtr()>;

ArchivePtr newReader() {
    ArchivePtr reader(archive_read_new(), archive_read_free);
    if (!reader) throw std::bad_alloc();
    archive_read_support_format_zip(reader.get());
    return reader;
}

std::string reason(archive* reader) {
    const char* text = archive_error_string(reader);
    return text ? text : "unreadable archive";
}

constexpr std::string_view configName = "config.json";

// The folder part of a safe name ("" at the root).
std::string folderOf(const std::string& name) {
    const std::size_t slash = name.rfind('/');
    return slash == std::string::npos ? std::string() : name.substr(0, slash);
}

std::string fileOf(const std::string& name) {
    const std::size_t slash = name.rfind('/');
    return slash == std::string::npos ? name : name.substr(slash + 1);
}

std::size_t depthOf(const std::string& folder) {
    if (folder.empty()) return 0;
    return std::size_t(std::count(folder.begin(), folder.end(), '/')) + 1;
}

const char* entryName(archive_entry* entry) {
    const char* name = archive_entry_pathname_utf8(entry);
    return name ? name : archive_entry_pathname(entry);
}

bool isResourceFork(const std::string& name) { return name == "__MACOSX" || name.starts_with("__MACOSX/"); }

// Opens (making it when missing) the folder `relative` beneath `root`, one
// component at a time and never through a link.
int openFolder(int root, const std::string& relative) {
    int current = ::dup(root);
    if (current < 0) fail(std::string("cannot open the destination: ") + std::strerror(errno));
    std::size_t start = 0;
    while (start < relative.size()) {
        const std::size_t end = std::min(relative.find('/', start), relative.size());
        const std::string component = relative.substr(start, end - start);
        if (::mkdirat(current, component.c_str(), 0700) != 0 && errno != EEXIST) {
            const int code = errno;
            ::close(current);
            fail("cannot make folder " + relative + ": " + std::strerror(code));
        }
        const int next = ::openat(current, component.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const int code = errno;
        ::close(current);
        if (next < 0) fail("cannot open folder " + relative + ": " + std::strerror(code));
        current = next;
        start = end + 1;
    }
    return current;
}

ZipArchive::Result extractWith(const Opener& open, const std::filesystem::path& destination,
                               const ZipArchive::Budget& budget) {
    // First pass, names only: where is the pack?
    std::optional<std::string> packFolder;
    {
        ArchivePtr reader = open();
        archive_entry* entry = nullptr;
        std::size_t entries = 0;
        int status = ARCHIVE_OK;
        while ((status = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK || status == ARCHIVE_WARN) {
            if (++entries > budget.maxEntries)
                fail("the archive has more than " + std::to_string(budget.maxEntries) + " entries");
            if (archive_entry_filetype(entry) != AE_IFREG || archive_entry_hardlink(entry)) continue;
            const char* raw = entryName(entry);
            const auto name = raw ? ZipArchive::safeName(raw) : std::nullopt;
            if (!name || isResourceFork(*name) || fileOf(*name) != configName) continue;
            const std::string folder = folderOf(*name);
            if (!packFolder || depthOf(folder) < depthOf(*packFolder) ||
                (depthOf(folder) == depthOf(*packFolder) && folder < *packFolder)) {
                packFolder = folder;
            }
        }
        if (status != ARCHIVE_EOF) fail("not a readable zip file: " + reason(reader.get()));
    }
    if (!packFolder) fail("no config.json in the archive");

    ZipArchive::Result result;
    result.pack = packFolder->empty() ? destination : destination / *packFolder;
    const Descriptor root(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root.fd < 0) fail("cannot open " + destination.string() + ": " + std::strerror(errno));
    const std::string prefix = packFolder->empty() ? std::string() : *packFolder + "/";

    ArchivePtr reader = open();
    archive_entry* entry = nullptr;
    std::size_t total = 0;
    std::vector<char> chunk(64 * 1024);
    int status = ARCHIVE_OK;
    while ((status = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK || status == ARCHIVE_WARN) {
        const char* raw = entryName(entry);
        const std::string shown = raw ? std::string(raw).substr(0, 200) : std::string("(unnamed)");
        const auto name = raw ? ZipArchive::safeName(raw) : std::nullopt;
        if (!name) {
            result.skipped.push_back(shown + ": unsafe name");
            continue;
        }
        if (!name->starts_with(prefix) || isResourceFork(*name)) continue;
        const auto type = archive_entry_filetype(entry);
        if (type == AE_IFDIR) continue;
        if (type != AE_IFREG || archive_entry_hardlink(entry)) {
            result.skipped.push_back(shown + ": not a regular file");
            continue;
        }
        if (archive_entry_size_is_set(entry) && archive_entry_size(entry) > std::int64_t(budget.maxFileBytes)) {
            fail(shown + " unpacks to more than " + std::to_string(budget.maxFileBytes >> 20) + " MiB");
        }

        const Descriptor folder(openFolder(root.fd, folderOf(*name)));
        const std::string file = fileOf(*name);
        const Descriptor out(
            ::openat(folder.fd, file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (out.fd < 0) {
            result.skipped.push_back(shown + ": " + std::strerror(errno));
            continue;
        }
        std::size_t size = 0;
        for (;;) {
            const la_ssize_t got = archive_read_data(reader.get(), chunk.data(), chunk.size());
            if (got == 0) break;
            if (got < 0) fail(shown + ": " + reason(reader.get()));
            size += std::size_t(got);
            total += std::size_t(got);
            // Counted as the data comes: a header can claim anything.
            if (size > budget.maxFileBytes) {
                fail(shown + " unpacks to more than " + std::to_string(budget.maxFileBytes >> 20) + " MiB");
            }
            if (total > budget.maxTotalBytes) {
                fail("the archive unpacks to more than " + std::to_string(budget.maxTotalBytes >> 20) + " MiB");
            }
            for (la_ssize_t written = 0; written < got;) {
                const ssize_t put = ::write(out.fd, chunk.data() + written, std::size_t(got - written));
                if (put < 0 && errno == EINTR) continue;
                if (put < 0) fail("cannot write " + shown + ": " + std::strerror(errno));
                written += put;
            }
        }
    }
    if (status != ARCHIVE_EOF) fail("not a readable zip file: " + reason(reader.get()));
    return result;
}

} // namespace

std::optional<std::string> ZipArchive::safeName(std::string_view name) {
    if (name.empty() || name.size() > 1024) return std::nullopt;
    if (name.size() >= 2 && name[1] == ':') return std::nullopt; // a drive letter
    if (name.front() == '/' || name.front() == '\\') return std::nullopt;
    std::string result;
    std::size_t components = 0;
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t end = name.find_first_of("/\\", start);
        if (end == std::string_view::npos) end = name.size();
        const std::string_view component = name.substr(start, end - start);
        start = end + 1;
        if (component.empty() || component == ".") continue;
        if (component == ".." || component.find('\0') != std::string_view::npos) return std::nullopt;
        if (++components > 32) return std::nullopt;
        if (!result.empty()) result += '/';
        result += component;
    }
    if (result.empty()) return std::nullopt;
    return result;
}

ZipArchive::Result ZipArchive::extract(const std::filesystem::path& archivePath,
                                       const std::filesystem::path& destination, const Budget& budget) {
    const Opener open = [&] {
        ArchivePtr reader = newReader();
        if (archive_read_open_filename(reader.get(), archivePath.c_str(), 64 * 1024) != ARCHIVE_OK) {
            fail("cannot open " + archivePath.filename().string() + ": " + reason(reader.get()));
        }
        return reader;
    };
    return extractWith(open, destination, budget);
}

ZipArchive::Result ZipArchive::extract(std::span<const unsigned char> bytes, const std::filesystem::path& destination,
                                       const Budget& budget) {
    const Opener open = [&] {
        ArchivePtr reader = newReader();
        if (archive_read_open_memory(reader.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) {
            fail("not a readable zip file: " + reason(reader.get()));
        }
        return reader;
    };
    return extractWith(open, destination, budget);
}

} // namespace tobrin
