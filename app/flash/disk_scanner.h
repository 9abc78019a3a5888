// Finding the external disks an image may be written to, and letting go of their mounts.
// One interface, one back end per platform (lsblk on Linux, diskutil on macOS).
#pragma once
#include <QList>
#include <memory>

#include "usb_drive.h"

class DiskScanner {
public:
    virtual ~DiskScanner() = default;
    // External whole disks in the platform's order, each with its devicePath. Never fails:
    // every problem means fewer drives. Runs child processes: call it off the main thread.
    virtual QList<USBDrive> externalDrives() = 0;
    // Unmounts every mounted file system of the disk; true when that worked. Advisory only:
    // the writer unmounts again as root.
    virtual bool unmountDisk(const QString& wholeDiskPath) = 0;
    // The whole-disk device for a drive id (what is unmounted; the writer is given the drive's
    // devicePath).
    virtual QString wholeDiskPath(const QString& id) const = 0;

    // This platform's scanner.
    static std::unique_ptr<DiskScanner> platform();
};
