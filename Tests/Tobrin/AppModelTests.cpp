// The application model's rules on real parts (Support/AppModelFixture.h),
// and a private D-Bus for the system's wake signal.
#include "SystemEvents.h"

#include "Support/AppModelFixture.h"
#include "Support/Environment.h"
#include "Support/RunningProgram.h"

#include <QDBusConnection>
#include <QDBusMessage>

#include <csignal>

namespace tobrin::app {
namespace {

TEST_F(AppModelTest, FirstStartSelectsLeopoldOrElseTheFirstPackAndWithoutPacksShowsNoPack) {
    PackInfo leopold = packs.back();
    leopold.id = "leopold";
    leopold.name = "Leopold";
    const auto builtIn = packs;
    struct Case {
        const char* name;
        std::vector<PackInfo> packs;
        std::string selected;
        std::string statusLine;
        std::string packError;
        bool saved; // a changed selection is saved at once
    };
    const Case cases[] = {
        {"with leopold", {builtIn.front(), leopold}, "leopold", "Leopold \xC2\xB7 Fixed strength", "", false},
        {"without leopold", builtIn, builtIn.front().id, builtIn.front().name + " \xC2\xB7 Fixed strength", "", true},
        {"no packs", {}, "leopold", "No pack \xC2\xB7 Fixed strength", "No sound packs found.", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(folder / "config");
        packs = c.packs;
        auto model = start();
        EXPECT_EQ(model->selectedPackID().toStdString(), c.selected);
        EXPECT_EQ(model->statusLine().toStdString(), c.statusLine);
        EXPECT_EQ(model->packError().toStdString(), c.packError);
        EXPECT_EQ(std::filesystem::exists(settingsPath), c.saved);
        EXPECT_EQ(keyIsHeard(), !c.packs.empty());
    }
}

TEST_F(AppModelTest, TheSamePackSetAgainDoesNothingAnotherIsSavedAndLoadedAndABrokenOneNamesItself) {
    PackInfo broken = packs.front();
    broken.id = "broken";
    broken.name = "Broken";
    broken.directory = folder / "nowhere";
    packs.push_back(broken);
    auto model = start();
    std::filesystem::remove(settingsPath);
    model->setSelectedPackID(model->selectedPackID());
    EXPECT_FALSE(model->isLoadingPack());
    EXPECT_FALSE(std::filesystem::exists(settingsPath));

    const PackInfo other = packs.at(1);
    model->select(other);
    EXPECT_TRUE(model->isLoadingPack());
    ASSERT_TRUE(until([&] { return !model->isLoadingPack(); }));
    EXPECT_NE(test::readFile(settingsPath).find("\"selectedPack\": \"" + other.id + "\""), std::string::npos);
    EXPECT_EQ(model->packError().toStdString(), "");
    EXPECT_TRUE(keyIsHeard());

    model->select(broken);
    ASSERT_TRUE(until([&] { return !model->isLoadingPack(); }));
    EXPECT_EQ(model->packError().toStdString(),
              "Broken couldn't load: No pack.json in " + (folder / "nowhere").string());
    EXPECT_TRUE(keyIsSilent());
}

TEST_F(AppModelTest, AMicrophoneInUsePausesAndTurningQuietDuringCallsOffResumesAtOnce) {
    auto model = start();
    ASSERT_TRUE(mic->running);
    mic->report(true);
    ASSERT_TRUE(until([&] { return model->micInUse(); }));
    EXPECT_FALSE(model->playing());
    EXPECT_TRUE(keyIsSilent());

    model->changeSettings([](EngineSettings& settings) { settings.quietDuringCalls = false; });
    EXPECT_TRUE(model->playing());
    EXPECT_FALSE(mic->running);
    EXPECT_TRUE(keyIsHeard());
    // Reports of a watch that was stopped change nothing.
    mic->report(false);
    mic->report(true);
    QCoreApplication::processEvents();
    EXPECT_TRUE(model->playing());
}

TEST_F(AppModelTest, TheStatusLineInEachOfItsCases) {
    const std::string pack = packs.front().name;
    struct Case {
        const char* name;
        KeyboardAccess access;
        bool enabled;
        bool micInUse;
        bool sensor;
        std::string expected;
    };
    const Case cases[] = {
        {"off", KeyboardAccess::granted, false, true, false, "Off"},
        {"call", KeyboardAccess::granted, true, true, false, "Paused while the mic is in use"},
        {"fixed", KeyboardAccess::granted, true, false, false, pack + " \xC2\xB7 Fixed strength"},
        {"sensed", KeyboardAccess::granted, true, false, true, pack + " \xC2\xB7 Force sensing on"},
        {"no access", KeyboardAccess::denied, true, false, false, "Needs keyboard access"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        access = c.access;
        sensor = c.sensor ? std::make_shared<ForceSensor>(nullptr) : nullptr;
        auto model = start();
        model->changeSettings([&](EngineSettings& settings) { settings.enabled = c.enabled; });
        if (c.micInUse) mic->report(true);
        ASSERT_TRUE(until([&] { return model->micInUse() == c.micInUse; }));
        EXPECT_EQ(model->statusLine().toStdString(), c.expected);
        EXPECT_EQ(model->sensorAvailable(), c.sensor);
        EXPECT_EQ(model->effectiveSettings().forceSensing, c.sensor);
    }
}

TEST_F(AppModelTest, AccessGrantedWithoutKeysForMoreThanThreeSecondsAsksForARelaunch) {
    keyboardsOpen = false;
    auto model = start();
    EXPECT_TRUE(model->hasPermission());
    EXPECT_FALSE(model->listening());
    model->pollPermission();
    now += 3000ms;
    model->pollPermission();
    EXPECT_FALSE(model->needsRelaunch());
    now += 1ms;
    model->pollPermission();
    EXPECT_TRUE(model->needsRelaunch());
    // Keys arriving after all clear it.
    keyboardsOpen = true;
    model->pollPermission();
    EXPECT_TRUE(model->listening());
    EXPECT_FALSE(model->needsRelaunch());
    EXPECT_TRUE(keyIsHeard());
}

TEST_F(AppModelTest, LaunchAtLoginWritesTheAutostartEntryAndReadsItBack) {
    auto model = start();
    EXPECT_FALSE(model->launchAtLogin());
    model->setLaunchAtLogin(true);
    EXPECT_TRUE(model->launchAtLogin());
    EXPECT_TRUE(start()->launchAtLogin()); // read back from the entry
    model->setLaunchAtLogin(false);
    EXPECT_FALSE(model->launchAtLogin());
}

TEST_F(AppModelTest, LogindsWakeSignalOnTheSystemBusRefreshesTheMicrophoneWatch) {
    // A bus of its own where this test may own logind's name.
    const std::string bus = "unix:path=" + (folder / "bus").string();
    test::RunningProgram daemon({"/usr/bin/dbus-daemon", "--session", "--nofork", "--address=" + bus}, {},
                                (folder / "dbus.log").string());
    ASSERT_TRUE(test::eventually([&] { return std::filesystem::exists(folder / "bus"); }));
    test::Environment environment;
    environment.set("DBUS_SYSTEM_BUS_ADDRESS", bus);
    {
        auto logind = QDBusConnection::connectToBus(QString::fromStdString(bus), "logind");
        ASSERT_TRUE(logind.isConnected());
        ASSERT_TRUE(logind.registerService("org.freedesktop.login1"));
        LogindWake wake;
        ASSERT_TRUE(wake.isConnected());
        auto parts = this->parts();
        parts.wakeSource = &wake;
        AppModel model(std::move(parts));
        const auto send = [&](bool sleeping) {
            auto signal = QDBusMessage::createSignal("/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                                     "PrepareForSleep");
            signal << sleeping;
            ASSERT_TRUE(logind.send(signal));
        };
        send(true);
        send(false);
        EXPECT_TRUE(until([&] { return mic->refreshes == 1; }));
        // Going to sleep is not a wake.
        send(true);
        until([] { return false; }, 300ms);
        EXPECT_EQ(mic->refreshes, 1);
    }
    QDBusConnection::disconnectFromBus("logind");
}

} // namespace
} // namespace tobrin::app
