#include "cloud_sync.h"

#include <sys/statvfs.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include "backup.h"
#include "cloud_platform.h"

namespace {

QString homeOf(const CloudSync::Probe& probe) { return probe.home.isEmpty() ? QDir::homePath() : probe.home; }

QString withSlash(const QString& path) {
    QString p = QDir::cleanPath(QDir(path).absolutePath());
    return p.endsWith(QLatin1Char('/')) ? p : p + QLatin1Char('/');
}

}  // namespace

QList<CloudFolder> CloudFolders::detect(const QString& home) {
    QString base = home.isEmpty() ? QDir::homePath() : home;
    QList<CloudFolder> found;
    QSet<QString> seen;  // one folder reached by two names (a link) is still one folder
    for (const CloudPlatform::Candidate& c : CloudPlatform::candidates(base)) {
        QFileInfo info(base + QLatin1Char('/') + c.relativePath);
        if (!info.isDir()) continue;
        QString canonical = info.canonicalFilePath();
        if (seen.contains(canonical)) continue;
        seen.insert(canonical);
        found.append({c.name, QDir::cleanPath(info.absoluteFilePath())});
    }
    return found;
}

namespace CloudSync {

std::optional<QString> service(const QString& path, const QList<CloudFolder>& folders) {
    QString target = withSlash(path);
    const CloudFolder* best = nullptr;
    qsizetype bestLength = -1;
    for (const CloudFolder& f : folders) {
        QString prefix = withSlash(f.path);
        if (target.startsWith(prefix) && prefix.size() > bestLength) {
            best = &f;
            bestLength = prefix.size();
        }
    }
    return best ? std::optional<QString>(best->name) : std::nullopt;
}

std::optional<QString> service(const QString& path, const Probe& probe) {
    return service(path, CloudFolders::detect(homeOf(probe)));
}

bool clientRunning(const QString& service) {
    QStringList names = CloudPlatform::clientNames(service);
    return names.isEmpty() || CloudPlatform::anyRunning(names);
}

bool clientInstalled(const QString& service) {
    QStringList names = CloudPlatform::clientNames(service);
    return names.isEmpty() || CloudPlatform::anyInstalled(names) || CloudPlatform::anyRunning(names);
}

bool uploadedByClient(const QString& service) {
    return !CloudPlatform::uploadsJudgedFromFiles(service) && clientRunning(service);
}

std::optional<int64_t> freeSpace(const QString& path) {
    // The folder may not exist yet: ask the file system of its nearest existing parent.
    QString existing = QDir::cleanPath(QDir(path).absolutePath());
    while (!QFileInfo::exists(existing) && existing != QLatin1String("/")) existing = QFileInfo(existing).path();
    struct statvfs fs {};
    if (::statvfs(QFile::encodeName(existing).constData(), &fs) != 0) return std::nullopt;
    return static_cast<int64_t>(fs.f_bavail) * static_cast<int64_t>(fs.f_frsize);
}

std::optional<QString> check(const QString& target, const Probe& probe) {
    if (std::optional<QString> waiting = CloudPlatform::uploadWarning(target, homeOf(probe))) return waiting;
    std::optional<QString> svc = service(target, probe);
    if (svc && !clientRunning(*svc)) {
        return *svc + QStringLiteral(" is not running on this computer, so the copies are ") +
               QStringLiteral("sitting in its folder rather than going anywhere. Open ") + *svc +
               QStringLiteral(" and they will upload.");
    }
    std::optional<int64_t> free = probe.freeSpace ? probe.freeSpace(target) : freeSpace(target);
    if (free && *free <= kLowSpace) {
        return QStringLiteral("The disk holding your copies has only ") + BackupResult::human(*free) +
               QStringLiteral(" ") + QStringLiteral("free. Copies will start failing soon.");
    }
    return std::nullopt;
}

std::optional<QString> uploadNote(const QString& target, const Probe& probe) {
    std::optional<QString> svc = service(target, probe);
    if (!svc || !uploadedByClient(*svc)) return std::nullopt;
    return QStringLiteral("The copies reach %1's folder and %1 uploads them. %2 does not report whether that "
                          "succeeded, so check %1 itself if it matters.")
        .arg(*svc, CloudPlatform::systemName());
}

}  // namespace CloudSync
