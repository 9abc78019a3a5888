#include "flash_view.h"

#include <QButtonGroup>
#include <QComboBox>
#include <QFileDialog>
#include <QFrame>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>
#include <cmath>

#include "labels.h"

namespace {
constexpr int kProgressSteps = 1000;
constexpr double kGiB = 1073741824.0;  // drives' sizes are shown in these, labelled GB
}  // namespace

FlashView::FlashView(FlashModel* model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(10);
    layout->addWidget(Labels::title(tr("Install Quillmate to a USB drive")));
    layout->addWidget(new QLabel(tr("Everything on the selected drive will be erased.")));
    layout->addWidget(new QLabel(tr("Target USB drive:")));

    auto* row = new QHBoxLayout;
    picker_ = new QComboBox;
    picker_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    picker_->setModel(model_->driveList());
    picker_->setPlaceholderText(tr("No USB drives found"));
    showAll_ = new QPushButton;
    refresh_ = new QPushButton(tr("Refresh"));
    row->addWidget(picker_, 1);
    row->addWidget(showAll_);
    row->addWidget(refresh_);
    layout->addLayout(row);
    hint_ = Labels::caption(QString(), font().pointSize());
    hint_->setWordWrap(true);
    layout->addWidget(hint_);

    choices_ = new QGroupBox;
    auto* box = new QVBoxLayout(choices_);
    boot_ = segmented({displayText(BootMode::uefi), displayText(BootMode::bios)}, choices_, box);
    fs_ = segmented({displayText(FSChoice::fat32), displayText(FSChoice::exfat)}, choices_, box);
    notes_ = new QLabel;
    notes_->setWordWrap(true);
    box->addWidget(notes_);
    layout->addWidget(choices_);

    progress_ = new QProgressBar;
    progress_->setRange(0, kProgressSteps);
    progress_->setTextVisible(false);
    progress_->setVisible(false);  // an empty bar before any write says nothing
    layout->addWidget(progress_);
    detail_ = Labels::caption(QString());
    layout->addWidget(detail_);

    auto* bottom = new QHBoxLayout;
    status_ = Labels::status();
    install_ = new QPushButton(tr("Install"));
    install_->setDefault(true);
    bottom->addWidget(status_, 1);
    bottom->addWidget(install_);
    layout->addLayout(bottom);

    auto* kept = new QFrame;
    kept->setFrameShape(QFrame::StyledPanel);
    auto* keptRow = new QHBoxLayout(kept);
    keptText_ = Labels::status();
    putBack_ = new QPushButton(tr("Put your writing back"));
    keptRow->addWidget(keptText_, 1);
    keptRow->addWidget(putBack_);
    kept_ = kept;
    layout->addWidget(kept_);
    layout->addStretch();

    connect(picker_, &QComboBox::activated, this, [this](int index) {
        QVariant id = picker_->itemData(index, DriveList::IdRole);
        if (id.isValid()) model_->select(id.toString());
    });
    connect(showAll_, &QPushButton::clicked, this, [this] { model_->setShowAll(!model_->showAll()); });
    connect(refresh_, &QPushButton::clicked, model_, &FlashModel::refresh);
    connect(boot_, &QButtonGroup::idClicked, this, [this](int id) { model_->setBoot(BootMode(id)); });
    connect(fs_, &QButtonGroup::idClicked, this, [this](int id) { model_->setFs(FSChoice(id)); });
    connect(install_, &QPushButton::clicked, model_, &FlashModel::flash);
    connect(putBack_, &QPushButton::clicked, &model_->keeper(), [this] { model_->keeper().putBack(); });
    connect(model_, &FlashModel::changed, this, &FlashView::refreshFromModel);
    connect(&model_->keeper(), &WritingKeeper::changed, this, &FlashView::refreshFromModel);
    connect(model_, &FlashModel::dialogRequested, this, [this](const FlashDialog& d) {
        present(model_, d, [this, id = d.id](int button) { model_->answer(id, button); });
    });
    connect(model_, &FlashModel::folderRequested, this, &FlashView::chooseFolder);
    connect(model_, &FlashModel::dialogClosed, this, [this](int id) { closeQuestion(model_, id); });
    WritingKeeper* keeper = &model_->keeper();
    connect(keeper, &WritingKeeper::dialogRequested, this, [this, keeper](const FlashDialog& d) {
        present(keeper, d, [keeper, id = d.id](int button) { keeper->answer(id, button); });
    });
    connect(keeper, &WritingKeeper::dialogClosed, this, [this, keeper](int id) { closeQuestion(keeper, id); });
    refreshFromModel();
}

