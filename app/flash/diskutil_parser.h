// Reading the disk utility's property lists (XML or binary) on macOS. Portable, so the
// recorded outputs are checked on every platform.
#pragma once
#include <QByteArray>
#include <QStringList>
#include <optional>

#include "usb_drive.h"

namespace diskutil {

// The "WholeDisks" strings of `list -plist`, in order; empty unless the top level is a
// dictionary holding an array there. Entries that are not strings or not plain device names
// are dropped.
QStringList wholeDisks(const QByteArray& plist);

// The drive described by `info -plist <id>`, or none when the output does not parse, is not
// a dictionary, or the disk says it is internal.
std::optional<USBDrive> driveFromInfo(const QString& id, const QByteArray& plist);

}  // namespace diskutil
