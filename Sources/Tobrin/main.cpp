// Entry point: the command line decides first; without a command the tray
// application starts.
#include "Application.h"
#include "CLI.h"

#include <string>
#include <syslog.h>
#include <vector>

int main(int argc, char** argv) {
    ::openlog("tobrin", LOG_PID, LOG_USER);
    tobrin::app::registerPlatform();
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (const auto status = tobrin::app::CLI::run(arguments)) return *status;
    return tobrin::app::runApplication(argc, argv);
}
