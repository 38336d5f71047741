// The panel and the tray item on the real application model
// (Support/AppModelFixture.h), driven by keyboard and mouse on Qt's offscreen
// platform; the snapshots written by the built program.
#include "Panel/ForceMeter.h"
#include "Panel/Icons.h"
#include "Panel/MenuView.h"
#include "Panel/PackTile.h"
#include "Panel/PermissionCard.h"
#include "Panel/TrayItem.h"

#include "Support/AppModelFixture.h"
#include "Support/Environment.h"
#include "Support/RunningProgram.h"

#include <QCheckBox>
#include <QComboBox>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <QSlider>
#include <QTest>

#include <nlohmann/json.hpp>

namespace tobrin::app {
namespace {

class PanelTest : public AppModelTest {
protected:
    // The model and its panel, shown as the tray shows it.
    void open() {
        model = start();
        panel = std::make_unique<MenuView>(*model);
        panel->openUrl = [this](const QUrl& url) { opened.push_back(url); };
        panel->show();
        ASSERT_TRUE(until([&] { return !model->isLoadingPack(); }));
    }
    // The control with this accessible name, when the panel has one.
    template <typename Widget>
    Widget* control(const QString& name) const {
        for (Widget* widget : panel->findChildren<Widget*>())
            if (widget->accessibleName() == name) return widget;
        return nullptr;
    }
    bool shows(const QWidget* widget) const { return widget && widget->isVisibleTo(panel.get()); }

