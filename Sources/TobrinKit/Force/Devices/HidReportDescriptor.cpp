// Reading a HID report descriptor's items (HID 1.11, section 6.2.2).
#include "TobrinKit/Force/Devices/HidReportDescriptor.h"

#include <algorithm>
#include <string>

namespace tobrin {
namespace {

enum ItemType : std::uint8_t { mainItem = 0, globalItem = 1, localItem = 2, reservedItem = 3 };

// Tags of the items the parser acts on.
constexpr std::uint8_t collectionTag = 0xA, endCollectionTag = 0xC;     // main
constexpr std::uint8_t usagePageTag = 0x0, pushTag = 0xA, popTag = 0xB; // global
constexpr std::uint8_t usageTag = 0x0;                                  // local
constexpr std::uint32_t applicationCollection = 0x01;

[[noreturn]] void refuse(std::size_t offset, const std::string& problem) {
    throw HidDescriptorError("report descriptor, byte " + std::to_string(offset) + ": " + problem);
}

} // namespace

bool HidReportDescriptor::declares(HidUsage usage) const {
    return std::find(applications.begin(), applications.end(), usage) != applications.end();
}

HidReportDescriptor HidReportDescriptor::parse(std::span<const std::uint8_t> bytes) {
    if (bytes.size() > maximumSize)
        throw HidDescriptorError("report descriptor of " + std::to_string(bytes.size()) + " bytes (at most " +
                                 std::to_string(maximumSize) + ")");
    HidReportDescriptor result;
    std::uint16_t usagePage = 0;
    std::vector<std::uint16_t> pushed;
    // Local: the first usage since the last main item, which a collection
    // takes; a four-byte usage carries its own page in the high half, a shorter
    // one takes the page in effect at the main item.
    std::uint32_t firstUsage = 0;
    bool haveUsage = false, firstUsageHasPage = false;
    int depth = 0;

    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t start = at;
        const std::uint8_t prefix = bytes[at++];
        if (prefix == 0xFE) { // long item: size, tag, data; none is used here
            if (bytes.size() - at < 2) refuse(start, "long item cut short");
            const std::size_t size = bytes[at];
            at += 2;
            if (bytes.size() - at < size) refuse(start, "long item cut short");
            at += size;
            continue;
        }
        const std::size_t size = (prefix & 3) == 3 ? 4 : (prefix & 3);
        const auto type = ItemType((prefix >> 2) & 3);
        const std::uint8_t tag = prefix >> 4;
        if (bytes.size() - at < size) refuse(start, "item cut short");
        std::uint32_t data = 0;
        for (std::size_t i = 0; i < size; ++i) data |= std::uint32_t(bytes[at + i]) << (8 * i);
        at += size;

        switch (type) {
        case mainItem:
            if (tag == collectionTag) {
                if (depth >= maximumDepth) refuse(start, "collections nested too deep");
                if (depth == 0 && data == applicationCollection)
                    result.applications.push_back(
                        firstUsageHasPage ? HidUsage{std::uint16_t(firstUsage >> 16), std::uint16_t(firstUsage)}
                                          : HidUsage{usagePage, std::uint16_t(firstUsage)});
                ++depth;
            } else if (tag == endCollectionTag) {
                if (depth == 0) refuse(start, "end of a collection that was not opened");
                --depth;
            }
            haveUsage = false; // locals last until the next main item
            firstUsage = 0;
            firstUsageHasPage = false;
            break;
        case globalItem:
            if (tag == usagePageTag) {
                usagePage = std::uint16_t(data);
            } else if (tag == pushTag) {
                if (int(pushed.size()) >= maximumDepth) refuse(start, "global state pushed too deep");
                pushed.push_back(usagePage);
            } else if (tag == popTag) {
                if (pushed.empty()) refuse(start, "pop without a push");
                usagePage = pushed.back();
                pushed.pop_back();
            }
            break;
        case localItem:
            if (tag == usageTag && !haveUsage) {
                haveUsage = true;
                firstUsage = data;
                firstUsageHasPage = size == 4;
            }
            break;
        case reservedItem: refuse(start, "reserved item type");
        }
    }
    if (depth != 0) refuse(bytes.size(), "collection not closed");
    return result;
}

} // namespace tobrin
