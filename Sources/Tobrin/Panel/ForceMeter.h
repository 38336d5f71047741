#pragma once

#include "TobrinKit/Engine/EngineSettings.h"

#include <QWidget>

#include <optional>

class QLabel;
class QVariantAnimation;

namespace tobrin::app {

// The last key's force: a bar filled to its strength on a scale of 0 to 4
// typical keystrokes, coloured by its tier and moving there over 0.12 s,
// with a caption; before the first reading, an invitation to type.
class ForceMeter : public QWidget {
    Q_OBJECT

public:
    explicit ForceMeter(QWidget* parent = nullptr);
    void setReading(const std::optional<ForceReading>& reading);
    const std::optional<ForceReading>& reading() const { return reading_; }
    QString caption() const;
    // The bar's fill (0 ... 1) now and where it is heading.
    double fill() const { return shown_; }
    double targetFill() const;
    QColor barColor() const;

    static constexpr int animationMilliseconds = 120;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    std::optional<ForceReading> reading_;
    double shown_ = 0;
    QLabel* caption_;
    QVariantAnimation* animation_;
};

} // namespace tobrin::app
