// Pack discovery: the folders, the listing, the merge and the name order.
#include "TobrinKit/Packs/PackLibrary.h"

#include "TobrinKit/Packs/PackError.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <pwd.h>
#include <string>
#include <unistd.h>

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/stringpiece.h>

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

// The collation locale the C library would take for the user: LC_ALL, then
// LC_COLLATE, then LANG (empty values do not count). The process's own
// locale is not consulted: it is "C" unless the program called setlocale.
std::string collationLocaleName() {
    for (const char* variable : {"LC_ALL", "LC_COLLATE", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value && *value) return value;
    }
    return "C";
}

// A collator for the user's locale with digit runs compared by value, made
// again only when the locale changes. C and POSIX, which name no language,
// get the root collation: Unicode's default order, the same for everyone.
// Null when ICU cannot make one.
const icu::Collator* collator() {
    thread_local std::string madeFor;
    thread_local std::unique_ptr<icu::Collator> made;
    const std::string name = collationLocaleName();
    if (made && name == madeFor) return made.get();
    const bool neutral = name == "C" || name == "POSIX" || name.starts_with("C.");
    const icu::Locale locale = neutral ? icu::Locale::getRoot() : icu::Locale::createCanonical(name.c_str());
    UErrorCode status = U_ZERO_ERROR;
    made.reset(icu::Collator::createInstance(locale, status));
    if (made) made->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    if (U_FAILURE(status)) made.reset();
    madeFor = name;
    return made.get();
}

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
        throw NoUserFolder("no folder for your packs: neither XDG_DATA_HOME nor HOME is set, and the user database "
                           "names no home folder for user " +
                           std::to_string(::getuid()));
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

std::vector<PackInfo> PackLibrary::discover(const std::filesystem::path& folder, bool bundled,
                                            const Converter& convert) {
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
        } catch (const PackError& failure) {
            // Not a pack, or a broken one: not listed, unless the converter
            // makes a pack of it.
            if (failure.kind() != PackError::Kind::missingManifest || !convert) continue;
            if (auto converted = convert(folder / name)) packs.push_back(std::move(*converted));
        }
    }
    return packs;
}

std::vector<PackInfo> PackLibrary::discover(const Converter& convert) {
    std::vector<PackInfo> found;
    if (auto bundled = bundledPacksDirectory()) found = discover(*bundled, true);
    try {
        for (PackInfo& pack : discover(userPacksDirectory(), false, convert)) found.push_back(std::move(pack));
    } catch (const NoUserFolder&) {
        // Without a home folder there are no user packs; the built-in ones still play.
    }

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
    if (const icu::Collator* names = collator()) {
        UErrorCode status = U_ZERO_ERROR;
        const UCollationResult order = names->compareUTF8(icu::StringPiece(a.data(), int32_t(a.size())),
                                                          icu::StringPiece(b.data(), int32_t(b.size())), status);
        if (U_SUCCESS(status) && order != UCOL_EQUAL) return order == UCOL_LESS ? -1 : 1;
    }
    // Names the collation holds equal ("x7" and "x007") still get one fixed order.
    return a < b ? -1 : a > b ? 1 : 0;
}

} // namespace tobrin
