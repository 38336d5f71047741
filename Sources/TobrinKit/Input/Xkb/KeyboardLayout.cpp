#include "TobrinKit/Input/Xkb/KeyboardLayout.h"

#include "TobrinKit/Input/LinuxKeyCode.h"

#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <fstream>
#include <map>

namespace tobrin {
namespace {

constexpr std::uint32_t keycodeOffset = 8; // xkb keycodes are Linux key codes + 8

std::shared_ptr<xkb_context> newContext() {
    xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    if (!context) return nullptr;
    // A layout that does not compile is reported by the caller, not printed.
    xkb_context_set_log_level(context, XKB_LOG_LEVEL_CRITICAL);
    return {context, &xkb_context_unref};
}

std::shared_ptr<xkb_keymap> own(xkb_keymap* keymap) {
    if (!keymap) return nullptr;
    return {keymap, &xkb_keymap_unref};
}

// KEY="value" lines of a shell-style configuration file.
std::map<std::string, std::string> readAssignments(const std::filesystem::path& file) {
    std::map<std::string, std::string> values;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        const auto equals = line.find('=');
        if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
        std::string value = line.substr(equals + 1);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
            value = value.substr(1, value.size() - 2);
        values[line.substr(0, equals)] = value;
    }
    return values;
}

} // namespace

KeyboardLayout::KeyboardLayout(std::shared_ptr<xkb_keymap> keymap, std::uint32_t group)
    : keymap_(std::move(keymap)), group_(group) {}

std::optional<KeyboardLayout> KeyboardLayout::fromX11(const std::string& display) {
    xcb_connection_t* connection = xcb_connect(display.empty() ? nullptr : display.c_str(), nullptr);
    std::optional<KeyboardLayout> layout;
    const auto context = newContext();
    if (context && !xcb_connection_has_error(connection) &&
        xkb_x11_setup_xkb_extension(connection, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
                                    XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, nullptr, nullptr)) {
        const std::int32_t device = xkb_x11_get_core_keyboard_device_id(connection);
        if (auto keymap =
                own(xkb_x11_keymap_new_from_device(context.get(), connection, device, XKB_KEYMAP_COMPILE_NO_FLAGS))) {
            std::uint32_t group = 0;
            if (xkb_state* state = xkb_x11_state_new_from_device(keymap.get(), connection, device)) {
                group = xkb_state_serialize_layout(state, XKB_STATE_LAYOUT_EFFECTIVE);
                xkb_state_unref(state);
            }
            layout = KeyboardLayout(std::move(keymap), group);
        }
    }
    xcb_disconnect(connection);
    return layout;
}

std::optional<KeyboardLayout> KeyboardLayout::fromNames(const Names& names) {
    const auto context = newContext();
    if (!context) return std::nullopt;
    const auto field = [](const std::string& value) { return value.empty() ? nullptr : value.c_str(); };
    const xkb_rule_names rules{field(names.rules), field(names.model), field(names.layout), field(names.variant),
                               field(names.options)};
    auto keymap = own(xkb_keymap_new_from_names(context.get(), &rules, XKB_KEYMAP_COMPILE_NO_FLAGS));
    if (!keymap) return std::nullopt;
    return KeyboardLayout(std::move(keymap), 0);
}

std::optional<KeyboardLayout> KeyboardLayout::fromSystem(const std::filesystem::path& file) {
    auto values = readAssignments(file);
    return fromNames({"", values["XKBMODEL"], values["XKBLAYOUT"], values["XKBVARIANT"], values["XKBOPTIONS"]});
}

std::optional<KeyboardLayout> KeyboardLayout::current() {
    if (auto layout = fromX11()) return layout;
    return fromSystem();
}

std::optional<std::string> KeyboardLayout::keyName(std::uint32_t keyCode) const {
    const auto linuxCode = LinuxKeyCode::toLinux(keyCode);
    if (keyCode >= 0x10000 || !linuxCode) return std::nullopt;
    const xkb_keycode_t key = *linuxCode + keycodeOffset;
    const xkb_layout_index_t layouts = xkb_keymap_num_layouts_for_key(keymap_.get(), key);
    if (layouts == 0) return std::nullopt;
    const xkb_keysym_t* syms = nullptr;
    if (xkb_keymap_key_get_syms_by_level(keymap_.get(), key, group_ < layouts ? group_ : 0, 0, &syms) < 1)
        return std::nullopt;
    char text[16];
    if (xkb_keysym_to_utf8(syms[0], text, sizeof text) <= 1) return std::nullopt;
    // Enter, Tab, Escape and the like type control characters: no name.
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x20 || first == 0x7f) return std::nullopt;
    return std::string(text);
}

std::optional<std::uint16_t> KeyboardLayout::keyCode(std::string_view name) const {
    const std::string text(name);
    xkb_keysym_t wanted = xkb_keysym_from_name(text.c_str(), XKB_KEYSYM_NO_FLAGS);
    if (wanted == XKB_KEY_NoSymbol) wanted = xkb_keysym_from_name(text.c_str(), XKB_KEYSYM_CASE_INSENSITIVE);
    if (wanted == XKB_KEY_NoSymbol && !text.empty()) {
        // One character, UTF-8 encoded.
        const auto lead = static_cast<unsigned char>(text[0]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
        if (text.size() == length) {
            char32_t point = length == 1 ? lead : lead & (0x3f >> (length - 1));
            for (std::size_t i = 1; i < length; ++i) point = (point << 6) | (text[i] & 0x3f);
            wanted = xkb_utf32_to_keysym(point);
        }
    }
    if (wanted == XKB_KEY_NoSymbol) return std::nullopt;

    std::optional<std::uint16_t> found;
    xkb_level_index_t foundLevel = 0;
    const xkb_keycode_t last = xkb_keymap_max_keycode(keymap_.get());
    for (xkb_keycode_t key = xkb_keymap_min_keycode(keymap_.get()); key <= last; ++key) {
        const xkb_layout_index_t layouts = xkb_keymap_num_layouts_for_key(keymap_.get(), key);
        if (layouts == 0 || key < keycodeOffset || key >= keycodeOffset + LinuxKeyCode::count) continue;
        const xkb_layout_index_t group = group_ < layouts ? group_ : 0;
        const xkb_level_index_t levels = xkb_keymap_num_levels_for_key(keymap_.get(), key, group);
        for (xkb_level_index_t level = 0; level < levels && (!found || level < foundLevel); ++level) {
            const xkb_keysym_t* syms = nullptr;
            const int count = xkb_keymap_key_get_syms_by_level(keymap_.get(), key, group, level, &syms);
            for (int i = 0; i < count; ++i) {
                if (syms[i] != wanted) continue;
                found = LinuxKeyCode::toKeyCode(std::uint16_t(key - keycodeOffset));
                foundLevel = level;
            }
        }
    }
    return found;
}

Hotkey::KeyNamer KeyboardLayout::namer() const {
    return [layout = *this](std::uint32_t keyCode) { return layout.keyName(keyCode); };
}

std::optional<std::string> KeyboardLayout::layoutKeyName(std::uint32_t keyCode) {
    const auto layout = current();
    return layout ? layout->keyName(keyCode) : std::nullopt;
}

} // namespace tobrin
