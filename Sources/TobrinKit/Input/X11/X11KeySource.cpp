#include "TobrinKit/Input/X11/X11KeySource.h"

#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Input/LinuxKeyCode.h"

#include <xcb/xcb.h>
#include <xcb/xinput.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace tobrin {
namespace {

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T>
Reply<T> reply(T* pointer) {
    return Reply<T>(pointer, &std::free);
}

// X keycodes are Linux key codes + 8.
constexpr std::uint32_t keycodeOffset = 8;

} // namespace

X11KeySource::X11KeySource(std::string display)
    : display_(std::move(display)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

X11KeySource::~X11KeySource() {
    if (connection_) xcb_disconnect(connection_);
    ::close(wake_);
}

bool X11KeySource::open(std::string& error) {
    connection_ = xcb_connect(display_.empty() ? nullptr : display_.c_str(), nullptr);
    if (xcb_connection_has_error(connection_)) {
        error = "cannot connect to the X server";
        return false;
    }
    const auto* extension = xcb_get_extension_data(connection_, &xcb_input_id);
    const auto version =
        reply(xcb_input_xi_query_version_reply(connection_, xcb_input_xi_query_version(connection_, 2, 2), nullptr));
    if (!extension || !extension->present || !version || (version->major_version == 2 && version->minor_version < 1) ||
        version->major_version < 2) {
        error = "the X server lacks XInput 2.1";
        return false;
    }
    inputOpcode_ = extension->major_opcode;

    struct {
        xcb_input_event_mask_t head;
        std::uint32_t bits;
    } mask = {{XCB_INPUT_DEVICE_ALL_MASTER, 1},
              XCB_INPUT_XI_EVENT_MASK_RAW_KEY_PRESS | XCB_INPUT_XI_EVENT_MASK_RAW_KEY_RELEASE};
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
    if (const auto failure = reply(
            xcb_request_check(connection_, xcb_input_xi_select_events_checked(connection_, root, 1, &mask.head)))) {
        error = "the X server refused raw key events";
        return false;
    }
    return true;
}

void X11KeySource::run(KeyStream& stream) {
    pollfd polled[2] = {{wake_, POLLIN, 0}, {xcb_get_file_descriptor(connection_), POLLIN, 0}};
    std::uint64_t now = MachTime::now();
    for (;;) {
        // The queue may hold events read during open(); drain before waiting.
        while (const auto event = reply(xcb_poll_for_event(connection_))) {
            if ((event->response_type & 0x7f) != XCB_GE_GENERIC) continue;
            const auto* generic = reinterpret_cast<const xcb_ge_generic_event_t*>(event.get());
            if (generic->extension != inputOpcode_) continue;
            const bool press = generic->event_type == XCB_INPUT_RAW_KEY_PRESS;
            if (!press && generic->event_type != XCB_INPUT_RAW_KEY_RELEASE) continue;
            const auto* raw = reinterpret_cast<const xcb_input_raw_key_press_event_t*>(event.get());
            if (raw->detail < keycodeOffset || raw->detail >= keycodeOffset + LinuxKeyCode::count) continue;
            stream.deliver(std::uint16_t(raw->detail - keycodeOffset), press ? KeyValue::press : KeyValue::release,
                           now);
        }
        if (xcb_connection_has_error(connection_)) return; // the server went away
        if (::poll(polled, 2, -1) < 0 && errno != EINTR) return;
        if (polled[0].revents) return;
        now = MachTime::now();
    }
}

void X11KeySource::interrupt() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
}

} // namespace tobrin
