#include "heatmap.h"

#include <QHelpEvent>
#include <QPainter>
#include <QToolTip>

namespace {
constexpr int kCell = 9, kGap = 1, kTop = 14, kLeft = 2;
}

Heatmap::Heatmap(QWidget* parent) : QWidget(parent) {
    calendar_ = HeatmapCalendar::build({});
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void Heatmap::setDays(const QList<DayRow>& days) {
    calendar_ = HeatmapCalendar::build(days);
    update();
}

QSize Heatmap::sizeHint() const {
    return {kLeft + HeatmapCalendar::kWeeks * (kCell + kGap), kTop + HeatmapCalendar::kDaysPerWeek * (kCell + kGap)};
}

QRect Heatmap::cellRect(int week, int weekday) const {
    return {kLeft + week * (kCell + kGap), kTop + weekday * (kCell + kGap), kCell, kCell};
}

void Heatmap::paintEvent(QPaintEvent*) {
    QPainter p(this);
    QFont f = font();
    f.setPointSize(8);
    p.setFont(f);
    p.setPen(palette().color(QPalette::PlaceholderText));
    for (const auto& [week, label] : calendar_.monthLabels) p.drawText(cellRect(week, 0).left(), kTop - 3, label);
    p.setPen(Qt::NoPen);
    for (int w = 0; w < HeatmapCalendar::kWeeks; ++w) {
        for (int d = 0; d < HeatmapCalendar::kDaysPerWeek; ++d) {
            const HeatmapCell& c = calendar_.at(w, d);
            if (c.day == 0) continue;
            p.setBrush(shade(c.words, calendar_.peak));
            p.drawRoundedRect(cellRect(w, d), 1.5, 1.5);
        }
    }
}

bool Heatmap::event(QEvent* e) {
    if (e->type() != QEvent::ToolTip) return QWidget::event(e);
    auto* help = static_cast<QHelpEvent*>(e);
    QPoint pos = help->pos() - QPoint(kLeft, kTop);
    int week = pos.x() / (kCell + kGap), weekday = pos.y() / (kCell + kGap);
    QString tip;
    if (pos.x() >= 0 && pos.y() >= 0 && week < HeatmapCalendar::kWeeks && weekday < HeatmapCalendar::kDaysPerWeek)
        tip = HeatmapCalendar::tooltip(calendar_.at(week, weekday));
    if (tip.isEmpty())
        QToolTip::hideText();
    else
        QToolTip::showText(help->globalPos(), tip, this);
    return true;
}
