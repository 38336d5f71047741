#pragma once

// The built-in packs the build generated, for tests that need real sounds.

#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackInfo.h"

#include <filesystem>
#include <memory>
#include <string>

namespace tobrin::fixtures {

inline std::filesystem::path builtInPacksDirectory() { return TOBRIN_BUILT_IN_PACKS_DIR; }

inline std::shared_ptr<const LoadedPack> loadBuiltInPack(const std::string& id) {
    const PackInfo info = PackInfo::read(builtInPacksDirectory() / id, true);
    return LoadedPack::load(info, 48000);
}

// Cream, loaded once for the whole test program.
inline const std::shared_ptr<const LoadedPack>& cream() {
    static const auto pack = loadBuiltInPack("cream");
    return pack;
}

} // namespace tobrin::fixtures
