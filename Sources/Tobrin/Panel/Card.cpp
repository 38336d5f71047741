#include "Panel/Card.h"

#include <QPainter>

namespace tobrin::app {

Card::Card(QColor tint, QWidget* parent) : QFrame(parent), tint_(tint), content_(new QVBoxLayout(this)) {
    content_->setContentsMargins(12, 10, 12, 10);
    content_->setSpacing(6);
}

void Card::paintEvent(QPaintEvent*) {
    QColor fill = tint_.isValid() ? tint_ : palette().color(QPalette::WindowText);
    fill.setAlphaF(tint_.isValid() ? 0.16f : 0.06f);
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 10, 10);
}

} // namespace tobrin::app
