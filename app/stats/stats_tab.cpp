#include "stats_tab.h"

#include <QGridLayout>
#include <QLabel>
#include <QListWidget>
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

    dayList_ = new QListWidget;
    dayList_->setFont(Labels::monospaced(10));
    layout->addWidget(dayList_, 1);

    // A day chosen on the map is shown in the list, and the list's current day marked on the map.
    connect(heatmap_, &Heatmap::dayChosen, this, &StatsTab::showDay);
    connect(dayList_, &QListWidget::currentRowChanged, this, [this](int row) {
        const QList<DayRow>& days = shownDays_;
        if (row >= 0 && row < days.size()) heatmap_->setCurrentDay(days[days.size() - 1 - row].day);
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
    // The model also changes when only busy does: the list keeps its place unless the days are new.
    if (dayList_->count() > 0 && model_->days() == shownDays_) return;
    shownDays_ = model_->days();
    heatmap_->setDays(shownDays_);
    dayList_->clear();
    if (shownDays_.isEmpty()) {
        dayList_->addItem(tr("No writing days recorded yet."));
        return;
    }
    for (auto it = shownDays_.rbegin(); it != shownDays_.rend(); ++it)  // newest first
        dayList_->addItem(StatsText::dayLine(*it));
}

void StatsTab::showDay(uint32_t day) {
    // Newest first: the first row not newer than the day is the day itself, or where it would be.
    int row = 0;
    for (auto it = shownDays_.rbegin(); it != shownDays_.rend() && it->day > day; ++it) ++row;
    if (shownDays_.isEmpty()) return;
    row = std::min(row, int(dayList_->count()) - 1);  // older than every line: the oldest
    QListWidgetItem* item = dayList_->item(row);
    if (shownDays_[shownDays_.size() - 1 - row].day == day) {
        dayList_->setCurrentItem(item);
    } else {  // a day without writing has no line: its neighbours are shown, none chosen
        dayList_->setCurrentItem(nullptr);
        heatmap_->setCurrentDay(day);
    }
    dayList_->scrollToItem(item, QAbstractItemView::PositionAtCenter);
}
