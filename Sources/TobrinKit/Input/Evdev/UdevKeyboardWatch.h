#pragma once

// Finds the evdev keyboards under /dev/input with libudev and follows them: a
// keyboard plugged in (or whose node becomes readable) is opened when udev
// announces it, one unplugged is forgotten when udev says it was removed, so
// plugging it back in opens it again. Its reader notices the unplugging
// first, by the error its descriptor returns.
//
// A device counts as a keyboard when it reports letter keys, space and Enter
// (power buttons and media-key devices do not); Tobrin reads it without
// grabbing it, so every other program still gets its keys.

#include <set>
#include <string>
#include <vector>

#include "TobrinKit/Input/EvdevKeySource.h"

struct udev;
struct udev_monitor;

namespace tobrin {

class UdevKeyboardWatch final : public KeyboardWatch {
public:
    UdevKeyboardWatch() = default;
    ~UdevKeyboardWatch() override;

    bool open(std::vector<int>& keyboards, std::string& error) override;
    int fd() const override;
    void arrived(std::vector<int>& keyboards) override;
    void close() override;

    // The descriptor answers like a keyboard.
    static bool isKeyboard(int fd);

private:
    // Opens a node that is a keyboard; counts the ones access was refused to.
    void tryOpen(const char* node, std::vector<int>& keyboards);

    udev* udev_ = nullptr;
    udev_monitor* monitor_ = nullptr;
    std::set<std::string> opened_; // nodes of the keyboards handed out
    int refused_ = 0;
};

} // namespace tobrin
