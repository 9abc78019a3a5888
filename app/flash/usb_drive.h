// One external whole disk that an image can be written to.
#pragma once
#include <QString>
#include <QtGlobal>

struct USBDrive {
    QString id;     // the kernel's or disk utility's name: sdb, mmcblk0, disk4; the identity
    QString model;  // what the user recognises it by, trimmed of blanks and tabs
    quint64 size = 0;  // bytes; 0 for a card reader without a card
    bool operator==(const USBDrive&) const = default;
};

// "%@  (%.1f GB)   [%@]": the picker's row and the confirmation's drive line. GB with a 2^30
// divisor on purpose.
QString driveLine(const USBDrive& d);
