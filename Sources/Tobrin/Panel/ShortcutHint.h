#pragma once

#include <QLabel>

namespace tobrin::app {

// One line about the toggle shortcut: "<shortcut> in any app to turn sounds
// on or off".
class ShortcutHint : public QLabel {
    Q_OBJECT

public:
    explicit ShortcutHint(QWidget* parent = nullptr) : QLabel(parent) {
        setWordWrap(true);
        setForegroundRole(QPalette::PlaceholderText);
    }
    void setShortcut(const QString& shortcut) {
        setText(shortcut + QStringLiteral(" in any app to turn sounds on or off"));
        setAccessibleName(text());
    }
};

} // namespace tobrin::app
