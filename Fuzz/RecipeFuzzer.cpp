// Decodes arbitrary bytes as a pack recipe and as slicer options. Whatever
// decodes must encode and decode back to an equal value, and its
// attribution texts must be made without fault.
#include "TobrinKit/Building/Recorded/PackRecipe.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using tobrin::PackRecipe;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const PackRecipe recipe = PackRecipe::decode(text);
        const std::string encoded = recipe.encode();
        if (!(PackRecipe::decode(encoded) == recipe)) {
            std::fprintf(stderr, "recipe changed in a round trip:\n%s\n", encoded.c_str());
            std::abort();
        }
        if (recipe.credits().empty() || !recipe.licenseText().ends_with(". Sliced and leveled for Tobrin.")) {
            std::abort();
        }
    } catch (const PackRecipe::DecodeError&) {
    }
    try {
        const auto options = PackRecipe::decodeOptions(text);
        if (!(PackRecipe::decodeOptions(PackRecipe::encodeOptions(options)) == options)) std::abort();
    } catch (const PackRecipe::DecodeError&) {
    }
    return 0;
}
