// Decodes arbitrary bytes as a community pack's config.json, then maps every
// entry's key code and expands every file range, as the importer would.
#include "TobrinKit/Packs/Import/CommunityConfig.h"
#include "TobrinKit/Packs/Import/ScanCodes.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

void check(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using tobrin::CommunityConfig;
    CommunityConfig config;
    try {
        config = CommunityConfig::decode(std::string_view(reinterpret_cast<const char*>(data), size));
    } catch (const CommunityConfig::DecodeError&) {
        return 0;
    }
    check(config.version == 1 || config.version == 2, "version");
    check(config.entries.size() + config.skipped.size() <= CommunityConfig::maxEntries, "entry count");
    for (const auto& entry : config.entries) {
        check(!(entry.file && entry.segment), "an entry with both a file and a segment");
        check(!entry.file || config.layout == CommunityConfig::Layout::multi, "a file in a single pack");
        if (entry.segment) check(entry.segment->durationMs > 0 && entry.segment->startMs >= 0, "segment bounds");
        if (const auto key = tobrin::ScanCodes::toLinux(entry.scanCode)) check(key->code < 0x300, "Linux code range");
        if (entry.file) check(tobrin::expandRange(*entry.file).size() <= tobrin::maxRangeFiles, "range size");
    }
    return 0;
}
