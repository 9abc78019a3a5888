#include "day_list.h"

#include "heatmap_calendar.h"

int DayList::rowAtOrBefore(uint32_t day) const {
    int row = 0;
    while (row < rows().size() && rows()[row].day > day) ++row;
    return std::min(row, int(rows().size()) - 1);
}

QVariant DayList::data(const QModelIndex& index, int role) const {
    const DayRow* d = rowAt(index);
    if (!d) return {};
    switch (role) {
        case Qt::DisplayRole: return StatsText::dayLine(*d);
        case DayRole: return d->day;
        case WordsRole: return d->words;
        case SecondsRole: return d->secs;
        default: return {};
    }
}

QHash<int, QByteArray> DayList::roleNames() const {
    return {{Qt::DisplayRole, "line"}, {DayRole, "day"}, {WordsRole, "words"}, {SecondsRole, "secs"}};
}
