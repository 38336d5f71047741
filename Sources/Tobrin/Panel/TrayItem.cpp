#include "Panel/TrayItem.h"

#include "AppModel.h"
#include "Panel/Icons.h"

#include <QApplication>
#include <QCursor>
#include <QEvent>
#include <QScreen>

#include <algorithm>

namespace tobrin::app {

TrayItem::TrayItem(AppModel& model, bool trayAvailable)
    : model_(model), hasTray_(trayAvailable), panel_(std::make_unique<MenuView>(model)) {
    panel_->setWindowIcon(Icons::application());
    refresh();
    if (hasTray_) {
        // A panel, not a window: no frame, gone when the user clicks elsewhere.
        panel_->setWindowFlags(Qt::Tool | Qt::FramelessWindowHint);
        panel_->installEventFilter(this);
        // Some trays (GNOME's extension) show only a menu and never report a
        // click: the menu's first entry opens the panel there.
        menu_.addAction(QStringLiteral("Open Tobrin"), this, &TrayItem::showPanel);
        menu_.addSeparator();
        menu_.addAction(QStringLiteral("Quit"), qApp, &QCoreApplication::quit, Qt::QueuedConnection);
        icon_.setContextMenu(&menu_);
        connect(&icon_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) togglePanel();
        });
        icon_.show();
    } else {
        panel_->setWindowFlags(Qt::Window);
        panel_->show();
    }
    connect(&model_, &AppModel::gateChanged, this, &TrayItem::refresh);
    connect(&model_, &AppModel::statusLineChanged, this, &TrayItem::refresh);
    connect(&model_, &AppModel::panelRequested, this, &TrayItem::showPanel);
}

TrayItem::~TrayItem() { icon_.hide(); }

void TrayItem::refresh() {
    const QColor text = QApplication::palette().color(QPalette::WindowText);
    icon_.setIcon(Icons::keyboard(model_.playing(), text));
    icon_.setToolTip(QStringLiteral("Tobrin \u2014 ") + model_.statusLine());
}

void TrayItem::showPanel() {
    if (hasTray_) placeBesideTray();
    panel_->show();
    panel_->raise();
    panel_->activateWindow();
}

void TrayItem::togglePanel() {
    if (panel_->isVisible())
        panel_->hide();
    else if (!hiddenByFocus_.isValid() || hiddenByFocus_.elapsed() > 300)
        showPanel();
}

void TrayItem::placeBesideTray() {
    panel_->adjustSize();
    const QSize size = panel_->size();
    // StatusNotifierItem hosts do not tell where the icon is: the pointer,
    // which just clicked it, stands in.
    QRect anchor = icon_.geometry();
    if (!anchor.isValid()) anchor = QRect(QCursor::pos(), QSize(1, 1));
    QScreen* screen = QGuiApplication::screenAt(anchor.center());
    if (!screen) screen = QGuiApplication::primaryScreen();
    if (!screen) return;
    const QRect area = screen->availableGeometry();
    const int x = std::clamp(anchor.center().x() - size.width() / 2, area.left(),
                             std::max(area.left(), area.right() - size.width()));
    // Below an icon in the upper half of the screen, above one in the lower.
    const int y = anchor.center().y() < area.center().y() ? anchor.bottom() + 4 : anchor.top() - size.height() - 4;
    panel_->move(x, std::clamp(y, area.top(), std::max(area.top(), area.bottom() - size.height())));
}

bool TrayItem::eventFilter(QObject* watched, QEvent* event) {
    if (watched == panel_.get() && event->type() == QEvent::WindowDeactivate && !panel_->isActiveWindow()) {
        panel_->hide();
        hiddenByFocus_.start();
    }
    return QObject::eventFilter(watched, event);
}

} // namespace tobrin::app
