#pragma once

#include <QLabel>

namespace tobrin::app {

// The small heading of a panel section.
class SectionLabel : public QLabel {
    Q_OBJECT

public:
    explicit SectionLabel(const QString& text, QWidget* parent = nullptr) : QLabel(text, parent) {
        QFont heading = font();
        heading.setBold(true);
        heading.setPointSizeF(heading.pointSizeF() * 0.9);
        setFont(heading);
        setForegroundRole(QPalette::PlaceholderText);
    }
};

} // namespace tobrin::app
