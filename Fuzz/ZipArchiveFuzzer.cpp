// Unpacks arbitrary bytes as a zipped pack into a fresh folder with a small
// budget, then checks that everything written lies in that folder, is a
// plain file or folder, and stays within the budget.
#include "TobrinKit/Packs/Import/ZipArchive.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;

[[noreturn]] void broken(const std::string& what) {
    std::fprintf(stderr, "broken: %s\n", what.c_str());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fs::path base = fs::temp_directory_path() / ("tobrin-zip-fuzz-" + std::to_string(::getpid()));
    const fs::path destination = base / "dest";
    fs::remove_all(base);
    fs::create_directories(destination);

    const tobrin::ZipArchive::Budget budget{.maxEntries = 64, .maxFileBytes = 256 << 10, .maxTotalBytes = 512 << 10};
    try {
        tobrin::ZipArchive::extract(std::span(data, size), destination, budget);
    } catch (const tobrin::ZipArchive::Error&) {
        // Refused; what was written before must still obey the rules below.
    }

    std::uintmax_t total = 0;
    for (const auto& entry : fs::recursive_directory_iterator(base)) {
        const fs::path relative = fs::relative(entry.path(), destination);
        if (relative.empty() || *relative.begin() == "..") {
            broken("written outside the destination: " + entry.path().string());
        }
        const auto type = entry.symlink_status().type();
        if (type == fs::file_type::regular) {
            total += entry.file_size();
        } else if (type != fs::file_type::directory) {
            broken("not a file or folder: " + entry.path().string());
        }
    }
    if (total > budget.maxTotalBytes + (64 << 10)) broken("over the budget: " + std::to_string(total));
    fs::remove_all(base);
    return 0;
}
