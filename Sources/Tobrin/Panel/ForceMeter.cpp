#include "Panel/ForceMeter.h"

#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>
#include <QVariantAnimation>

#include <algorithm>
#include <cmath>

namespace tobrin::app {
namespace {

constexpr int barHeight = 8;
constexpr double scale = 4; // typical keystrokes at a full bar

} // namespace

ForceMeter::ForceMeter(QWidget* parent)
    : QWidget(parent), caption_(new QLabel), animation_(new QVariantAnimation(this)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, barHeight + 6, 0, 0);
    caption_->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(caption_);
    animation_->setDuration(animationMilliseconds);
    animation_->setEasingCurve(QEasingCurve::OutCubic);
    connect(animation_, &QVariantAnimation::valueChanged, this, [this](const QVariant& value) {
        shown_ = value.toDouble();
        update();
    });
    setAccessibleName(QStringLiteral("Force meter"));
    setReading(std::nullopt);
}

double ForceMeter::targetFill() const {
    return reading_ ? std::clamp(double(reading_->relative) / scale, 0.0, 1.0) : 0.0;
}

QString ForceMeter::caption() const {
    if (!reading_) return QStringLiteral("Type to see how hard you hit");
    return QString::asprintf("Last key: %.1f\u00d7 a typical keystroke (%.3f g)", double(reading_->relative),
                             double(reading_->peak));
}

QColor ForceMeter::barColor() const {
    // soft, medium, hard, slam
    static const QColor tiers[] = {QColor(0x2e, 0xc2, 0x7e), QColor(0x35, 0x84, 0xe4), QColor(0xff, 0x78, 0x00),
                                   QColor(0xe0, 0x1b, 0x24)};
    const int tier = reading_ ? std::clamp(int(std::lround(reading_->position)), 0, 3) : 0;
    return tiers[tier];
}

void ForceMeter::setReading(const std::optional<ForceReading>& reading) {
    reading_ = reading;
    caption_->setText(caption());
    setAccessibleDescription(caption());
    animation_->stop();
    animation_->setStartValue(shown_);
    animation_->setEndValue(targetFill());
    animation_->start();
}

void ForceMeter::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    QColor track = palette().color(QPalette::WindowText);
    track.setAlphaF(0.12f);
    const QRectF bar(0, 2, width(), barHeight);
    painter.setBrush(track);
    painter.drawRoundedRect(bar, barHeight / 2.0, barHeight / 2.0);
    if (shown_ <= 0) return;
    painter.setBrush(barColor());
    painter.drawRoundedRect(QRectF(bar.left(), bar.top(), std::max(double(barHeight), bar.width() * shown_), barHeight),
                            barHeight / 2.0, barHeight / 2.0);
}

} // namespace tobrin::app
