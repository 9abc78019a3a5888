// Reading what Linux says about its block devices: lsblk's JSON, /proc/self/mountinfo and
// /proc/swaps. Pure functions over bytes, so every case can be fed to them off a real machine.
#pragma once
#include <QByteArray>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include "usb_drive.h"

namespace lsblk {

// The columns asked of lsblk, newest first; older lsblk rejects columns it does not know, so
// the second list is the fallback.
QStringList arguments(bool withMountpoints = true);

// Mount points whose disk must never be offered: the running system lives there, or lsblk
// marks it as swap. Live media mounts count too: overwriting them takes the system down.
bool isSystemMountPoint(const QString& mountPoint);

// The external whole disks in lsblk's order: USB disks, and SD/MMC cards that are removable,
// hot-plug or on the mmc transport. Never the disk that holds a system mount point or swap,
// or any device named in systemDevices (kernel or lsblk names, e.g. "sda2", "dm-0",
// "vg-root"), on the disk or anywhere below it. Anything unreadable means fewer drives.
QList<USBDrive> parseDrives(const QByteArray& json, const QSet<QString>& systemDevices);

struct Mount {
    QString majorMinor;  // "8:2"; btrfs and overlays show an anonymous 0:N here
    QString mountPoint;  // octal escapes decoded
    QString source;      // "/dev/sda2", "/dev/root", "overlay"
};
QList<Mount> parseMountinfo(const QByteArray& mountinfo);

// The file names of the active swap areas (devices or swap files).
QStringList parseSwaps(const QByteArray& procSwaps);

// A kernel device name that is safe to put after "/dev/": no separators, no dot names.
bool isSafeDeviceName(const QString& name);

}  // namespace lsblk
