// Reading an IIO accelerometer's buffer.
#include "TobrinKit/Force/Devices/IioMotionSource.h"

#include "TobrinKit/Force/ForceSensor.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>

namespace tobrin {
namespace {

constexpr double standardGravity = 9.80665; // m/s² per g; IIO reports m/s²

namespace fs = std::filesystem;

// A sysfs attribute's text without its line end; none when unreadable.
std::optional<std::string> attribute(const fs::path& file) {
    std::ifstream in(file);
    if (!in) return std::nullopt;
    std::string text(256, '\0');
    in.read(text.data(), std::streamsize(text.size()));
    text.resize(std::size_t(in.gcount()));
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

bool setAttribute(const fs::path& file, std::string_view value) {
    std::ofstream out(file);
    out << value << '\n';
    out.flush();
    return bool(out);
}

double number(const fs::path& file, const std::string& text) {
    std::size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size()) throw IioError(file.string() + ": not a number");
    return value;
}

// A channel of the buffer, or none when its scan element is not there.
std::optional<IioChannel> channel(const fs::path& folder, const std::string& name, const std::string& family) {
    const fs::path elements = folder / "scan_elements";
    const auto type = attribute(elements / ("in_" + name + "_type"));
    const auto index = attribute(elements / ("in_" + name + "_index"));
    if (!type || !index || !fs::exists(elements / ("in_" + name + "_en"))) return std::nullopt;
    IioChannel result;
    result.name = name;
    result.type = IioScanType::parse(*type);
    const double position = number(elements / ("in_" + name + "_index"), *index);
    if (position < 0 || position > 1023 || position != double(unsigned(position)))
        throw IioError((elements / ("in_" + name + "_index")).string() + ": not an index");
    result.index = unsigned(position);
    if (family.empty()) return result;
    // Per channel, else shared by the family ("in_accel_scale").
    for (const auto& [field, value] :
         {std::pair{std::string("scale"), &result.scale}, std::pair{std::string("offset"), &result.offset}}) {
        const fs::path own = folder / ("in_" + name + "_" + field), shared = folder / ("in_" + family + "_" + field);
        if (const auto text = attribute(own))
            *value = number(own, *text);
        else if (const auto sharedText = attribute(shared))
            *value = number(shared, *sharedText);
        else if (field == "scale")
            throw IioError(folder.string() + ": no scale for " + name);
    }
    return result;
}

} // namespace

std::optional<IioAccelerometer> IioAccelerometer::read(const fs::path& folder, const fs::path& devices) {
    std::vector<IioChannel> channels;
    for (const char* axis : {"accel_x", "accel_y", "accel_z"}) {
        auto found = channel(folder, axis, "accel");
        if (!found) return std::nullopt;
        channels.push_back(std::move(*found));
    }
    const bool stamped = bool(channel(folder, "timestamp", ""));
    if (stamped) channels.push_back(*channel(folder, "timestamp", ""));
    IioAccelerometer device;
    device.folder = folder;
    device.node = devices / folder.filename();
    device.layout = IioScanLayout(std::move(channels));
    device.x = device.layout.find("accel_x");
    device.y = device.layout.find("accel_y");
    device.z = device.layout.find("accel_z");
    if (stamped) device.timestamp = device.layout.find("timestamp");
    return device;
}

std::array<double, 3> IioAccelerometer::acceleration(std::span<const std::uint8_t> record) const {
    return {layout.value(record, x) / standardGravity, layout.value(record, y) / standardGravity,
            layout.value(record, z) / standardGravity};
}

IioMotionSource::IioMotionSource(IioAccelerometer device) : device_(std::move(device)) {}

IioMotionSource::IioMotionSource(IioAccelerometer device, int fd)
    : device_(std::move(device)), fd_(fd), ownsNode_(false) {}

IioMotionSource::~IioMotionSource() {
    stop();
    if (fd_ >= 0) ::close(fd_);
}

bool IioMotionSource::switchOn(std::string& error) {
    const fs::path elements = device_.folder / "scan_elements";
    // The buffer's layout must be exactly the channels decoded here.
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(elements, ignored)) {
        const std::string name = entry.path().filename().string();
        if (name.size() > 3 && name.compare(name.size() - 3, 3, "_en") == 0) setAttribute(entry.path(), "0");
    }
    for (const auto& channel : device_.layout.channels())
        if (!setAttribute(elements / ("in_" + channel.name + "_en"), "1")) {
            error = "Couldn't enable " + channel.name + " of " + device_.folder.string() + ": " + std::strerror(errno);
            return false;
        }
    // Time stamps are only used on the clock of key events.
    if (device_.timestamp) {
        setAttribute(device_.folder / "current_timestamp_clock", "monotonic");
        stampsMonotonic_ = attribute(device_.folder / "current_timestamp_clock") == "monotonic";
    }
    if (fs::exists(device_.folder / "sampling_frequency")) setAttribute(device_.folder / "sampling_frequency", "1000");
    if (!setAttribute(device_.folder / "buffer" / "enable", "1")) {
        error = "Couldn't switch on the buffer of " + device_.folder.string() + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void IioMotionSource::switchOff() { setAttribute(device_.folder / "buffer" / "enable", "0"); }

bool IioMotionSource::start(ReportHandler handler) {
    if (running_) return true;
    std::string error;
    if (device_.layout.recordSize() == 0) error = "no scan layout";
    if (error.empty() && switchOn(error)) {
        if (ownsNode_) {
            fd_ = ::open(device_.node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            if (fd_ < 0) error = "Couldn't open " + device_.node.string() + ": " + std::strerror(errno);
        } else if (fd_ < 0) {
            error = "the motion sensor's descriptor was closed";
        }
        handler_ = std::move(handler);
        pending_.clear();
        if (error.empty() &&
            reader_.start(
                fd_, [this](std::span<const std::uint8_t> bytes, std::uint64_t arrival) { take(bytes, arrival); },
                error)) {
            running_ = true;
            std::lock_guard guard(errorLock_);
            lastError_.clear();
            return true;
        }
        if (ownsNode_ && fd_ >= 0) ::close(fd_), fd_ = -1;
        switchOff();
    }
    std::lock_guard guard(errorLock_);
    lastError_ = error;
    return false;
}

void IioMotionSource::stop() {
    if (!running_) return;
    reader_.stop();
    running_ = false;
    ::close(fd_);
    fd_ = -1;
    switchOff();
}

void IioMotionSource::take(std::span<const std::uint8_t> bytes, std::uint64_t arrival) {
    const std::size_t size = device_.layout.recordSize();
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
    std::size_t at = 0;
    for (; pending_.size() - at >= size; at += size) {
        const std::span record(pending_.data() + at, size);
        const auto [x, y, z] = device_.acceleration(record);
        std::uint64_t stamp = arrival;
        if (device_.timestamp && stampsMonotonic_) {
            const std::int64_t sampled = device_.layout.raw(record, *device_.timestamp);
            if (sampled > 0) stamp = std::uint64_t(sampled);
        }
        const auto report = ForceSensor::encodeReport({x, y, z});
        handler_(report, stamp);
    }
    pending_.erase(pending_.begin(), pending_.begin() + std::ptrdiff_t(at));
}

std::string IioMotionSource::lastError() const {
    std::lock_guard guard(errorLock_);
    return lastError_;
}

} // namespace tobrin
