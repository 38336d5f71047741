#include "Panel/Icons.h"

#include <QFile>
#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>

// Resources of a static library are registered by hand, outside any namespace.
static void registerBundledIcons() {
    static const bool registered = [] {
        Q_INIT_RESOURCE(icons);
        return true;
    }();
    (void)registered;
}

namespace tobrin::app::Icons {
namespace {

constexpr int sizes[] = {16, 22, 24, 32, 48, 64, 96, 128, 256};

// The bundled drawing, with "currentColor" painted in `color`.
QIcon bundled(const QString& name, const QColor& color) {
    registerBundledIcons();
    QFile file(QStringLiteral(":/icons/") + name + QStringLiteral(".svg"));
    if (!file.open(QIODevice::ReadOnly)) return {};
    QByteArray svg = file.readAll();
    svg.replace("currentColor", color.name(QColor::HexRgb).toLatin1());
    QSvgRenderer renderer(svg);
    QIcon icon;
    for (const int size : sizes) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        renderer.render(&painter);
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

} // namespace

QIcon named(const QString& name, const QColor& color) {
    if (QIcon::hasThemeIcon(name)) return QIcon::fromTheme(name);
    return bundled(name, color);
}

QIcon keyboard(bool playing, const QColor& color) {
    const QIcon plain = named(QStringLiteral("input-keyboard"), color);
    if (playing) return plain;
    QIcon off;
    for (const int size : sizes) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setOpacity(0.4);
        plain.paint(&painter, pixmap.rect());
        painter.setOpacity(1);
        painter.setPen(QPen(color, std::max(1.5, size / 9.0), Qt::SolidLine, Qt::RoundCap));
        const double inset = size * 0.12;
        painter.drawLine(QPointF(inset, inset), QPointF(size - inset, size - inset));
        painter.end();
        off.addPixmap(pixmap);
    }
    return off;
}

QIcon application() {
    if (QIcon::hasThemeIcon(QStringLiteral("tobrin"))) return QIcon::fromTheme(QStringLiteral("tobrin"));
    return bundled(QStringLiteral("tobrin"), Qt::black);
}

} // namespace tobrin::app::Icons
