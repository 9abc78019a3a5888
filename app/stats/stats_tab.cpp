#include "stats_tab.h"

#include <QGridLayout>
#include <QLabel>
#include <QListView>
#include <QPushButton>
#include <QVBoxLayout>

#include "drive_header.h"
#include "heatmap.h"
#include "labels.h"
#include "published_address.h"

namespace {

const QStringList kTotals = {"Writing sessions", "Words", "Pages", "Characters typed", "Writing time",
                             "Longest session", "Current streak", "Best streak", "Days written"};

using StatsText::number;
QString days_text(uint32_t n) { return QStringLiteral("%1 day%2").arg(number(n), n == 1 ? "" : "s"); }

QStringList values_of(const qm_summary& s) {
    return {number(s.sessions),          number(s.words),          number(s.pages),
            number(s.chars),             StatsText::duration(s.write_secs), StatsText::duration(s.longest_secs),
            days_text(s.streak_current), days_text(s.streak_best), number(s.days_written)};
}

}  // namespace

StatsTab::StatsTab(StatsModel* model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(10);

    header_ = new DriveHeader(tr("Statistics"), model_->driveSelection(), [model] { model->rescan(); });
    layout->addWidget(header_);
    auto* statusRow = new QHBoxLayout;
    status_ = Labels::status();
    status_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    publish_ = new QPushButton(tr("Publish"));
    publish_->setToolTip(tr("Send the counts (never the writing) to your account's public page."));
    statusRow->addWidget(status_, 1);
    statusRow->addWidget(publish_, 0, Qt::AlignTop);
    layout->addLayout(statusRow);
    published_ = new PublishedAddress;
    layout->addWidget(published_);

    auto* grid = new QGridLayout;
    grid->setHorizontalSpacing(16);
    for (int i = 0; i < kTotals.size(); ++i) {
        QLabel* caption = Labels::caption(kTotals[i], font().pointSize());
        auto* value = new QLabel;
        QFont vf = value->font();
        vf.setBold(true);
        value->setFont(vf);
        grid->addWidget(caption, (i / 3) * 2, i % 3);
        grid->addWidget(value, (i / 3) * 2 + 1, i % 3);
        totals_[kTotals[i]] = value;
    }
    layout->addLayout(grid);

    heatmap_ = new Heatmap;
    layout->addWidget(heatmap_);

    dayList_ = new QListView;
    dayList_->setFont(Labels::monospaced(10));
    dayList_->setModel(model_->dayList());
    layout->addWidget(dayList_, 1);
    // Where the first day's line would be.
    noDays_ = new QLabel(tr("No writing days recorded yet."), dayList_->viewport());
    noDays_->setContentsMargins(3, 0, 0, 0);
    noDays_->adjustSize();

    // A day chosen on the map is shown in the list, and the list's current day marked on the map.
    connect(heatmap_, &Heatmap::dayChosen, this, &StatsTab::showDay);
    connect(dayList_->selectionModel(), &QItemSelectionModel::currentRowChanged, this,
            [this](const QModelIndex& row) {
                if (row.isValid()) heatmap_->setCurrentDay(row.data(DayList::DayRole).toUInt());
            });
    connect(publish_, &QPushButton::clicked, model_, &StatsModel::publish);
    connect(model_, &StatsModel::changed, this, &StatsTab::refreshFromModel);
    refreshFromModel();
}

QString StatsTab::total(const QString& label) const {
    QLabel* l = totals_.value(label);
    return l ? l->text() : QString();
}

void StatsTab::refreshFromModel() {
    status_->setText(published_->setMessage(model_->status()));
    header_->setRefreshEnabled(!model_->busy());
    publish_->setEnabled(!model_->busy() && model_->selection().has_value());
    fillTotals();
    fillDays();
}

void StatsTab::fillTotals() {
    QStringList values = model_->summary() ? values_of(*model_->summary()) : QStringList();
    for (int i = 0; i < kTotals.size(); ++i) totals_[kTotals[i]]->setText(values.value(i, QStringLiteral("—")));
}

void StatsTab::fillDays() {
    noDays_->setVisible(model_->days().isEmpty());
    // The model also changes when only busy does: the map is drawn again only for new days.
    if (model_->days() == shownDays_) return;
    shownDays_ = model_->days();
    heatmap_->setDays(shownDays_);
}

void StatsTab::showDay(uint32_t day) {
    int row = model_->dayList()->rowAtOrBefore(day);
    if (row < 0) return;
    QModelIndex index = model_->dayList()->index(row);
    if (index.data(DayList::DayRole).toUInt() == day) {
        dayList_->setCurrentIndex(index);
    } else {  // a day without writing has no line: its neighbours are shown, none chosen
        dayList_->selectionModel()->clear();
        heatmap_->setCurrentDay(day);
    }
    dayList_->scrollTo(index, QAbstractItemView::PositionAtCenter);
}
