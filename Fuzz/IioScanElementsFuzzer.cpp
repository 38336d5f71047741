// Parses arbitrary text as IIO scan elements: lines of "TYPE INDEX" up to an
// empty line, then the bytes of one record. Accepted types must decode values
// within their bits, and the layout must place every channel inside the
// record, aligned and without overlap.
#include "TobrinKit/Force/Devices/IioScanElements.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

[[noreturn]] void fail(const char* problem) {
    std::fprintf(stderr, "%s\n", problem);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tobrin;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<IioChannel> channels;
    while (!text.empty() && channels.size() < 16) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty()) break;
        const std::size_t space = line.rfind(' ');
        if (space == std::string_view::npos) return 0;
        IioChannel channel;
        try {
            channel.type = IioScanType::parse(line.substr(0, space));
        } catch (const IioError&) {
            return 0;
        }
        channel.name = "c" + std::to_string(channels.size());
        channel.index = 0;
        for (char c : line.substr(space + 1)) channel.index = (channel.index * 10 + unsigned(c - '0')) % 1024;
        channels.push_back(channel);
    }
    if (channels.empty()) return 0;
    IioScanLayout layout;
    try {
        layout = IioScanLayout(channels);
    } catch (const IioError&) {
        return 0;
    }
    std::vector<std::uint8_t> record(text.begin(), text.end());
    record.resize(layout.recordSize());
    std::size_t previousEnd = 0;
    for (std::size_t i = 0; i < layout.channels().size(); ++i) {
        const auto& type = layout.channels()[i].type;
        const std::size_t at = layout.offset(i);
        if (at < previousEnd || at % type.size() != 0 || at + type.size() > layout.recordSize())
            fail("channel placed outside the record, misaligned or overlapping");
        previousEnd = at + type.size();
        const std::int64_t value = layout.raw(record, i);
        if (type.bits < 64) {
            // 2^(bits - 1): 2^bits itself does not fit for 63 bits.
            const std::int64_t half = std::int64_t(1) << (type.bits - 1);
            const bool fits =
                type.isSigned ? value >= -half && value < half : value >= 0 && (std::uint64_t(value) >> type.bits) == 0;
            if (!fits) fail("decoded value does not fit its bits");
        }
    }
    return 0;
}
