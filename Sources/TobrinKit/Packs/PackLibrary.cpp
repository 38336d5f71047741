// Pack discovery: the folders, the listing, the merge and the name order.
#include "TobrinKit/Packs/PackLibrary.h"

#include "TobrinKit/Packs/PackError.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <locale.h>
#include <map>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <wctype.h>

// Set by the build (Packs/CMakeLists.txt).
#ifndef TOBRIN_INSTALLED_PACKS_FROM_BINDIR
#define TOBRIN_INSTALLED_PACKS_FROM_BINDIR "../share/tobrin/Packs"
#endif

namespace tobrin {

namespace {

std::optional<std::filesystem::path> environmentPath(const char* name) {
    const char* value = std::getenv(name);
    if (!value || !*value) return std::nullopt;
    return std::filesystem::path(value);
}

std::optional<std::filesystem::path> existingFolder(const std::filesystem::path& path) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) return path;
    return std::nullopt;
}

// The next code point of UTF-8 text; a byte that does not start a valid
// sequence stands for itself, above every real code point.
char32_t nextCodePoint(std::string_view text, std::size_t& at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    std::size_t length = byte < 0x80           ? 1
                         : (byte >> 5) == 0x6  ? 2
                         : (byte >> 4) == 0xE  ? 3
                         : (byte >> 3) == 0x1E ? 4
                                               : 0;
    if (length == 0 || at + length > text.size()) {
        ++at;
        return 0x110000 + byte;
    }
    char32_t point = length == 1 ? byte : byte & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto continuation = static_cast<unsigned char>(text[at + i]);
        if ((continuation >> 6) != 0x2) {
            ++at;
            return 0x110000 + byte;
        }
        point = (point << 6) | (continuation & 0x3F);
    }
    at += length;
    return point;
}

// Lower-cases beyond ASCII through the C.UTF-8 locale's tables when it
// exists; the user's own locale is left alone (it is process-wide state).
char32_t folded(char32_t point) {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
    if (point < 0x80) return point >= 'A' && point <= 'Z' ? point + ('a' - 'A') : point;
    if (!utf8 || point >= 0x110000) return point;
    return static_cast<char32_t>(towlower_l(static_cast<wint_t>(point), utf8));
}

bool isDigit(std::string_view text, std::size_t at) { return at < text.size() && text[at] >= '0' && text[at] <= '9'; }

} // namespace

std::filesystem::path PackLibrary::userPacksDirectory() {
    // Relative values of XDG_DATA_HOME are invalid and ignored, as the XDG
    // base directory rules say.
    if (auto data = environmentPath("XDG_DATA_HOME"); data && data->is_absolute()) return *data / "Tobrin" / "Packs";
    std::optional<std::filesystem::path> home = environmentPath("HOME");
    if (!home) {
        if (const passwd* user = ::getpwuid(::getuid()); user && user->pw_dir && *user->pw_dir) home = user->pw_dir;
    }
    if (!home) {
        std::fprintf(stderr, "Tobrin: no home folder for the current user\n");
        std::abort();
    }
    return *home / ".local" / "share" / "Tobrin" / "Packs";
}

std::optional<std::filesystem::path> PackLibrary::installedPacksDirectory(const std::filesystem::path& executable) {
    return existingFolder((executable.parent_path() / TOBRIN_INSTALLED_PACKS_FROM_BINDIR).lexically_normal());
}

std::optional<std::filesystem::path> PackLibrary::bundledPacksDirectory() {
    if (auto overridden = environmentPath("TOBRIN_PACKS")) return overridden;
    std::error_code error;
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        if (auto installed = installedPacksDirectory(executable)) return installed;
    }
#ifdef TOBRIN_BUILD_PACKS_DIR
    if (auto built = existingFolder(TOBRIN_BUILD_PACKS_DIR)) return built;
#endif
    return std::nullopt;
}

std::vector<PackInfo> PackLibrary::discover(const std::filesystem::path& folder, bool bundled) {
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator entries(folder, std::filesystem::directory_options::skip_permission_denied,
                                                error);
    for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
        std::string name = entries->path().filename().string();
        if (!name.starts_with(".")) names.push_back(std::move(name));
    }
    // Directory order differs between file systems; sorting keeps which of
    // two packs with one id wins the same everywhere.
    std::sort(names.begin(), names.end());

    std::vector<PackInfo> packs;
    for (const std::string& name : names) {
        try {
            packs.push_back(PackInfo::read(folder / name, bundled));
        } catch (const PackError&) {
            // Not a pack, or a broken one: not listed.
        }
    }
    return packs;
}

std::vector<PackInfo> PackLibrary::discover() {
    std::vector<PackInfo> found;
    if (auto bundled = bundledPacksDirectory()) found = discover(*bundled, true);
    for (PackInfo& pack : discover(userPacksDirectory(), false)) found.push_back(std::move(pack));

    std::map<std::string, PackInfo> byId;
    for (PackInfo& pack : found) byId.insert_or_assign(pack.id, std::move(pack));
    std::vector<PackInfo> packs;
    packs.reserve(byId.size());
    for (auto& [id, pack] : byId) packs.push_back(std::move(pack));
    // Stable: packs whose names compare equal stay in id order.
    std::stable_sort(packs.begin(), packs.end(), [](const PackInfo& a, const PackInfo& b) {
        if (a.isBundled != b.isBundled) return a.isBundled;
        return compareNames(a.name, b.name) < 0;
    });
    return packs;
}

int PackLibrary::compareNames(std::string_view a, std::string_view b) {
    std::size_t i = 0, j = 0;
    // The first difference that case or leading zeros alone make; it decides
    // only between names that are otherwise equal.
    int tieBreak = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a, i) && isDigit(b, j)) {
            std::size_t aStart = i, bStart = j;
            while (isDigit(a, i)) ++i;
            while (isDigit(b, j)) ++j;
            std::string_view aRun = a.substr(aStart, i - aStart), bRun = b.substr(bStart, j - bStart);
            const auto aSignificant = aRun.substr(std::min(aRun.find_first_not_of('0'), aRun.size()));
            const auto bSignificant = bRun.substr(std::min(bRun.find_first_not_of('0'), bRun.size()));
            if (aSignificant.size() != bSignificant.size()) return aSignificant.size() < bSignificant.size() ? -1 : 1;
            if (int order = aSignificant.compare(bSignificant); order != 0) return order < 0 ? -1 : 1;
            if (tieBreak == 0 && aRun.size() != bRun.size()) tieBreak = aRun.size() < bRun.size() ? -1 : 1;
            continue;
        }
        const char32_t aPoint = nextCodePoint(a, i), bPoint = nextCodePoint(b, j);
        const char32_t aFolded = folded(aPoint), bFolded = folded(bPoint);
        if (aFolded != bFolded) return aFolded < bFolded ? -1 : 1;
        if (tieBreak == 0 && aPoint != bPoint) tieBreak = aPoint < bPoint ? -1 : 1;
    }
    if (i < a.size() || j < b.size()) return i < a.size() ? 1 : -1;
    if (tieBreak != 0) return tieBreak;
    return a.compare(b) < 0 ? -1 : a.compare(b) > 0 ? 1 : 0;
}

} // namespace tobrin
