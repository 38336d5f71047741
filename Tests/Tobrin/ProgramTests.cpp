// The built tobrin run as a user runs it: on a private X server and a
// private PipeWire, typed at through XTEST and heard at the sink's monitor.
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/SensorRecording.h"
#include "TobrinKit/Packs/PackLibrary.h"

#include "Support/CommunityPacks.h"
#include "Support/Eventually.h"
#include "Support/IndependentReaders.h"
#include "Support/MicRecorders.h"
#include "Support/PrivateXServer.h"
#include "Support/RunningProgram.h"
#include "Support/SoundServers.h"
#include "Support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <nlohmann/json.hpp>

#include <regex>

namespace tobrin {
namespace {

using namespace std::chrono_literals;
using Clock = test::SinkCapture::Clock;

// The environment of a user session on the private servers, with its own
// configuration folder and the built-in packs of this build.
class Session {
public:
    Session() : server(test::SoundServerKind::PipeWire), capture(test::PrivateSoundServer::defaultSink) {}

    std::unique_ptr<test::RunningProgram> run(const std::vector<std::string>& arguments, const std::string& log,
                                              std::map<std::string, std::string> extra = {}) {
        std::vector<std::string> words{TOBRIN_APP};
        words.insert(words.end(), arguments.begin(), arguments.end());
        // The session's variables, but those `extra` sets already.
        extra.insert({{"DISPLAY", x.display()},
                      {"XDG_CONFIG_HOME", (folder / "config").string()},
                      {"XDG_DATA_HOME", (folder / "data").string()},
                      {"XDG_CACHE_HOME", (folder / "cache").string()},
                      {"XDG_SESSION_TYPE", "x11"},
                      {"WAYLAND_DISPLAY", ""},
                      {"TOBRIN_PACKS", TOBRIN_BUILT_IN_PACKS_DIR},
                      {"TOBRIN_AUDIO", ""},
                      {"TOBRIN_KEYS", ""}});
        return std::make_unique<test::RunningProgram>(words, extra, (folder / log).string(), folder.path());
    }
    std::filesystem::path settings() const { return folder / "config/tobrin/settings.json"; }

    // Types keys until one is heard (the program is up) or time runs out.
    std::optional<Clock::time_point> typeUntilHeard(std::chrono::milliseconds timeout) {
        return capture.actUntilHeard(
            [&] {
                keyboard.tap(KEY_A);
                keyboard.sync();
            },
            timeout);
    }
    // Types a few keys and says whether none of them was heard.
    bool typingIsSilent() {
        const auto since = Clock::now();
        for (int key = 0; key < 5; ++key) {
            keyboard.tap(KEY_S);
            keyboard.sync();
            std::this_thread::sleep_for(60ms);
        }
        return !capture.soundAfter(since, 300ms).has_value();
    }
    void pressShortcut() {
        const std::uint16_t keys[] = {KEY_LEFTCTRL, KEY_LEFTALT, KEY_LEFTMETA, KEY_K};
        for (auto code : keys) keyboard.press(code);
        for (auto code = std::rbegin(keys); code != std::rend(keys); ++code) keyboard.release(*code);
        keyboard.sync();
    }
    bool settingsSay(const std::string& text, std::chrono::milliseconds timeout = 3000ms) {
        return test::eventually([&] { return test::readFile(settings()).find(text) != std::string::npos; }, timeout);
    }

