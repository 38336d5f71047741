#include "Panel/PermissionCard.h"

#include "AppModel.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

namespace tobrin::app {

PermissionCard::PermissionCard(AppModel& model, QWidget* parent)
    : Card(QColor(0xe5, 0xa5, 0x0a), parent), model_(model) {
    auto* title = new QLabel(QStringLiteral("Tobrin needs keyboard access"));
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    auto* text = new QLabel(
        QStringLiteral("It only uses key presses to pick a sound. It never records or sends what you type."));
    text->setWordWrap(true);
    steps_ = new QLabel(QStringLiteral("Add yourself to the input group:\n"
                                       "sudo usermod -aG input $USER\n"
                                       "then log out and back in."));
    steps_->setWordWrap(true);
    steps_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    steps_->setAccessibleName(QStringLiteral("How to allow keyboard access"));
    steps_->hide();

    auto* howTo = new QPushButton(QStringLiteral("How to Allow"));
    howTo->setAccessibleName(howTo->text());
    connect(howTo, &QPushButton::clicked, steps_, [this] { steps_->setVisible(true); });
    relaunch_ = new QPushButton(QStringLiteral("Relaunch Tobrin"));
    relaunch_->setAccessibleName(relaunch_->text());
    connect(relaunch_, &QPushButton::clicked, &model_, &AppModel::relaunch);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(howTo);
    buttons->addWidget(relaunch_);
    buttons->addStretch();
    content()->addWidget(title);
    content()->addWidget(text);
    content()->addWidget(steps_);
    content()->addLayout(buttons);
    refresh();
}

void PermissionCard::refresh() { relaunch_->setVisible(model_.needsRelaunch()); }

} // namespace tobrin::app
