#include "TobrinKit/Input/Desktop/DesktopShortcuts.h"

#include <gio/gio.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <utility>

namespace tobrin::DesktopShortcuts {
namespace {

std::string lowerCased(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = char(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

// GNOME's keybinding schemas; each is read only when installed. The media
// keys hold user-defined shortcuts under relocatable paths besides their own.
constexpr const char* gnomeSchemas[] = {
    "org.gnome.desktop.wm.keybindings",
    "org.gnome.shell.keybindings",
    "org.gnome.mutter.keybindings",
    "org.gnome.mutter.wayland.keybindings",
    "org.gnome.settings-daemon.plugins.media-keys",
};
constexpr const char* gnomeCustomSchema = "org.gnome.settings-daemon.plugins.media-keys.custom-keybinding";

void collectStrings(GVariant* value, std::vector<std::string>& into) {
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        into.emplace_back(g_variant_get_string(value, nullptr));
    } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY)) {
        gsize count = 0;
        const gchar** strings = g_variant_get_strv(value, &count);
        for (gsize i = 0; i < count; ++i) into.emplace_back(strings[i]);
        g_free(strings);
    }
}

// Every string (or list of strings) the schema holds at `path`.
void readSchema(GSettingsSchema* schema, const char* path, std::vector<std::string>& into) {
    GSettings* settings = g_settings_new_full(schema, nullptr, path);
    if (!settings) return;
    gchar** keys = g_settings_schema_list_keys(schema);
    for (gchar** key = keys; *key; ++key) {
        GVariant* value = g_settings_get_value(settings, *key);
        collectStrings(value, into);
        g_variant_unref(value);
    }
    g_strfreev(keys);
    g_object_unref(settings);
}

bool isSettingsPath(std::string_view path) {
    return path.size() >= 2 && path.front() == '/' && path.back() == '/' && path.find("//") == std::string::npos;
}

std::vector<std::string> gnomeAccelerators() {
    std::vector<std::string> accelerators;
    GSettingsSchemaSource* source = g_settings_schema_source_get_default();
    if (!source) return accelerators;
    for (const char* id : gnomeSchemas) {
        GSettingsSchema* schema = g_settings_schema_source_lookup(source, id, TRUE);
        if (!schema) continue;
        std::vector<std::string> values;
        readSchema(schema, nullptr, values);
        g_settings_schema_unref(schema);
        for (auto& value : values) {
            // Paths of user-defined shortcuts hold their binding under "binding".
            GSettingsSchema* custom = nullptr;
            if (isSettingsPath(value) && (custom = g_settings_schema_source_lookup(source, gnomeCustomSchema, TRUE))) {
                GSettings* settings = g_settings_new_full(custom, nullptr, value.c_str());
                gchar* binding = g_settings_get_string(settings, "binding");
                accelerators.emplace_back(binding);
                g_free(binding);
                g_object_unref(settings);
                g_settings_schema_unref(custom);
            } else {
                accelerators.push_back(std::move(value));
            }
        }
    }
    return accelerators;
}

std::vector<Binding> kdeBindings(const std::filesystem::path& file) {
    std::vector<Binding> bindings;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        const auto equals = line.find('=');
        if (line.empty() || line[0] == '[' || equals == std::string::npos || line.rfind("_k_", 0) == 0) continue;
        for (auto& binding : parseKdeEntry(std::string_view(line).substr(equals + 1))) bindings.push_back(binding);
    }
    return bindings;
}

// Qt's key names where they differ from the X keysym names.
std::string keysymNameOfQtKey(std::string_view name) {
    static const std::pair<const char*, const char*> renamed[] = {
        {"Esc", "Escape"},           {"Backspace", "BackSpace"}, {"Del", "Delete"},       {"Ins", "Insert"},
        {"PgUp", "Prior"},           {"PgDown", "Next"},         {"Enter", "KP_Enter"},   {"Space", "space"},
        {"Backtab", "ISO_Left_Tab"}, {"CapsLock", "Caps_Lock"},  {"NumLock", "Num_Lock"}, {"ScrollLock", "Scroll_Lock"},
    };
    for (const auto& [qt, keysym] : renamed)
        if (name == qt) return keysym;
    return std::string(name);
}

} // namespace