    test::TemporaryFolder folder;
    test::PrivateSoundServer server;
    test::PrivateXServer x;
    test::FakeKeyboard keyboard{x.display()};
    test::SinkCapture capture;
};

TEST(Program, TypingIsHeardTheShortcutAndARecordingSilenceItAndSigtermEndsItCleanly) {
    Session session;
    ASSERT_TRUE(session.capture.waitUntilCapturing(3000ms));
    auto tobrin = session.run({}, "tobrin.log");
    ASSERT_TRUE(session.typeUntilHeard(10s)) << tobrin->output();

    // A second start hands over to the running one and leaves.
    auto second = session.run({}, "second.log");
    EXPECT_EQ(second->wait(5s), 0) << second->output();
    EXPECT_FALSE(tobrin->wait(0ms));

    session.pressShortcut();
    ASSERT_TRUE(session.settingsSay("\"enabled\": false")) << tobrin->output();
    // The shortcut's modifiers sound as they go down; let them ring out.
    std::this_thread::sleep_for(500ms);
    EXPECT_TRUE(session.typingIsSilent());
    session.pressShortcut();
    ASSERT_TRUE(session.settingsSay("\"enabled\": true"));
    EXPECT_TRUE(session.typeUntilHeard(2s));

    // Another program recording from the default input, as a call would.
    test::Recorder call("parec", "tobrin-test-source", session.folder.path());
    // Paused once a key goes unheard; then it stays so.
    ASSERT_TRUE(test::eventually([&] { return session.typingIsSilent(); }, 5000ms)) << tobrin->output();
    EXPECT_TRUE(session.typingIsSilent());
    call.stop();
    const auto ended = Clock::now();
    const auto heard = session.typeUntilHeard(5s);
    ASSERT_TRUE(heard);
    // The monitor waits a full second of a free microphone before sounds resume.
    EXPECT_GE(*heard - ended, 900ms);
    EXPECT_LT(*heard - ended, 2500ms);

    tobrin->signal(SIGTERM);
    EXPECT_EQ(tobrin->wait(1000ms), 0) << tobrin->output(); // ended within the second
    const auto saved = nlohmann::json::parse(test::readFile(session.settings()));
    EXPECT_EQ(saved.at("engineSettings").at("enabled"), true);
    EXPECT_EQ(saved.at("selectedPack"), "blue-click");
}

TEST(Program, MicwatchPrintsTheStateAndEachChangeOfTheMicrophone) {
    Session session;
    auto watch = session.run({"--micwatch", "4"}, "micwatch.log");
    ASSERT_TRUE(test::eventually([&] { return watch->output().find("mic in use: no\n") != std::string::npos; }, 5000ms))
        << watch->output();
    test::Recorder call("parec", "tobrin-test-source", session.folder.path());
    ASSERT_TRUE(
        test::eventually([&] { return watch->output().find("mic in use: sounds pause") != std::string::npos; }, 3000ms))
        << watch->output();
    call.stop();
    ASSERT_EQ(watch->wait(8s), 0) << watch->output();
    const std::string output = watch->output();
    EXPECT_TRUE(std::regex_search(
        output, std::regex("^Watching the microphone for 4 s \\(sound server state only, nothing is recorded\\)\\.\n"
                           "  default input: Tobrin test source \xC2\xB7 running: no \xC2\xB7 recording: nobody\n"
                           "  mic in use: no\n"
                           "[0-9]{2}:[0-9]{2}:[0-9]{2}  mic in use: sounds pause\n"
                           "  default input: Tobrin test source \xC2\xB7 running: yes \xC2\xB7 recording: parec\n"
                           "[0-9]{2}:[0-9]{2}:[0-9]{2}  mic free: sounds resume\n")))
        << output;
}

TEST(Program, TheSelfTestPassesOnRealServersAndFailsInWordsWithoutThem) {
    Session session;
    // A community pack dropped into the packs folder counts among the packs.
    test::writeSinglePack(session.folder / "data/Tobrin/Packs/dropped");
    const auto packs = PackLibrary::discover(TOBRIN_BUILT_IN_PACKS_DIR, true).size() + 1;
    auto passing = session.run({"--selftest"}, "selftest.log");
    ASSERT_EQ(passing->wait(20s), 0) << passing->output();
    const std::string output = passing->output();
    EXPECT_TRUE(std::regex_match(output, std::regex("((PASS|SKIP)  [^\n]+\n)+All checks passed\\.\n"))) << output;
    EXPECT_NE(output.find("PASS  found " + std::to_string(packs) + " sound packs\n"), std::string::npos) << output;
    EXPECT_EQ(output.find("SKIP  motion sensor (not on this computer)\n") != std::string::npos, true);

    const auto nowhere = (session.folder / "nothing").string();
    auto failing = session.run({"--selftest"}, "failing.log",
                               {{"DISPLAY", ""},
                                {"XDG_RUNTIME_DIR", nowhere},
                                {"PIPEWIRE_RUNTIME_DIR", nowhere},
                                {"PULSE_SERVER", "unix:" + nowhere + "/native"},
                                {"TOBRIN_KEYS", "x11"}});
    ASSERT_EQ(failing->wait(20s), 1) << failing->output();
    const std::string failed = failing->output();
    EXPECT_NE(failed.find("FAIL  keyboard capture (keyboard access): "), std::string::npos) << failed;
    EXPECT_NE(failed.find("FAIL  audio engine running: no sound server"), std::string::npos) << failed;
    EXPECT_TRUE(std::regex_search(failed, std::regex("\n[0-9]+ check\\(s\\) failed\\.\n$"))) << failed;
}

// A sensor at rest with a sharp tap every 100 ms, for 6 s.
std::filesystem::path tappingReplay(const std::filesystem::path& file) {
    SensorRecording recording;
    for (std::uint64_t ms = 0; ms < 6000; ++ms)
        recording.append(ms * 1'000'000, ForceSensor::encodeReport({ms % 100 == 50 ? 0.8 : 0.0, 0, 1}));
    recording.write(file);
    return file;
}

TEST(Program, TheProbeWritesBothFilesInTheirFormatAndARecordingOfTheSensor) {
    Session session;
    const auto replay = tappingReplay(session.folder / "taps.replay");
    auto probe = session.run({"--probe", "2"}, "probe.log", {{"TOBRIN_SENSOR_REPLAY", replay.string()}});
    ASSERT_TRUE(
        test::eventually([&] { return probe->output().find("a few really hard hits.") != std::string::npos; }, 5000ms))
        << probe->output();
    const std::uint16_t keys[] = {KEY_A, KEY_SPACE, KEY_ENTER, KEY_B};
    for (auto key : keys) {
        session.keyboard.tap(key);
        session.keyboard.sync();
        std::this_thread::sleep_for(150ms);
    }
    ASSERT_EQ(probe->wait(10s), 0) << probe->output();
    const std::string output = probe->output();
    EXPECT_NE(output.find("Keystrokes: 4   sensor: "), std::string::npos) << output;
    EXPECT_NE(output.find("Impacts inside the engine's [-12, +14] ms window: "), std::string::npos);

    std::smatch saved;
    ASSERT_TRUE(std::regex_search(output, saved, std::regex("Saved: (probe-[0-9-]+)\\.csv ")));
    const std::string stem = (session.folder / saved[1].str()).string();
    const std::string csv = stem + ".csv", traces = stem + "-traces.csv";
    EXPECT_TRUE(std::regex_match(test::readFile(csv), std::regex("index,group,offset_ms,peak_g\n"
                                                                 "0,alpha,-?[0-9]+\\.[0-9]{3},[0-9]+\\.[0-9]{5}\n"
                                                                 "1,space,-?[0-9]+\\.[0-9]{3},[0-9]+\\.[0-9]{5}\n"
                                                                 "2,enter,-?[0-9]+\\.[0-9]{3},[0-9]+\\.[0-9]{5}\n"
                                                                 "3,alpha,-?[0-9]+\\.[0-9]{3},[0-9]+\\.[0-9]{5}\n")))
        << test::readFile(csv);
    EXPECT_TRUE(std::regex_match(test::readFile(traces),
                                 std::regex("index,dt_ms,value_g\n([0-3],-?[0-9]+\\.[0-9]{3},[0-9]+\\.[0-9]{5}\n)+")));
    // About 1000 reports a second were recorded, in the replay format.
    EXPECT_GT(SensorRecording::read(stem + "-sensor.replay").size(), 1500u);
}

TEST(Program, HelpPrintsTheUsageTextExactly) {
    const auto result = testing::runCommand(testing::quoted(TOBRIN_APP) + " --help");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output,
              "Tobrin, velocity-sensitive keyboard sounds.\n"
              "  (no arguments)   run the tray app\n"
              "  --probe [secs]   measure how your keystrokes register on the motion sensor\n"
              "  --selftest       check key capture, audio engine and sensor (muted)\n"
              "  --micwatch [secs] show when apps take and release the microphone (\"Quiet during calls\")\n");
    EXPECT_EQ(testing::runCommand(testing::quoted(TOBRIN_APP) + " -h").output, result.output);
}

// cmake --install into a folder of its own: the program there finds its
// built-in packs beside its bin folder, and the menu entry, the icon and the
// AppStream file lie where desktops look for them.
TEST(Program, AnInstallToAnyPrefixFindsItsPacksAndBringsItsDesktopFiles) {
    test::TemporaryFolder folder;
    const auto prefix = folder / "any prefix";
    const auto install =
        testing::runCommand(testing::quoted(TOBRIN_CMAKE) + " --install " + testing::quoted(TOBRIN_BINARY_DIR) +
                            " --prefix " + testing::quoted(prefix.string()) + " 2>&1");
    ASSERT_EQ(install.exitStatus, 0) << install.output;
    EXPECT_TRUE(std::filesystem::is_regular_file(prefix / "bin/tobrin-pack"));
    EXPECT_TRUE(std::filesystem::is_regular_file(prefix / "share/icons/hicolor/scalable/apps/tobrin.svg"));
    const std::string entry = test::readFile(prefix / "share/applications/tobrin.desktop");
    EXPECT_NE(entry.find("\nExec=tobrin\n"), std::string::npos) << entry;
    EXPECT_NE(entry.find("\nIcon=tobrin\n"), std::string::npos) << entry;
    const std::string metainfo = test::readFile(prefix / "share/metainfo/app.tobrin.Tobrin.metainfo.xml");
    EXPECT_NE(metainfo.find("<launchable type=\"desktop-id\">tobrin.desktop</launchable>"), std::string::npos);
    EXPECT_EQ(metainfo.find('@'), std::string::npos) << "a placeholder was left: " << metainfo;

    const auto selftest =
        testing::runCommand("env -u TOBRIN_PACKS -u DISPLAY -u WAYLAND_DISPLAY TOBRIN_AUDIO=null XDG_DATA_HOME=" +
                            testing::quoted((folder / "data").string()) +
                            " XDG_CACHE_HOME=" + testing::quoted((folder / "cache").string()) + " " +
                            testing::quoted((prefix / "bin/tobrin").string()) + " --selftest 2>/dev/null");
    EXPECT_NE(selftest.output.find("PASS  found 5 sound packs\n"), std::string::npos) << selftest.output;
    EXPECT_NE(selftest.output.find("PASS  loaded Blue Click"), std::string::npos) << selftest.output;
}

} // namespace
} // namespace tobrin
