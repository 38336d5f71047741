#include "Panel/MenuView.h"

#include "AppModel.h"
#include "Log.h"
#include "Panel/ForceSection.h"
#include "Panel/Icons.h"
#include "Panel/PackDetail.h"
#include "Panel/PackTile.h"
#include "Panel/PermissionCard.h"
#include "Panel/SectionLabel.h"
#include "Panel/ShortcutHint.h"

#include "TobrinKit/Packs/PackLibrary.h"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QEvent>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QVBoxLayout>

#include <cmath>
#include <filesystem>

namespace tobrin::app {
namespace {

constexpr int tileColumns = 2;

QCheckBox* toggle(const QString& text) {
    auto* box = new QCheckBox(text);
    box->setAccessibleName(text);
    return box;
}

QLabel* note(const QString& text) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    QFont small = label->font();
    small.setPointSizeF(small.pointSizeF() * 0.9);
    label->setFont(small);
    return label;
}

QString shortcutText(const Hotkey& hotkey) { return QString::fromStdString(hotkey.displayString()); }

} // namespace

MenuView::MenuView(AppModel& model, QWidget* parent)
    : QWidget(parent), openUrl([](const QUrl& url) { QDesktopServices::openUrl(url); }), model_(model) {
    setWindowTitle(QStringLiteral("Tobrin"));
    setAccessibleName(QStringLiteral("Tobrin"));
    auto* layout = new QVBoxLayout(this);
    // The width spacer below stands first, one spacing above the header.
    layout->setContentsMargins(14, 4, 14, 12);
    layout->setSpacing(10);
    // The panel is as tall as what it shows, and always as wide.
    layout->setSizeConstraint(QLayout::SetFixedSize);
    layout->addItem(new QSpacerItem(width - 28, 0, QSizePolicy::Fixed, QSizePolicy::Fixed));

    // 1. Header.
    icon_ = new QLabel;
    icon_->setAccessibleName(QStringLiteral("Tobrin"));
    auto* title = new QLabel(QStringLiteral("Tobrin"));
    QFont big = title->font();
    big.setBold(true);
    big.setPointSizeF(big.pointSizeF() * 1.25);
    title->setFont(big);
    status_ = new QLabel;
    status_->setForegroundRole(QPalette::PlaceholderText);
    status_->setAccessibleName(QStringLiteral("Status"));
    sounds_ = toggle(QStringLiteral("Sounds"));
    connect(sounds_, &QCheckBox::toggled, this,
            [this](bool on) { model_.changeSettings([&](EngineSettings& settings) { settings.enabled = on; }); });
    auto* titles = new QVBoxLayout;
    titles->setSpacing(0);
    titles->addWidget(title);
    titles->addWidget(status_);
    auto* header = new QHBoxLayout;
    header->addWidget(icon_);
    header->addLayout(titles, 1);
    header->addWidget(sounds_);
    layout->addLayout(header);

    // 2. Keyboard access.
    permission_ = new PermissionCard(model_);
    layout->addWidget(permission_);

    // 3. Packs.
    preview_ = new QPushButton(QStringLiteral("Preview"));
    preview_->setAccessibleName(QStringLiteral("Preview the selected pack"));
    connect(preview_, &QPushButton::clicked, this, [this] { model_.conductor().audition(); });
    auto* soundRow = new QHBoxLayout;
    soundRow->addWidget(new SectionLabel(QStringLiteral("Sound")));
    soundRow->addStretch();
    soundRow->addWidget(preview_);
    layout->addLayout(soundRow);
    tiles_ = new QGridLayout;
    tiles_->setSpacing(6);
    layout->addLayout(tiles_);
    detail_ = new PackDetail(model_);
    layout->addWidget(detail_);

    // 4. Volume.
    volumeLow_ = new QLabel;
    volumeHigh_ = new QLabel;
    volume_ = new QSlider(Qt::Horizontal);
    volume_->setRange(0, volumeSteps);
    volume_->setAccessibleName(QStringLiteral("Volume"));
    connect(volume_, &QSlider::valueChanged, this, [this](int value) {
        model_.changeSettings([&](EngineSettings& settings) { settings.volume = float(value) / float(volumeSteps); });
    });
    auto* volumeRow = new QHBoxLayout;
    volumeRow->addWidget(volumeLow_);
    volumeRow->addWidget(volume_, 1);
    volumeRow->addWidget(volumeHigh_);
    layout->addLayout(volumeRow);

    // 5-6. Force.
    force_ = new ForceSection(model_);
    layout->addWidget(force_);

    // 7. Options.
    releaseSounds_ = toggle(QStringLiteral("Key release sounds"));
    connect(releaseSounds_, &QCheckBox::toggled, this,
            [this](bool on) { model_.changeSettings([&](EngineSettings& settings) { settings.releaseSounds = on; }); });
    stereo_ = toggle(QStringLiteral("Stereo by key position"));
    connect(stereo_, &QCheckBox::toggled, this, [this](bool on) {
        model_.changeSettings([&](EngineSettings& settings) { settings.spatial = on ? 0.5f : 0.0f; });
    });
    quietDuringCalls_ = toggle(QStringLiteral("Quiet during calls"));
    connect(quietDuringCalls_, &QCheckBox::toggled, this, [this](bool on) {
        model_.changeSettings([&](EngineSettings& settings) { settings.quietDuringCalls = on; });
    });
    openAtLogin_ = toggle(QStringLiteral("Open at login"));
    // The autostart entry may refuse; the box then shows what really is.
    connect(openAtLogin_, &QCheckBox::toggled, this, [this](bool on) {
        model_.setLaunchAtLogin(on);
        refresh();
    });
    auto* options = new QVBoxLayout;
    options->setSpacing(4);
    options->addWidget(releaseSounds_);
    options->addWidget(stereo_);
    options->addWidget(quietDuringCalls_);
    options->addWidget(note(QStringLiteral("Pause while any app is using the microphone, and resume when it's free. "
                                           "Tobrin never listens to it.")));
    options->addWidget(openAtLogin_);
    layout->addLayout(options);

    // 8. Shortcut.
    layout->addWidget(new SectionLabel(QStringLiteral("Shortcut")));
    shortcutEnabled_ = toggle(QStringLiteral("Turn sounds on/off with"));
    connect(shortcutEnabled_, &QCheckBox::toggled, this, [this](bool on) {
        model_.changeSettings([&](EngineSettings& settings) { settings.shortcutEnabled = on; });
    });
    shortcut_ = new QComboBox;
    shortcut_->setAccessibleName(QStringLiteral("Shortcut"));
    connect(shortcut_, &QComboBox::activated, this, [this](int index) {
        if (index < 0 || std::size_t(index) >= Hotkey::presets.size()) return;
        model_.changeSettings(
            [&](EngineSettings& settings) { settings.shortcut = Hotkey::presets.at(std::size_t(index)); });
    });
    auto* shortcutRow = new QHBoxLayout;
    shortcutRow->addWidget(shortcutEnabled_);
    shortcutRow->addWidget(shortcut_, 1);
    layout->addLayout(shortcutRow);
    problemIcon_ = new QLabel;
    problem_ = new QLabel;
    problem_->setWordWrap(true);
    problem_->setAccessibleName(QStringLiteral("Shortcut problem"));
    problemRow_ = new QWidget;
    auto* problemLayout = new QHBoxLayout(problemRow_);
    problemLayout->setContentsMargins(0, 0, 0, 0);
    problemLayout->addWidget(problemIcon_, 0, Qt::AlignTop);
    problemLayout->addWidget(problem_, 1);
    layout->addWidget(problemRow_);
    hint_ = new ShortcutHint;
    layout->addWidget(hint_);

    // 9. Footer.
    auto* divider = new QFrame;
    divider->setFrameShape(QFrame::HLine);
    divider->setFrameShadow(QFrame::Sunken);
    layout->addWidget(divider);
    auto* packsFolder = new QPushButton(QStringLiteral("Packs Folder\u2026"));
    packsFolder->setAccessibleName(QStringLiteral("Open the packs folder"));
    connect(packsFolder, &QPushButton::clicked, this, &MenuView::openPacksFolder);
    auto* quit = new QPushButton(QStringLiteral("Quit"));
    quit->setAccessibleName(QStringLiteral("Quit Tobrin"));
    connect(quit, &QPushButton::clicked, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    auto* footer = new QHBoxLayout;
    footer->addWidget(packsFolder);
    footer->addStretch();
    footer->addWidget(quit);
    layout->addLayout(footer);

    for (auto signal :
         {&AppModel::settingsChanged, &AppModel::selectedPackIDChanged, &AppModel::packErrorChanged,
          &AppModel::hasPermissionChanged, &AppModel::needsRelaunchChanged, &AppModel::launchAtLoginChanged,
          &AppModel::shortcutStatusChanged, &AppModel::statusLineChanged, &AppModel::gateChanged})
        connect(&model_, signal, this, &MenuView::refresh);
    connect(&model_, &AppModel::packsChanged, this, &MenuView::rebuildTiles);
    connect(&model_, &AppModel::lastForceChanged, force_, &ForceSection::showReading);
    connect(this, &MenuView::opened, &model_, &AppModel::menuOpened);
    rebuildTiles();
}

void MenuView::rebuildTiles() {
    for (PackTile* tile : tileList_) delete tile;
    tileList_.clear();
    const auto packs = model_.packs();
    for (const PackInfo& pack : packs) {
        auto* tile = new PackTile(pack, [this, pack] { model_.select(pack); });
        const int index = int(tileList_.size());
        tiles_->addWidget(tile, index / tileColumns, index % tileColumns);
        tileList_.push_back(tile);
    }
    refresh();
}

void MenuView::refresh() {
    const EngineSettings settings = model_.settings();
    status_->setText(model_.statusLine());
    refreshIcons();
    {
        const QSignalBlocker blocker(sounds_);
        sounds_->setChecked(settings.enabled);
    }
    permission_->setVisible(!model_.hasPermission());
    permission_->refresh();

    for (PackTile* tile : tileList_)
        tile->setSelected(QString::fromStdString(tile->pack().id) == model_.selectedPackID());
    preview_->setEnabled(model_.packError().isEmpty() && !tileList_.empty());
    detail_->refresh();

    {
        const QSignalBlocker blocker(volume_);
        volume_->setValue(int(std::lround(settings.volume * float(volumeSteps))));
    }
    force_->refresh();

    for (auto [box, on] :
         {std::pair{releaseSounds_, settings.releaseSounds}, std::pair{stereo_, settings.spatial > 0},
          std::pair{quietDuringCalls_, settings.quietDuringCalls}, std::pair{openAtLogin_, model_.launchAtLogin()},
          std::pair{shortcutEnabled_, settings.shortcutEnabled}}) {
        const QSignalBlocker blocker(box);
        box->setChecked(on);
    }

    {
        const QSignalBlocker blocker(shortcut_);
        shortcut_->clear();
        int current = -1;
        for (std::size_t index = 0; index < Hotkey::presets.size(); ++index) {
            shortcut_->addItem(shortcutText(Hotkey::presets[index]));
            if (Hotkey::presets[index] == settings.shortcut) current = int(index);
        }
        // A shortcut of the settings file that the list does not offer.
        if (current < 0) {
            shortcut_->addItem(shortcutText(settings.shortcut));
            current = shortcut_->count() - 1;
        }
        shortcut_->setCurrentIndex(current);
        shortcut_->setEnabled(settings.shortcutEnabled);
    }
    const QString problem = model_.shortcutProblem();
    problem_->setText(problem);
    problemRow_->setVisible(!problem.isEmpty());
    hint_->setShortcut(shortcutText(settings.shortcut));
    hint_->setVisible(problem.isEmpty() && settings.shortcutEnabled);
}

void MenuView::refreshIcons() {
    const QColor text = palette().color(QPalette::WindowText);
    const qreal ratio = devicePixelRatioF();
    icon_->setPixmap(Icons::keyboard(model_.playing(), text).pixmap(QSize(32, 32), ratio));
    volumeLow_->setPixmap(Icons::named(QStringLiteral("audio-volume-low"), text).pixmap(QSize(16, 16), ratio));
    volumeHigh_->setPixmap(Icons::named(QStringLiteral("audio-volume-high"), text).pixmap(QSize(16, 16), ratio));
    preview_->setIcon(Icons::named(QStringLiteral("media-playback-start"), text));
    problemIcon_->setPixmap(Icons::named(QStringLiteral("dialog-warning"), text).pixmap(QSize(16, 16), ratio));
}

void MenuView::openPacksFolder() {
    try {
        const std::filesystem::path folder = PackLibrary::userPacksDirectory();
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) log("Tobrin: couldn't create the packs folder " + folder.string() + ": " + error.message());
        openUrl(QUrl::fromLocalFile(QString::fromStdString(folder.string())));
    } catch (const PackLibrary::NoUserFolder& failure) {
        log(std::string("Tobrin: ") + failure.what());
    }
}

void MenuView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    emit opened();
}

void MenuView::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    // The desktop switched between light and dark: the drawn icons follow.
    if (event->type() == QEvent::PaletteChange) refreshIcons();
}

} // namespace tobrin::app
