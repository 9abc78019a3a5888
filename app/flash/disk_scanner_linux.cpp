// Linux: lsblk lists the disks; /proc tells which of them carry the running system.
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include "child_process.h"
#include "disk_links.h"
#include "disk_scanner.h"
#include "lsblk_parser.h"

namespace {

using ChildProcess::findTool;
using ChildProcess::run;

constexpr int kListTimeoutMs = 5000;
constexpr int kUnmountTimeoutMs = 15000;

QByteArray readProc(const QString& path) {
    QFile f(path);
    // /proc files report size 0: read until the end rather than by size.
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// /sys/devices/.../block/sda/sda2 -> the device's own name and its whole disk's name.
void addSysfsNames(const QString& majorMinor, QSet<QString>& names, int depth = 0) {
    static const QRegularExpression form(QStringLiteral("^[1-9][0-9]*:[0-9]+$"));  // 0:N is anonymous
    if (depth > 8 || !form.match(majorMinor).hasMatch()) return;
    const QString dev = QFileInfo(QStringLiteral("/sys/dev/block/") + majorMinor).canonicalFilePath();
    if (dev.isEmpty()) return;
    const QString self = dev.section(u'/', -1);
    names.insert(self);
    const qsizetype at = dev.lastIndexOf(u"/block/");
    if (at >= 0) names.insert(dev.mid(at + 7).section(u'/', 0, 0));
    // device-mapper and md: what they are built on carries the system too
    const QStringList slaves = QDir(dev + QStringLiteral("/slaves")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& s : slaves) {
        const QByteArray below = readProc(QStringLiteral("/sys/class/block/") + s + QStringLiteral("/dev"));
        addSysfsNames(QString::fromLatin1(below.trimmed()), names, depth + 1);
    }
}

// A /dev path by every name lsblk may use for it: /dev/mapper/vg-root is also dm-0.
void addDevicePath(const QString& path, QSet<QString>& names) {
    if (path.startsWith(u"/dev/")) {
        names.insert(path.section(u'/', -1));
        const QString real = QFileInfo(path).canonicalFilePath();
        if (!real.isEmpty()) names.insert(real.section(u'/', -1));
    }
    if (!path.startsWith(u'/')) return;  // "overlay", "tmpfs": no file to ask
    struct stat st {};
    const QByteArray native = QFile::encodeName(path);
    if (::stat(native.constData(), &st) != 0) return;
    // a block device names itself; a swap file names the file system it sits on
    const dev_t d = S_ISBLK(st.st_mode) ? st.st_rdev : st.st_dev;
    addSysfsNames(QStringLiteral("%1:%2").arg(major(d)).arg(minor(d)), names);
}

QSet<QString> systemDevices() {
    QSet<QString> names;
    for (const lsblk::Mount& m : lsblk::parseMountinfo(readProc(QStringLiteral("/proc/self/mountinfo")))) {
        if (!lsblk::isSystemMountPoint(m.mountPoint)) continue;
        addSysfsNames(m.majorMinor, names);
        addDevicePath(m.source, names);
    }
    for (const QString& swap : lsblk::parseSwaps(readProc(QStringLiteral("/proc/swaps"))))
        addDevicePath(swap, names);
    return names;
}

class LinuxScanner final : public DiskScanner {
public:
    QList<USBDrive> externalDrives() override {
        const QString tool = findTool(QStringLiteral("lsblk"));
        const QSet<QString> system = systemDevices();
        ChildProcess::Output r = run(tool, lsblk::arguments(true), kListTimeoutMs);
        // lsblk before 2.37 refuses the MOUNTPOINTS column outright
        if (!r.ok || r.out.trimmed().isEmpty()) r = run(tool, lsblk::arguments(false), kListTimeoutMs);
        QList<USBDrive> drives = lsblk::parseDrives(r.out, system);
        // The kernel hands a freed name to the next disk plugged in; the link names this one.
        const QHash<QString, QString> links = DiskLinks::best();
        for (USBDrive& d : drives) d.devicePath = links.value(d.id, QStringLiteral("/dev/") + d.id);
        return drives;
    }

    bool unmountDisk(const QString& wholeDiskPath) override {
        const QString id = wholeDiskPath.section(u'/', -1);
        if (wholeDiskPath != QStringLiteral("/dev/") + id || !lsblk::isSafeDeviceName(id)) return false;
        if (systemDevices().contains(id)) return false;
        QStringList parts;  // mounted file systems on the disk or its partitions, each once, newest first
        for (const lsblk::Mount& m : lsblk::parseMountinfo(readProc(QStringLiteral("/proc/self/mountinfo")))) {
            QSet<QString> names;
            addSysfsNames(m.majorMinor, names);
            addDevicePath(m.source, names);
            if (!names.contains(id) || !m.source.startsWith(u"/dev/")) continue;
            if (!parts.contains(m.source)) parts.prepend(m.source);  // a mount inside another goes first
        }
        const QString udisks = findTool(QStringLiteral("udisksctl"));
        const QString umount = findTool(QStringLiteral("umount"));
        bool all = true;
        for (const QString& part : parts) {
            bool done = false;
            if (!udisks.isEmpty())
                done = run(udisks, {QStringLiteral("unmount"), QStringLiteral("--no-user-interaction"),
                                    QStringLiteral("-b"), part},
                           kUnmountTimeoutMs).ok;
            // udisks refuses mounts it did not make; plain umount may still be allowed
            if (!done) done = run(umount, {part}, kUnmountTimeoutMs).ok;
            all = all && done;
        }
        return all;
    }

    QString wholeDiskPath(const QString& id) const override { return QStringLiteral("/dev/") + id; }
};

}  // namespace

std::unique_ptr<DiskScanner> DiskScanner::platform() {
    return std::make_unique<LinuxScanner>();
}
