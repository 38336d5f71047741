#include "Panel/PackDetail.h"

#include "AppModel.h"

#include "TobrinKit/Packs/PackManifest.h"

#include <QLabel>
#include <QVBoxLayout>

namespace tobrin::app {
namespace {

QLabel* wrapping(QPalette::ColorRole role = QPalette::WindowText) {
    auto* label = new QLabel;
    label->setWordWrap(true);
    label->setForegroundRole(role);
    label->setTextFormat(Qt::PlainText);
    return label;
}

} // namespace

PackDetail::PackDetail(AppModel& model, QWidget* parent)
    : QWidget(parent), model_(model), name_(wrapping()), summary_(wrapping()),
      credits_(wrapping(QPalette::PlaceholderText)), error_(wrapping()) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 0, 2, 0);
    layout->setSpacing(2);
    for (QLabel* label : {name_, summary_, credits_, error_}) layout->addWidget(label);
    error_->setAccessibleName(QStringLiteral("Pack error"));
    refresh();
}

void PackDetail::refresh() {
    const QString error = model_.packError();
    const PackInfo* selected = nullptr;
    const auto packs = model_.packs();
    for (const auto& pack : packs)
        if (QString::fromStdString(pack.id) == model_.selectedPackID()) selected = &pack;

    error_->setText(error);
    error_->setVisible(!error.isEmpty());
    const bool detail = error.isEmpty() && selected;
    for (QLabel* label : {name_, summary_, credits_}) label->setVisible(detail);
    if (!detail) return;

    name_->setText(QString::fromStdString(selected->name) + QStringLiteral(" \u00b7 ") +
                   QString::fromStdString(selected->kind));
    summary_->setText(QString::fromStdString(selected->summary.value_or("")));
    summary_->setVisible(selected->summary.has_value());
    // Author and licence live only in the manifest; a pack whose manifest
    // cannot be read now simply shows none.
    QStringList credits;
    try {
        const PackManifest manifest = PackManifest::read(selected->directory);
        if (manifest.author) credits << QStringLiteral("By ") + QString::fromStdString(*manifest.author);
        if (manifest.license) credits << QString::fromStdString(*manifest.license);
    } catch (const std::exception&) {
    }
    credits_->setText(credits.join(QStringLiteral("\n")));
    credits_->setVisible(!credits.isEmpty());
    setAccessibleName(name_->text());
}

} // namespace tobrin::app
