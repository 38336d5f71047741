#include "TobrinKit/Engine/Core/PrintableText.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace tobrin {

namespace {

// The length of the valid UTF-8 sequence at `at` and its code point, or 0
// when the byte there does not start one (overlong forms and surrogates
// included, so a byte sequence is never taken for a character it is not).
std::size_t sequence(std::string_view text, std::size_t at, char32_t& point) {
    const auto byte = static_cast<unsigned char>(text[at]);
    std::size_t length = 0;
    char32_t minimum = 0;
    if (byte < 0x80) {
        point = byte;
        return 1;
    }
    if (byte >= 0xC2 && byte <= 0xDF) {
        length = 2;
        minimum = 0x80;
    } else if (byte >= 0xE0 && byte <= 0xEF) {
        length = 3;
        minimum = 0x800;
    } else if (byte >= 0xF0 && byte <= 0xF4) {
        length = 4;
        minimum = 0x10000;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    point = byte & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[at + i]);
        if ((next & 0xC0) != 0x80) return 0;
        point = (point << 6) | (next & 0x3F);
    }
    if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return 0;
    return length;
}

bool isHidden(char32_t point) {
    return (point >= 0x80 && point <= 0x9F) || point == 0x200E || point == 0x200F ||
           (point >= 0x2028 && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
}

void appendEscape(std::string& out, const char* format, unsigned value) {
    char escape[8];
    const int length = std::snprintf(escape, sizeof escape, format, value);
    out.append(escape, std::size_t(length));
}

} // namespace

std::string printable(std::string_view text, std::size_t limit) {
    std::string out;
    out.reserve(std::min(text.size(), limit) + 3);
    std::size_t at = 0;
    while (at < text.size()) {
        char32_t point = 0;
        const std::size_t length = sequence(text, at, point);
        if (at + std::max<std::size_t>(length, 1) > limit) {
            out += "...";
            break;
        }
        if (length == 0) {
            appendEscape(out, "\\x%02X", static_cast<unsigned char>(text[at]));
            ++at;
            continue;
        }
        if (point < 0x20 || point == 0x7F) {
            appendEscape(out, "\\x%02X", unsigned(point));
        } else if (isHidden(point)) {
            appendEscape(out, "\\u%04X", unsigned(point));
        } else {
            out.append(text.substr(at, length));
        }
        at += length;
    }
    return out;
}

} // namespace tobrin
