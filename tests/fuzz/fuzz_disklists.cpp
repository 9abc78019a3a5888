// The disk lists read from lsblk, diskutil and /proc. The first byte picks the reader, the
// rest is its input. Beyond not crashing: every drive handed out is a plain device name with
// a trimmed label, and a device named as the system's is never among them.
#include <QByteArray>
#include <QSet>
#include <QString>
#include <cstdint>
#include <cstdlib>

#include "diskutil_parser.h"
#include "fuzz_support.h"
#include "lsblk_parser.h"
#include "usb_drive.h"

namespace {

void checkDrive(const USBDrive& d) {
    check(lsblk::isSafeDeviceName(d.id));
    const QString& m = d.model;
    check(m.isEmpty() || (m.front() != u' ' && m.front() != u'\t' && m.back() != u' ' && m.back() != u'\t'));
    check(driveLine(d).endsWith(QStringLiteral("]")));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const QByteArray in(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    switch (data[0] % 4) {
    case 0: {
        const QSet<QString> system{QStringLiteral("sda"), QStringLiteral("sda2"), QStringLiteral("dm-0")};
        for (const USBDrive& d : lsblk::parseDrives(in, system)) {
            checkDrive(d);
            check(!system.contains(d.id));
        }
        break;
    }
    case 1:
        for (const QString& id : diskutil::wholeDisks(in)) check(lsblk::isSafeDeviceName(id));
        break;
    case 2:
        if (const auto d = diskutil::driveFromInfo(QStringLiteral("disk2"), in)) {
            check(d->id == u"disk2" && d->size < (quint64(1) << 63));
            if (!d->model.isEmpty()) checkDrive(*d);
        }
        break;
    default:
        for (const lsblk::Mount& m : lsblk::parseMountinfo(in)) check(!m.majorMinor.contains(u' '));
        for (const QString& s : lsblk::parseSwaps(in)) check(!s.isEmpty());
        break;
    }
    return 0;
}
