#pragma once

#include <QWidget>

class QLabel;

namespace tobrin::app {

class AppModel;

// The selected pack: its name, kind and summary, and its author and licence
// where its manifest names them; or the model's pack error instead.
class PackDetail : public QWidget {
    Q_OBJECT

public:
    explicit PackDetail(AppModel& model, QWidget* parent = nullptr);
    void refresh();

private:
    AppModel& model_;
    QLabel* name_;
    QLabel* summary_;
    QLabel* credits_;
    QLabel* error_;
};

} // namespace tobrin::app
