#include "history_tab.h"

#include <QComboBox>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QStackedLayout>
#include <QVBoxLayout>

namespace {

QLabel* caption(const QString& text) {
    auto* l = new QLabel(text);
    QFont f = l->font();
    f.setPointSize(11);
    l->setFont(f);
    l->setForegroundRole(QPalette::PlaceholderText);
    return l;
}

QFont monospaced() {
    QFont f = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    f.setPointSize(11);
    return f;
}

}  // namespace

HistoryTab::HistoryTab(HistoryModel* model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(12);

    auto* title = new QLabel(tr("History"));
    QFont tf = title->font();
    tf.setPointSize(18);
    tf.setBold(true);
    title->setFont(tf);
    layout->addWidget(title);

    auto* pickRow = new QHBoxLayout;
    picker_ = new QComboBox;
    picker_->setMinimumWidth(220);
    refresh_ = new QPushButton(tr("Refresh"));
    pickRow->addWidget(picker_);
    pickRow->addWidget(refresh_);
    pickRow->addStretch();
    layout->addLayout(pickRow);

    auto* lists = new QHBoxLayout;
    auto* docColumn = new QVBoxLayout;
    documents_ = new QListWidget;
    documents_->setFixedSize(200, 120);
    docColumn->addWidget(caption(tr("Document")));
    docColumn->addWidget(documents_);
    auto* verColumn = new QVBoxLayout;
    versions_ = new QListWidget;
    versions_->setFixedHeight(120);
    QFont vf = versions_->font();
    vf.setPointSize(12);
    versions_->setFont(vf);
    verColumn->addWidget(caption(tr("Versions")));
    verColumn->addWidget(versions_);
    lists->addLayout(docColumn);
    lists->addLayout(verColumn, 1);
    layout->addLayout(lists);

    auto* shown = new QWidget;
    shown->setFixedHeight(190);
    auto* stack = new QStackedLayout(shown);
    reading_ = new QPlainTextEdit;
    reading_->setReadOnly(true);
    reading_->setFont(monospaced());
    comparison_ = new QListWidget;
    comparison_->setFont(monospaced());
    comparison_->setSelectionMode(QAbstractItemView::NoSelection);
    for (QWidget* w : {static_cast<QWidget*>(reading_), static_cast<QWidget*>(comparison_)})
        w->setStyleSheet(QStringLiteral("background: rgb(250,250,250); border: 1px solid rgb(217,217,217);"));
    stack->addWidget(reading_);
    stack->addWidget(comparison_);
    layout->addWidget(shown);

    auto* buttons = new QHBoxLayout;
    view_ = new QPushButton(tr("View"));
    compare_ = new QPushButton(tr("Compare with now"));
    restore_ = new QPushButton(tr("Put this version back"));
    status_ = new QLabel;
    status_->setWordWrap(true);
    buttons->addWidget(view_);
    buttons->addWidget(compare_);
    buttons->addWidget(restore_);
    buttons->addStretch();
    buttons->addWidget(status_, 1);
    layout->addLayout(buttons);
    layout->addStretch();

    connect(refresh_, &QPushButton::clicked, model_, &HistoryModel::rescan);
    connect(picker_, &QComboBox::activated, this, [this](int index) {
        QVariant path = picker_->itemData(index);
        model_->root = path.isValid() ? std::optional<QString>(path.toString()) : std::nullopt;
        model_->loadDocuments();
    });
    connect(documents_, &QListWidget::currentRowChanged, this, [this](int row) {
        if (filling_ || row < 0 || row >= model_->documents.size()) return;
        model_->document = model_->documents[row];
        model_->loadVersions();
    });
    connect(versions_, &QListWidget::currentRowChanged, this, [this](int row) {
        if (filling_ || row < 0 || row >= model_->versions.size()) return;
        model_->selected = model_->versions[row].id;
        model_->show(model_->showingDiff);
    });
    connect(view_, &QPushButton::clicked, this, [this] { model_->show(false); });
    connect(compare_, &QPushButton::clicked, this, [this] { model_->show(true); });
    connect(restore_, &QPushButton::clicked, this, &HistoryTab::askToRestore);
    connect(model_, &HistoryModel::changed, this, &HistoryTab::refreshFromModel);
    stack->setCurrentIndex(0);
    connect(model_, &HistoryModel::changed, this, [this, stack] { stack->setCurrentIndex(model_->showingDiff ? 1 : 0); });
    refreshFromModel();
}

void HistoryTab::refreshFromModel() {
    filling_ = true;
    fillPicker();
    fillLists();
    fillShownText();
    restore_->setEnabled(model_->selected.has_value());
    status_->setText(model_->status);
    filling_ = false;
}

void HistoryTab::fillPicker() {
    picker_->clear();
    if (model_->volumes.isEmpty()) picker_->addItem(tr("No drives found"));
    for (const QmVolume& v : model_->volumes) picker_->addItem(v.name, v.path);
    if (model_->root) picker_->setCurrentIndex(std::max(0, picker_->findData(*model_->root)));
}

void HistoryTab::fillLists() {
    documents_->clear();
    documents_->addItems(model_->documents);
    if (model_->document) documents_->setCurrentRow(int(model_->documents.indexOf(*model_->document)));
    versions_->clear();
    for (const DocVersion& v : model_->versions) {
        versions_->addItem(HistoryModel::versionLabel(v));
        if (model_->selected == v.id) versions_->setCurrentRow(versions_->count() - 1);
    }
}

void HistoryTab::fillShownText() {
    reading_->setPlainText(model_->text);
    comparison_->clear();
    for (const auto& [line, colour] : model_->diffLines) {
        auto* item = new QListWidgetItem(line, comparison_);
        item->setForeground(colour);
    }
}

void HistoryTab::askToRestore() {
    confirmation_ = new QMessageBox(QMessageBox::NoIcon, tr("Restore a version"),
                                    tr("What is on the drive now is kept as a version, so this can be undone."),
                                    QMessageBox::NoButton, this);
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
