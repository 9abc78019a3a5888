#include "usb_drive.h"

QString driveLine(const USBDrive& d) {
    // One multi-argument arg() so a "%1" inside a model name is never substituted again.
    const QString gb = QString::number(static_cast<double>(d.size) / 1073741824.0, 'f', 1);
    return QStringLiteral("%1  (%2 GB)   [%3]").arg(d.model, gb, d.id);
}
