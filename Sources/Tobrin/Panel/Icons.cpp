#include "Panel/Icons.h"

#include <QFile>
#include <QHash>
#include <QIconEngine>
#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>

#include <algorithm>
#include <functional>
#include <memory>

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

// An icon drawn by its paint() at whatever size is asked, so no size is
// rendered (and kept) before something shows it.
class PaintedEngine : public QIconEngine {
public:
    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
        QPixmap pixmap(size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        paint(&painter, pixmap.rect(), mode, state);
        return pixmap;
    }
};

// A bundled SVG.
class SvgEngine final : public PaintedEngine {
public:
    explicit SvgEngine(std::shared_ptr<QSvgRenderer> renderer) : renderer_(std::move(renderer)) {}
    void paint(QPainter* painter, const QRect& rect, QIcon::Mode, QIcon::State) override {
        renderer_->render(painter, rect);
    }
    QIconEngine* clone() const override { return new SvgEngine(renderer_); }

private:
    std::shared_ptr<QSvgRenderer> renderer_;
};

// Another icon, faded and struck through: the keyboard while sounds are off.
class StruckEngine final : public PaintedEngine {
public:
    StruckEngine(QIcon plain, QColor color) : plain_(std::move(plain)), color_(color) {}
    void paint(QPainter* painter, const QRect& rect, QIcon::Mode, QIcon::State) override {
        painter->save();
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setOpacity(0.4);
        plain_.paint(painter, rect);
        painter->setOpacity(1);
        const double size = std::min(rect.width(), rect.height());
        painter->setPen(QPen(color_, std::max(1.5, size / 9.0), Qt::SolidLine, Qt::RoundCap));
        const double inset = size * 0.12;
        painter->drawLine(QPointF(rect.left() + inset, rect.top() + inset),
                          QPointF(rect.left() + size - inset, rect.top() + size - inset));
        painter->restore();
    }
    QIconEngine* clone() const override { return new StruckEngine(plain_, color_); }

private:
    QIcon plain_;
    QColor color_;
};

// The bundled drawing, with "currentColor" painted in `color`.
QIcon bundled(const QString& name, const QColor& color) {
    registerBundledIcons();
    QFile file(QStringLiteral(":/icons/") + name + QStringLiteral(".svg"));
    if (!file.open(QIODevice::ReadOnly)) return {};
    QByteArray svg = file.readAll();
    svg.replace("currentColor", color.name(QColor::HexRgb).toLatin1());
    return QIcon(new SvgEngine(std::make_shared<QSvgRenderer>(svg)));
}

// Icons are asked for on every change of the panel: each is made once.
QIcon cached(const QString& key, const std::function<QIcon()>& make) {
    static QHash<QString, QIcon> made;
    auto found = made.constFind(key);
    if (found != made.constEnd()) return *found;
    return *made.insert(key, make());
}

} // namespace

QIcon named(const QString& name, const QColor& color) {
    return cached(name + color.name(QColor::HexArgb), [&] {
        if (QIcon::hasThemeIcon(name)) return QIcon::fromTheme(name);
        return bundled(name, color);
    });
}

QIcon keyboard(bool playing, const QColor& color) {
    const QIcon plain = named(QStringLiteral("input-keyboard"), color);
    if (playing) return plain;
    return cached(QStringLiteral("off") + color.name(QColor::HexArgb),
                  [&] { return QIcon(new StruckEngine(plain, color)); });
}

QIcon application() {
    return cached(QStringLiteral("tobrin"), [] {
        if (QIcon::hasThemeIcon(QStringLiteral("tobrin"))) return QIcon::fromTheme(QStringLiteral("tobrin"));
        return bundled(QStringLiteral("tobrin"), Qt::black);
    });
}

} // namespace tobrin::app::Icons
