#include "AppModel.h"

#include "Log.h"

#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/MotionSource.h"
#include "TobrinKit/Input/Desktop/DesktopShortcuts.h"
#include "TobrinKit/Input/Xkb/KeyboardLayout.h"
#include "TobrinKit/Packs/Import/CommunityPacks.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include <QCoreApplication>
#include <QProcess>

#include <algorithm>
#include <cstdlib>

namespace tobrin::app {
namespace {

constexpr const char* defaultPackID = "leopold";

const char* statusName(GlobalHotkey::Status::Kind kind) {
    switch (kind) {
    case GlobalHotkey::Status::Kind::active: return "active";
    case GlobalHotkey::Status::Kind::taken: return "taken by another app";
    case GlobalHotkey::Status::Kind::reservedBySystem: return "reserved by the desktop";
    case GlobalHotkey::Status::Kind::failed: return "failed";
    case GlobalHotkey::Status::Kind::off: return "off";
    }
    return "";
}

} // namespace

void AppModel::Relay::post(std::function<void()> work) {
    std::lock_guard guard(lock);
    // A posted call dies with its receiver, so the model's destructor, which
    // clears `model` under this lock first, is the last word.
    if (model) QMetaObject::invokeMethod(model, std::move(work), Qt::QueuedConnection);
}

AppModel::Parts AppModel::systemParts() {
    Parts parts;
    parts.audio = std::make_shared<AudioOutput>();
    if (ForceSensor::isAvailable()) parts.sensor = std::make_shared<ForceSensor>(findMotionSource());
    parts.keySources = KeySources::registered();
    if (const char* forced = std::getenv("TOBRIN_KEYS")) parts.forcedKeySource = forced;
    parts.isReserved = [](const Hotkey& hotkey) { return DesktopShortcuts::isReserved(hotkey); };
    parts.keyNamer = [](std::uint32_t code) { return KeyboardLayout::layoutKeyName(code); };
    parts.microphone = makeMicrophone();
    parts.settingsFile.emplace(SettingsFile::defaultPath());
    parts.loginItem.emplace();
    return parts;
}

AppModel::AppModel(Parts parts, QObject* parent)
    : QObject(parent), settingsFile_(std::move(parts.settingsFile)), loginItem_(std::move(parts.loginItem)),
      discoverPacks_(parts.discoverPacks ? std::move(parts.discoverPacks) : [] { return CommunityPacks::discover(); }),
      relaunchAfter_(parts.relaunchAfter), now_(std::move(parts.now)), keyNamer_(std::move(parts.keyNamer)),
      audio_(std::move(parts.audio)), microphone_(std::move(parts.microphone)) {
    relay_->model = this;

    // 1-2: what the user chose last time.
    std::optional<std::string> storedPack;
    if (settingsFile_) {
        auto loaded = settingsFile_->load();
        if (!loaded.problem.empty()) {
            log("Tobrin: settings file " + settingsFile_->path().string() + " " + loaded.problem +
                (loaded.keptAside ? "; kept as " + loaded.keptAside->string()
                                  : "; it could not be moved aside and will not be overwritten") +
                "; using the defaults for what could not be read");
            // A bad file that stays in place is never overwritten.
            keepBadFile_ = !loaded.keptAside;
        }
        settings_ = loaded.state.settings;
        storedPack = loaded.state.selectedPack;
    }
    selectedPackID_ =
        QString::fromStdString(parts.previewPack ? *parts.previewPack : storedPack.value_or(defaultPackID));

    // 3-4: the engine.
    if (!audio_) audio_ = std::make_shared<AudioOutput>();
    sensor_ = std::move(parts.sensor);
    sensorAvailable_ = sensor_ != nullptr;
    conductor_ = std::make_unique<Conductor>(audio_, sensor_, parts.timing, parts.clock);
    conductor_->setOnForce([relay = relay_](const ForceReading& reading) {
        relay->post([relay, reading] {
            AppModel* model = relay->model;
            if (!model) return;
            model->lastForce_ = reading;
            emit model->lastForceChanged();
        });
    });

    // 5-7: keys, shortcut, microphone.
    Conductor* conductor = conductor_.get();
    monitor_ = std::make_unique<KeyMonitor>([conductor](const KeyEvent& event) { conductor->handle(event); },
                                            parts.keySources, parts.forcedKeySource);
    hotkey_ = std::make_unique<GlobalHotkey>(
        *monitor_, [this] { toggleEnabled(); },
        [relay = relay_](std::function<void()> action) { relay->post(std::move(action)); },
        std::move(parts.isReserved));
    if (!microphone_) microphone_ = makeMicrophone();
    microphone_->setOnChange([relay = relay_](bool inUse) {
        relay->post([relay, inUse] {
            if (relay->model) relay->model->micChanged(inUse);
        });
    });

    permissionTimer_.setInterval(int(parts.permissionPoll.count()));
    connect(&permissionTimer_, &QTimer::timeout, this, &AppModel::pollPermission);

    // 8: everything starts.
    refreshPacks();
    loadSelectedPack(false);
    conductor_->apply(effectiveSettings(), true);
    startListening();
    registerShortcut();
    updateMicMonitor();
    if (loginItem_) launchAtLogin_ = loginItem_->isEnabled();
    if (parts.wakeSource) connect(parts.wakeSource, SIGNAL(woke()), this, SLOT(systemDidWake()));
    if (auto* application = QCoreApplication::instance())
        connect(application, &QCoreApplication::aboutToQuit, this, &AppModel::shutdown);
    constructing_ = false;
    statusLine_ = statusLine();
    playing_ = playing();
}

AppModel::~AppModel() {
    {
        std::lock_guard guard(relay_->lock);
        relay_->model = nullptr;
    }
    for (auto& loader : loaders_) loader.join();
    permissionTimer_.stop();
    microphone_->stop();
    hotkey_.reset();
    monitor_.reset();
    conductor_->setOnForce({});
    shutdown();
}

template <typename T, typename Signal>
void AppModel::assign(T& field, const T& value, Signal signal) {
    if (field == value) return;
    field = value;
    emit(this->*signal)();
}

void AppModel::updateDerived() {
    assign(statusLine_, statusLine(), &AppModel::statusLineChanged);
    const bool nowPlaying = playing();
    if (nowPlaying != playing_) {
        playing_ = nowPlaying;
        emit gateChanged();
    }
}

// --- Settings ---------------------------------------------------------------

void AppModel::setSettings(const EngineSettings& settings) {
    if (settings == settings_) return;
    const EngineSettings old = settings_;
    settings_ = settings;
    settingsChangedFrom(old);
}

void AppModel::settingsChangedFrom(const EngineSettings& old) {
    persist();
    if (settings_.shortcutEnabled != old.shortcutEnabled || settings_.shortcut != old.shortcut) registerShortcut();
    if (settings_.quietDuringCalls != old.quietDuringCalls) updateMicMonitor();
    conductor_->apply(effectiveSettings(), true);
    emit settingsChanged();
    updateDerived();
}

void AppModel::toggleEnabled() {
    EngineSettings changed = settings_;
    changed.enabled = !changed.enabled;
    setSettings(changed);
}

void AppModel::persist() {
    if (!settingsFile_ || keepBadFile_) return;
    const std::string error = settingsFile_->save({settings_, selectedPackID_.toStdString()});
    // One line per new problem: a slider dragged over a read-only folder
    // should not flood the log.
    if (!error.empty() && error != lastSaveError_)
        log("Tobrin: couldn't save the settings (" + error + "); they last until Tobrin quits");
    lastSaveError_ = error;
}

PlaybackGate AppModel::gate() const { return PlaybackGate{settings_.enabled, settings_.quietDuringCalls, micInUse_}; }

EngineSettings AppModel::effectiveSettings() const {
    EngineSettings effective = settings_;
    effective.enabled = gate().isPlaying();
    effective.forceSensing = settings_.forceSensing && sensorAvailable_;
    return effective;
}

QString AppModel::statusLine() const {
    if (!hasPermission_) return QStringLiteral("Needs keyboard access");
    if (!settings_.enabled) return QStringLiteral("Off");
    if (gate().state() == PlaybackGate::State::pausedForCall) return QStringLiteral("Paused while the mic is in use");
    QString name = QStringLiteral("No pack");
    for (const auto& pack : packs_)
        if (QString::fromStdString(pack.id) == selectedPackID_) name = QString::fromStdString(pack.name);
    return name + QString::fromUtf8(" \xC2\xB7 ") +
           (settings_.forceSensing && sensorAvailable_ ? QStringLiteral("Force sensing on")
                                                       : QStringLiteral("Fixed strength"));
}

// --- Packs ------------------------------------------------------------------

void AppModel::setSelectedPackID(const QString& id) { changeSelection(id, true); }

void AppModel::changeSelection(const QString& id, bool load) {
    if (id == selectedPackID_) return;
    selectedPackID_ = id;
    persist();
    emit selectedPackIDChanged();
    if (load) loadSelectedPack(true);
    updateDerived();
}

void AppModel::select(const PackInfo& pack) { setSelectedPackID(QString::fromStdString(pack.id)); }

void AppModel::refreshPacks() {
    const auto found = discoverPacks_();
    QList<PackInfo> packs(found.begin(), found.end());
    if (packs != packs_) {
        packs_ = packs;
        emit packsChanged();
    }
    const bool known = std::any_of(packs_.begin(), packs_.end(), [&](const PackInfo& pack) {
        return QString::fromStdString(pack.id) == selectedPackID_;
    });
    // While constructing, the pack is loaded right after (without audition).
    if (!known && !packs_.isEmpty()) changeSelection(QString::fromStdString(packs_.front().id), !constructing_);
    if (!constructing_) updateDerived();
}

void AppModel::loadSelectedPack(bool audition) {
    const std::uint64_t generation = ++loadGeneration_;
    const auto found = std::find_if(packs_.begin(), packs_.end(), [&](const PackInfo& pack) {
        return QString::fromStdString(pack.id) == selectedPackID_;
    });
    if (found == packs_.end()) {
        conductor_->setPack(nullptr);
        assign(packError_, packs_.isEmpty() ? QStringLiteral("No sound packs found.") : QString(),
               &AppModel::packErrorChanged);
        return;
    }
    ++pendingLoads_;
    loaders_.emplace_back([relay = relay_, info = *found, generation, audition] {
        std::shared_ptr<const LoadedPack> pack;
        std::string error;
        try {
            pack = LoadedPack::load(info, AudioOutput::sampleRate);
        } catch (const std::exception& failure) {
            error = failure.what();
        }
        relay->post([relay, pack, error, name = info.name, generation, audition] {
            AppModel* model = relay->model;
            if (!model) return;
            --model->pendingLoads_;
            // A later choice is on its way: this one is no longer wanted.
            if (generation != model->loadGeneration_) return;
            if (pack) {
                model->conductor_->setPack(pack);
                model->assign(model->packError_, QString(), &AppModel::packErrorChanged);
                if (audition) model->conductor_->audition();
            } else {
                model->conductor_->setPack(nullptr);
                model->assign(model->packError_, QString::fromStdString(name + " couldn't load: " + error),
                              &AppModel::packErrorChanged);
            }
        });
    });
}

// --- Keys and the shortcut --------------------------------------------------

void AppModel::startListening() {
    if (monitor_->start()) {
        assign(listening_, true, &AppModel::listeningChanged);
        assign(hasPermission_, true, &AppModel::hasPermissionChanged);
        assign(needsRelaunch_, false, &AppModel::needsRelaunchChanged);
        permissionTimer_.stop();
    } else {
        assign(listening_, false, &AppModel::listeningChanged);
        const KeyboardAccess access = monitor_->access();
        assign(hasPermission_, access == KeyboardAccess::granted, &AppModel::hasPermissionChanged);
        // Membership of the keyboards' group arrives with the next login.
        if (access == KeyboardAccess::needsRelaunch) assign(needsRelaunch_, true, &AppModel::needsRelaunchChanged);
        if (!permissionTimer_.isActive()) permissionTimer_.start();
    }
    updateDerived();
}

void AppModel::pollPermission() {
    if (listening_) return;
    const KeyboardAccess access = monitor_->access();
    assign(hasPermission_, access == KeyboardAccess::granted, &AppModel::hasPermissionChanged);
    if (access == KeyboardAccess::needsRelaunch) assign(needsRelaunch_, true, &AppModel::needsRelaunchChanged);
    if (hasPermission_) {
        startListening();
        if (!listening_) {
            if (!grantedWithoutTap_) grantedWithoutTap_ = now_();
            if (now_() - *grantedWithoutTap_ > relaunchAfter_)
                assign(needsRelaunch_, true, &AppModel::needsRelaunchChanged);
        }
    }
    updateDerived();
}

void AppModel::registerShortcut() {
    auto status = hotkey_->registerHotkey(settings_.shortcutEnabled ? std::optional(settings_.shortcut) : std::nullopt);
    using Kind = GlobalHotkey::Status::Kind;
    if (status.kind != Kind::active && status.kind != Kind::off)
        log("Tobrin: shortcut " + status.hotkey.displayString(keyNamer_) + " unavailable: " + statusName(status.kind));
    assign(shortcutStatus_, status, &AppModel::shortcutStatusChanged);
}

QString AppModel::shortcutProblem() const {
    using Kind = GlobalHotkey::Status::Kind;
    if (shortcutStatus_.kind == Kind::failed)
        return QString::fromStdString("Couldn't set up " + shortcutStatus_.hotkey.displayString(keyNamer_) +
                                      " (error " + std::to_string(shortcutStatus_.error) + ")");
    return QString::fromStdString(shortcutStatus_.message(keyNamer_));
}

// --- Microphone, login, system ----------------------------------------------

void AppModel::updateMicMonitor() {
    if (settings_.quietDuringCalls)
        microphone_->start();
    else
        microphone_->stop();
}

void AppModel::micChanged(bool inUse) {
    if (!settings_.quietDuringCalls || inUse == micInUse_) return;
    const auto before = gate().state();
    micInUse_ = inUse;
    emit micInUseChanged();
    if (gate().state() != before) conductor_->apply(effectiveSettings(), false);
    updateDerived();
}

void AppModel::setLaunchAtLogin(bool on) {
    if (!loginItem_) return;
    const std::string error = loginItem_->setEnabled(on);
    if (!error.empty()) log("Tobrin: launch at login change failed: " + error);
    assign(launchAtLogin_, loginItem_->isEnabled(), &AppModel::launchAtLoginChanged);
}

void AppModel::menuOpened() {
    refreshPacks();
    pollPermission();
    registerShortcut();
}

void AppModel::relaunch() {
    emit aboutToRelaunch();
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (!QProcess::startDetached(QCoreApplication::applicationFilePath(), arguments))
        log("Tobrin: couldn't start a new Tobrin; this one keeps running");
    else
        QCoreApplication::quit();
}

void AppModel::systemDidWake() {
    conductor_->systemDidWake();
    microphone_->refresh();
}

void AppModel::shutdown() {
    if (shutDown_) return;
    shutDown_ = true;
    conductor_->shutdown();
}

void AppModel::requestPanel() { emit panelRequested(); }

} // namespace tobrin::app
