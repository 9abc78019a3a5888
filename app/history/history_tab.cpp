#include "history_tab.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QListView>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QStackedLayout>
#include <QVBoxLayout>

#include "drive_header.h"
#include "labels.h"

namespace {

// Marks the model's choice in a list, unless it is marked already.
void showChoice(QAbstractItemView* view, int row) {
    QItemSelectionModel* selection = view->selectionModel();
    QModelIndex index = view->model()->index(row, 0);
    if (!index.isValid()) return selection->clear();
    if (selection->currentIndex() != index || !selection->isSelected(index))
        selection->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
}

// Calls chosen with a row the user selects; a row removed under the selection chooses nothing.
template <typename Chosen>
void onChoice(QAbstractItemView* view, Chosen chosen) {
    QObject::connect(view->selectionModel(), &QItemSelectionModel::selectionChanged, view,
                     [chosen](const QItemSelection& selected) {
                         if (!selected.isEmpty()) chosen(selected.indexes().first());
                     });
}

}  // namespace

HistoryTab::HistoryTab(HistoryModel* model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(12);
    header_ = new DriveHeader(tr("History"), model_->driveSelection(), [model] { model->rescan(); });
    layout->addWidget(header_);

    auto* lists = new QHBoxLayout;
    auto* docColumn = new QVBoxLayout;
    // The smallest window shows the lists and the text at these sizes; a larger one shares the
    // room out, the text taking most of the height and the versions most of the width.
    documents_ = new QListView;
    documents_->setModel(model_->documentList());
    documents_->setMinimumSize(200, 120);
    docColumn->addWidget(Labels::caption(tr("Document")));
    docColumn->addWidget(documents_);
    auto* verColumn = new QVBoxLayout;
    versions_ = new QListView;
    versions_->setModel(model_->versionList());
    versions_->setMinimumHeight(120);
    QFont vf = versions_->font();
    vf.setPointSize(12);
    versions_->setFont(vf);
    verColumn->addWidget(Labels::caption(tr("Versions")));
    verColumn->addWidget(versions_);
    lists->addLayout(docColumn, 1);
    lists->addLayout(verColumn, 2);
    layout->addLayout(lists, 1);

    auto* shown = new QWidget;
    shown->setMinimumHeight(190);
    shown_ = new QStackedLayout(shown);
    reading_ = new QPlainTextEdit;
    reading_->setReadOnly(true);
    comparison_ = new QListView;
    comparison_->setModel(model_->diffLineList());
    comparison_->setSelectionMode(QAbstractItemView::NoSelection);
    // Long lines wrap rather than scroll sideways, as the reading text does.
    comparison_->setWordWrap(true);
    comparison_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    comparison_->setResizeMode(QListView::Adjust);
    for (QWidget* w : {static_cast<QWidget*>(reading_), static_cast<QWidget*>(comparison_)}) {
        w->setFont(Labels::monospaced(11));
        w->setStyleSheet(QStringLiteral("background: rgb(250,250,250); border: 1px solid rgb(217,217,217);"));
        shown_->addWidget(w);
    }
    layout->addWidget(shown, 3);

    auto* buttons = new QHBoxLayout;
    auto* view = new QPushButton(tr("View"));
    auto* compare = new QPushButton(tr("Compare with now"));
    restore_ = new QPushButton(tr("Put this version back"));
    status_ = Labels::status();
    buttons->addWidget(view);
    buttons->addWidget(compare);
    buttons->addWidget(restore_);
    buttons->addStretch();
    buttons->addWidget(status_, 1);
    layout->addLayout(buttons);
    notice_ = Labels::status();
    notice_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(notice_);

    onChoice(documents_, [this](const QModelIndex& row) { model_->selectDocument(row.data().toString()); });
    onChoice(versions_, [this](const QModelIndex& row) {
        model_->selectVersion(row.data(VersionList::IdRole).toInt());
    });
    connect(view, &QPushButton::clicked, this, [this] { model_->show(false); });
    connect(compare, &QPushButton::clicked, this, [this] { model_->show(true); });
    connect(restore_, &QPushButton::clicked, this, &HistoryTab::askToRestore);
    connect(model_, &HistoryModel::changed, this, &HistoryTab::refreshFromModel);
    refreshFromModel();
}

void HistoryTab::refreshFromModel() {
    showChoices();
    fillShownText();
    restore_->setEnabled(model_->selected().has_value());
    status_->setText(model_->status());
    notice_->setText(model_->notice());
    notice_->setVisible(!model_->notice().isEmpty());
}

void HistoryTab::showChoices() {
    const QStringList& docs = model_->documentList()->rows();
    showChoice(documents_, model_->document() ? int(docs.indexOf(*model_->document())) : -1);
    showChoice(versions_, model_->selected() ? model_->versionList()->rowOf(*model_->selected()) : -1);
}

void HistoryTab::fillShownText() {
    shown_->setCurrentIndex(model_->showingDiff() ? 1 : 0);
    // The model also changes when only busy does: a 4 MiB text is laid out again only when new.
    if (model_->text() == shownText_) return;
    shownText_ = model_->text();
    reading_->setPlainText(shownText_);
}

void HistoryTab::askToRestore() {
    std::optional<DocVersion> version = model_->selectedVersion();
    if (!version || !model_->document()) return;
    confirmation_ = new QMessageBox(QMessageBox::NoIcon, tr("Restore a version"),
                                    tr("Put version %1 of “%2”, saved %3, back on the drive?")
                                        .arg(version->id)
                                        .arg(*model_->document(), version->when),
                                    QMessageBox::NoButton, this);
    confirmation_->setInformativeText(tr("What is on the drive now is kept as a version, so this can be undone."));
    QPushButton* put = confirmation_->addButton(tr("Put this version back"), QMessageBox::AcceptRole);
    confirmation_->addButton(QMessageBox::Cancel);
    confirmation_->setAttribute(Qt::WA_DeleteOnClose);
    connect(confirmation_, &QMessageBox::finished, this, [this, put] {
        bool accepted = confirmation_->clickedButton() == put;
        confirmation_ = nullptr;
        if (accepted) model_->revert();
    });
    confirmation_->open();
}
