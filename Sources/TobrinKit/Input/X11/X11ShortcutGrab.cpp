#include "TobrinKit/Input/X11/X11ShortcutGrab.h"

#include "TobrinKit/Input/LinuxKeyCode.h"

#include <xcb/xcb.h>
// xkb.h names a field `explicit`, a C++ keyword.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

namespace tobrin {
namespace {

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T>
Reply<T> reply(T* pointer) {
    return Reply<T>(pointer, &std::free);
}

constexpr std::int32_t badAccess = 10;
constexpr std::int32_t badValue = 2;

constexpr xcb_keysym_t numLockSym = 0xff7f;
constexpr xcb_keysym_t altSym = 0xffe9;   // Alt_L
constexpr xcb_keysym_t superSym = 0xffeb; // Super_L

// Which of Mod1…Mod5 carries a key such as Num Lock depends on the keymap; the
// usual assignment stands in when the server's tables do not say.
class ModifierMap {
public:
    explicit ModifierMap(xcb_connection_t* connection) : setup_(xcb_get_setup(connection)) {
        const auto first = setup_->min_keycode;
        const auto count = std::uint8_t(setup_->max_keycode - first + 1);
        keyboard_ = reply(
            xcb_get_keyboard_mapping_reply(connection, xcb_get_keyboard_mapping(connection, first, count), nullptr));
        modifiers_ = reply(xcb_get_modifier_mapping_reply(connection, xcb_get_modifier_mapping(connection), nullptr));
    }

    std::uint16_t maskOf(xcb_keysym_t keysym, std::uint16_t fallback) const {
        if (!keyboard_ || !modifiers_) return fallback;
        const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(keyboard_.get());
        const int symsLength = xcb_get_keyboard_mapping_keysyms_length(keyboard_.get());
        const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(modifiers_.get());
        const int perModifier = modifiers_->keycodes_per_modifier;
        const int perKey = keyboard_->keysyms_per_keycode;
        for (int modifier = 0; modifier < 8; ++modifier) {
            for (int i = 0; i < perModifier; ++i) {
                const xcb_keycode_t code = codes[modifier * perModifier + i];
                if (code < setup_->min_keycode) continue;
                for (int level = 0; level < perKey; ++level) {
                    const int index = (code - setup_->min_keycode) * perKey + level;
                    if (index < symsLength && syms[index] == keysym) return std::uint16_t(1u << modifier);
                }
            }
        }
        return fallback;
    }

private:
    const xcb_setup_t* setup_;
    Reply<xcb_get_keyboard_mapping_reply_t> keyboard_{nullptr, &std::free};
    Reply<xcb_get_modifier_mapping_reply_t> modifiers_{nullptr, &std::free};
};

// Holding the key then repeats as presses only, so a press can be told from a
// repeat. Without it the action would run once per repeat.
void askForDetectableAutorepeat(xcb_connection_t* connection) {
    reply(xcb_xkb_use_extension_reply(connection, xcb_xkb_use_extension(connection, 1, 0), nullptr));
    const std::uint32_t flag = XCB_XKB_PER_CLIENT_FLAG_DETECTABLE_AUTO_REPEAT;
    reply(xcb_xkb_per_client_flags_reply(
        connection, xcb_xkb_per_client_flags(connection, XCB_XKB_ID_USE_CORE_KBD, flag, flag, 0, 0, 0), nullptr));
}

ShortcutGrabResult failure(std::int32_t error) { return {ShortcutGrabResult::Kind::failed, error, nullptr}; }

} // namespace

ShortcutGrabResult X11ShortcutGrab::grab(const std::string& display, const Hotkey& hotkey,
                                         std::function<void()> pressed) {
    const auto linuxCode = LinuxKeyCode::toLinux(hotkey.keyCode);
    if (!linuxCode || *linuxCode + 8 > 255) return failure(badValue);
    const auto keycode = std::uint8_t(*linuxCode + 8);

    xcb_connection_t* connection = xcb_connect(display.empty() ? nullptr : display.c_str(), nullptr);
    if (xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        return failure(-1);
    }
    const ModifierMap map(connection);
    std::uint16_t modifiers = 0;
    if (hotkey.modifiers.contains(Modifiers::control)) modifiers |= XCB_MOD_MASK_CONTROL;
    if (hotkey.modifiers.contains(Modifiers::option)) modifiers |= map.maskOf(altSym, XCB_MOD_MASK_1);
    if (hotkey.modifiers.contains(Modifiers::shift)) modifiers |= XCB_MOD_MASK_SHIFT;
    if (hotkey.modifiers.contains(Modifiers::command)) modifiers |= map.maskOf(superSym, XCB_MOD_MASK_4);
    const std::uint16_t numLock = map.maskOf(numLockSym, XCB_MOD_MASK_2);

    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    const std::uint16_t variants[] = {0, XCB_MOD_MASK_LOCK, numLock, std::uint16_t(XCB_MOD_MASK_LOCK | numLock)};
    std::vector<xcb_void_cookie_t> cookies;
    for (std::uint16_t variant : variants) {
        cookies.push_back(xcb_grab_key_checked(connection, 1, root, std::uint16_t(modifiers | variant), keycode,
                                               XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC));
    }
    std::int32_t error = 0;
    for (const auto& cookie : cookies) {
        if (const auto refused = reply(xcb_request_check(connection, cookie)); refused && !error)
            error = refused->error_code;
    }
    if (error) {
        xcb_disconnect(connection); // releases the variants that were granted
        return error == badAccess ? ShortcutGrabResult{ShortcutGrabResult::Kind::taken, 0, nullptr} : failure(error);
    }
    askForDetectableAutorepeat(connection);
    std::unique_ptr<ShortcutGrab> held(new X11ShortcutGrab(connection, keycode, std::move(pressed)));
    return {ShortcutGrabResult::Kind::active, 0, std::move(held)};
}

X11ShortcutGrab::X11ShortcutGrab(xcb_connection_t* connection, std::uint8_t keycode, std::function<void()> pressed)
    : connection_(connection), keycode_(keycode), pressed_(std::move(pressed)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    thread_ = std::thread([this] { run(); });
}

X11ShortcutGrab::~X11ShortcutGrab() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
    thread_.join();
    xcb_disconnect(connection_); // the server drops the grabs with the client
    ::close(wake_);
}

void X11ShortcutGrab::run() {
    pthread_setname_np(pthread_self(), "Tobrin.Shortcut");
    pollfd polled[2] = {{wake_, POLLIN, 0}, {xcb_get_file_descriptor(connection_), POLLIN, 0}};
    bool down = false;
    for (;;) {
        while (const auto event = reply(xcb_poll_for_event(connection_))) {
            const auto type = event->response_type & 0x7f;
            if (type != XCB_KEY_PRESS && type != XCB_KEY_RELEASE) continue;
            if (reinterpret_cast<const xcb_key_press_event_t*>(event.get())->detail != keycode_) continue;
            if (type == XCB_KEY_RELEASE) {
                down = false;
            } else if (!down) {
                down = true;
                pressed_();
            }
        }
        if (xcb_connection_has_error(connection_)) return;
        if (::poll(polled, 2, -1) < 0 && errno != EINTR) return;
        if (polled[0].revents) return;
    }
}

} // namespace tobrin
