#pragma once

#include <filesystem>
#include <string>

namespace tobrin::app {

// Starting Tobrin when the user logs in: an XDG autostart entry,
// $XDG_CONFIG_HOME/autostart/tobrin.desktop, which every desktop that follows
// the XDG autostart convention runs at login. Registered means the entry is
// there and not hidden or disabled. Stateless: every call looks at the disk.
class LoginItem {
public:
    // `executable` is what the entry starts (this program, by default).
    explicit LoginItem(std::filesystem::path entry = defaultEntry(), std::filesystem::path executable = {});

    // $XDG_CONFIG_HOME/autostart/tobrin.desktop (~/.config when unset).
    static std::filesystem::path defaultEntry();

    bool isEnabled() const;
    // Writes or removes the entry. Returns why it failed, or empty.
    std::string setEnabled(bool on) const;

    // The entry's text for `executable`, quoted as the desktop entry format asks.
    static std::string entryText(const std::filesystem::path& executable);

    const std::filesystem::path& entry() const { return entry_; }

private:
    std::filesystem::path entry_;
    std::filesystem::path executable_;
};

} // namespace tobrin::app
