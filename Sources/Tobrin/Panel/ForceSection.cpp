#include "Panel/ForceSection.h"

#include "AppModel.h"
#include "Panel/ForceMeter.h"
#include "Panel/SectionLabel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QSlider>
#include <QVBoxLayout>

#include <cmath>

namespace tobrin::app {
namespace {

// A labelled control on one line, in a widget of its own so it can hide.
QWidget* row(const QString& label, QWidget* control) {
    auto* line = new QWidget;
    auto* layout = new QHBoxLayout(line);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* text = new QLabel(label);
    text->setBuddy(control);
    control->setAccessibleName(label);
    layout->addWidget(text);
    layout->addWidget(control, 1);
    return line;
}

} // namespace

ForceSection::ForceSection(AppModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addWidget(new SectionLabel(QStringLiteral("Force")));

    strength_ = new QComboBox;
    for (const Tier tier : allTiers) {
        QString word = QString::fromUtf8(name(tier).data(), qsizetype(name(tier).size()));
        word[0] = word[0].toUpper();
        strength_->addItem(word);
    }
    connect(strength_, &QComboBox::activated, this, [this](int index) {
        model_.changeSettings([&](EngineSettings& settings) { settings.fixedTier = allTiers.at(std::size_t(index)); });
    });
    strengthRow_ = row(QStringLiteral("Strength"), strength_);

    if (model_.sensorAvailable()) {
        sensing_ = new QCheckBox(QStringLiteral("Feel how hard you type"));
        sensing_->setAccessibleName(sensing_->text());
        connect(sensing_, &QCheckBox::toggled, this, [this](bool on) {
            model_.changeSettings([&](EngineSettings& settings) { settings.forceSensing = on; });
        });
        sensitivity_ = new QSlider(Qt::Horizontal);
        sensitivity_->setRange(sensitivitySteps / 2, sensitivitySteps * 2);
        connect(sensitivity_, &QSlider::valueChanged, this, [this](int value) {
            model_.changeSettings(
                [&](EngineSettings& settings) { settings.sensitivity = float(value) / float(sensitivitySteps); });
        });
        sensitivityRow_ = row(QStringLiteral("Sensitivity"), sensitivity_);
        meter_ = new ForceMeter;
        layout->addWidget(sensing_);
        layout->addWidget(sensitivityRow_);
        layout->addWidget(meter_);
    } else {
        auto* note = new QLabel(QStringLiteral(
            "Force sensing needs a laptop with a built-in motion sensor. Pick a fixed strength instead."));
        note->setWordWrap(true);
        note->setForegroundRole(QPalette::PlaceholderText);
        layout->addWidget(note);
    }
    layout->addWidget(strengthRow_);
    refresh();
    showReading();
}

void ForceSection::refresh() {
    const EngineSettings settings = model_.settings();
    const QSignalBlocker blockStrength(strength_);
    strength_->setCurrentIndex(rawValue(settings.fixedTier));
    if (!sensing_) return;
    const QSignalBlocker blockSensing(sensing_), blockSensitivity(sensitivity_);
    sensing_->setChecked(settings.forceSensing);
    sensitivity_->setValue(int(std::lround(settings.sensitivity * float(sensitivitySteps))));
    sensitivityRow_->setVisible(settings.forceSensing);
    meter_->setVisible(settings.forceSensing);
    strengthRow_->setVisible(!settings.forceSensing);
}

void ForceSection::showReading() {
    if (meter_) meter_->setReading(model_.lastForce());
}

} // namespace tobrin::app
