#include "Application.h"

#include "AppModel.h"
#include "Log.h"
#include "Panel/Icons.h"
#include "Panel/TrayItem.h"
#include "SingleInstance.h"
#include "SystemEvents.h"

#include "TobrinKit/Engine/Audio/Servers/SoundServers.h"
#include "TobrinKit/Input/Evdev/EvdevKeys.h"
#include "TobrinKit/Input/X11/X11Keys.h"

#include <QApplication>
#include <QSystemTrayIcon>

#include <cstdlib>
#include <memory>

namespace tobrin::app {
namespace {

// Qt ends the process when its platform cannot connect to a display, so
// without a display (or with one that does not answer) Tobrin falls back to
// Qt's offscreen platform and runs without a window: sounds still play, from
// the evdev keyboards. Asking Qt for the fallback costs no extra connection
// to the display server, which would delay the first sound.
bool hasDisplay() {
    const char* display = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (display && *display) || (wayland && *wayland);
}

} // namespace

void registerPlatform() {
    static const bool registered = [] {
        registerSoundServerBackends();
        X11Keys::add();
        EvdevKeys::add();
        return true;
    }();
    (void)registered;
}

int runApplication(int argc, char** argv) {
    const char* platform = std::getenv("QT_QPA_PLATFORM");
    if (!hasDisplay() && !(platform && *platform)) {
        log("Tobrin: no display; running without the tray (sounds still play)");
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    } else if (!(platform && *platform)) {
        // Qt tries these in turn: the session's own, then no window at all.
        const char* wayland = std::getenv("WAYLAND_DISPLAY");
        ::setenv("QT_QPA_PLATFORM", wayland && *wayland ? "wayland;xcb;offscreen" : "xcb;offscreen", 1);
    }
    QApplication application(argc, argv);
    // The panel closes and opens; the program lives on in the tray.
    QApplication::setQuitOnLastWindowClosed(false);
    QCoreApplication::setApplicationName(QStringLiteral("Tobrin"));
    // Ties the windows to tobrin.desktop (its icon and name) under Wayland.
    QGuiApplication::setDesktopFileName(QStringLiteral("tobrin"));
    QuitOnSignals quitOnSignals;

    SingleInstance instance;
    switch (instance.claim()) {
    case SingleInstance::Outcome::first: break;
    case SingleInstance::Outcome::handedOver: return 0;
    case SingleInstance::Outcome::noAnswer:
        log("Tobrin: another Tobrin is running but does not answer; this one stops");
        return 1;
    }

    registerPlatform();
    LogindWake wake;
    auto parts = AppModel::systemParts();
    parts.wakeSource = &wake;
    AppModel model(std::move(parts));
    QObject::connect(&instance, &SingleInstance::activated, &model, &AppModel::requestPanel);
    QObject::connect(&model, &AppModel::aboutToRelaunch, &instance, &SingleInstance::release);
    // Without a display there is nothing to show; sounds still play.
    std::unique_ptr<TrayItem> tray;
    if (QGuiApplication::platformName() != QStringLiteral("offscreen")) {
        QApplication::setWindowIcon(Icons::application());
        tray = std::make_unique<TrayItem>(model, QSystemTrayIcon::isSystemTrayAvailable());
        if (!tray->hasTray()) log("Tobrin: the desktop has no tray; the panel opens as a window");
    }
    return QApplication::exec();
}

} // namespace tobrin::app
