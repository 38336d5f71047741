#include "TobrinKit/Input/Evdev/UdevKeyboardWatch.h"

#include <libudev.h>
#include <linux/input.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace tobrin {
namespace {

bool isEventNode(const char* node) { return node && std::strncmp(node, "/dev/input/event", 16) == 0; }

} // namespace

UdevKeyboardWatch::~UdevKeyboardWatch() { close(); }

bool UdevKeyboardWatch::open(std::vector<int>& keyboards, std::string& error) {
    close();
    udev_ = udev_new();
    if (!udev_) {
        error = "cannot reach udev";
        return false;
    }
    // Listen before listing, so a keyboard plugged in between is not missed.
    monitor_ = udev_monitor_new_from_netlink(udev_, "udev");
    if (monitor_ && (udev_monitor_filter_add_match_subsystem_devtype(monitor_, "input", nullptr) < 0 ||
                     udev_monitor_enable_receiving(monitor_) < 0)) {
        udev_monitor_unref(monitor_);
        monitor_ = nullptr;
    }

    udev_enumerate* list = udev_enumerate_new(udev_);
    udev_enumerate_add_match_subsystem(list, "input");
    udev_enumerate_scan_devices(list);
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(list)) {
        udev_device* device = udev_device_new_from_syspath(udev_, udev_list_entry_get_name(entry));
        if (!device) continue;
        tryOpen(udev_device_get_devnode(device), keyboards);
        udev_device_unref(device);
    }
    udev_enumerate_unref(list);

    if (keyboards.empty() && refused_ > 0) {
        error = "cannot read the keyboards: add yourself to the input group (sudo usermod -aG input $USER), "
                "log in again";
        close();
        return false;
    }
    return true;
}

int UdevKeyboardWatch::fd() const { return monitor_ ? udev_monitor_get_fd(monitor_) : -1; }

void UdevKeyboardWatch::arrived(std::vector<int>& keyboards) {
    if (!monitor_) return;
    while (udev_device* device = udev_monitor_receive_device(monitor_)) {
        const char* action = udev_device_get_action(device);
        const char* node = udev_device_get_devnode(device);
        if (action && node && std::strcmp(action, "remove") == 0)
            opened_.erase(node);
        else
            tryOpen(node, keyboards);
        udev_device_unref(device);
    }
}

void UdevKeyboardWatch::close() {
    if (monitor_) udev_monitor_unref(monitor_);
    if (udev_) udev_unref(udev_);
    monitor_ = nullptr;
    udev_ = nullptr;
    opened_.clear();
    refused_ = 0;
}

void UdevKeyboardWatch::tryOpen(const char* node, std::vector<int>& keyboards) {
    if (!isEventNode(node) || opened_.count(node)) return;
    const int fd = ::open(node, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (errno == EACCES || errno == EPERM) ++refused_;
        return;
    }
    if (!isKeyboard(fd)) {
        ::close(fd);
        return;
    }
    opened_.insert(node);
    keyboards.push_back(fd);
}

bool UdevKeyboardWatch::isKeyboard(int fd) {
    constexpr std::size_t bitsPerWord = sizeof(unsigned long) * CHAR_BIT;
    unsigned long keys[(KEY_CNT + bitsPerWord - 1) / bitsPerWord] = {};
    if (::ioctl(fd, EVIOCGBIT(EV_KEY, sizeof keys), keys) < 0) return false;
    const auto has = [&](unsigned code) { return (keys[code / bitsPerWord] >> (code % bitsPerWord)) & 1UL; };
    return has(KEY_A) && has(KEY_Z) && has(KEY_SPACE) && has(KEY_ENTER);
}

} // namespace tobrin
