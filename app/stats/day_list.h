// The writing days as an item model, newest first, for the tab's day list.
#pragma once
#include "drive.h"
#include "synced_list_model.h"

class DayList : public SyncedListModel<DayRow> {
public:
    enum Role { DayRole = Qt::UserRole + 1, WordsRole, SecondsRole };
    using SyncedListModel::SyncedListModel;
    // The row of that day, or of where it would be: the first day not newer than it (the
    // oldest row for a day older than all), or -1 without rows.
    int rowAtOrBefore(uint32_t day) const;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
};
