// Decodes arbitrary bytes as pack.json. Whatever decodes must encode and
// decode back to an equal manifest.
#include "TobrinKit/Packs/PackManifest.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using tobrin::PackManifest;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    PackManifest manifest;
    try {
        manifest = PackManifest::decode(text);
    } catch (const PackManifest::DecodeError&) {
        return 0;
    }
    const std::string encoded = manifest.encode();
    if (!(PackManifest::decode(encoded) == manifest)) {
        std::fprintf(stderr, "manifest changed in a round trip:\n%s\n", encoded.c_str());
        std::abort();
    }
    return 0;
}
