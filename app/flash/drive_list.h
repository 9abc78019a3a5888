// The drives the picker offers, as an item model: rows change only when a drive comes, goes or
// changes, so a view's open list and its selection survive a rescan.
#pragma once
#include <QAbstractListModel>
#include <QList>

#include "usb_drive.h"

class DriveList : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role { IdRole = Qt::UserRole + 1, ModelRole, SizeRole };

    using QAbstractListModel::QAbstractListModel;
    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

    const QList<USBDrive>& drives() const { return drives_; }
    // The row of the drive with this id, or -1.
    int row(const QString& id) const;
    // Becomes `drives` by removing, moving, inserting and changing rows; rows that stay keep
    // their place in the view's eyes.
    void update(const QList<USBDrive>& drives);

private:
    QList<USBDrive> drives_;
};
