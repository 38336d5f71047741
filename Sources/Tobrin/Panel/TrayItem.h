#pragma once

// The tray item: a QSystemTrayIcon (StatusNotifierItem or XEmbed) whose icon
// says whether sounds play, whose tooltip is the status line, and which opens
// the panel beside itself. Where the desktop has no tray, the panel is a
// normal window instead, shown at start; closing it leaves Tobrin running,
// and starting Tobrin again brings it back. Main thread only.

#include "Panel/MenuView.h"

#include <QElapsedTimer>
#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>

#include <memory>

namespace tobrin::app {

class AppModel;

class TrayItem : public QObject {
    Q_OBJECT

public:
    // `trayAvailable`: QSystemTrayIcon::isSystemTrayAvailable(), asked by the
    // caller so tests can choose.
    TrayItem(AppModel& model, bool trayAvailable);
    ~TrayItem() override;

    MenuView& panel() { return *panel_; }
    QSystemTrayIcon& icon() { return icon_; }
    bool hasTray() const { return hasTray_; }

public slots:
    // Beside the tray icon (a frameless panel that hides when it loses focus),
    // or as a window.
    void showPanel();
    void togglePanel();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void refresh();
    void placeBesideTray();

    AppModel& model_;
    bool hasTray_;
    std::unique_ptr<MenuView> panel_;
    QSystemTrayIcon icon_;
    QMenu menu_;
    // When the panel last hid itself for losing focus: a click on the tray
    // icon takes the focus first, and must not open it again at once.
    QElapsedTimer hiddenByFocus_;
};

} // namespace tobrin::app
