// Reading a pack folder's summary.
#include "TobrinKit/Packs/PackInfo.h"

#include "TobrinKit/Packs/PackManifest.h"
#include "TobrinKit/Packs/PackError.h"

namespace tobrin {

PackInfo PackInfo::read(const std::filesystem::path& directory, bool isBundled) {
    PackManifest manifest;
    try {
        manifest = PackManifest::read(directory);
    } catch (const PackManifest::DecodeError& error) {
        throw PackError::invalidManifest(directory / PackManifest::fileName, error.what());
    }
    return PackInfo{std::move(manifest.id),
                    std::move(manifest.name),
                    std::move(manifest.kind),
                    std::move(manifest.summary),
                    directory,
                    isBundled};
}

} // namespace tobrin
