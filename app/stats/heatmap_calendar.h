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
// The one way a count is written on the tab: grouped as the user's locale groups digits, and
// grouped even where that locale would not ("1,231" in the C locale), as the published page is.
QString number(uint64_t n);
// "1,231 words", "1 word".
QString words(uint32_t n);
// A line of the day list: date, words and time, in columns.
QString dayLine(const DayRow& day);
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
    // (week column, "Mar" or "Jan 2026"): the year with January and with the first label.
    QList<QPair<int, QString>> monthLabels;

    // The last 53 weeks ending at the latest day in days.
    static HeatmapCalendar build(const QList<DayRow>& days);
    const HeatmapCell& at(int week, int weekday) const { return cells[week * kDaysPerWeek + weekday]; }
    // The index in cells of that day, or -1 when it is not shown.
    int indexOf(uint32_t day) const;
    static QColor shade(uint32_t words, uint32_t peak);
    static QString tooltip(const HeatmapCell& cell);
};
