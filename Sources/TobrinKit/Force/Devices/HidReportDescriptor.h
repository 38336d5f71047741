#pragma once

// What a HID report descriptor declares at its top level: the usage (page
// and usage) of each application collection. The motion sensor is the device
// with an application collection of usage page 0xFF00, usage 3. The parser
// reads short and long items, keeps the global state with push and pop and
// refuses anything malformed with a clear message; it never reads past the
// bytes it is given. Plain functions, no state.

#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace tobrin {

class HidDescriptorError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct HidUsage {
    std::uint16_t page = 0;
    std::uint16_t usage = 0;
    bool operator==(const HidUsage&) const = default;
};

struct HidReportDescriptor {
    // The kernel's limit (HID_MAX_DESCRIPTOR_SIZE); longer is refused.
    static constexpr std::size_t maximumSize = 4096;
    // Collections and pushes nest at most this deep.
    static constexpr int maximumDepth = 32;

    // Usages of the top-level application collections, in order.
    std::vector<HidUsage> applications;

    bool declares(HidUsage usage) const;

    // Throws HidDescriptorError naming the byte offset and the problem.
    static HidReportDescriptor parse(std::span<const std::uint8_t> bytes);
};

// The laptop accelerometer's top-level usage.
inline constexpr HidUsage accelerometerUsage{0xFF00, 3};

} // namespace tobrin
