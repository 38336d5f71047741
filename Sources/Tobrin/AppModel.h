#pragma once

// AppModel owns the running system of the tray application: the audio output,
// the motion sensor (when there is one), the Conductor, the key monitor, the
// global shortcut and the microphone watch. It keeps the user's settings and
// selected pack, saves both to the settings file, and publishes what the
// panel shows, every property with a change signal.
//
// Thread contract: a QObject of the main thread; every member function runs
// there. Key events go from the monitor's thread straight to the Conductor
// (thread-safe); force readings, shortcut presses, microphone changes and
// loaded packs arrive on other threads and are posted to the main thread
// through a relay that the destructor cuts first, so nothing reaches a model
// that is going. Packs load on worker threads, which the destructor joins.
//
// Lifecycle: the constructor reads the settings, builds and starts everything
// (engine, key capture, shortcut, microphone watch) and loads the selected
// pack; shutdown() (when the application quits) stops the engine; the
// destructor stops the rest.

#include "LoginItem.h"
#include "Microphone.h"
#include "SettingsFile.h"

#include "TobrinKit/Engine/Conductor.h"
#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/PlaybackGate.h"
#include "TobrinKit/Input/GlobalHotkey.h"
#include "TobrinKit/Input/KeyMonitor.h"
#include "TobrinKit/Packs/PackInfo.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariant>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

Q_DECLARE_METATYPE(tobrin::EngineSettings)
Q_DECLARE_METATYPE(tobrin::ForceReading)
Q_DECLARE_METATYPE(tobrin::PackInfo)
Q_DECLARE_METATYPE(tobrin::GlobalHotkey::Status)

namespace tobrin {
class AudioOutput;
class ForceSensor;
} // namespace tobrin

namespace tobrin::app {

class AppModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(tobrin::EngineSettings settings READ settings WRITE setSettings NOTIFY settingsChanged)
    Q_PROPERTY(QString selectedPackID READ selectedPackID WRITE setSelectedPackID NOTIFY selectedPackIDChanged)
    Q_PROPERTY(QList<tobrin::PackInfo> packs READ packs NOTIFY packsChanged)
    Q_PROPERTY(QString packError READ packError NOTIFY packErrorChanged)
    Q_PROPERTY(bool hasPermission READ hasPermission NOTIFY hasPermissionChanged)
    Q_PROPERTY(bool listening READ listening NOTIFY listeningChanged)
    Q_PROPERTY(bool needsRelaunch READ needsRelaunch NOTIFY needsRelaunchChanged)
    Q_PROPERTY(QVariant lastForce READ lastForceValue NOTIFY lastForceChanged)
    Q_PROPERTY(bool launchAtLogin READ launchAtLogin WRITE setLaunchAtLogin NOTIFY launchAtLoginChanged)
    Q_PROPERTY(bool micInUse READ micInUse NOTIFY micInUseChanged)
    Q_PROPERTY(tobrin::GlobalHotkey::Status shortcutStatus READ shortcutStatus NOTIFY shortcutStatusChanged)
    Q_PROPERTY(QString shortcutProblem READ shortcutProblem NOTIFY shortcutStatusChanged)
    Q_PROPERTY(QString statusLine READ statusLine NOTIFY statusLineChanged)
    Q_PROPERTY(bool playing READ playing NOTIFY gateChanged)
    Q_PROPERTY(bool sensorAvailable READ sensorAvailable CONSTANT)

public:
    // Everything the model is built from. systemParts() gives the product's;
    // tests give their own key sources, packs, files and clocks.
    struct Parts {
        std::shared_ptr<AudioOutput> audio;
        std::shared_ptr<ForceSensor> sensor; // none: this machine has no sensor
        Conductor::Timing timing{};
        std::shared_ptr<HostClock> clock = HostClock::host();
        // The key monitor's source kinds and the one forced (empty: the first that suits).
        std::vector<KeySourceFactory> keySources;
        std::string forcedKeySource;
        GlobalHotkey::ReservedCheck isReserved;
        Hotkey::KeyNamer keyNamer;
        std::unique_ptr<Microphone> microphone;
        // None: a preview model, which reads and writes no settings.
        std::optional<SettingsFile> settingsFile;
        std::optional<std::string> previewPack;
        std::optional<LoginItem> loginItem;
        std::function<std::vector<PackInfo>()> discoverPacks;
        // A QObject with a signal woke() (the system resumed from sleep), or none.
        QObject* wakeSource = nullptr;
        std::chrono::milliseconds permissionPoll{1500};
        std::chrono::milliseconds relaunchAfter{3000};
        std::function<std::chrono::steady_clock::time_point()> now = [] { return std::chrono::steady_clock::now(); };
    };

    // The registered audio backends and key sources, the motion sensor when
    // there is one, the user's settings file and autostart entry.
    static Parts systemParts();

    explicit AppModel(Parts parts, QObject* parent = nullptr);
    ~AppModel() override;

