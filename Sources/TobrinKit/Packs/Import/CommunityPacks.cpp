// Community packs in the user's packs folder, converted through a cache.
#include "TobrinKit/Packs/Import/CommunityPacks.h"

#include "TobrinKit/Engine/Core/OutputFile.h"
#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Packs/Import/PackImporter.h"
#include "TobrinKit/Packs/PackLibrary.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <pwd.h>
#include <set>
#include <span>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace tobrin {

namespace {

namespace fs = std::filesystem;

// What the conversion depends on: every file's relative name, size and
// modification time (a zip's own), and the converter's version. Bounded:
// a source with more files than any pack has is fingerprinted by its first.
std::string fingerprint(const fs::path& entry) {
    std::string text = "converter " + std::string(CommunityPacks::converterVersion) + "\n";
    const auto add = [&](const fs::path& file, const fs::path& name) {
        struct stat status {};
        if (::stat(file.c_str(), &status) != 0) return;
        text += name.string() + "\t" + std::to_string(status.st_size) + "\t" + std::to_string(status.st_mtim.tv_sec) +
                "." + std::to_string(status.st_mtim.tv_nsec) + "\n";
    };
    std::error_code error;
    if (!fs::is_directory(entry, error)) {
        add(entry, entry.filename());
        return text;
    }
    std::set<fs::path> files;
    for (fs::recursive_directory_iterator it(entry, fs::directory_options::skip_permission_denied, error), end;
         !error && it != end && files.size() < 4096; it.increment(error)) {
        if (it->is_regular_file(error)) files.insert(fs::relative(it->path(), entry, error));
    }
    for (const fs::path& file : files) add(entry / file, file);
    return text;
}

std::string readSmallFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(in), {});
    return text.size() > (1 << 20) ? std::string() : text;
}

void writeText(const fs::path& file, const std::string& text) {
    OutputFile::write(file, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

constexpr std::string_view failedMark = "failed: ";

} // namespace

std::optional<fs::path> CommunityPacks::cacheDirectory() {
    const char* cache = std::getenv("XDG_CACHE_HOME");
    if (cache && *cache == '/') return fs::path(cache) / "tobrin" / "community";
    const char* home = std::getenv("HOME");
    if (!home || !*home) {
        const passwd* user = ::getpwuid(::getuid());
        home = user && user->pw_dir && *user->pw_dir ? user->pw_dir : nullptr;
    }
    if (!home) return std::nullopt;
    return fs::path(home) / ".cache" / "tobrin" / "community";
}

void CommunityPacks::logSkipped(const std::string& message) {
    const std::string shown = printable(message, 1024);
    std::fprintf(stderr, "Tobrin: %s\n", shown.c_str());
    ::syslog(LOG_WARNING, "%s", shown.c_str());
}

std::optional<PackInfo> CommunityPacks::convert(const fs::path& entry, const Report& report) {
    if (!PackImporter::isCommunityPack(entry)) return std::nullopt;
    const auto skip = [&](const std::string& why) {
        if (report) report("skipped community pack " + entry.string() + ": " + why);
        return std::nullopt;
    };
    const auto cache = cacheDirectory();
    if (!cache) return skip("no cache folder (no home folder)");

    const std::string id = "community-" + PackImporter::idFor(entry.stem().string());
    const fs::path target = *cache / id;
    const fs::path sourceFile = *cache / ("." + id + ".source");
    const std::string current = fingerprint(entry);
    const std::string recorded = readSmallFile(sourceFile);
    try {
        if (recorded == current) return PackInfo::read(target, false);
        const std::string failed = current + std::string(failedMark);
        if (recorded.starts_with(failed)) return skip(recorded.substr(failed.size()));
    } catch (const std::exception&) {
        // The cached pack is gone or damaged: convert again.
    }
    try {
        PackImporter::import(entry, target, PackImporter::Overwrite::anything);
        writeText(sourceFile, current);
        return PackInfo::read(target, false);
    } catch (const std::exception& error) {
        const std::string why = error.what();
        try {
            writeText(sourceFile, current + std::string(failedMark) + why);
        } catch (const std::exception&) {
            // Tried again at the next discovery.
        }
        return skip(why);
    }
}

std::vector<PackInfo> CommunityPacks::discover(const Report& report) {
    return PackLibrary::discover([&](const fs::path& entry) { return convert(entry, report); });
}

} // namespace tobrin
