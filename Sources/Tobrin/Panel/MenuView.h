#pragma once

// MenuView is the whole interface: the panel that drops from the tray icon
// (or stands as a window where the desktop has no tray). Top to bottom: the
// header with the sound switch, the keyboard-access card, the packs, the
// volume, the force controls, the options, the shortcut and the footer.
//
// It holds no state of its own: every control shows a property of the
// AppModel and writes back to it; each change signal of the model refreshes
// the controls it concerns, so a change from anywhere (the shortcut, the
// microphone, a second panel) shows at once. Main thread only.

#include <QUrl>
#include <QWidget>

#include <functional>
#include <vector>

class QCheckBox;
class QComboBox;
class QGridLayout;
class QLabel;
class QPushButton;
class QSlider;

namespace tobrin::app {

class AppModel;
class ForceSection;
class PackDetail;
class PackTile;
class PermissionCard;
class ShortcutHint;

class MenuView : public QWidget {
    Q_OBJECT

public:
    explicit MenuView(AppModel& model, QWidget* parent = nullptr);

    // How "Packs Folder…" shows a folder; the desktop's file manager unless
    // replaced.
    std::function<void(const QUrl&)> openUrl;

    static constexpr int width = 360;
    static constexpr int volumeSteps = 100; // volume = slider value / this

signals:
    // The panel was shown (it then asks the model to look at packs,
    // permission and shortcut afresh).
    void opened();

protected:
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void refresh();
    void rebuildTiles();
    void refreshIcons();
    void openPacksFolder();

    AppModel& model_;
    QLabel* icon_;
    QLabel* status_;
    QCheckBox* sounds_;
    PermissionCard* permission_;
    QPushButton* preview_;
    QGridLayout* tiles_;
    std::vector<PackTile*> tileList_;
    PackDetail* detail_;
    QLabel* volumeLow_;
    QSlider* volume_;
    QLabel* volumeHigh_;
    ForceSection* force_;
    QCheckBox* releaseSounds_;
    QCheckBox* stereo_;
    QCheckBox* quietDuringCalls_;
    QCheckBox* openAtLogin_;
    QCheckBox* shortcutEnabled_;
    QComboBox* shortcut_;
    QWidget* problemRow_;
    QLabel* problemIcon_;
    QLabel* problem_;
    ShortcutHint* hint_;
};

} // namespace tobrin::app
