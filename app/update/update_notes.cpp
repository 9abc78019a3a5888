#include "update_notes.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "labels.h"
#include "settings_model.h"

UpdateNotes::UpdateNotes(SettingsModel* model, QWidget* parent) : QDialog(parent), model_(model) {
    setWindowTitle(tr("Release notes"));
    resize(460, 360);
    auto* layout = new QVBoxLayout(this);
    title_ = Labels::heading(QString());
    title_->setTextFormat(Qt::PlainText);
    layout->addWidget(title_);
    notes_ = new QPlainTextEdit;
    notes_->setReadOnly(true);
    layout->addWidget(notes_, 1);
    mandatory_ = new QLabel(tr("This one fixes something that matters. It can be put off, but please don't."));
    mandatory_->setWordWrap(true);
    layout->addWidget(mandatory_);

    auto* buttons = new QDialogButtonBox;
    QPushButton* install = buttons->addButton(tr("Install now"), QDialogButtonBox::AcceptRole);
    buttons->addButton(QDialogButtonBox::Close);
    layout->addWidget(buttons);
    connect(install, &QPushButton::clicked, model_, &SettingsModel::updateNow);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(this, &QDialog::finished, model_, [this] { model_->setShowingNotes(false); });
    connect(model_, &SettingsModel::changed, this, &UpdateNotes::refreshFromModel);
    refreshFromModel();
}

void UpdateNotes::refreshFromModel() {
    if (!model_->found()) return;
    const UpdateInfo& info = *model_->found();
    title_->setText(tr("What's new in %1").arg(info.version));
    notes_->setPlainText(info.notes.isEmpty() ? tr("No notes were published for this version.") : info.notes);
    mandatory_->setVisible(info.mandatory);
}