QButtonGroup* FlashView::segmented(const QStringList& texts, QGroupBox* box, QLayout* into) {
    auto* group = new QButtonGroup(box);
    auto* row = new QHBoxLayout;
    row->setSpacing(0);
    for (int i = 0; i < texts.size(); ++i) {
        auto* b = new QPushButton(texts[i]);
        b->setCheckable(true);
        group->addButton(b, i);
        row->addWidget(b);
    }
    row->addStretch();
    static_cast<QBoxLayout*>(into)->addLayout(row);
    return group;
}

void FlashView::present(const QObject* from, const FlashDialog& dialog, std::function<void(int)> answered) {
    static const QMessageBox::Icon icons[] = {QMessageBox::Warning, QMessageBox::Critical, QMessageBox::Information};
    auto* box = new QMessageBox(icons[int(dialog.kind)], dialog.title, dialog.text, QMessageBox::NoButton, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    QList<QPushButton*> buttons;
    for (QString text : dialog.buttons)  // "&&": the texts are shown as written, "&" takes no key
        buttons << box->addButton(text.replace(QLatin1Char('&'), QStringLiteral("&&")),
                                  buttons.size() == dialog.cancel ? QMessageBox::RejectRole : QMessageBox::AcceptRole);
    if (!buttons.isEmpty()) box->setDefaultButton(buttons.first());  // Return takes the safe answer
    if (dialog.cancel >= 0 && dialog.cancel < buttons.size()) box->setEscapeButton(buttons[dialog.cancel]);
    if (dialog.id != 0) open_.insert({from, dialog.id}, box);
    connect(box, &QMessageBox::finished, this, [this, box, buttons, from, id = dialog.id, answered] {
        open_.remove({from, id});
        answered(int(buttons.indexOf(static_cast<QPushButton*>(box->clickedButton()))));
    });
    box->open();
}

void FlashView::chooseFolder(int id, const QString& caption) {
    auto* dialog = new QFileDialog(this, caption);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    open_.insert({model_, id}, dialog);
    connect(dialog, &QFileDialog::finished, this, [this, dialog, id](int result) {
        open_.remove({model_, id});
        QStringList chosen = dialog->selectedFiles();
        model_->answerFolder(id, result == QDialog::Accepted && !chosen.isEmpty() ? chosen.first() : QString());
    });
    dialog->open();
}

void FlashView::closeQuestion(const QObject* from, int id) {
    if (QPointer<QDialog> dialog = open_.take({from, id})) dialog->reject();
}

QString FlashView::noDriveHint() const {
    if (!model_->drives().isEmpty()) return QString();
    std::optional<qint64> size = model_->imageSize();
    if (!size) return tr("Plug in a USB stick or SD card, then press Refresh.");
    qint64 gb = std::max<qint64>(1, qint64(std::ceil(double(*size) / kGiB)));
    return tr("Plug in a USB stick or SD card of at least %1 GB, then press Refresh.").arg(gb);
}

void FlashView::showEvent(QShowEvent* e) {
    QWidget::showEvent(e);
    if (!listed_) model_->refresh();  // the first appearance lists the drives
    listed_ = true;
}

// The combo box follows the rows itself; which of them is current is the model's selection.
void FlashView::showSelection() {
    int row = model_->selection() ? model_->driveList()->row(*model_->selection()) : -1;
    if (picker_->currentIndex() != row) picker_->setCurrentIndex(row);
}

void FlashView::refreshFromModel() {
    showSelection();
    bool busy = model_->busy();
    int hidden = model_->hiddenCount();
    showAll_->setVisible(model_->showAll() || hidden > 0);
    showAll_->setText(model_->showAll() ? tr("Hide empty") : tr("Show all (%1)").arg(hidden));
    for (QWidget* w : {static_cast<QWidget*>(picker_), static_cast<QWidget*>(showAll_), static_cast<QWidget*>(refresh_),
                       static_cast<QWidget*>(choices_)})
        w->setEnabled(!busy);
    boot_->button(int(model_->boot()))->setChecked(true);
    fs_->button(int(model_->fs()))->setChecked(true);
    notes_->setText(model_->notes());
    QString hint = noDriveHint();
    hint_->setVisible(!hint.isEmpty() && !busy);
    hint_->setText(hint);
    wrote_ = wrote_ || busy;
    progress_->setVisible(wrote_);  // kept after a write ends: its last value says how far it got
    progress_->setValue(int(model_->progress() * kProgressSteps));
    detail_->setText(model_->detail());
    status_->setText(model_->status());
    const WritingKeeper& keeper = model_->keeper();
    install_->setEnabled(!busy && !model_->asking() && !keeper.working() && model_->selectedDrive().has_value());
    QString kept = keeper.status();
    kept_->setVisible(!kept.isEmpty());
    keptText_->setText(kept);
    putBack_->setEnabled(!busy && !keeper.working() && keeper.ready());
}
