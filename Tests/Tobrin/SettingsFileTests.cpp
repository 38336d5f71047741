// The settings file and the autostart entry on a real disk.
#include "LoginItem.h"
#include "SettingsFile.h"

#include "Support/ChildProcess.h"
#include "Support/SoundFiles.h"
#include "Support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace tobrin::app {
namespace {

using namespace std::chrono_literals;

StoredState customState() {
    StoredState state;
    state.settings.volume = 0.25f;
    state.settings.enabled = false;
    state.settings.shortcut = Hotkey::presets[2];
    state.selectedPack = "ocean";
    return state;
}

TEST(SettingsFile, WhatIsSavedLoadsBackAndAMissingFileGivesTheDefaultsQuietly) {
    test::TemporaryFolder folder;
    const SettingsFile file(folder / "nested/tobrin/settings.json");
    const auto fresh = file.load();
    EXPECT_EQ(fresh.state, StoredState{});
    EXPECT_EQ(fresh.problem, "");

    ASSERT_EQ(file.save(customState()), "");
    const auto loaded = file.load();
    EXPECT_EQ(loaded.state, customState());
    EXPECT_EQ(loaded.problem, "");
    EXPECT_NE(test::readFile(file.path()).find("\"selectedPack\": \"ocean\""), std::string::npos);
}

TEST(SettingsFile, ABadFileGivesTheDefaultsForWhatDidNotDecodeAndIsKeptAsideUntouched) {
    const std::string valid =
        "{\"engineSettings\": {\"volume\": 0.3, \"enabled\": false}, \"selectedPack\": \"ocean\"}";
    struct Case {
        const char* name;
        std::string text; // empty with `folder`: a folder in the way
        bool folder;
        StoredState expected;
    };
    StoredState packKept;
    packKept.selectedPack = "ocean";
    StoredState settingsKept;
    settingsKept.settings.volume = 0.3f;
    const Case cases[] = {
        {"truncated", valid.substr(0, valid.size() / 2), false, {}},
        {"not JSON", "volume = 0.3\n", false, {}},
        {"not an object", "[1, 2]", false, {}},
        {"wrong type of settings", "{\"engineSettings\": {\"volume\": \"loud\"}, \"selectedPack\": \"ocean\"}", false,
         packKept},
        {"wrong type of pack", "{\"engineSettings\": {\"volume\": 0.3}, \"selectedPack\": 3}", false, settingsKept},
        {"0 bytes", "", false, {}},
        {"a folder", "", true, {}},
    };
    // One after another in one folder, within a second: each is kept apart.
    test::TemporaryFolder folder;
    const SettingsFile file(folder / "settings.json");
    std::vector<std::pair<std::filesystem::path, std::string>> kept;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.folder) {
            std::filesystem::remove(file.path());
            std::filesystem::create_directory(file.path());
            test::writeText(file.path() / "inside", "mine");
        } else {
            test::writeText(file.path(), c.text);
        }
        const auto loaded = file.load();
        EXPECT_EQ(loaded.state, c.expected);
        EXPECT_NE(loaded.problem, "");
        ASSERT_TRUE(loaded.keptAside);
        EXPECT_EQ(loaded.keptAside->parent_path(), folder.path());
        EXPECT_EQ(loaded.keptAside->filename().string().rfind("settings.json.corrupt-", 0), 0u);
        kept.emplace_back(c.folder ? *loaded.keptAside / "inside" : *loaded.keptAside, c.folder ? "mine" : c.text);

        // The next save writes a fresh file beside the kept one.
        ASSERT_EQ(file.save(loaded.state), "");
        EXPECT_EQ(file.load().problem, "");
    }
    for (const auto& [path, text] : kept) EXPECT_EQ(test::readFile(path), text) << path;
}

TEST(SettingsFile, AFolderThatCannotBeWrittenGivesAMessageNotAFailure) {
    // /proc refuses new files whoever asks, root included.
    const SettingsFile file("/proc/self/tobrin/settings.json");
    EXPECT_EQ(file.load().problem, "");
    EXPECT_NE(file.save(customState()), "");
}

TEST(SettingsFile, AWriterKilledAtAnyMomentNeverLeavesAnUnreadableFile) {
    test::TemporaryFolder folder;
    const SettingsFile file(folder / "settings.json");
    for (int round = 0; round < 40; ++round) {
        test::ChildProcess writer([&](const std::function<void()>& ready) {
            StoredState state = customState();
            for (int index = 0;; ++index) {
                state.settings.volume = float(index % 100) / 100.0f;
                state.selectedPack = std::string(std::size_t(index % 300), 'p');
                if (!file.save(state).empty()) return 1;
                if (index == 3) ready();
            }
        });
        ASSERT_TRUE(writer.waitUntilReady(5s));
        std::this_thread::sleep_for(std::chrono::microseconds(round * 97 % 2000));
        writer.kill();
        ASSERT_EQ(writer.wait(), 128 + SIGKILL);
        const auto loaded = file.load();
        ASSERT_EQ(loaded.problem, "") << "after round " << round;
        EXPECT_EQ(loaded.state.settings.shortcut, customState().settings.shortcut);
    }
}

TEST(LoginItem, TheAutostartEntryStartsThisExecutableAndOnlyAnEnabledEntryCounts) {
    test::TemporaryFolder folder;
    const auto entry = folder / "autostart/tobrin.desktop";
    const LoginItem item(entry, "/opt/my apps/to%brin");
    EXPECT_FALSE(item.isEnabled());
    ASSERT_EQ(item.setEnabled(true), "");
    EXPECT_TRUE(item.isEnabled());
    const std::string text = test::readFile(entry);
    EXPECT_EQ(text.rfind("[Desktop Entry]\n", 0), 0u);
    EXPECT_NE(text.find("\nExec=\"/opt/my apps/to%%brin\"\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nType=Application\n"), std::string::npos);

    // A desktop's start-up settings switch an entry off without removing it.
    test::writeText(entry, text + "Hidden=true\n");
    EXPECT_FALSE(item.isEnabled());
    ASSERT_EQ(item.setEnabled(false), "");
    EXPECT_FALSE(std::filesystem::exists(entry));
    EXPECT_NE(LoginItem("/proc/self/autostart/tobrin.desktop", "/bin/true").setEnabled(true), "");
}

} // namespace
} // namespace tobrin::app
