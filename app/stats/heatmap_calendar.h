// The heat map's calendar, colours and the tab's duration text, kept free of widgets.
#pragma once
#include <QColor>
#include <QList>
#include <QString>

#include "drive.h"

namespace StatsText {
// "45s", "5m 3s", "2h 5m": seconds are dropped from an hour on purpose.
QString duration(uint32_t secs);
// "YYYY-MM-DD" of a day number, or "" for day 0.
QString date(uint32_t day);
}  // namespace StatsText

struct HeatmapCell {
    uint32_t day = 0;  // 0: before the first day or after the latest one; not drawn
    uint32_t words = 0;
};

struct HeatmapCalendar {
    static constexpr int kWeeks = 53;
    static constexpr int kDaysPerWeek = 7;

    QList<HeatmapCell> cells;  // column by column (weeks), Monday first; kWeeks * 7 of them
    uint32_t peak = 0;         // the largest day shown, the reference for a full cell
    QList<QPair<int, QString>> monthLabels;  // (week column, month abbreviation)

    // The last 53 weeks ending at the latest day in days.
    static HeatmapCalendar build(const QList<DayRow>& days);
    const HeatmapCell& at(int week, int weekday) const { return cells[week * kDaysPerWeek + weekday]; }
    static QColor shade(uint32_t words, uint32_t peak);
    static QString tooltip(const HeatmapCell& cell);
};
