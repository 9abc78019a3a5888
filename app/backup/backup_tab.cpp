#include "backup_tab.h"

#include <QDir>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

#include "drive_header.h"
#include "labels.h"

namespace {

const QColor kSerious(196, 43, 28);

QLabel* explanation(const QString& text, int pointSize) {
    QLabel* l = Labels::caption(text, pointSize);
    l->setWordWrap(true);
    return l;
}

}  // namespace

QString BackupTab::progressText(const BackupProgress& p) {
    return tr("%1 of %2 files, %3 of %4")
        .arg(p.filesDone)
        .arg(p.filesTotal)
        .arg(BackupResult::human(p.bytesDone), BackupResult::human(p.bytesTotal));
}

BackupTab::BackupTab(BackupModel* model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(10);

    header_ = new DriveHeader(tr("Back up your writing"), model_->driveSelection(), [model] { model->rescan(); });
    header_->setDescription(
        tr("Keep a copy of your writing somewhere other than the stick. Choose a folder once and copies keep "
           "happening while this app is open."));
    layout->addWidget(header_);

    auto* copyTo = new QVBoxLayout;
    copyTo->setSpacing(2);
    copyTo->addWidget(Labels::caption(tr("Copy to"), font().pointSize()));
    destination_ = new QLabel;
    destination_->setWordWrap(true);
    destination_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    copyTo->addWidget(destination_);
    driveFolder_ = Labels::caption(QString(), font().pointSize() - 1);
    driveFolder_->setWordWrap(true);
    driveFolder_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    copyTo->addWidget(driveFolder_);
    copyTo->addWidget(Labels::caption(tr("Copies go to a folder chosen in Settings."), font().pointSize() - 1));
    layout->addLayout(copyTo);

    auto* buttons = new QHBoxLayout;
    backUp_ = new QPushButton(tr("Back up now"));
    check_ = new QPushButton(tr("Check the copies"));
    open_ = new QPushButton(tr("Open the folder"));
    putBack_ = new QPushButton(tr("Put writing back…"));
    putBack_->setToolTip(tr("Copy the writing from a backup folder onto this stick. Nothing on the stick is "
                            "overwritten: a file that differs keeps its place and the backup's copy goes beside it."));
    for (QPushButton* b : {backUp_, check_, open_, putBack_}) buttons->addWidget(b);
    buttons->addStretch();
    layout->addLayout(buttons);

    progress_ = Labels::caption(QString(), font().pointSize());
    status_ = Labels::status();
    status_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    warning_ = Labels::status();
    for (QLabel* l : {progress_, status_, warning_}) layout->addWidget(l);
    layout->addStretch();

    int small = font().pointSize() - 1;
    layout->addWidget(explanation(
        tr("Copies are only ever added or updated: nothing in the folder is deleted, so a document you lose from "
           "the stick is still in the copy. Every copy is checked as it is made. Documents and version history "
           "travel; the drive's keys and statistics do not."),
        small));
    layout->addWidget(explanation(
        tr("Every copy is checked as it is made, by comparing a fingerprint of the file that arrived with the one "
           "that left, and older copies are re-checked a few at a time. Press Check the copies to go through all "
           "of them now."),
        small));

    connect(backUp_, &QPushButton::clicked, this, [this] { model_->runNow(false); });
    connect(check_, &QPushButton::clicked, this, [this] { model_->runNow(true); });
    connect(open_, &QPushButton::clicked, this, [this] {
        if (std::optional<QString> problem = model_->revealFolder())
            QMessageBox::warning(this, tr("Open the folder"), *problem);
    });
    connect(putBack_, &QPushButton::clicked, this, &BackupTab::chooseAndPutBack);
    connect(model_, &BackupModel::changed, this, &BackupTab::refreshFromModel);
    refreshFromModel();
}

void BackupTab::showEvent(QShowEvent* e) {
    QWidget::showEvent(e);
    // A cloud client installed meanwhile, or a folder made since, shows without a Refresh; both
    // are looked for off this thread and arrive through changed().
    model_->detectServices();
    model_->refreshStatus();
}

void BackupTab::chooseAndPutBack() {
    QString start = model_->folder().value_or(model_->destination());
    QString chosen = QFileDialog::getExistingDirectory(this, tr("Choose the backup folder to put back"), start);
    if (chosen.isEmpty()) return;
    model_->restoreFrom(chosen);
}

void BackupTab::refreshFromModel() {
    const QString& dest = model_->destination();
    destination_->setText(dest.isEmpty() ? tr("No folder chosen") : QDir::toNativeSeparators(dest));
    bool canRun = !model_->busy() && model_->volume() && !dest.isEmpty();
    backUp_->setEnabled(canRun);
    check_->setEnabled(canRun);
    std::optional<QString> folder = model_->folder();
    open_->setEnabled(folder && model_->folderExists());
    putBack_->setEnabled(!model_->busy() && model_->volume());
    driveFolder_->setVisible(folder.has_value());
    if (folder) driveFolder_->setText(tr("This stick's copies: %1").arg(QDir::toNativeSeparators(*folder)));
    header_->setRefreshEnabled(!model_->busy());

    // A run on a drive that has gone may still report; its counts are not shown against nothing.
    progress_->setVisible(model_->progress().has_value() && model_->volume());
    if (model_->progress()) progress_->setText(progressText(*model_->progress()));
    status_->setText(model_->status());
    warning_->setVisible(model_->warning().has_value());
    warning_->setText(model_->warning().value_or(QString()));
    QPalette palette = warning_->palette();
    palette.setColor(QPalette::WindowText,
                     model_->warningIsSerious() ? kSerious : palette.color(QPalette::PlaceholderText));
    warning_->setPalette(palette);
}
