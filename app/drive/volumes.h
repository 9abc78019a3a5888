// Finding the mounted volumes that hold a Quillmate drive.
#pragma once
#include <QList>
#include <QString>

struct QmVolume {
    QString path;  // mount path; the volume's identity
    QString name;
    bool hasKey = false;
    bool operator==(const QmVolume&) const = default;
};

namespace Volumes {

struct Mount {
    QString root;
    QString name;  // may be empty; the last path component is used then
};

// The mounted volumes as the platform lists them, in its order.
QList<Mount> mounted();

// Keeps the mounts that hold a drive: a key, or else stats.db or a fonts folder at the root
// (a drive the deck has used but that has no key yet). Order is kept.
QList<QmVolume> classify(const QList<Mount>& mounts);

QList<QmVolume> scan();

// The UUID of the file system mounted at root (root must be its mount point), or "" when it has
// none or the system does not say.
QString fileSystemId(const QString& root);

}  // namespace Volumes
