#pragma once

#include "TobrinKit/Packs/PackInfo.h"

#include <QAbstractButton>

#include <functional>

namespace tobrin::app {

// One pack of the pack grid: its name and kind, marked when it is the
// selected one. A click runs `action`; the mark follows the model, never the
// click itself.
class PackTile : public QAbstractButton {
    Q_OBJECT

public:
    PackTile(PackInfo pack, std::function<void()> action, QWidget* parent = nullptr);
    const PackInfo& pack() const { return pack_; }
    bool selected() const { return selected_; }
    void setSelected(bool selected);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    // A click asks for the pack; the model's answer moves the mark.
    void nextCheckState() override {}

private:
    PackInfo pack_;
    bool selected_ = false;
};

} // namespace tobrin::app
