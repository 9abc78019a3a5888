// udev's lasting names for disks: the /dev/disk/by-id links, by the device each points at.
#pragma once
#include <QHash>
#include <QString>

namespace DiskLinks {
// For each device name (sdb, mmcblk0) the path of the link in folder that names it best: a
// usb- or mmc- link, else one naming neither a wwn/eui number nor a partition, else any; ties
// go to the first by name. Devices without a link are absent.
QHash<QString, QString> best(const QString& folder = QStringLiteral("/dev/disk/by-id"));
}  // namespace DiskLinks
