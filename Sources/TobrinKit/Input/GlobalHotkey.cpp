#include "TobrinKit/Input/GlobalHotkey.h"

#include "TobrinKit/Input/KeyMonitor.h"

#include <utility>

namespace tobrin {

// Presses arrive on other threads; `live` and the lock make sure none reaches
// the executor once the registration is gone.
struct GlobalHotkey::Firing {
    std::function<void()> action;
    Executor runOn;
    std::mutex lock;
    bool live = false;

    void fire() {
        std::lock_guard guard(lock);
        if (!live) return;
        if (runOn)
            runOn(action);
        else
            action();
    }
    void setLive(bool value) {
        std::lock_guard guard(lock);
        live = value;
    }
};

std::string GlobalHotkey::Status::message(const Hotkey::KeyNamer& keyName) const {
    switch (kind) {
    case Kind::taken: return hotkey.displayString(keyName) + " is already used by another app. Pick another.";
    case Kind::reservedBySystem:
        return hotkey.displayString(keyName) + " is a desktop shortcut (Settings \xE2\x80\xBA Keyboard). Pick another.";
    case Kind::failed:
        return "Couldn't set up " + hotkey.displayString(keyName) + " (error " + std::to_string(error) + ").";
    case Kind::active:
    case Kind::off: break;
    }
    return "";
}

GlobalHotkey::GlobalHotkey(KeyMonitor& monitor, std::function<void()> action, Executor runOn, ReservedCheck isReserved)
    : monitor_(monitor), isReserved_(std::move(isReserved)), firing_(std::make_shared<Firing>()) {
    firing_->action = std::move(action);
    firing_->runOn = std::move(runOn);
}

GlobalHotkey::~GlobalHotkey() { unregister(); }

GlobalHotkey::Status GlobalHotkey::registerHotkey(std::optional<Hotkey> hotkey) {
    unregister();
    if (!hotkey) return status();

    Status result{Status::Kind::active, *hotkey, 0};
    const auto kind = monitor_.sourceKind();
    if (isReserved_ && isReserved_(*hotkey)) {
        result.kind = Status::Kind::reservedBySystem;
    } else if (!kind) {
        result.kind = Status::Kind::failed; // no key source at all
        result.error = -1;
    } else if (kind->grabShortcut) {
        auto grabbed = kind->grabShortcut(*hotkey, [firing = firing_] { firing->fire(); });
        switch (grabbed.kind) {
        case ShortcutGrabResult::Kind::active: grab_ = std::move(grabbed.grab); break;
        case ShortcutGrabResult::Kind::taken: result.kind = Status::Kind::taken; break;
        case ShortcutGrabResult::Kind::failed:
            result.kind = Status::Kind::failed;
            result.error = grabbed.error;
            break;
        }
        // The grab runs the action; the stream only keeps the key silent.
        if (grab_) monitor_.setShortcut(hotkey, {});
    } else {
        monitor_.setShortcut(hotkey, [firing = firing_] { firing->fire(); });
    }
    if (result.kind == Status::Kind::active) firing_->setLive(true);

    std::lock_guard guard(statusLock_);
    status_ = result;
    return result;
}

void GlobalHotkey::unregister() {
    firing_->setLive(false);
    monitor_.setShortcut(std::nullopt, {});
    grab_.reset();
    std::lock_guard guard(statusLock_);
    status_ = Status{};
}

GlobalHotkey::Status GlobalHotkey::status() const {
    std::lock_guard guard(statusLock_);
    return status_;
}

} // namespace tobrin
