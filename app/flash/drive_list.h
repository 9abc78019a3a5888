// The drives the picker offers, as an item model: rows change only when a drive comes, goes or
// changes, so a view's open list and its selection survive a rescan.
#pragma once
#include "synced_list_model.h"
#include "usb_drive.h"

class DriveList : public SyncedListModel<USBDrive> {
public:
    enum Role { IdRole = Qt::UserRole + 1, ModelRole, SizeRole };

    using SyncedListModel::SyncedListModel;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

    const QList<USBDrive>& drives() const { return rows(); }
    // The row of the drive with this id, or -1.
    int row(const QString& id) const;
    // Becomes `drives`; a drive reached by another path is a changed row, since that path is
    // what the writer is given.
    void update(const QList<USBDrive>& drives);
};
