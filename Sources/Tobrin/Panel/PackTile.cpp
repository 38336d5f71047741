#include "Panel/PackTile.h"

#include <QPainter>
#include <QStyle>
#include <QStyleOptionFocusRect>

namespace tobrin::app {

PackTile::PackTile(PackInfo pack, std::function<void()> action, QWidget* parent)
    : QAbstractButton(parent), pack_(std::move(pack)) {
    setText(QString::fromStdString(pack_.name));
    setAccessibleName(text());
    setAccessibleDescription(QString::fromStdString(pack_.kind));
    setFocusPolicy(Qt::StrongFocus);
    setCursor(Qt::PointingHandCursor);
    // Screen readers hear the selection as the checked state of a button.
    setCheckable(true);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    connect(this, &QAbstractButton::clicked, this, [action = std::move(action)] { action(); });
}

void PackTile::setSelected(bool selected) {
    if (selected == selected_) return;
    selected_ = selected;
    setChecked(selected);
    update();
}

QSize PackTile::sizeHint() const {
    const QFontMetrics metrics(font());
    return {120, metrics.height() * 2 + 18};
}

void PackTile::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF frame = QRectF(rect()).adjusted(1, 1, -1, -1);
    QColor fill = selected_ ? palette().color(QPalette::Highlight) : palette().color(QPalette::WindowText);
    fill.setAlphaF(selected_ ? 0.22f : (underMouse() ? 0.10f : 0.05f));
    painter.setBrush(fill);
    painter.setPen(selected_ ? QPen(palette().color(QPalette::Highlight), 2) : Qt::NoPen);
    painter.drawRoundedRect(frame, 8, 8);

    const QRect text = rect().adjusted(10, 6, -10, -6);
    QFont name = font();
    name.setBold(selected_);
    painter.setFont(name);
    painter.setPen(palette().color(QPalette::WindowText));
    const QFontMetrics metrics(name);
    painter.drawText(text, Qt::AlignLeft | Qt::AlignTop,
                     metrics.elidedText(this->text(), Qt::ElideRight, text.width()));
    painter.setFont(font());
    painter.setPen(palette().color(QPalette::PlaceholderText));
    painter.drawText(text, Qt::AlignLeft | Qt::AlignBottom,
                     QFontMetrics(font()).elidedText(QString::fromStdString(pack_.kind), Qt::ElideRight, text.width()));

    if (hasFocus()) {
        QStyleOptionFocusRect option;
        option.initFrom(this);
        option.rect = rect().adjusted(2, 2, -2, -2);
        style()->drawPrimitive(QStyle::PE_FrameFocusRect, &option, &painter, this);
    }
}

} // namespace tobrin::app
