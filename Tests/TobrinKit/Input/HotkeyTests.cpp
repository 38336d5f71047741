#include "TobrinKit/Input/Hotkey.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tobrin {
namespace {

TEST(Modifiers, RawElevenIsControlOptionCommand) {
    const Modifiers eleven{11};
    EXPECT_TRUE(eleven.contains(Modifiers::control));
    EXPECT_TRUE(eleven.contains(Modifiers::option));
    EXPECT_FALSE(eleven.contains(Modifiers::shift));
    EXPECT_TRUE(eleven.contains(Modifiers::command));
    EXPECT_EQ(eleven, Modifiers::control | Modifiers::option | Modifiers::command);
    EXPECT_TRUE(Modifiers{}.isEmpty());
}

TEST(Hotkey, DefaultIsTheFirstPresetAndReadsCtrlAltSuperK) {
    const Hotkey hotkey;
    EXPECT_EQ(hotkey, Hotkey::presets[0]);
    EXPECT_EQ(hotkey.displayString(), "Ctrl+Alt+Super+K");
}

TEST(Hotkey, PresetsAreKSMT) {
    const char* expected[] = {"Ctrl+Alt+Super+K", "Ctrl+Alt+Super+S", "Ctrl+Alt+Super+M", "Ctrl+Alt+Super+T"};
    for (std::size_t i = 0; i < Hotkey::presets.size(); ++i) {
        EXPECT_EQ(Hotkey::presets[i].modifiers.rawValue, 11u);
        EXPECT_EQ(Hotkey::presets[i].displayString(), expected[i]);
    }
}

TEST(Hotkey, ModifiersAreNamedInFixedOrder) {
    EXPECT_EQ((Hotkey{0, Modifiers{15}}).displayString(), "Ctrl+Alt+Shift+Super+A");
    EXPECT_EQ((Hotkey{0, Modifiers::command | Modifiers::shift}).displayString(), "Shift+Super+A");
    EXPECT_EQ((Hotkey{0, Modifiers{}}).displayString(), "A");
}

TEST(Hotkey, LabelPrefersSpecialKeysThenLayoutThenQwertyThenCode) {
    const auto layout = [](std::uint32_t code) -> std::optional<std::string> {
        if (code == 12) return "a"; // an AZERTY layout puts A where QWERTY has Q
        if (code == 13) return "";  // an empty name counts as none
        if (code == 49) return " ";
        if (code == 150) return "ß";
        if (code == 151) return "é";
        if (code == 152) return "ø";
        return std::nullopt;
    };
    const Modifiers control = Modifiers::control;
    EXPECT_EQ((Hotkey{12, control}).displayString(layout), "Ctrl+A");
    EXPECT_EQ((Hotkey{13, control}).displayString(layout), "Ctrl+W");
    EXPECT_EQ((Hotkey{49, control}).displayString(layout), "Ctrl+Space");
    // Full Unicode case mapping, beyond ASCII and beyond one character.
    EXPECT_EQ((Hotkey{150, control}).displayString(layout), "Ctrl+SS");
    EXPECT_EQ((Hotkey{151, control}).displayString(layout), "Ctrl+É");
    EXPECT_EQ((Hotkey{152, control}).displayString(layout), "Ctrl+Ø");
    EXPECT_EQ((Hotkey{200, control}).displayString(layout), "Ctrl+Key 200");
    EXPECT_EQ((Hotkey{200, control}).displayString(), "Ctrl+Key 200");
    EXPECT_EQ((Hotkey{111, control}).displayString(), "Ctrl+F12");
    EXPECT_EQ((Hotkey{90, control}).displayString(), "Ctrl+F20");
    EXPECT_EQ((Hotkey{42, control}).displayString(), "Ctrl+\\");
}

TEST(Hotkey, CodesKeyCodeAndRawModifiers) {
    const Hotkey hotkey{46, Modifiers::control | Modifiers::shift};
    const nlohmann::json json = hotkey;
    EXPECT_EQ(json, nlohmann::json::parse(R"({"keyCode": 46, "modifiers": 5})"));
    EXPECT_EQ(json.get<Hotkey>(), hotkey);
    EXPECT_EQ(nlohmann::json::parse(R"({"keyCode": 4294967295, "modifiers": 0})").get<Hotkey>().keyCode, 4294967295u);
}

TEST(Hotkey, RejectsMissingKeysAndNumbersOutsideUnsigned32Bits) {
    const char* broken[] = {
        R"({"keyCode": 40})",
        R"({"modifiers": 11})",
        R"({"keyCode": -1, "modifiers": 11})",
        R"({"keyCode": 4294967296, "modifiers": 11})",
        R"({"keyCode": 40.5, "modifiers": 11})",
        R"({"keyCode": 40, "modifiers": "11"})",
    };
    for (const char* text : broken) {
        SCOPED_TRACE(text);
        EXPECT_THROW(nlohmann::json::parse(text).get<Hotkey>(), nlohmann::json::exception);
    }
}

} // namespace
} // namespace tobrin
