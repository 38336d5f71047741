#include "TobrinKit/Input/KeyStream.h"

#include <utility>

namespace tobrin {

KeyStream::KeyStream(Handler handler) : handler_(std::move(handler)) {}

void KeyStream::deliver(std::uint16_t linuxCode, KeyValue value, std::uint64_t time) {
    if (value == KeyValue::repeat || linuxCode >= LinuxKeyCode::count) return;
    const std::uint16_t code = LinuxKeyCode::toKeyCode(linuxCode);
    const bool press = value == KeyValue::press;

    if (const auto mask = ModifierTracker::mask(code)) {
        const std::uint32_t flags = press ? modifiers_.flags() | *mask : modifiers_.flags() & ~*mask;
        if (const auto action = modifiers_.update(code, flags)) handler_(KeyEvent{code, *action, time});
        return;
    }
    if (press) {
        if (held_.test(linuxCode)) return;
        held_.set(linuxCode);
        if (takenByShortcut(code)) {
            swallowed_.set(linuxCode);
            return;
        }
        handler_(KeyEvent{code, KeyAction::down, time});
    } else {
        if (!held_.test(linuxCode)) return;
        held_.reset(linuxCode);
        if (swallowed_.test(linuxCode)) {
            swallowed_.reset(linuxCode);
            return;
        }
        handler_(KeyEvent{code, KeyAction::up, time});
    }
}

void KeyStream::reset() {
    modifiers_ = ModifierTracker();
    held_.reset();
    swallowed_.reset();
}

void KeyStream::setShortcut(std::optional<Hotkey> hotkey, std::function<void()> pressed) {
    auto callback = pressed ? std::make_shared<const std::function<void()>>(std::move(pressed)) : nullptr;
    std::lock_guard guard(shortcutLock_);
    shortcut_ = hotkey;
    pressed_ = std::move(callback);
}

bool KeyStream::takenByShortcut(std::uint16_t code) {
    std::shared_ptr<const std::function<void()>> pressed;
    {
        std::lock_guard guard(shortcutLock_);
        if (!shortcut_ || shortcut_->keyCode != code || shortcut_->modifiers != modifiers_.modifiers()) return false;
        pressed = pressed_;
    }
    if (pressed) (*pressed)();
    return true;
}

} // namespace tobrin
