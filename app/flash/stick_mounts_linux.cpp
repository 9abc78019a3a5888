// Linux: /proc/self/mountinfo and sysfs tell which mounts sit on a disk; udisks mounts the new
// data partition for the user, as the desktop would on plugging the stick in.
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QThread>

#include "child_process.h"
#include "lsblk_parser.h"
#include "stick_mounts.h"

namespace {

constexpr int kPartitionWaitMs = 15000;  // udev reads the new table once the writer lets go
constexpr int kMountTimeoutMs = 30000;
constexpr int kSettleMs = 5000;  // a desktop's own automount may win the race; give it time to show
constexpr int kPollMs = 250;

QByteArray readAll(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();  // /proc and /sys say size 0
}

// "sdb" for /dev/disk/by-id/usb-...-0:0 or /dev/sdb; empty when the name leads to no device.
QString kernelName(const QString& disk) {
    QString real = QFileInfo(disk).canonicalFilePath();
    if (!real.startsWith(QLatin1String("/dev/"))) return QString();
    QString name = real.mid(5);
    return lsblk::isSafeDeviceName(name) ? name : QString();
}

// The whole disk a mounted device belongs to: /sys/devices/.../block/sdb/sdb2 -> "sdb".
QString diskOf(const QString& majorMinor) {
    QString dev = QFileInfo(QStringLiteral("/sys/dev/block/") + majorMinor).canonicalFilePath();
    qsizetype at = dev.lastIndexOf(QLatin1String("/block/"));
    return at < 0 ? QString() : dev.mid(at + 7).section(u'/', 0, 0);
}

// The disk's partitions in table order: (number, name).
QList<std::pair<int, QString>> partitions(const QString& name) {
    QList<std::pair<int, QString>> out;
    QDir sys(QStringLiteral("/sys/block/") + name);
    for (const QString& part : sys.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool ok = false;
        int number = readAll(sys.filePath(part + QStringLiteral("/partition"))).trimmed().toInt(&ok);
        if (ok && lsblk::isSafeDeviceName(part)) out.append({number, part});
    }
    std::sort(out.begin(), out.end());
    return out;
}

QString lastPartition(const QString& name) {
    QList<std::pair<int, QString>> parts = partitions(name);
    return parts.isEmpty() ? QString() : parts.last().second;
}

class LinuxStickMounts final : public StickMounts {
public:
    QList<Volumes::Mount> mounted(const QString& disk) override {
        QString name = kernelName(disk);
        if (name.isEmpty()) return {};
        QSet<QString> points;
        for (const lsblk::Mount& m : lsblk::parseMountinfo(readAll(QStringLiteral("/proc/self/mountinfo"))))
            if (diskOf(m.majorMinor) == name) points.insert(QDir::cleanPath(m.mountPoint));
        // The scan's own list, so a volume is named here as on the other tabs (and its backup
        // folder is the one the Backup tab uses).
        QList<Volumes::Mount> out;
        for (const Volumes::Mount& m : Volumes::mounted())
            if (points.contains(QDir::cleanPath(m.root))) out.append(m);
        return out;
    }

    std::optional<QString> dataRoot(const QString& disk) override {
        QString name = kernelName(disk), part = name.isEmpty() ? QString() : lastPartition(name);
        if (part.isEmpty()) return std::nullopt;
        QString dev =
            QString::fromLatin1(readAll(QStringLiteral("/sys/class/block/") + part + QStringLiteral("/dev")).trimmed());
        for (const lsblk::Mount& m : lsblk::parseMountinfo(readAll(QStringLiteral("/proc/self/mountinfo"))))
            if (m.majorMinor == dev) return m.mountPoint;
        return std::nullopt;
    }

    std::optional<QString> mountData(const QString& disk) override {
        QDeadlineTimer partitionsRead(kPartitionWaitMs);
        QString part;
        while ((part = dataPartition(disk)).isEmpty() && !partitionsRead.hasExpired()) QThread::msleep(kPollMs);
        if (part.isEmpty()) return std::nullopt;
        if (std::optional<QString> root = dataRoot(disk)) return root;
        QString udisks = ChildProcess::findTool(QStringLiteral("udisksctl"));
        if (!udisks.isEmpty())
            ChildProcess::run(udisks,
                              {QStringLiteral("mount"), QStringLiteral("--no-user-interaction"), QStringLiteral("-b"),
                               QStringLiteral("/dev/") + part},
                              kMountTimeoutMs);
        // Whoever mounted it (udisks for us, or the desktop on its own), the mount table says where.
        QDeadlineTimer settled(kSettleMs);
        for (;;) {
            if (std::optional<QString> root = dataRoot(disk)) return root;
            if (settled.hasExpired()) return std::nullopt;
            QThread::msleep(kPollMs);
        }
    }

private:
    // The data partition's name once its device node is there.
    static QString dataPartition(const QString& disk) {
        QString name = kernelName(disk), part = name.isEmpty() ? QString() : lastPartition(name);
        return !part.isEmpty() && QFileInfo::exists(QStringLiteral("/dev/") + part) ? part : QString();
    }
};

}  // namespace

std::unique_ptr<StickMounts> StickMounts::platform() { return std::make_unique<LinuxStickMounts>(); }
