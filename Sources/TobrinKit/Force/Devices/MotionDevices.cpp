// Walking /sys for hidraw and IIO accelerometers.
#include "TobrinKit/Force/Devices/MotionDevices.h"

#include "TobrinKit/Force/Devices/HidReportDescriptor.h"
#include "TobrinKit/Force/Devices/HidrawMotionSource.h"
#include "TobrinKit/Force/Devices/IioMotionSource.h"

#include <algorithm>
#include <fstream>
#include <mutex>

namespace tobrin::MotionDevices {
namespace {

namespace fs = std::filesystem;

std::mutex problemsLock;
std::vector<std::string> problems;

void noteProblem(std::string problem) {
    std::lock_guard guard(problemsLock);
    problems.push_back(std::move(problem));
}

// Entries of `folder` named prefix + number, in number order.
std::vector<fs::path> numbered(const fs::path& folder, const std::string& prefix) {
    std::vector<std::pair<unsigned long, fs::path>> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        const std::string name = entry.path().filename().string();
        if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size() ||
            name.size() > prefix.size() + 9)
            continue;
        if (!std::all_of(name.begin() + std::ptrdiff_t(prefix.size()), name.end(),
                         [](char c) { return c >= '0' && c <= '9'; }))
            continue;
        found.emplace_back(std::stoul(name.substr(prefix.size())), entry.path());
    }
    std::sort(found.begin(), found.end());
    std::vector<fs::path> paths;
    for (auto& [number, path] : found) paths.push_back(std::move(path));
    return paths;
}

} // namespace

std::optional<fs::path> findHidraw(const fs::path& root) {
    for (const auto& device : numbered(root / "sys/class/hidraw", "hidraw")) {
        std::ifstream in(device / "device/report_descriptor", std::ios::binary);
        if (!in) continue;
        // One more than allowed, so a longer descriptor is refused, not cut.
        std::vector<std::uint8_t> bytes(HidReportDescriptor::maximumSize + 1);
        in.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(bytes.size()));
        bytes.resize(std::size_t(in.gcount()));
        try {
            if (HidReportDescriptor::parse(bytes).declares(accelerometerUsage)) return root / "dev" / device.filename();
        } catch (const HidDescriptorError& error) {
            noteProblem(device.filename().string() + ": " + error.what());
        }
    }
    return std::nullopt;
}

std::optional<fs::path> findIio(const fs::path& root) {
    for (const auto& device : numbered(root / "sys/bus/iio/devices", "iio:device")) {
        try {
            if (IioAccelerometer::read(device, root / "dev")) return device;
        } catch (const IioError& error) {
            noteProblem(device.filename().string() + ": " + error.what());
        }
    }
    return std::nullopt;
}

std::vector<std::string> lastProblems() {
    std::lock_guard guard(problemsLock);
    return problems;
}

std::unique_ptr<MotionSource> find(const fs::path& root) {
    {
        std::lock_guard guard(problemsLock);
        problems.clear();
    }
    if (auto node = findHidraw(root)) return std::make_unique<HidrawMotionSource>(*node);
    if (auto folder = findIio(root)) {
        // Read again: findIio only says which one; this keeps its description.
        return std::make_unique<IioMotionSource>(*IioAccelerometer::read(*folder, root / "dev"));
    }
    return nullptr;
}

void add(const fs::path& root) {
    MotionSources::add({"devices", [root] { return find(root); }});
}

} // namespace tobrin::MotionDevices
