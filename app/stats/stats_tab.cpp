#include "stats_tab.h"

#include <QComboBox>
#include <QFontDatabase>
#include <QGridLayout>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

#include "heatmap.h"

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

    auto* title = new QLabel(tr("Statistics"));
    QFont tf = title->font();
    tf.setPointSize(18);
    tf.setBold(true);
    title->setFont(tf);
    layout->addWidget(title);

    auto* row = new QHBoxLayout;
    picker_ = new QComboBox;
    picker_->setMinimumWidth(220);
    refresh_ = new QPushButton(tr("Refresh"));
    row->addWidget(picker_);
    row->addWidget(refresh_);
    row->addStretch();
    layout->addLayout(row);

    status_ = new QLabel;
    status_->setWordWrap(true);
    layout->addWidget(status_);

    auto* grid = new QGridLayout;
    grid->setHorizontalSpacing(16);
    for (int i = 0; i < kTotals.size(); ++i) {
        auto* caption = new QLabel(kTotals[i]);
        caption->setForegroundRole(QPalette::PlaceholderText);
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
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    mono.setPointSize(10);
    dayList_->setFont(mono);
    layout->addWidget(dayList_, 1);

    connect(refresh_, &QPushButton::clicked, model_, &StatsModel::rescan);
    connect(picker_, &QComboBox::activated, this, [this](int index) {
        QVariant path = picker_->itemData(index);
        if (path.isValid()) model_->select(path.toString());
    });
    connect(model_, &StatsModel::changed, this, &StatsTab::refreshFromModel);
    refreshFromModel();
}

QString StatsTab::total(const QString& label) const {
    QLabel* l = totals_.value(label);
    return l ? l->text() : QString();
}

void StatsTab::refreshFromModel() {
    picker_->clear();
    if (model_->volumes().isEmpty()) picker_->addItem(tr("No drives found"));
    for (const QmVolume& v : model_->volumes()) picker_->addItem(v.name, v.path);
    if (model_->selection()) picker_->setCurrentIndex(std::max(0, picker_->findData(*model_->selection())));
    status_->setText(model_->status());
    refresh_->setEnabled(!model_->busy());
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
