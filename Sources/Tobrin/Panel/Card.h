#pragma once

#include <QColor>
#include <QFrame>
#include <QVBoxLayout>

namespace tobrin::app {

// A rounded, tinted container for grouped content. Without a tint it takes
// a faint wash of the palette's text colour, which reads on light and dark
// backgrounds alike.
class Card : public QFrame {
    Q_OBJECT

public:
    explicit Card(QColor tint = {}, QWidget* parent = nullptr);
    QVBoxLayout* content() const { return content_; }
    QColor tint() const { return tint_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QColor tint_;
    QVBoxLayout* content_;
};

} // namespace tobrin::app
