#include "Panel/Snapshot.h"

#include "AppModel.h"
#include "Panel/MenuView.h"

#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Audio/NullAudioBackend.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Packs/PackLibrary.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPixmap>
#include <QStyle>
#include <QStyleFactory>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace tobrin::app {
namespace {

struct Options {
    std::string path = "menu.png";
    bool dark = false, call = false, noSensor = false, noAccess = false, taken = false;
    std::optional<std::string> pack;
};

// Keys that never come: the preview listens to nothing.
class SilentKeys final : public KeySource {
public:
    explicit SilentKeys(bool readable) : readable_(readable) {}
    bool open(std::string& error) override {
        if (!readable_) error = "no keyboard can be read";
        return readable_;
    }
    void run(KeyStream&) override {
        std::unique_lock guard(lock_);
        woken_.wait(guard, [this] { return interrupted_; });
    }
    void interrupt() override {
        std::lock_guard guard(lock_);
        interrupted_ = true;
        woken_.notify_all();
    }

private:
    bool readable_;
    std::mutex lock_;
    std::condition_variable woken_;
    bool interrupted_ = false;
};

class StillMicrophone final : public Microphone {
public:
    void start() override {}
    void stop() override {}
    void refresh() override {}
    void setOnChange(std::function<void(bool)> onChange) override { report = std::move(onChange); }
    std::function<void(bool)> report;
};

QPalette darkPalette() {
    QPalette palette;
    const QColor window(0x24, 0x24, 0x24), base(0x1e, 0x1e, 0x1e), text(0xf0, 0xf0, 0xf0);
    palette.setColor(QPalette::Window, window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Button, QColor(0x36, 0x36, 0x36));
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::PlaceholderText, QColor(0xa0, 0xa0, 0xa0));
    palette.setColor(QPalette::Highlight, QColor(0x35, 0x84, 0xe4));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Light, QColor(0x48, 0x48, 0x48));
    palette.setColor(QPalette::Midlight, QColor(0x3a, 0x3a, 0x3a));
    palette.setColor(QPalette::Mid, QColor(0x30, 0x30, 0x30));
    palette.setColor(QPalette::Dark, QColor(0x14, 0x14, 0x14));
    palette.setColor(QPalette::Shadow, Qt::black);
    return palette;
}

bool parse(const std::vector<std::string>& words, Options& options) {
    bool pathGiven = false;
    for (const std::string& word : words) {
        if (word == "dark")
            options.dark = true;
        else if (word == "call")
            options.call = true;
        else if (word == "nosensor")
            options.noSensor = true;
        else if (word == "noaccess")
            options.noAccess = true;
        else if (word == "taken")
            options.taken = true;
        else if (word.starts_with("pack=") && word.size() > 5)
            options.pack = word.substr(5);
        else if (!pathGiven && !word.starts_with("-")) {
            options.path = word;
            pathGiven = true;
        } else {
            std::printf("Unknown snapshot word \"%s\": give a path, then dark, call, pack=ID, nosensor, noaccess "
                        "or taken.\n",
                        word.c_str());
            return false;
        }
    }
    return true;
}

} // namespace

int snapshot(const std::vector<std::string>& words) {
    Options options;
    if (!parse(words, options)) return 1;

    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    // What the offscreen platform cannot do (raise a window, size hints) is
    // no news for a picture.
    static const QtMessageHandler standard = qInstallMessageHandler(nullptr);
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext& context, const QString& message) {
        if (!message.startsWith(QStringLiteral("This plugin does not support")) &&
            !message.startsWith(QStringLiteral("QStandardPaths: XDG_RUNTIME_DIR not set")))
            standard(type, context, message);
    });
    static int argc = 1;
    static char name[] = "tobrin";
    static char* argv[] = {name, nullptr};
    QApplication application(argc, argv);
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QApplication::setPalette(options.dark ? darkPalette() : QApplication::style()->standardPalette());

    AppModel::Parts parts;
    parts.audio = std::make_shared<AudioOutput>(std::vector{NullAudioBackend::factory()}, "");
    if (!options.noSensor) parts.sensor = std::make_shared<ForceSensor>(nullptr);
    KeySourceFactory keys;
    keys.name = "preview";
    keys.create = [readable = !options.noAccess] { return std::make_unique<SilentKeys>(readable); };
    keys.access = [readable = !options.noAccess] {
        return readable ? KeyboardAccess::granted : KeyboardAccess::denied;
    };
    keys.grabShortcut = [taken = options.taken](const Hotkey&, std::function<void()>) {
        ShortcutGrabResult result;
        result.kind = taken ? ShortcutGrabResult::Kind::taken : ShortcutGrabResult::Kind::active;
        if (!taken) result.grab = std::make_unique<ShortcutGrab>();
        return result;
    };
    parts.keySources = {keys};
    parts.forcedKeySource = "preview";
    auto microphone = std::make_unique<StillMicrophone>();
    StillMicrophone* mic = microphone.get();
    parts.microphone = std::move(microphone);
    parts.previewPack = options.pack;
    parts.discoverPacks = [] { return PackLibrary::discover(); };

    AppModel model(std::move(parts));
    if (options.call) mic->report(true);
    MenuView view(model);
    view.show();
    QElapsedTimer waited;
    waited.start();
    // The pack loads on a thread of its own; what it says about itself
    // (loaded or failed) belongs in the picture.
    while ((model.isLoadingPack() || (options.call && !model.micInUse())) && waited.elapsed() < 10000)
        QApplication::processEvents(QEventLoop::AllEvents, 20);
    QApplication::processEvents();
    const QPixmap picture = view.grab();
    model.shutdown();
    if (!picture.save(QString::fromStdString(options.path), "PNG")) {
        std::printf("Couldn't write %s.\n", options.path.c_str());
        return 1;
    }
    std::printf("Saved: %s (%d\u00d7%d)\n", options.path.c_str(), picture.width(), picture.height());
    return 0;
}

} // namespace tobrin::app
