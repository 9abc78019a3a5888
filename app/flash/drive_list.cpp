#include "drive_list.h"

QVariant DriveList::data(const QModelIndex& index, int role) const {
    const USBDrive* d = rowAt(index);
    if (!d) return {};
    switch (role) {
        case Qt::DisplayRole: return driveLine(*d);
        case IdRole: return d->id;
        case ModelRole: return d->model;
        case SizeRole: return QVariant::fromValue(d->size);
        default: return {};
    }
}

QHash<int, QByteArray> DriveList::roleNames() const {
    return {{Qt::DisplayRole, "display"}, {IdRole, "id"}, {ModelRole, "model"}, {SizeRole, "size"}};
}

int DriveList::row(const QString& id) const {
    for (int i = 0; i < rows().size(); ++i)
        if (rows()[i].id == id) return i;
    return -1;
}

void DriveList::update(const QList<USBDrive>& drives) {
    sync(drives, [](const USBDrive& d) { return d.id; },
         [](const USBDrive& a, const USBDrive& b) { return a == b && a.devicePath == b.devicePath; });
}
