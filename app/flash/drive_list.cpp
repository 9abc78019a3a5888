#include "drive_list.h"

namespace {

int indexOf(const QList<USBDrive>& drives, const QString& id, int from = 0) {
    for (int i = from; i < drives.size(); ++i)
        if (drives[i].id == id) return i;
    return -1;
}

}  // namespace

int DriveList::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : int(drives_.size()); }

QVariant DriveList::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const USBDrive& d = drives_[index.row()];
    switch (role) {
        case Qt::DisplayRole: return driveLine(d);
        case IdRole: return d.id;
        case ModelRole: return d.model;
        case SizeRole: return QVariant::fromValue(d.size);
        default: return {};
    }
}

QHash<int, QByteArray> DriveList::roleNames() const {
    return {{Qt::DisplayRole, "display"}, {IdRole, "id"}, {ModelRole, "model"}, {SizeRole, "size"}};
}

int DriveList::row(const QString& id) const { return indexOf(drives_, id); }

void DriveList::update(const QList<USBDrive>& drives) {
    for (int i = int(drives_.size()) - 1; i >= 0; --i) {
        if (indexOf(drives, drives_[i].id) >= 0) continue;
        beginRemoveRows({}, i, i);
        drives_.removeAt(i);
        endRemoveRows();
    }
    for (int i = 0; i < drives.size(); ++i) {
        int at = indexOf(drives_, drives[i].id, i);
        if (at < 0) {
            beginInsertRows({}, i, i);
            drives_.insert(i, drives[i]);
            endInsertRows();
            continue;
        }
        if (at != i) {
            beginMoveRows({}, at, at, {}, i);
            drives_.move(at, i);
            endMoveRows();
        }
        if (drives_[i] == drives[i] && drives_[i].devicePath == drives[i].devicePath) continue;
        drives_[i] = drives[i];
        emit dataChanged(index(i), index(i));
    }
}
