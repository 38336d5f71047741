#include "TobrinKit/Input/Hotkey.h"

#include "TobrinKit/Engine/Core/KeyCode.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tobrin {
namespace {

TEST(Hotkey, NamesTheModifiersInFixedOrderThenTheKey) {
    const auto layout = [](std::uint32_t code) -> std::optional<std::string> {
        if (code == KeyCode::q) return "a"; // an AZERTY layout puts A where QWERTY has Q
        if (code == KeyCode::w) return "";  // an empty name counts as none
        if (code == KeyCode::space) return " ";
        if (code == 150) return "ß";
        if (code == 151) return "é";
        if (code == 152) return "ø";
        return std::nullopt;
    };
    const Modifiers control = Modifiers::control;
    struct Case {
        Hotkey hotkey;
        bool withLayout;
        const char* text;
    };
    const Case cases[] = {
        {Hotkey{}, false, "Ctrl+Alt+Super+K"},
        {{KeyCode::a, Modifiers{15}}, false, "Ctrl+Alt+Shift+Super+A"},
        {{KeyCode::a, Modifiers::command | Modifiers::shift}, false, "Shift+Super+A"},
        {{KeyCode::a, {}}, false, "A"},
        // The special-key table first, then the layout, the US label, the code.
        {{KeyCode::space, control}, true, "Ctrl+Space"},
        {{KeyCode::q, control}, true, "Ctrl+A"},
        {{KeyCode::w, control}, true, "Ctrl+W"},
        // Full Unicode case mapping, beyond ASCII and beyond one character.
        {{150, control}, true, "Ctrl+SS"},
        {{151, control}, true, "Ctrl+É"},
        {{152, control}, true, "Ctrl+Ø"},
        {{200, control}, true, "Ctrl+Key 200"},
        {{200, control}, false, "Ctrl+Key 200"},
        {{KeyCode::f12, control}, false, "Ctrl+F12"},
        {{KeyCode::f20, control}, false, "Ctrl+F20"},
        {{KeyCode::backslash, control}, false, "Ctrl+\\"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.hotkey.displayString(c.withLayout ? Hotkey::KeyNamer(layout) : Hotkey::KeyNamer()), c.text);
    }
}

TEST(Hotkey, CodesKeyCodeAndRawModifiersAndRejectsAnythingElse) {
    const Hotkey hotkey{KeyCode::m, Modifiers::control | Modifiers::shift};
    EXPECT_EQ(nlohmann::json(hotkey), nlohmann::json::parse(R"({"keyCode": 46, "modifiers": 5})"));
    EXPECT_EQ(nlohmann::json(hotkey).get<Hotkey>(), hotkey);
    EXPECT_EQ(nlohmann::json::parse(R"({"keyCode": 4294967295, "modifiers": 0})").get<Hotkey>().keyCode, 4294967295u);
    for (const char* broken : {
             R"({"keyCode": 40})",
             R"({"modifiers": 11})",
             R"({"keyCode": -1, "modifiers": 11})",
             R"({"keyCode": 4294967296, "modifiers": 11})",
             R"({"keyCode": 40.5, "modifiers": 11})",
             R"({"keyCode": 40, "modifiers": "11"})",
         }) {
        EXPECT_THROW(nlohmann::json::parse(broken).get<Hotkey>(), nlohmann::json::exception) << broken;
    }
}

} // namespace
} // namespace tobrin
