#include "TobrinKit/Input/Evdev/EvdevKeys.h"

#include "TobrinKit/Input/Evdev/UdevKeyboardWatch.h"
#include "TobrinKit/Input/EvdevKeySource.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace tobrin::EvdevKeys {
namespace {

// The group that owns the keyboards' nodes: that of an event node, else
// "input", the group Debian's udev rules give them.
std::optional<gid_t> deviceGroup(bool& keyboardReadable) {
    std::optional<gid_t> owner;
    if (DIR* folder = ::opendir("/dev/input")) {
        while (const dirent* entry = ::readdir(folder)) {
            if (std::strncmp(entry->d_name, "event", 5) != 0) continue;
            const std::string node = std::string("/dev/input/") + entry->d_name;
            struct stat info {};
            if (::stat(node.c_str(), &info) == 0) owner = info.st_gid;
            const int fd = ::open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            if (fd < 0) continue;
            keyboardReadable = keyboardReadable || UdevKeyboardWatch::isKeyboard(fd);
            ::close(fd);
        }
        ::closedir(folder);
    }
    if (const struct group* input = owner ? nullptr : ::getgrnam("input")) owner = input->gr_gid;
    return owner;
}

bool processHas(gid_t gid) {
    if (::geteuid() == 0 || ::getegid() == gid) return true;
    std::vector<gid_t> groups(std::size_t(std::max(::getgroups(0, nullptr), 0)));
    groups.resize(std::size_t(std::max(::getgroups(int(groups.size()), groups.data()), 0)));
    return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

// What the next login would give: the user database's groups of this user.
bool userHas(gid_t gid) {
    const passwd* user = ::getpwuid(::getuid());
    if (!user) return false;
    int count = 64;
    std::vector<gid_t> groups(64);
    if (::getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count) < 0) {
        groups.resize(std::size_t(count)); // count now says how many there are
        if (::getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count) < 0) return false;
    }
    groups.resize(std::size_t(count));
    return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

} // namespace

KeySourceFactory factory() {
    KeySourceFactory kind;
    kind.name = "evdev";
    kind.create = [] { return std::make_unique<EvdevKeySource>(std::make_unique<UdevKeyboardWatch>()); };
    kind.access = &access;
    return kind;
}

void add() { KeySources::add(factory()); }

KeyboardAccess access() {
    bool keyboardReadable = false;
    const auto owner = deviceGroup(keyboardReadable);
    if (!owner) return accessFrom(keyboardReadable, ::geteuid() == 0, false);
    return accessFrom(keyboardReadable, processHas(*owner), userHas(*owner));
}

KeyboardAccess accessFrom(bool keyboardReadable, bool processHasGroup, bool userHasGroup) {
    if (keyboardReadable) return KeyboardAccess::granted;
    if (userHasGroup && !processHasGroup) return KeyboardAccess::needsRelaunch;
    // With the group but no keyboard plugged in, keys are heard once one is.
    return processHasGroup ? KeyboardAccess::granted : KeyboardAccess::denied;
}

} // namespace tobrin::EvdevKeys
