#include "LoginItem.h"

#include "TobrinKit/Engine/Core/OutputFile.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tobrin::app {
namespace {

std::filesystem::path configFolder() {
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/') return xdg;
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home ? home : "") / ".config";
}

// An Exec argument: quoted when it holds anything but plain characters, with
// the four characters the format reserves inside quotes escaped; a percent
// sign is a field code unless doubled.
std::string execArgument(const std::string& path) {
    std::string escaped;
    bool needsQuotes = path.empty();
    for (char c : path) {
        if (c == '%') {
            escaped += "%%";
            continue;
        }
        if (c == '"' || c == '`' || c == '$' || c == '\\') escaped += '\\';
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '/' || c == '.' || c == '-' || c == '_' || c == '+' ||
              c == '%'))
            needsQuotes = true;
        escaped += c;
    }
    return needsQuotes ? "\"" + escaped + "\"" : escaped;
}

std::filesystem::path thisExecutable() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::path("tobrin") : path;
}

} // namespace

LoginItem::LoginItem(std::filesystem::path entry, std::filesystem::path executable)
    : entry_(std::move(entry)), executable_(executable.empty() ? thisExecutable() : std::move(executable)) {}

std::filesystem::path LoginItem::defaultEntry() { return configFolder() / "autostart" / "tobrin.desktop"; }

std::string LoginItem::entryText(const std::filesystem::path& executable) {
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Tobrin\n"
           "Comment=Keyboard sounds while you type\n"
           "Exec=" +
           execArgument(executable.string()) +
           "\n"
           "Icon=input-keyboard\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

bool LoginItem::isEnabled() const {
    std::ifstream in(entry_);
    if (!in) return false;
    std::string line;
    bool inEntry = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.front() == '[') {
            inEntry = line == "[Desktop Entry]";
            continue;
        }
        if (!inEntry) continue;
        // Either key switches an entry off without removing it (a desktop's
        // own start-up settings write them).
        if (line == "Hidden=true" || line == "X-GNOME-Autostart-enabled=false") return false;
    }
    return true;
}

std::string LoginItem::setEnabled(bool on) const {
    try {
        if (!on) {
            std::filesystem::remove(entry_);
            return {};
        }
        std::filesystem::create_directories(entry_.parent_path());
        const std::string text = entryText(executable_);
        OutputFile::write(entry_, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return {};
}

} // namespace tobrin::app
