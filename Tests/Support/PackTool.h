#pragma once
// The built tobrin-pack, run as a user would, and the built-in packs it is
// pointed at. For suites that define TOBRIN_PACK_TOOL and TOBRIN_BUILT_IN_PACKS_DIR.

#include "Support/IndependentReaders.h"

#include <filesystem>
#include <string>

namespace tobrin::test {

// `environment` is put before the command, as in a shell: "HOME=/x".
inline CommandResult packTool(const std::string& arguments, const std::string& environment = "") {
    return runCommand(environment + " " + quoted(TOBRIN_PACK_TOOL) + " " + arguments);
}

inline std::string builtInPack(const std::string& id) {
    return quoted(std::filesystem::path(TOBRIN_BUILT_IN_PACKS_DIR) / id);
}

} // namespace tobrin::test
