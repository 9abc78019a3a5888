// A stick's mounted file systems: which of them hold writing before it is erased, and the data
// partition of a freshly written stick, mounted as the user so the writing can go back on it.
// One interface, one file per platform; tests stand folders in for mounted partitions.
#pragma once
#include <QList>
#include <QString>
#include <memory>
#include <optional>

#include "volumes.h"

class StickMounts {
public:
    virtual ~StickMounts() = default;
    // The disk's mounted file systems, named as the volume scan names them. disk: the drive's
    // devicePath (a lasting by-id link, or the device node).
    virtual QList<Volumes::Mount> mounted(const QString& disk) = 0;
    // The root of the disk's data partition (the last one: the images put it after the boot
    // partition) while it is mounted; none otherwise.
    virtual std::optional<QString> dataRoot(const QString& disk) = 0;
    // Mounts the data partition without administrator rights and returns its root; none when
    // that cannot be done here. Waits for the new partition table to be read first, so it may
    // take seconds: call it off the main thread.
    virtual std::optional<QString> mountData(const QString& disk) = 0;

    static std::unique_ptr<StickMounts> platform();
};
