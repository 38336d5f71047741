// tobrin-pack play on a private sound server, heard at its sink.
#include "Support/PackTool.h"
#include "Support/SoundServers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>

namespace tobrin {
namespace {

using namespace std::chrono_literals;

std::string play(const std::string& arguments) { return "play " + test::builtInPack("blue-click") + " " + arguments; }

TEST(PlayVerb, TypesTheTextLiveThroughTheSoundServer) {
    test::PrivateSoundServer server(test::SoundServerKind::PipeWire);
    test::SinkCapture capture(test::PrivateSoundServer::defaultSink);
    ASSERT_TRUE(capture.waitUntilCapturing(3000ms));
    const auto started = test::SinkCapture::Clock::now();
    const auto result = test::packTool(play("--text 'hi there' --wpm 200"));
    ASSERT_EQ(result.exitStatus, 0) << result.output;
    // A loaded machine may add a line about blocks the server missed.
    EXPECT_TRUE(
        std::regex_search(result.output, std::regex(R"(^Playing Blue Click through pipewire \(8 keys, [0-9.]+ s\)\n)")))
        << result.output;
    EXPECT_TRUE(capture.heardSince(started));
}

TEST(PlayVerb, RefusesToPlayIntoSilenceWithoutAServer) {
    const auto result =
        test::packTool(play("--text hi"), "env -u PULSE_SERVER -u TOBRIN_AUDIO "
                                          "XDG_RUNTIME_DIR=/nonexistent PIPEWIRE_RUNTIME_DIR=/nonexistent");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.output.find("tobrin-pack: play: no sound server could be used"), std::string::npos)
        << result.output;
}

} // namespace
} // namespace tobrin
