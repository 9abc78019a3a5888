#include "backup_settings.h"

#include <QCheckBox>
#include <QDir>
#include <QFileDialog>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "cloud_platform.h"
#include "labels.h"

namespace {

QLabel* wrapped(QLabel* l) {
    l->setWordWrap(true);
    return l;
}

QString names(const QList<CloudFolder>& folders) {
    QStringList n;
    for (const CloudFolder& f : folders) n << f.name;
    return n.join(QStringLiteral(", "));
}

}  // namespace

BackupSettingsSection::BackupSettingsSection(BackupModel* model, QWidget* parent)
    : QWidget(parent), model_(model), picker_([](QWidget* parent, const QString& start) {
          return QFileDialog::getExistingDirectory(parent, tr("Where should copies of your writing go?"), start);
      }) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addWidget(Labels::heading(tr("Backing up your writing")));
    layout->addWidget(new QLabel(tr("Where should copies of your writing go?")));

    layout->addWidget(Labels::caption(tr("Found on this computer"), font().pointSize()));
    serviceButtons_ = new QVBoxLayout;
    serviceButtons_->setSpacing(4);
    layout->addLayout(serviceButtons_);
    noServices_ = wrapped(Labels::caption(
        tr("No cloud folders found. Install %1 and their folder appears here; any folder works meanwhile.")
            .arg(CloudPlatform::serviceNames()),
        font().pointSize()));
    layout->addWidget(noServices_);
    missing_ = wrapped(Labels::caption(QString(), font().pointSize()));
    layout->addWidget(missing_);

    auto* chooseRow = new QHBoxLayout;
    auto* choose = new QPushButton(tr("Choose a folder..."));
    chooseRow->addWidget(choose);
    chooseRow->addStretch();
    layout->addLayout(chooseRow);
    destination_ = wrapped(new QLabel);
    destination_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(destination_);

    automatic_ = new QCheckBox(tr("Copy new writing automatically, while this app is open"));
    layout->addWidget(automatic_);

    connect(choose, &QPushButton::clicked, this, &BackupSettingsSection::pick);
    connect(automatic_, &QCheckBox::toggled, this, [this](bool on) {
        if (on != model_->automatic()) model_->setAutomatic(on);
    });
    connect(model_, &BackupModel::changed, this, &BackupSettingsSection::refreshFromModel);
    refreshFromModel();
}

void BackupSettingsSection::showEvent(QShowEvent* e) {
    QWidget::showEvent(e);
    model_->detectServices();
}

void BackupSettingsSection::pick() {
    QString start = model_->destination().isEmpty() ? QDir::homePath() : model_->destination();
    QString path = picker_(this, start);
    if (!path.isEmpty()) model_->choose(path);
}

void BackupSettingsSection::refreshFromModel() {
    if (shownServices_ != model_->services()) fillServices();
    noServices_->setVisible(model_->services().isEmpty());
    missing_->setVisible(!model_->missing().isEmpty());
    missing_->setText(tr("Found on this computer  -  not installed: ") + names(model_->missing()));
    const QString& dest = model_->destination();
    destination_->setText(dest.isEmpty() ? tr("No folder chosen")
                                         : tr("Copies go to %1").arg(QDir::toNativeSeparators(dest)));
    automatic_->setChecked(model_->automatic());
}

void BackupSettingsSection::fillServices() {
    shownServices_ = model_->services();
    while (QLayoutItem* item = serviceButtons_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (const CloudFolder& f : shownServices_) {
        auto* b = new QPushButton(f.name);
        b->setToolTip(QDir::toNativeSeparators(f.path));
        auto* row = new QWidget;
        auto* rowLayout = new QHBoxLayout(row);
        rowLayout->setContentsMargins(0, 0, 0, 0);
        rowLayout->addWidget(b);
        rowLayout->addWidget(wrapped(Labels::caption(QDir::toNativeSeparators(f.path), font().pointSize() - 1)), 1);
        connect(b, &QPushButton::clicked, this, [this, path = f.path] { model_->choose(path); });
        serviceButtons_->addWidget(row);
    }
}
