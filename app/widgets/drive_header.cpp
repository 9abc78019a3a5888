#include "drive_header.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "drive_selection.h"
#include "labels.h"

DriveHeader::DriveHeader(const QString& title, DriveSelection* selection, std::function<void()> refresh,
                         QWidget* parent)
    : QWidget(parent), selection_(selection) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(Labels::title(title));
    auto* row = new QHBoxLayout;
    picker_ = new QComboBox;
    picker_->setMinimumWidth(220);
    refresh_ = new QPushButton(tr("Refresh"));
    row->addWidget(picker_);
    row->addWidget(refresh_);
    row->addStretch();
    layout->addLayout(row);

    connect(refresh_, &QPushButton::clicked, this, [refresh = std::move(refresh)] { refresh(); });
    connect(picker_, &QComboBox::activated, this, [this](int index) {
        QVariant path = picker_->itemData(index);
        if (path.isValid()) selection_->select(path.toString());
    });
    connect(selection_, &DriveSelection::changed, this, &DriveHeader::fillPicker);
    fillPicker();
}

void DriveHeader::setDescription(const QString& text) {
    QLabel* line = Labels::caption(text, font().pointSize());
    line->setWordWrap(true);
    static_cast<QVBoxLayout*>(layout())->insertWidget(1, line);
}

void DriveHeader::setRefreshEnabled(bool enabled) { refresh_->setEnabled(enabled); }

void DriveHeader::fillPicker() {
    picker_->clear();
    if (selection_->volumes().isEmpty()) picker_->addItem(tr("No drives found"));
    for (const QmVolume& v : selection_->volumes()) picker_->addItem(v.name, v.path);
    if (selection_->path()) picker_->setCurrentIndex(std::max(0, picker_->findData(*selection_->path())));
}
