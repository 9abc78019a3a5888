// Listing the external drives: both parsers over the recorded real outputs, against reading
// the same bytes as JSON or a property list alone; and a whole scan on this machine, lsblk
// included, against starting a program that does nothing.
#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>

#include "bench_timer.h"
#include "disk_scanner.h"
#include "diskutil_parser.h"
#include "lsblk_parser.h"

namespace {

QList<QByteArray> fixtures(const char* folder) {
    QList<QByteArray> out;
    QDir dir(QStringLiteral(QM_FIXTURES "/") + QLatin1String(folder));
    for (const QString& name : dir.entryList(QDir::Files)) {
        QFile f(dir.filePath(name));
        if (f.open(QIODevice::ReadOnly)) out << f.readAll();
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QList<QByteArray> lsblkOutputs = fixtures("lsblk"), plists = fixtures("diskutil");
    if (lsblkOutputs.isEmpty() || plists.isEmpty()) return 1;

    double parse = median_ms(200, [&] {
        for (const QByteArray& json : lsblkOutputs) keep(lsblk::parseDrives(json, {}));
    });
    double json = median_ms(200, [&] {
        for (const QByteArray& bytes : lsblkOutputs) keep(QJsonDocument::fromJson(bytes));
    });
    report("lsblk outputs parsed into drives (all fixtures)", parse, "the same bytes as JSON alone", json, 1);

    double info = median_ms(200, [&] {
        for (const QByteArray& plist : plists) {
            keep(diskutil::wholeDisks(plist));
            keep(diskutil::driveFromInfo(QStringLiteral("disk2"), plist));
        }
    });
    double wholeOnly = median_ms(200, [&] {
        for (const QByteArray& plist : plists) keep(diskutil::wholeDisks(plist));
    });
    report("diskutil outputs read as lists and infos (all fixtures)", info, "reading the lists alone", wholeOnly, 1);

    std::unique_ptr<DiskScanner> scanner = DiskScanner::platform();
    double scan = median_ms(15, [&] { keep(scanner->externalDrives()); });
    double spawn = median_ms(15, [] {
        QProcess p;
        p.start(QStringLiteral("/bin/true"), {});
        p.waitForFinished();
    });
    report("a whole scan of this machine (lsblk and /proc)", scan, "starting /bin/true", spawn, 100);
    return 0;
}
