#pragma once

// Whether a sound server listens on a Unix socket. Used by the backends'
// reachability probes: a socket file that a killed server left behind exists
// but refuses connections. Callable from any thread.

#include <filesystem>

namespace tobrin {

bool acceptsConnections(const std::filesystem::path& socketFile);

} // namespace tobrin
