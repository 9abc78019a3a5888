// macOS: diskutil lists the external physical whole disks and describes each.
#include <QProcess>

#include "disk_scanner.h"
#include "diskutil_parser.h"

namespace {

const QString kDiskutil = QStringLiteral("/usr/sbin/diskutil");

// Standard output read to its end; standard error goes nowhere, so it can never fill up.
// The exit status says nothing here: a failed run leaves output that does not parse.
QByteArray diskutil(const QStringList& args) {
    QProcess p;
    p.setStandardInputFile(QProcess::nullDevice());
    p.setStandardErrorFile(QProcess::nullDevice());
    p.start(kDiskutil, args, QIODevice::ReadOnly);
    if (!p.waitForStarted()) return {};
    p.waitForFinished(-1);
    return p.readAllStandardOutput();
}

class MacScanner final : public DiskScanner {
public:
    QList<USBDrive> externalDrives() override {
        QList<USBDrive> out;
        const QStringList ids =
            diskutil::wholeDisks(diskutil({QStringLiteral("list"), QStringLiteral("-plist"), QStringLiteral("external"),
                                           QStringLiteral("physical")}));
        for (const QString& id : ids) {
            auto drive = diskutil::driveFromInfo(id, diskutil({QStringLiteral("info"), QStringLiteral("-plist"), id}));
            if (!drive) continue;
            // The raw node skips the buffer cache, which makes writing several times faster.
            drive->devicePath = QStringLiteral("/dev/r") + id;
            out.append(*drive);
        }
        return out;
    }

    bool unmountDisk(const QString& wholeDiskPath) override {
        QProcess p;
        p.setStandardInputFile(QProcess::nullDevice());
        p.setStandardOutputFile(QProcess::nullDevice());
        p.setStandardErrorFile(QProcess::nullDevice());
        p.start(kDiskutil, {QStringLiteral("unmountDisk"), QStringLiteral("force"), wholeDiskPath},
                QIODevice::ReadOnly);
        if (!p.waitForStarted()) return false;
        p.waitForFinished(-1);
        return p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
    }

    QString wholeDiskPath(const QString& id) const override { return QStringLiteral("/dev/") + id; }
};

}  // namespace

std::unique_ptr<DiskScanner> DiskScanner::platform() {
    return std::make_unique<MacScanner>();
}