std::optional<Binding> parseAccelerator(std::string_view accelerator) {
    Binding binding;
    while (!accelerator.empty() && accelerator.front() == '<') {
        const auto close = accelerator.find('>');
        if (close == std::string_view::npos) return std::nullopt;
        const std::string name = lowerCased(accelerator.substr(1, close - 1));
        accelerator.remove_prefix(close + 1);
        if (name == "shift" || name == "shft")
            binding.modifiers |= Modifiers::shift;
        else if (name == "control" || name == "ctrl" || name == "ctl" || name == "primary")
            binding.modifiers |= Modifiers::control;
        else if (name == "alt" || name == "mod1")
            binding.modifiers |= Modifiers::option;
        else if (name == "super" || name == "mod4" || name == "meta")
            binding.modifiers |= Modifiers::command;
        else if (name != "lock" && name != "mod2") // Caps Lock and Num Lock do not matter
            return std::nullopt;
    }
    if (accelerator.empty() || accelerator == "disabled") return std::nullopt;
    binding.key = std::string(accelerator);
    return binding;
}

std::vector<Binding> parseKdeEntry(std::string_view value) {
    // The active shortcuts end at the first comma, unless that comma is the
    // key itself: "Ctrl+,,Ctrl+,,Settings" (but "Ctrl++,none,Zoom").
    std::size_t end = value.find(',');
    if (end != std::string_view::npos && end > 0 && value[end - 1] == '+' && value.substr(end + 1, 1) == ",") ++end;
    const std::string_view active = value.substr(0, end);

    std::vector<Binding> bindings;
    std::size_t start = 0;
    while (start <= active.size()) {
        auto next = active.find("\\t", start);
        if (next == std::string_view::npos) next = active.size();
        std::string_view shortcut = active.substr(start, next - start);
        start = next + 2;
        if (shortcut.empty() || shortcut == "none") continue;

        Binding binding;
        bool known = true;
        for (auto plus = shortcut.find('+'); plus != std::string_view::npos && plus + 1 < shortcut.size();
             plus = shortcut.find('+')) {
            const std::string_view name = shortcut.substr(0, plus);
            shortcut.remove_prefix(plus + 1);
            if (name == "Ctrl")
                binding.modifiers |= Modifiers::control;
            else if (name == "Alt")
                binding.modifiers |= Modifiers::option;
            else if (name == "Shift")
                binding.modifiers |= Modifiers::shift;
            else if (name == "Meta")
                binding.modifiers |= Modifiers::command;
            else
                known = false;
        }
        if (known && !shortcut.empty()) bindings.push_back({binding.modifiers, keysymNameOfQtKey(shortcut)});
    }
    return bindings;
}

Desktop Desktop::fromEnvironment() {
    Desktop desktop;
    const char* current = std::getenv("XDG_CURRENT_DESKTOP");
    const std::string names = lowerCased(current ? current : "");
    desktop.gnome = names.find("gnome") != std::string::npos;
    desktop.kde = names.find("kde") != std::string::npos;
    const char* config = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    const std::filesystem::path folder = config && *config ? std::filesystem::path(config)
                                         : home            ? std::filesystem::path(home) / ".config"
                                                           : std::filesystem::path();
    if (!folder.empty()) desktop.kdeShortcuts = folder / "kglobalshortcutsrc";
    return desktop;
}

std::vector<Hotkey> list(const Desktop& desktop, const KeyboardLayout& layout) {
    std::vector<Binding> bindings;
    if (desktop.gnome) {
        for (const auto& accelerator : gnomeAccelerators())
            if (auto binding = parseAccelerator(accelerator)) bindings.push_back(std::move(*binding));
    }
    if (desktop.kde && !desktop.kdeShortcuts.empty()) {
        for (auto& binding : kdeBindings(desktop.kdeShortcuts)) bindings.push_back(std::move(binding));
    }
    std::vector<Hotkey> hotkeys;
    for (const auto& binding : bindings) {
        if (const auto code = layout.keyCode(binding.key)) hotkeys.push_back({*code, binding.modifiers});
    }
    return hotkeys;
}

bool isReserved(const Hotkey& hotkey, const Desktop& desktop, const std::optional<KeyboardLayout>& layout) {
    if (!layout || (!desktop.gnome && !desktop.kde)) return false;
    const auto bound = list(desktop, *layout);
    return std::find(bound.begin(), bound.end(), hotkey) != bound.end();
}

bool isReserved(const Hotkey& hotkey) {
    const auto desktop = Desktop::fromEnvironment();
    if (!desktop.gnome && !desktop.kde) return false;
    return isReserved(hotkey, desktop, KeyboardLayout::current());
}

} // namespace tobrin::DesktopShortcuts
