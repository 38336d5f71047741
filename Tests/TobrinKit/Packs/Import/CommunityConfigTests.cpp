// The community config decoder, the scan-code table and file ranges.
#include "TobrinKit/Packs/Import/CommunityConfig.h"
#include "TobrinKit/Packs/Import/ScanCodes.h"

#include "Support/SoundFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

namespace tobrin {
namespace {

TEST(CommunityConfig, AcceptsVersionsOneAndTwoWithTheirRequiredKeysAndRefusesTheRest) {
    const std::string v1 =
        R"("name":"P","key_define_type":"single","includes_numpad":false,"sound":"s.ogg","defines":{})";
    const std::string v2 = R"("name":"P","key_define_type":"multi","sound":"s.ogg","soundup":"u.ogg","defines":{})";
    struct Case {
        std::string json;
        std::string error; // "(no error)": decodes
    };
    const Case cases[] = {
        {"{" + v1 + "}", "(no error)"},
        {"{" + v1 + R"(,"version":1,"_zip":1,"tags":["x"],"group":null})", "(no error)"},
        {"{" + v2 + R"(,"version":2})", "(no error)"},
        {R"({"version":2,"name":"P","key_define_type":"multiple","sound":"s","soundup":"u","defines":{}})",
         "(no error)"},
        {"{" + v1 + R"(,"version":"2"})", "unsupported \"version\" \"2\""},
        {"{" + v1 + R"(,"version":3})", "unsupported \"version\" 3"},
        {"{" + v1 + R"(,"version":2})", "\"soundup\" is missing"},
        {R"({"name":"P","key_define_type":"single","sound":"s","defines":{}})", "\"includes_numpad\" is missing"},
        {R"({"name":"P","key_define_type":"both","includes_numpad":1,"sound":"s","defines":{}})",
         "\"single\" or \"multi\""},
        {R"({"name":7,"key_define_type":"single","includes_numpad":1,"sound":"s","defines":{}})",
         "\"name\" must be a string"},
        {R"({"name":"P","key_define_type":"single","includes_numpad":1,"sound":"s","defines":[]})",
         "\"defines\" must be an object"},
        {"[1]", "must be a JSON object"},
        {"{", "parse error"},
    };
    for (const Case& test : cases) {
        EXPECT_THAT(test::errorOf<CommunityConfig::DecodeError>([&] { CommunityConfig::decode(test.json); }),
                    ::testing::HasSubstr(test.error))
            << test.json;
    }
}

TEST(CommunityConfig, ReadsEntriesAndSetsAsideThoseItCannotUse) {
    const auto single = CommunityConfig::decode(R"({"name":"P","key_define_type":"single","includes_numpad":false,
        "sound":"s.ogg","m_author":"Ann","defines":{"30":[100,50.5],"30-up":[200,40],"31":null,"32":[5],"33":[1,0],
        "34":"a.ogg","x":[1,2],"70000":[1,2],"35":[-1,3]}})");
    EXPECT_EQ(single.author, "Ann");
    using Entry = CommunityConfig::Entry;
    using Segment = CommunityConfig::Segment;
    EXPECT_EQ(single.entries, (std::vector<Entry>{{30, false, std::nullopt, Segment{100, 50.5}},
                                                  {30, true, std::nullopt, Segment{200, 40}},
                                                  {31, false, std::nullopt, std::nullopt}}));
    EXPECT_EQ(single.skipped.size(), 6u); // 32, 33, 34, x, 70000, 35

    const auto multi = CommunityConfig::decode(R"({"name":"P","key_define_type":"multi","includes_numpad":false,
        "sound":"","defines":{"57":"space key.mp3","57-up":"","28":null,"14":[1,2]}})");
    EXPECT_EQ(multi.entries, (std::vector<Entry>{{28, false, std::nullopt, std::nullopt},
                                                 {57, false, std::string("space key.mp3"), std::nullopt},
                                                 {57, true, std::nullopt, std::nullopt}}));
    EXPECT_EQ(multi.skipped, std::vector<std::string>{"key \"14\": must name a file, not array"});
}

TEST(CommunityConfig, ExpandsRangesOfFiles) {
    EXPECT_EQ(expandRange("press/G{0-2}.wav"),
              (std::vector<std::string>{"press/G0.wav", "press/G1.wav", "press/G2.wav"}));
    EXPECT_EQ(expandRange("plain {x}.ogg"), std::vector<std::string>{"plain {x}.ogg"});
    EXPECT_EQ(expandRange("a{3-1}.ogg"), std::vector<std::string>{});
    EXPECT_EQ(expandRange("a{0-99999}.ogg"), std::vector<std::string>{});
}

TEST(ScanCodes, MapsScanCodesAndRawLinuxCodesToLinuxKeys) {
    using Key = ScanCodes::LinuxKey;
    // One row for each way a scan code is read, not every entry of the table.
    const std::pair<std::uint32_t, std::optional<Key>> cases[] = {
        {30, Key{KEY_A}},      {88, Key{KEY_F12}},      {57416, Key{KEY_UP}},  {3613, Key{KEY_RIGHTCTRL}},
        {60999, Key{KEY_KP7}}, {61011, Key{KEY_KPDOT}}, {0x5B, Key{KEY_F13}},  {103, Key{KEY_UP, true}},
        {0, std::nullopt},     {61012, std::nullopt},   {0x300, std::nullopt},
    };
    for (const auto& [scanCode, expected] : cases) EXPECT_EQ(ScanCodes::toLinux(scanCode), expected) << scanCode;
}

} // namespace
} // namespace tobrin
