#include "TobrinKit/Engine/Core/PrintableText.h"

#include <gtest/gtest.h>

#include <string>

namespace tobrin {
namespace {

TEST(PrintableText, EscapesWhatATerminalWouldObeyAndKeepsTheRest) {
    struct Case {
        std::string text;
        std::string shown;
    };
    const Case cases[] = {
        {"Blue Click", "Blue Click"},
        {"Éclair — 静か", "Éclair — 静か"},
        {"\x1b]0;owned\x07\x1b[2J", "\\x1B]0;owned\\x07\\x1B[2J"}, // retitle, then clear
        {std::string("nul\0byte", 8), "nul\\x00byte"},
        {"\u009B31m", "\\u009B31m"},                            // the one-character CSI
        {"abc\xe2\x80\xaegnp.exe", "abc\\u202Egnp.exe"},        // right-to-left override
        {"\xff\xfe bad \xc0\xaf", "\\xFF\\xFE bad \\xC0\\xAF"}, // not UTF-8, an overlong "/"
        {"cut \xe2\x82", "cut \\xE2\\x82"},                     // a sequence cut short
    };
    for (const Case& c : cases) EXPECT_EQ(printable(c.text), c.shown) << c.text;
}

TEST(PrintableText, CutsLongTextAtACharacterBoundary) {
    EXPECT_EQ(printable(std::string(100000, '7'), 40), std::string(40, '7') + "...");
    EXPECT_EQ(printable("abcdé", 5), "abcd...");
    EXPECT_EQ(printable("abcd", 4), "abcd");
}

} // namespace
} // namespace tobrin
