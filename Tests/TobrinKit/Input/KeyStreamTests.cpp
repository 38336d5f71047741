#include "TobrinKit/Input/KeyStream.h"

#include "KeyRecorder.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <vector>

namespace tobrin {
namespace {

using test::down;
using test::KeyStep;
using test::up;

struct Record {
    std::uint16_t code;
    KeyValue value;
};
constexpr auto press = KeyValue::press;
constexpr auto release = KeyValue::release;
constexpr auto repeat = KeyValue::repeat;

class KeyStreamTest : public ::testing::Test {
protected:
    std::vector<KeyStep> play(const std::vector<Record>& records) {
        recorder.clear();
        for (const auto& record : records) stream.deliver(record.code, record.value, ++time);
        return recorder.steps();
    }

    test::KeyRecorder recorder;
    KeyStream stream{recorder.handler()};
    std::uint64_t time = 0;
};

TEST_F(KeyStreamTest, TurnsRecordsIntoEngineKeyEvents) {
    struct Case {
        const char* name;
        std::vector<Record> records;
        std::vector<KeyStep> expected;
    };
    const Case cases[] = {
        {"a held key repeats: one down, one up",
         {{KEY_A, press}, {KEY_A, repeat}, {KEY_A, press}, {KEY_A, release}},
         {down(0), up(0)}},
        {"releases of keys not held are ignored", {{KEY_B, release}, {KEY_LEFTSHIFT, release}}, {}},
        {"left and right Shift apart",
         {{KEY_LEFTSHIFT, press}, {KEY_RIGHTSHIFT, press}, {KEY_LEFTSHIFT, release}, {KEY_RIGHTSHIFT, release}},
         {down(56), down(60), up(56), up(60)}},
        {"a held modifier repeats",
         {{KEY_LEFTCTRL, press}, {KEY_LEFTCTRL, press}, {KEY_LEFTCTRL, release}},
         {down(59), up(59)}},
        {"Caps Lock is a key like any other", {{KEY_CAPSLOCK, press}, {KEY_CAPSLOCK, release}}, {down(57), up(57)}},
        {"unmapped keys still sound",
         {{KEY_PAUSE, press}, {KEY_PAUSE, release}},
         {down(LinuxKeyCode::unmappedBase + KEY_PAUSE), up(LinuxKeyCode::unmappedBase + KEY_PAUSE)}},
        {"codes past the table are dropped", {{LinuxKeyCode::count, press}}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(play(c.records), c.expected);
        stream.reset();
    }
}

TEST_F(KeyStreamTest, ResetForgetsHeldKeysSoTheNextPressSounds) {
    play({{KEY_A, press}, {KEY_LEFTSHIFT, press}});
    stream.reset();
    EXPECT_EQ(play({{KEY_A, press}, {KEY_LEFTSHIFT, press}}), (std::vector<KeyStep>{down(0), down(56)}));
    EXPECT_EQ(recorder.events().back().time, time) << "each event carries the time it was delivered at";
}

TEST_F(KeyStreamTest, TheShortcutsKeyIsKeptFromTheHandlerAndRunsItsAction) {
    int pressed = 0;
    stream.setShortcut(Hotkey{}, [&] { ++pressed; }); // Ctrl+Alt+Super+K
    const std::vector<Record> shortcut = {{KEY_RIGHTCTRL, press},  {KEY_LEFTALT, press},   {KEY_LEFTMETA, press},
                                          {KEY_K, press},          {KEY_K, press},         {KEY_K, release},
                                          {KEY_LEFTMETA, release}, {KEY_LEFTALT, release}, {KEY_RIGHTCTRL, release}};
    EXPECT_EQ(play(shortcut), (std::vector<KeyStep>{down(62), down(58), down(55), up(55), up(58), up(62)}));
    EXPECT_EQ(pressed, 1);

    // With another modifier held too, or without the shortcut, K sounds.
    const std::vector<Record> withShift = {{KEY_LEFTCTRL, press},  {KEY_LEFTALT, press}, {KEY_LEFTMETA, press},
                                           {KEY_LEFTSHIFT, press}, {KEY_K, press},       {KEY_K, release}};
    EXPECT_EQ(play(withShift).at(4), down(40));
    stream.reset();
    stream.setShortcut(std::nullopt, {});
    EXPECT_EQ(play(shortcut).at(3), down(40));
    EXPECT_EQ(pressed, 1);
}

} // namespace
} // namespace tobrin
