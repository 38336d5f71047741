#pragma once

#include "Panel/Card.h"

class QLabel;
class QPushButton;

namespace tobrin::app {

class AppModel;

// Asks for keyboard access; the panel shows it only while the model has none.
// "How to Allow" shows the steps (Linux cannot prompt for it); "Relaunch
// Tobrin" appears once access is granted but needs a new start.
class PermissionCard : public Card {
    Q_OBJECT

public:
    explicit PermissionCard(AppModel& model, QWidget* parent = nullptr);
    void refresh();

private:
    AppModel& model_;
    QLabel* steps_;
    QPushButton* relaunch_;
};

} // namespace tobrin::app
