// One external whole disk that an image can be written to.
#pragma once
#include <QString>
#include <QtGlobal>

struct USBDrive {
    QString id;     // the kernel's or disk utility's name: sdb, mmcblk0, disk4; the identity
    QString model;  // what the user recognises it by, trimmed of blanks and tabs
    quint64 size = 0;  // bytes; 0 for a card reader without a card
    // What the writer is given: a name that stays with this disk (udev's /dev/disk/by-id link)
    // where the platform has one, else the device node. Not part of the drive's identity for
    // the list: a disk is the same row whatever it is reached by.
    QString devicePath{};
    bool operator==(const USBDrive& o) const { return id == o.id && model == o.model && size == o.size; }
};

// "%@  (%.1f GB)   [%@]": the picker's row and the confirmation's drive line. GB with a 2^30
// divisor on purpose.
QString driveLine(const USBDrive& d);
