#include "stats_tab.h"

#include <QGridLayout>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

#include "drive_header.h"
#include "heatmap.h"
#include "labels.h"
#include "published_address.h"

namespace {

const QStringList kTotals = {"Writing sessions", "Words", "Pages", "Characters typed", "Writing time",
                             "Longest session", "Current streak", "Best streak", "Days written"};

QString number(uint32_t n) { return QLocale().toString(qulonglong(n)); }
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
    heatmap_->setDays(model_->days());
    fillDays();
}

void StatsTab::fillTotals() {
    QStringList values = model_->summary() ? values_of(*model_->summary()) : QStringList();
    for (int i = 0; i < kTotals.size(); ++i) totals_[kTotals[i]]->setText(values.value(i, QStringLiteral("—")));
}

void StatsTab::fillDays() {
    dayList_->clear();
    if (model_->days().isEmpty()) {
        dayList_->addItem(tr("No writing days recorded yet."));
        return;
    }
    const QList<DayRow>& days = model_->days();
    for (auto it = days.rbegin(); it != days.rend(); ++it)  // newest first
        dayList_->addItem(QStringLiteral("%1  %2 words  %3")
                              .arg(StatsText::date(it->day))
                              .arg(number(it->words), 8)
                              .arg(StatsText::duration(it->secs), 8));
}
