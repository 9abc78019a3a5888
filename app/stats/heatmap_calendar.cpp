#include "heatmap_calendar.h"

#include <QHash>
#include <QLocale>

#include "qm_core.h"

namespace StatsText {

QString duration(uint32_t secs) {
    if (secs < 60) return QStringLiteral("%1s").arg(secs);
    if (secs < 3600) return QStringLiteral("%1m %2s").arg(secs / 60).arg(secs % 60);
    return QStringLiteral("%1h %2m").arg(secs / 3600).arg(secs % 3600 / 60);
}

QString date(uint32_t day) {
    if (day == 0) return QString();
    unsigned y, m, d;
    qm_day_to_ymd(day, &y, &m, &d);
    return QStringLiteral("%1-%2-%3").arg(y, 4, 10, QChar('0')).arg(m, 2, 10, QChar('0')).arg(d, 2, 10, QChar('0'));
}

QString number(uint64_t n) {
    QLocale locale;
    locale.setNumberOptions(locale.numberOptions() & ~QLocale::OmitGroupSeparator);
    return locale.toString(qulonglong(n));
}

QString words(uint32_t n) { return number(n) + (n == 1 ? QStringLiteral(" word") : QStringLiteral(" words")); }

QString dayLine(const DayRow& d) {
    QString w = words(d.words);
    if (d.words == 1) w += QLatin1Char(' ');  // keeps the time column straight
    return QStringLiteral("%1  %2  %3").arg(date(d.day)).arg(w, 14).arg(duration(d.secs), 8);
}

}  // namespace StatsText

namespace {

// Day 1 (1980-01-01) was a Tuesday; 0 is Monday.
int weekday(uint32_t day) { return int(day % 7); }

std::pair<unsigned, unsigned> year_month(uint32_t day) {
    unsigned y = 0, m = 0;
    qm_day_to_ymd(day, &y, &m, nullptr);
    return {y, m};
}

constexpr int kYearLabelWeeks = 6;  // the week columns "Dec 2025" takes

}  // namespace

HeatmapCalendar HeatmapCalendar::build(const QList<DayRow>& days) {
    HeatmapCalendar cal;
    cal.cells.resize(kWeeks * kDaysPerWeek);
    if (days.isEmpty()) return cal;
    QHash<uint32_t, uint32_t> words;
    uint32_t latest = 0;
    for (const DayRow& d : days) {
        words[d.day] += d.words;
        latest = std::max(latest, d.day);
    }
    int64_t first = int64_t(latest) - weekday(latest) - int64_t(kWeeks - 1) * kDaysPerWeek;
    static const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    unsigned shown_month = 0;
    QList<unsigned> years;  // of each month label
    for (int w = 0; w < kWeeks; ++w) {
        for (int d = 0; d < kDaysPerWeek; ++d) {
            int64_t day = first + w * kDaysPerWeek + d;
            if (day < 1 || day > int64_t(latest)) continue;
            HeatmapCell& c = cal.cells[w * kDaysPerWeek + d];
            c.day = uint32_t(day);
            c.words = words.value(c.day);
            cal.peak = std::max(cal.peak, c.words);
        }
        int64_t monday = std::max<int64_t>(first + w * kDaysPerWeek, 1);
        auto [y, m] = year_month(uint32_t(monday));
        if (m != shown_month) {
            // A partial month at the left edge would crowd its neighbour's label: the later one wins.
            if (!cal.monthLabels.isEmpty() && w - cal.monthLabels.last().first < 3) {
                cal.monthLabels.removeLast();
                years.removeLast();
            }
            cal.monthLabels.append({w, QString::fromLatin1(kMonths[m - 1])});
            years.append(y);
        }
        shown_month = m;
    }
    // The year goes with the first month named and with January. The month after gives way when
    // the longer label needs its room, except a January, which takes the year from the first.
    auto isJanuary = [&cal](int i) { return cal.monthLabels[i].second == QLatin1String("Jan"); };
    auto crowds = [&cal](int i) { return cal.monthLabels[i + 1].first - cal.monthLabels[i].first < kYearLabelWeeks; };
    for (int i = 0; i < cal.monthLabels.size(); ++i) {
        if (i > 0 && !isJanuary(i)) continue;
        bool last = i + 1 == cal.monthLabels.size();
        if (i == 0 && !isJanuary(0) && !last && isJanuary(1) && crowds(0)) continue;
        cal.monthLabels[i].second += QStringLiteral(" %1").arg(years[i]);
        while (i + 1 < cal.monthLabels.size() && !isJanuary(i + 1) && crowds(i)) {
            cal.monthLabels.removeAt(i + 1);
            years.removeAt(i + 1);
        }
    }
    return cal;
}

QColor HeatmapCalendar::shade(uint32_t words, uint32_t peak) {
    if (words == 0) return QColor::fromRgbF(0.88f, 0.88f, 0.88f);
    double ratio = peak ? double(words) / double(peak) : 1.0;
    if (ratio <= 0.25) return QColor::fromRgbF(0.69f, 0.80f, 0.89f);
    if (ratio <= 0.5) return QColor::fromRgbF(0.42f, 0.65f, 0.82f);
    if (ratio <= 0.8) return QColor::fromRgbF(0.17f, 0.46f, 0.71f);
    return QColor::fromRgbF(0.06f, 0.29f, 0.52f);
}

int HeatmapCalendar::indexOf(uint32_t day) const {
    for (int i = 0; i < cells.size(); ++i)
        if (day != 0 && cells[i].day == day) return i;
    return -1;
}

QString HeatmapCalendar::tooltip(const HeatmapCell& cell) {
    if (cell.day == 0) return QString();
    return StatsText::date(cell.day) + QStringLiteral(": ") + StatsText::words(cell.words);
}
