// A mounted file system's UUID, as udev names it under /dev/disk/by-uuid.
#include <QDir>
#include <QFileInfo>
#include <QStorageInfo>

#include "volumes.h"

namespace Volumes {

QString fileSystemId(const QString& root) {
    QStorageInfo storage(root);
    if (!storage.isValid() || storage.rootPath() != QFileInfo(root).canonicalFilePath()) return {};
    QString device = QFileInfo(QString::fromLocal8Bit(storage.device())).canonicalFilePath();
    if (device.isEmpty()) return {};
    QDir byUuid(QStringLiteral("/dev/disk/by-uuid"));
    for (const QFileInfo& link : byUuid.entryInfoList(QDir::System | QDir::Files | QDir::NoDotAndDotDot))
        if (link.canonicalFilePath() == device) return link.fileName();
    return {};
}

}  // namespace Volumes
