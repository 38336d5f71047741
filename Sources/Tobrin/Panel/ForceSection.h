#pragma once

#include <QWidget>

class QCheckBox;
class QComboBox;
class QSlider;

namespace tobrin::app {

class AppModel;
class ForceMeter;

// The force controls. With a motion sensor: the switch "Feel how hard you
// type", then the sensitivity slider and the force meter while it is on, the
// fixed strength while it is off. Without one, only a note and the fixed
// strength: the switch, the slider and the meter are never made.
class ForceSection : public QWidget {
    Q_OBJECT

public:
    explicit ForceSection(AppModel& model, QWidget* parent = nullptr);
    void refresh();
    void showReading();

    // Sensitivity = slider value / this.
    static constexpr int sensitivitySteps = 100;

private:
    AppModel& model_;
    QCheckBox* sensing_ = nullptr;
    QWidget* sensitivityRow_ = nullptr;
    QSlider* sensitivity_ = nullptr;
    ForceMeter* meter_ = nullptr;
    QWidget* strengthRow_;
    QComboBox* strength_;
};

} // namespace tobrin::app