    std::unique_ptr<AppModel> model;
    std::unique_ptr<MenuView> panel;
    std::vector<QUrl> opened;
};

TEST_F(PanelTest, TheForceSwitchAndSensitivityExistOnlyWithASensorAndFollowTheSwitch) {
    struct Case {
        const char* name;
        bool sensor;
        bool forceSensing;
        bool sensitivity, meter, strength;
    };
    const Case cases[] = {
        {"no sensor", false, true, false, false, true},
        {"sensing on", true, true, true, true, false},
        {"sensing off", true, false, false, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        sensor = c.sensor ? std::make_shared<ForceSensor>(nullptr) : nullptr;
        open();
        auto* sensing = control<QCheckBox>("Feel how hard you type");
        EXPECT_EQ(sensing != nullptr, c.sensor);
        if (sensing && !c.forceSensing) QTest::keyClick(sensing, Qt::Key_Space);
        EXPECT_EQ(model->settings().forceSensing, c.forceSensing);
        EXPECT_EQ(shows(control<QSlider>("Sensitivity")), c.sensitivity);
        EXPECT_EQ(shows(panel->findChild<ForceMeter*>()), c.meter);
        EXPECT_EQ(shows(control<QComboBox>("Strength")), c.strength);
        panel.reset();
        model.reset();
    }
}

TEST_F(PanelTest, ThePermissionCardGoesAtTheNextModelUpdateWithoutReopening) {
    access = KeyboardAccess::denied;
    open();
    auto* card = panel->findChild<PermissionCard*>();
    ASSERT_TRUE(shows(card));
    EXPECT_EQ(control<QLabel>("Status")->text().toStdString(), "Needs keyboard access");
    auto* steps = control<QLabel>("How to allow keyboard access");
    EXPECT_FALSE(shows(steps));
    QTest::mouseClick(control<QPushButton>("How to Allow"), Qt::LeftButton);
    EXPECT_TRUE(shows(steps));
    EXPECT_TRUE(steps->text().contains("sudo usermod -aG input $USER"));
    EXPECT_FALSE(shows(control<QPushButton>("Relaunch Tobrin")));

    access = KeyboardAccess::granted;
    model->pollPermission();
    EXPECT_FALSE(shows(card));
    EXPECT_TRUE(panel->isVisible());
    EXPECT_NE(control<QLabel>("Status")->text().toStdString(), "Needs keyboard access");
}

TEST_F(PanelTest, AShortcutProblemReplacesTheHintAndAnotherShortcutBringsItBack) {
    isReserved = [](const Hotkey& hotkey) { return hotkey == Hotkey::presets[0]; };
    testing::internal::CaptureStderr();
    open();
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Tobrin: shortcut Ctrl+Alt+Super+K unavailable: reserved by the desktop"),
              std::string::npos);
    auto* problem = control<QLabel>("Shortcut problem");
    const QString hint = "Ctrl+Alt+Super+S in any app to turn sounds on or off";
    ASSERT_TRUE(shows(problem));
    EXPECT_EQ(problem->text().toStdString(),
              "Ctrl+Alt+Super+K is a desktop shortcut (Settings \u203a Keyboard). Pick another.");
    EXPECT_FALSE(shows(control<QLabel>(hint)));

    QTest::keyClick(control<QComboBox>("Shortcut"), Qt::Key_Down);
    EXPECT_EQ(model->settings().shortcut, Hotkey::presets[1]);
    EXPECT_FALSE(shows(problem));
    EXPECT_TRUE(shows(control<QLabel>(hint)));
}

TEST_F(PanelTest, ClickingATileSelectsItsPackAndMovesTheMark) {
    open();
    const auto tiles = panel->findChildren<PackTile*>();
    ASSERT_EQ(std::size_t(tiles.size()), packs.size());
    for (std::size_t index = 0; index < packs.size(); ++index)
        EXPECT_EQ(tiles[qsizetype(index)]->pack(), packs[index]) << "in the library's order";
    PackTile* other = tiles[1];
    EXPECT_FALSE(other->selected());
    QTest::mouseClick(other, Qt::LeftButton);
    EXPECT_EQ(model->selectedPackID().toStdString(), packs[1].id);
    EXPECT_TRUE(other->selected());
    EXPECT_FALSE(tiles[0]->selected());
    // A second click on the selected tile keeps it selected.
    QTest::mouseClick(other, Qt::LeftButton);
    EXPECT_TRUE(other->selected());
}

TEST_F(PanelTest, TheVolumeSliderSetsTheEnginesMasterGain) {
    open();
    auto* volume = control<QSlider>("Volume");
    ASSERT_TRUE(volume);
    EXPECT_EQ(volume->value(), 70);
    // The conductor's queue hands the gain to the mixer.
    QTest::keyClick(volume, Qt::Key_End);
    EXPECT_TRUE(until([&] { return audio->volume() == 1.0f; }, 2000ms)) << audio->volume();
    QTest::keyClick(volume, Qt::Key_Home);
    EXPECT_TRUE(until([&] { return audio->volume() == 0.0f; }, 2000ms)) << audio->volume();
    EXPECT_NE(test::readFile(settingsPath).find("\"volume\": 0.0"), std::string::npos);
}

TEST_F(PanelTest, TheSwitchesWriteTheirSettings) {
    open();
    struct Case {
        const char* name;
        std::function<std::string(const EngineSettings&)> value;
        const char* before;
        const char* after;
    };
    const auto number = [](float value) { return std::to_string(value); };
    const Case cases[] = {
        {"Stereo by key position", [&](const EngineSettings& s) { return number(s.spatial); }, "0.500000", "0.000000"},
        {"Key release sounds", [](const EngineSettings& s) { return std::to_string(s.releaseSounds); }, "1", "0"},
        {"Quiet during calls", [](const EngineSettings& s) { return std::to_string(s.quietDuringCalls); }, "1", "0"},
        {"Sounds", [](const EngineSettings& s) { return std::to_string(s.enabled); }, "1", "0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto* box = control<QCheckBox>(c.name);
        ASSERT_TRUE(box);
        EXPECT_EQ(c.value(model->settings()), c.before);
        QTest::keyClick(box, Qt::Key_Space);
        EXPECT_EQ(c.value(model->settings()), c.after);
        QTest::keyClick(box, Qt::Key_Space);
        EXPECT_EQ(c.value(model->settings()), c.before);
    }
}

TEST_F(PanelTest, EveryControlHasAnAccessibleNameAndTakesTheFocus) {
    open();
    int controls = 0;
    for (QWidget* widget : panel->findChildren<QWidget*>()) {
        if (!qobject_cast<QAbstractButton*>(widget) && !qobject_cast<QAbstractSlider*>(widget) &&
            !qobject_cast<QComboBox*>(widget))
            continue;
        ++controls;
        EXPECT_FALSE(widget->accessibleName().isEmpty()) << widget->metaObject()->className();
        EXPECT_NE(widget->focusPolicy() & Qt::TabFocus, 0) << widget->accessibleName().toStdString();
    }
    EXPECT_GE(controls, 15);
}

TEST_F(PanelTest, PacksFolderCreatesTheUsersFolderAndOpensIt) {
    test::Environment environment;
    environment.set("XDG_DATA_HOME", (folder / "data").string());
    open();
    QTest::mouseClick(control<QPushButton>("Open the packs folder"), Qt::LeftButton);
    EXPECT_TRUE(std::filesystem::is_directory(folder / "data/Tobrin/Packs"));
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0], QUrl::fromLocalFile(QString::fromStdString((folder / "data/Tobrin/Packs").string())));
}

TEST_F(PanelTest, TheForceMeterShowsTheReadingInItsTierColourAndMovesThere) {
    ForceMeter meter;
    EXPECT_EQ(meter.caption().toStdString(), "Type to see how hard you hit");
    struct Case {
        float relative, position, peak;
        double fill;
        const char* caption;
        QColor colour;
    };
    const Case cases[] = {
        {0.5f, 0.2f, 0.004f, 0.125, "Last key: 0.5\u00d7 a typical keystroke (0.004 g)", QColor(0x2e, 0xc2, 0x7e)},
        {2.0f, 2.4f, 0.0123f, 0.5, "Last key: 2.0\u00d7 a typical keystroke (0.012 g)", QColor(0xff, 0x78, 0x00)},
        {6.0f, 3.0f, 0.05f, 1.0, "Last key: 6.0\u00d7 a typical keystroke (0.050 g)", QColor(0xe0, 0x1b, 0x24)},
    };
    for (const auto& c : cases) {
        meter.setReading(ForceReading{.position = c.position, .relative = c.relative, .peak = c.peak, .sensed = true});
        EXPECT_EQ(meter.caption().toStdString(), c.caption);
        EXPECT_EQ(meter.barColor(), c.colour);
        EXPECT_DOUBLE_EQ(meter.targetFill(), c.fill);
        EXPECT_TRUE(until([&] { return meter.fill() == c.fill; }, 2000ms));
    }
}

TEST_F(PanelTest, WithoutATrayThePanelIsAWindowAndTheIconFollowsTheSoundState) {
    model = start();
    TrayItem tray(*model, false);
    EXPECT_TRUE(tray.panel().isVisible());
    EXPECT_TRUE(tray.panel().isWindow());
    const QImage playing = tray.icon().icon().pixmap(32).toImage();
    EXPECT_EQ(tray.icon().toolTip().toStdString(), "Tobrin \u2014 " + model->statusLine().toStdString());

    model->changeSettings([](EngineSettings& settings) { settings.enabled = false; });
    const QImage off = tray.icon().icon().pixmap(32).toImage();
    EXPECT_EQ(tray.icon().toolTip().toStdString(), "Tobrin \u2014 Off");
    ASSERT_EQ(playing.size(), off.size());
    int differing = 0;
    for (int y = 0; y < playing.height(); ++y)
        for (int x = 0; x < playing.width(); ++x) differing += playing.pixel(x, y) != off.pixel(x, y);
    EXPECT_GT(differing, playing.width() * playing.height() / 8);

    // Closing the window keeps Tobrin; a second start brings the panel back.
    tray.panel().close();
    model->requestPanel();
    EXPECT_TRUE(tray.panel().isVisible());
}

// --- Snapshots written by the program ----------------------------------------

TEST(PanelSnapshot, EachStateIsItsOwnPictureOfThePanel) {
    test::TemporaryFolder folder;
    // A user pack whose takes are missing: it is listed but cannot load.
    const auto broken = folder / "data/Tobrin/Packs/broken";
    std::filesystem::create_directories(broken);
    auto manifest = nlohmann::json::parse(test::readFile(TOBRIN_BUILT_IN_PACKS_DIR "/blue-click/pack.json"));
    manifest["id"] = "broken";
    manifest["name"] = "Broken";
    std::ofstream(broken / "pack.json") << manifest.dump();

    struct Case {
        const char* name;
        std::vector<std::string> words;
    };
    const Case cases[] = {
        {"default", {}},
        {"dark", {"dark"}},
        {"call", {"call"}},
        {"no sensor", {"nosensor"}},
        {"shortcut taken", {"taken"}},
        {"broken pack", {"pack=broken"}},
    };
    std::vector<QImage> pictures;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = (folder / (std::string(c.name) + ".png")).string();
        std::vector<std::string> words{TOBRIN_APP, "--snapshot", path};
        words.insert(words.end(), c.words.begin(), c.words.end());
        test::RunningProgram snapshot(words,
                                      {{"XDG_DATA_HOME", (folder / "data").string()},
                                       {"XDG_CONFIG_HOME", (folder / "config").string()},
                                       {"TOBRIN_PACKS", TOBRIN_BUILT_IN_PACKS_DIR},
                                       {"DISPLAY", ""},
                                       {"WAYLAND_DISPLAY", ""}},
                                      (folder / "snapshot.log").string());
        ASSERT_EQ(snapshot.wait(30s), 0) << snapshot.output();
        QImage picture(QString::fromStdString(path));
        ASSERT_FALSE(picture.isNull());
        EXPECT_EQ(picture.width(), MenuView::width);
        EXPECT_GT(picture.height(), 500);
        EXPECT_LT(picture.height(), 1400);
        pictures.push_back(picture.convertToFormat(QImage::Format_RGB32));
    }
    // The snapshot never writes settings.
    EXPECT_FALSE(std::filesystem::exists(folder / "config/tobrin"));

    const auto lightness = [](const QImage& picture) {
        double sum = 0;
        for (int y = 0; y < picture.height(); ++y)
            for (int x = 0; x < picture.width(); ++x) sum += qGray(picture.pixel(x, y));
        return sum / double(picture.width() * picture.height());
    };
    EXPECT_LT(lightness(pictures[1]), 100);
    EXPECT_GT(lightness(pictures[0]), 150);
    for (std::size_t a = 0; a < pictures.size(); ++a)
        for (std::size_t b = a + 1; b < pictures.size(); ++b)
            EXPECT_NE(pictures[a], pictures[b]) << cases[a].name << " and " << cases[b].name;
}

} // namespace
} // namespace tobrin::app
