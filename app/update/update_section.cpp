#include "update_section.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "labels.h"
#include "settings_model.h"

UpdateSettingsSection::UpdateSettingsSection(SettingsModel* model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addWidget(Labels::heading(tr("Keeping this app up to date")));
    version_ = new QLabel;
    layout->addWidget(version_);
    automatic_ = new QCheckBox(tr("Check for updates automatically"));
    layout->addWidget(automatic_);
    QLabel* note = Labels::caption(tr("Checks once a day, in the background, and says nothing at all if it cannot "
                                      "reach the server. Finding an update never installs it: you are asked first, "
                                      "every time."),
                                   font().pointSize() - 1);
    note->setWordWrap(true);
    layout->addWidget(note);

    auto* row = new QHBoxLayout;
    check_ = new QPushButton(tr("Check for updates now"));
    row->addWidget(check_);
    row->addStretch();
    layout->addLayout(row);
    status_ = Labels::status();
    layout->addWidget(status_);

    connect(automatic_, &QCheckBox::toggled, model_, &SettingsModel::setAutomatic);
    connect(check_, &QPushButton::clicked, model_, &SettingsModel::checkNow);
    connect(model_, &SettingsModel::changed, this, &UpdateSettingsSection::refreshFromModel);
    refreshFromModel();
}

void UpdateSettingsSection::refreshFromModel() {
    version_->setText(tr("This is version %1.").arg(model_->version()));
    automatic_->setChecked(model_->automatic());
    check_->setEnabled(!model_->busy());
    status_->setText(model_->status());
}