    EngineSettings settings() const { return settings_; }
    void setSettings(const EngineSettings& settings);
    // Sets the current settings with `change` applied: what a control does.
    template <typename Change>
    void changeSettings(Change change) {
        EngineSettings changed = settings();
        change(changed);
        setSettings(changed);
    }
    QString selectedPackID() const { return selectedPackID_; }
    void setSelectedPackID(const QString& id);
    QList<PackInfo> packs() const { return packs_; }
    QString packError() const { return packError_; }
    bool hasPermission() const { return hasPermission_; }
    bool listening() const { return listening_; }
    bool needsRelaunch() const { return needsRelaunch_; }
    std::optional<ForceReading> lastForce() const { return lastForce_; }
    QVariant lastForceValue() const { return lastForce_ ? QVariant::fromValue(*lastForce_) : QVariant(); }
    bool launchAtLogin() const { return launchAtLogin_; }
    bool micInUse() const { return micInUse_; }
    GlobalHotkey::Status shortcutStatus() const { return shortcutStatus_; }
    bool sensorAvailable() const { return sensorAvailable_; }
    bool isPreview() const { return !settingsFile_; }

    // Derived values.
    QString statusLine() const;
    QString shortcutProblem() const; // empty: none
    PlaybackGate gate() const;
    EngineSettings effectiveSettings() const;
    bool playing() const { return gate().isPlaying(); }

    // A pack is being decoded.
    bool isLoadingPack() const { return pendingLoads_ > 0; }
    Conductor& conductor() { return *conductor_; }
    AudioOutput& audio() { return *audio_; }

public slots:
    void select(const tobrin::PackInfo& pack);
    void refreshPacks();
    // The panel opened: packs, permission and shortcut are looked at afresh.
    void menuOpened();
    void setLaunchAtLogin(bool on);
    // Starts a new Tobrin with the same arguments and quits this one.
    void relaunch();
    void pollPermission();
    // The microphone's in-use flag, from the watch.
    void micChanged(bool inUse);
    void systemDidWake();
    // The will-terminate path: the engine stops (synchronously).
    void shutdown();
    // Another start of Tobrin asked for the panel.
    void requestPanel();

signals:
    void settingsChanged();
    void selectedPackIDChanged();
    void packsChanged();
    void packErrorChanged();
    void hasPermissionChanged();
    void listeningChanged();
    void needsRelaunchChanged();
    void lastForceChanged();
    void launchAtLoginChanged();
    void micInUseChanged();
    void shortcutStatusChanged();
    void statusLineChanged();
    void gateChanged();
    // The panel should come forward (a second start of Tobrin asked for it).
    void panelRequested();
    // About to start the new process of relaunch(): whoever holds the
    // single-instance claim lets it go.
    void aboutToRelaunch();

private:
    // Posts work to the main thread while the model lives.
    struct Relay {
        std::mutex lock;
        AppModel* model = nullptr;
        void post(std::function<void()> work);
    };

    void settingsChangedFrom(const EngineSettings& old);
    void changeSelection(const QString& id, bool load);
    void loadSelectedPack(bool audition);
    void startListening();
    void registerShortcut();
    void updateMicMonitor();
    void persist();
    void toggleEnabled();
    void updateDerived();
    template <typename T, typename Signal>
    void assign(T& field, const T& value, Signal signal);

    std::shared_ptr<Relay> relay_ = std::make_shared<Relay>();
    std::optional<SettingsFile> settingsFile_;
    std::optional<LoginItem> loginItem_;
    std::function<std::vector<PackInfo>()> discoverPacks_;
    std::chrono::milliseconds relaunchAfter_;
    std::function<std::chrono::steady_clock::time_point()> now_;
    Hotkey::KeyNamer keyNamer_;

    EngineSettings settings_;
    QString selectedPackID_;
    QList<PackInfo> packs_;
    QString packError_;
    bool hasPermission_ = false;
    bool listening_ = false;
    bool needsRelaunch_ = false;
    std::optional<ForceReading> lastForce_;
    bool launchAtLogin_ = false;
    bool micInUse_ = false;
    GlobalHotkey::Status shortcutStatus_;
    bool sensorAvailable_ = false;
    QString statusLine_;
    bool playing_ = false;
    std::string lastSaveError_;
    bool keepBadFile_ = false; // a bad settings file could not be moved aside

    std::shared_ptr<AudioOutput> audio_;
    std::shared_ptr<ForceSensor> sensor_;
    std::unique_ptr<Conductor> conductor_;
    std::unique_ptr<KeyMonitor> monitor_;
    std::unique_ptr<GlobalHotkey> hotkey_;
    std::unique_ptr<Microphone> microphone_;
    QTimer permissionTimer_;
    std::optional<std::chrono::steady_clock::time_point> grantedWithoutTap_;

    std::uint64_t loadGeneration_ = 0;
    int pendingLoads_ = 0;
    std::vector<std::thread> loaders_;
    bool shutDown_ = false;
    bool constructing_ = true;
};

} // namespace tobrin::app
