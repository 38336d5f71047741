#include "TobrinKit/Engine/Audio/ServerSocket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace tobrin {

bool acceptsConnections(const std::filesystem::path& socketFile) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = socketFile.string();
    if (path.empty() || path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool accepted = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return accepted;
}

} // namespace tobrin
