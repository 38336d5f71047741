// Parses arbitrary bytes as a HID report descriptor. Whatever it accepts must
// be consistent: each application collection takes at least two bytes, and
// a descriptor cut short anywhere is refused or declares no more than before.
#include "TobrinKit/Force/Devices/HidReportDescriptor.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using tobrin::HidDescriptorError;
    using tobrin::HidReportDescriptor;
    HidReportDescriptor whole;
    try {
        whole = HidReportDescriptor::parse({data, size});
    } catch (const HidDescriptorError&) {
        return 0;
    }
    if (whole.applications.size() * 2 > size) {
        std::fprintf(stderr, "%zu applications in %zu bytes\n", whole.applications.size(), size);
        std::abort();
    }
    try {
        const auto shorter = HidReportDescriptor::parse({data, size / 2});
        if (shorter.applications.size() > whole.applications.size()) {
            std::fprintf(stderr, "a prefix declares more than the whole\n");
            std::abort();
        }
    } catch (const HidDescriptorError&) {
    }
    return 0;
}
