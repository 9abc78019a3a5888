#include "volumes.h"

#include <QDir>
#include <QFileInfo>

#include "drive.h"

namespace Volumes {

namespace {
QString displayName(const Mount& m) {
    if (!m.name.isEmpty()) return m.name;
    QString name = QFileInfo(QDir::cleanPath(m.root)).fileName();
    return name.isEmpty() ? m.root : name;
}
}  // namespace

QList<QmVolume> classify(const QList<Mount>& mounts) {
    QList<QmVolume> out;
    for (const Mount& m : mounts) {
        bool hasKey = Drive::is(m.root);
        QDir root(m.root);
        if (!hasKey && !QFileInfo(root.filePath("stats.db")).isFile() && !QFileInfo(root.filePath("fonts")).isDir())
            continue;
        out.append(QmVolume{m.root, displayName(m), hasKey});
    }
    return out;
}

QList<QmVolume> scan() { return classify(mounted()); }

}  // namespace Volumes
