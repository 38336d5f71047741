#include "SettingsFile.h"

#include "TobrinKit/Engine/Core/OutputFile.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin::app {
namespace {

// A settings file is a few hundred bytes; anything far larger is not one, and
// reading it whole would cost memory for nothing.
constexpr std::size_t largestFile = 64 * 1024;

std::filesystem::path homeFolder() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
    return {};
}

std::string systemError(const std::string& what) { return what + ": " + std::strerror(errno); }

// The file's bytes, or why they could not be read.
std::optional<std::string> readWhole(const std::filesystem::path& file, std::string& problem) {
    // O_NONBLOCK: a FIFO planted at the path must not hang the start-up.
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        if (errno != ENOENT) problem = systemError("can't be opened");
        return std::nullopt;
    }
    struct stat info {};
    std::optional<std::string> bytes;
    if (::fstat(fd, &info) != 0) {
        problem = systemError("can't be examined");
    } else if (!S_ISREG(info.st_mode)) {
        problem = "is not a regular file";
    } else if (std::size_t(info.st_size) > largestFile) {
        problem = "is far too large to be a settings file";
    } else {
        std::string text(std::size_t(info.st_size), '\0');
        std::size_t got = 0;
        while (got < text.size()) {
            const ssize_t n = ::read(fd, text.data() + got, text.size() - got);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got += std::size_t(n);
        }
        if (got == text.size())
            bytes = std::move(text);
        else
            problem = systemError("can't be read");
    }
    ::close(fd);
    return bytes;
}

std::string timeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

} // namespace

SettingsFile::SettingsFile(std::filesystem::path file) : file_(std::move(file)) {}

std::filesystem::path SettingsFile::defaultPath() {
    std::filesystem::path config;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/')
        config = xdg;
    else
        config = homeFolder() / ".config";
    return config / "tobrin" / "settings.json";
}

SettingsFile::Loaded SettingsFile::load() const {
    Loaded loaded;
    std::string problem;
    std::error_code error;
    const auto status = std::filesystem::symlink_status(file_, error);
    if (status.type() == std::filesystem::file_type::not_found) return loaded;

    const auto text = readWhole(file_, problem);
    if (text) {
        const auto json = nlohmann::json::parse(*text, nullptr, false);
        if (json.is_discarded()) {
            problem = text->empty() ? "is empty" : "is not valid JSON";
        } else if (!json.is_object()) {
            problem = "does not hold a JSON object";
        } else {
            // Each key on its own: a bad one costs only itself.
            if (const auto found = json.find("engineSettings"); found != json.end()) {
                try {
                    loaded.state.settings = found->get<EngineSettings>();
                } catch (const nlohmann::json::exception& failure) {
                    problem = std::string("has unusable engine settings (") + failure.what() + ")";
                }
            }
            if (const auto found = json.find("selectedPack"); found != json.end()) {
                if (found->is_string())
                    loaded.state.selectedPack = found->get<std::string>();
                else if (problem.empty())
                    problem = "has a selected pack that is not text";
            }
        }
    }
    if (problem.empty()) return loaded;
    loaded.problem = problem;
    loaded.keptAside = setAside();
    return loaded;
}

std::optional<std::filesystem::path> SettingsFile::setAside() const {
    const std::string base = file_.string() + ".corrupt-" + timeStamp();
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name = attempt == 0 ? base : base + "-" + std::to_string(attempt);
        // Never replaces: an earlier file kept aside stays.
        if (::renameat2(AT_FDCWD, file_.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) return name;
        if (errno != EEXIST) return std::nullopt;
    }
    return std::nullopt;
}

std::string SettingsFile::save(const StoredState& state) const {
    nlohmann::json json = nlohmann::json::object();
    json["engineSettings"] = state.settings;
    if (state.selectedPack) json["selectedPack"] = *state.selectedPack;
    const std::string text = json.dump(2) + "\n";
    try {
        std::filesystem::create_directories(file_.parent_path());
        OutputFile::write(file_, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return {};
}

} // namespace tobrin::app
