#pragma once

#include <string>

namespace tobrin::app {

// Sends one diagnostic line to the system log (ident "tobrin") and to
// standard error. The line starts with "Tobrin: " as every diagnostic does.
// Safe from any thread.
void log(const std::string& line);

} // namespace tobrin::app
