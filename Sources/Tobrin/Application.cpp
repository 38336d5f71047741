#include "Application.h"

#include "AppModel.h"
#include "Log.h"
#include "SingleInstance.h"
#include "SystemEvents.h"

#include "TobrinKit/Engine/Audio/Servers/SoundServers.h"
#include "TobrinKit/Input/Evdev/EvdevKeys.h"
#include "TobrinKit/Input/X11/X11Keys.h"

#include <QApplication>
#include <QCoreApplication>

#include <cstdlib>
#include <memory>

namespace tobrin::app {
namespace {

// Qt ends the process when its platform cannot connect to a display, so a
// QApplication is made only when one answers; otherwise Tobrin runs without
// a window (sounds work, from the evdev keyboards).
bool hasDisplay() {
    if (const char* platform = std::getenv("QT_QPA_PLATFORM"); platform && *platform) return true;
    const char* display = std::getenv("DISPLAY");
    return display && *display && X11Keys::isReachable(display);
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
    std::unique_ptr<QCoreApplication> application;
    if (hasDisplay()) {
        auto gui = std::make_unique<QApplication>(argc, argv);
        // The panel closes and opens; the program lives on in the tray.
        QApplication::setQuitOnLastWindowClosed(false);
        application = std::move(gui);
    } else {
        log("Tobrin: no display; running without the tray (sounds still play)");
        application = std::make_unique<QCoreApplication>(argc, argv);
    }
    QCoreApplication::setApplicationName(QStringLiteral("Tobrin"));
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
    return application->exec();
}

} // namespace tobrin::app
