#include "Log.h"

#include <cstdio>
#include <syslog.h>

namespace tobrin::app {

void log(const std::string& line) {
    syslog(LOG_WARNING, "%s", line.c_str());
    std::fprintf(stderr, "%s\n", line.c_str());
}

} // namespace tobrin::app
